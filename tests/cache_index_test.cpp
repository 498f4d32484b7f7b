// The entries of a cache find exactly what an ordered map would, however keys collide
// or mix.
#include <doctest/doctest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "harness/colliding_numbers.h"
#include "harness/failing_new.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"
#include "harness/records.h"

namespace {

// More collisions than the index allows.
constexpr uint64_t kMany = 500;

struct File {
  std::string path;
  uint64_t size;
  uint64_t fileID;
  uint64_t mtime = 0;
  uint64_t deviceID = 0;
};

metadata_input_s KeyOf(const File& file, uint32_t fields) {
  metadata_input_s in{};
  in.path = file.path.c_str();
  in.size = file.size;
  in.fileID = file.fileID;
  in.mtime = file.mtime;
  in.deviceID = file.deviceID;
  in.fileOperation = fields;
  return in;
}

// Knowing the factors of the hash, one can make files that all hash alike.
struct Field {
  uint32_t bit;
  uint64_t factor;
  uint64_t File::*number;
};
constexpr Field kSize{KEY_SIZE, kFactorOfSizes, &File::size};
constexpr Field kMtime{KEY_MTIME, kFactorOfMtimes, &File::mtime};
constexpr Field kDevice{KEY_DEVICE_ID, kFactorOfDevices, &File::deviceID};
constexpr Field kFile{KEY_FILE_ID, kFactorOfFiles, &File::fileID};

// The number which, hashed as this field, completes the given rest to the hash that
// the others have.
uint64_t NumberToHashAlike(const Field& field, uint64_t rest, uint64_t which) {
  return NumberToHash(field.factor, 0x12345678, which, rest);
}

// Files that hash alike once paths are hashed as well, and not before.
std::vector<File> FilesAlikeWithPaths(size_t count) {
  std::vector<File> files;
  for (uint64_t i = 0; i < count; ++i) {
    File file{"/alike-" + std::to_string(i), 0, 9};
    const uint32_t hash = 0x12345678 - HashOfPath(LRUCacheKeyView(KeyOf(file, KEY_PATH)));
    file.size = NumberToHash(kFactorOfSizes, hash, i, HashOfNumber(9, kFactorOfFiles));
    files.push_back(file);
  }
  return files;
}

// A cache of either kind that empties itself when destroyed.
template <typename Cache>
class CacheOfFiles {
 public:
  // Started, so that it stores as the library's own does.
  CacheOfFiles() { cache.InitLRUCache(); }
  ~CacheOfFiles() { cache.FlushCache(); }

  int Store(const File& file, uint32_t fields) {
    metadata_input_s in = KeyOf(file, fields);
    Answer out;
    return cache.UpdateCache(&in, &out);
  }
  bool Holds(const File& file, uint32_t fields) {
    metadata_input_s in = KeyOf(file, fields);
    Answer out;
    return cache.QueryLRUCache(&in, &out) == LRU_HIT;
  }
  size_t Size() { return EntriesOf(cache).Size(); }
  size_t EntryCount() { return EntriesOf(cache).EntryCount(); }
  // A node next to one that may be there under the same key.
  void InsertBeside(const File& file, uint32_t fields) { InsertBesideIn(cache, file, fields); }

  Cache cache;

 private:
  template <typename Node, typename Metrics>
  static LRUCacheEntries& EntriesOf(LRUCacheT<LRUCacheKey, Node, Metrics>& cache) {
    return OpenedCache<LRUCacheKey, Node, Metrics>::Entries(cache);
  }
  template <typename Node, typename Metrics>
  static void InsertBesideIn(LRUCacheT<LRUCacheKey, Node, Metrics>& cache, const File& file,
                             uint32_t fields) {
    metadata_input_s in = KeyOf(file, fields);
    Answer out;
    LRUCacheKey key(in);
    cache.LRUCacheNodeUpdate(key, new Node(in, out), LRU_INSERT);
  }
};

// Stores the even ones of many files, each twice, and looks all of them up. Leaks nothing.
template <typename Cache>
void CheckThatEvenOnesAreFound(const std::vector<File>& files, uint32_t fields) {
  std::vector<bool> found(files.size());
  int refused = 0;
  size_t held = 0;
  const long before = LiveAllocations();
  {
    CacheOfFiles<Cache> cache;
    for (int times = 0; times < 2; ++times) {
      for (size_t i = 0; i < files.size(); i += 2) {
        if (cache.Store(files[i], fields) != 0) ++refused;
      }
    }
    held = cache.Size();
    for (size_t i = 0; i < files.size(); ++i) found[i] = cache.Holds(files[i], fields);
  }
  const long left = LiveAllocations() - before;
  CHECK(refused == 0);
  CHECK(held == (files.size() + 1) / 2);
  CHECK(left == 0);
  for (size_t i = 0; i < files.size(); ++i) {
    CAPTURE(files[i].path);
    CAPTURE(files[i].size);
    CHECK(found[i] == (i % 2 == 0));
  }
}

// Looks files up and stores them at random, in a cache that does not have room for all.
template <typename Cache>
void CheckThatOnlyRecentOnesAreFound(const std::vector<File>& files, size_t capacity) {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  CacheOfFiles<Cache> cache;
  cache.cache.SetCapacity(static_cast<unsigned int>(capacity));
  std::mt19937 random(1);
  std::vector<size_t> held;  // most recently used first
  for (int step = 0; step < 20000; ++step) {
    const size_t number = random() % files.size();
    const auto place = std::find(held.begin(), held.end(), number);
    const bool isHeld = place != held.end();
    REQUIRE(cache.Holds(files[number], kAllKeyBits) == isHeld);
    const bool stores = random() % 2 == 0;
    if (stores) cache.Store(files[number], kAllKeyBits);
    if (isHeld) {
      std::rotate(held.begin(), place, place + 1);
    } else if (stores) {
      held.insert(held.begin(), number);
      if (held.size() > capacity) held.pop_back();
    }
  }
}

// Stores the files in random orders and checks that a dump lists them in the one given.
template <typename Cache>
void CheckThatDumpIsInOrder(std::vector<File> files, uint32_t fields) {
  std::vector<std::string> expected;
  for (const File& file : files) {
    expected.push_back(file.path + ", size=" + std::to_string(file.size) + ", mtime=" +
                       std::to_string(file.mtime) + ", deviceID=" + std::to_string(file.deviceID) +
                       ", fileID=" + std::to_string(file.fileID));
  }
  for (unsigned int seed = 1; seed <= 5; ++seed) {
    std::shuffle(files.begin(), files.end(), std::mt19937(seed));
    CacheOfFiles<Cache> cache;
    for (const File& file : files) cache.Store(file, fields);
    const RecordedLog log;
    cache.cache.DumpCache();
    std::vector<std::string> keys;
    for (const LogRecord& record : log.Records()) {
      if (record.text.rfind("Key: ", 0) != 0) continue;
      keys.push_back(record.text.substr(record.text.find("path=") + 5));
    }
    CHECK(keys == expected);
  }
}

using Insertions = std::vector<size_t>;

// Which insertions allocate more than an entry: the first, those that begin a chunk of slots
// or rehash, and all while the keys are kept in order as well. Lookups by hash and by order
// give the same results; only memory shows the difference.
template <typename Cache>
Insertions MoreMemoryWith(const std::vector<File>& files) {
  CacheOfFiles<Cache> cache;
  std::vector<int> allocations;
  for (const File& file : files) {
    int made = 0;
    {
      const FailingNew counted(0, false);
      cache.Store(file, kAllKeyBits);
      made = counted.allocations;
    }
    allocations.push_back(made);
  }
  const int ofEntry = *std::min_element(allocations.begin(), allocations.end());
  Insertions more;
  for (size_t i = 0; i < files.size(); ++i) {
    if (allocations[i] > ofEntry) more.push_back(i);
  }
  return more;
}

std::string PathNumber(uint64_t number) { return "/usr/share/name-" + std::to_string(number); }

}  // namespace

TEST_CASE_TEMPLATE("files are told apart by their numbers", Cache, LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", i, i + 1});
  CheckThatEvenOnesAreFound<Cache>(files, kAllKeyBits);
}

TEST_CASE_TEMPLATE("many names of one file are told apart by their paths", Cache, LRUCache,
                   FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 9});
  CheckThatEvenOnesAreFound<Cache>(files, kAllKeyBits);
  CheckThatEvenOnesAreFound<Cache>(files, KEY_PATH | KEY_FILE_ID);
}

TEST_CASE_TEMPLATE("many names of one file are found whatever the fields that do not count", Cache,
                   LRUCache, FileTypeCache) {
  constexpr uint32_t kFields = KEY_PATH | KEY_FILE_ID;
  CacheOfFiles<Cache> files;
  for (uint64_t i = 0; i < kMany; ++i) files.Store({PathNumber(i), 7, 9}, kFields);
  for (const ORVEX_LOG level : {ORVEX_LOG_INFO, ORVEX_LOG_DEBUG}) {
    const RecordedLog log(level);
    for (uint64_t i = 0; i < kMany; ++i) {
      const File resized{PathNumber(i), 8, 9, 0, 2};
      CAPTURE(resized.path);
      CHECK(files.Holds(resized, kFields));
      CHECK(files.Store(resized, kFields) == 0);
    }
  }
  CHECK(files.Size() == kMany);
}

TEST_CASE_TEMPLATE("a node is inserted next to one that equals it in the fields that count", Cache,
                   LRUCache, FileTypeCache) {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  CacheOfFiles<Cache> files;
  files.InsertBeside({"/a", 1, 1}, KEY_PATH);
  files.InsertBeside({"/a", 2, 2}, KEY_PATH);
  CHECK(files.Size() == 2);
  CHECK(files.EntryCount() == 1);
}

TEST_CASE_TEMPLATE("a node is inserted next to one that equals it among files that hash alike",
                   Cache, LRUCache, FileTypeCache) {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  CacheOfFiles<Cache> files;
  for (int times = 0; times < 2; ++times) {
    for (uint64_t i = 0; i < 3; ++i) {
      files.InsertBeside({"/a", NumberToHashAlike(kSize, 0, i), 0}, kAllKeyBits);
    }
  }
  CHECK(files.Size() == 6);
  CHECK(files.EntryCount() == 3);
}

TEST_CASE("inserting under a cached key returns 201 among files that hash alike too") {
  CacheOfFiles<LRUCache> files;
  for (int times = 0; times < 2; ++times) {
    for (uint64_t i = 0; i < 3; ++i) {
      const File file{"/a", NumberToHashAlike(kSize, 0, i), 0};
      metadata_input_s in = KeyOf(file, kAllKeyBits);
      Answer out;
      LRUCacheKey key(in);
      auto node = std::make_unique<LRUCacheNode>(in, out);
      CHECK(files.cache.InsertCacheNode(key, node.get()) == (times == 0 ? 0 : 201));
      if (times == 0) node.release();
    }
  }
}

TEST_CASE_TEMPLATE("files without a file number are told apart by their paths", Cache, LRUCache,
                   FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 0, 0});
  CheckThatEvenOnesAreFound<Cache>(files, kAllKeyBits);
}

TEST_CASE_TEMPLATE("files whose numbers all hash alike are found all the same", Cache, LRUCache,
                   FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", NumberToHashAlike(kSize, 0, i), 0});
  CheckThatEvenOnesAreFound<Cache>(files, KEY_SIZE);
}

TEST_CASE_TEMPLATE("files whose sizes hash alike are found under any path if that does not count",
                   Cache, LRUCache, FileTypeCache) {
  CacheOfFiles<Cache> files;
  for (uint64_t i = 0; i < kMany; ++i) {
    files.Store({PathNumber(i), NumberToHashAlike(kSize, 0, i), 0}, KEY_SIZE);
  }
  for (uint64_t i = 0; i < kMany; ++i) {
    CAPTURE(i);
    CHECK(files.Holds({"/moved", NumberToHashAlike(kSize, 0, i), 0}, KEY_SIZE));
  }
}

TEST_CASE_TEMPLATE("files that hash alike are told apart by each number", Cache, LRUCache,
                   FileTypeCache) {
  const struct {
    const Field& first;
    const Field& second;
  } rows[] = {{kSize, kFile}, {kMtime, kSize}, {kDevice, kMtime}, {kFile, kDevice}};
  for (const auto& row : rows) {
    CAPTURE(row.first.bit);
    std::vector<File> files;
    for (uint64_t i = 0; i < 20; ++i) {
      File file{"/a", 0, 0};
      file.*row.second.number = i + 1;
      file.*row.first.number =
          NumberToHashAlike(row.first, HashOfNumber(i + 1, row.second.factor), i);
      files.push_back(file);
    }
    CheckThatEvenOnesAreFound<Cache>(files, row.first.bit | row.second.bit);
  }
}

TEST_CASE_TEMPLATE("files that hash alike and differ in a single number are told apart", Cache,
                   LRUCache, FileTypeCache) {
  const Field fields[] = {kSize, kMtime, kDevice, kFile};
  for (const Field& field : fields) {
    CAPTURE(field.bit);
    std::vector<File> files;
    for (uint64_t i = 0; i < 20; ++i) {
      File file{"/a", 5, 5, 5, 5};
      uint64_t rest = 0;
      for (const Field& other : fields) {
        if (other.bit != field.bit) rest += HashOfNumber(5, other.factor);
      }
      file.*field.number = NumberToHashAlike(field, rest, i);
      files.push_back(file);
    }
    CheckThatEvenOnesAreFound<Cache>(files, kAllKeyBits);
  }
}

TEST_CASE_TEMPLATE("files that hash alike with their paths are told apart by the device", Cache,
                   LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < 20; ++i) {
    File file{PathNumber(i), 0, 0};
    const uint32_t hash = 0x12345678 - HashOfPath(LRUCacheKeyView(KeyOf(file, KEY_PATH)));
    file.deviceID = NumberToHash(kFactorOfDevices, hash, i);
    files.push_back(file);
  }
  CheckThatEvenOnesAreFound<Cache>(files, KEY_PATH | KEY_DEVICE_ID);
}

TEST_CASE_TEMPLATE("names of one file are found among files whose paths then hash alike", Cache,
                   LRUCache, FileTypeCache) {
  std::vector<File> files = FilesAlikeWithPaths(kMany);
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 8});
  CheckThatEvenOnesAreFound<Cache>(files, kAllKeyBits);
}

TEST_CASE_TEMPLATE(
    "a name whose cells are taken is found if with it the names of a file become many", Cache,
    LRUCache, FileTypeCache) {
  const auto nameAt = [](uint64_t number) { return File{PathNumber(number), 7, 9}; };
  // The upper 13 bits of a hash select its cell.
  const auto cellAt = [&](uint64_t number) {
    const File file = nameAt(number);
    const metadata_input_s in = KeyOf(file, kAllKeyBits);
    return (HashOf(in) + HashOfPath(in)) >> 19;
  };
  std::vector<File> files;
  for (uint64_t i = 0; i < 126; ++i) files.push_back(nameAt(i));
  // The last three have one cell.
  for (uint64_t number = 126; files.size() < 129; ++number) {
    if (files.size() == 126 || cellAt(number) == cellAt(126)) files.push_back(nameAt(number));
  }
  CacheOfFiles<Cache> cache;
  for (const File& file : files) cache.Store(file, kAllKeyBits);
  for (const File& file : files) CHECK(cache.Holds(file, kAllKeyBits));
  // In the index: the ordered view would allocate for each that follows.
  files.push_back(nameAt(999999));
  CHECK(MoreMemoryWith<Cache>(files) == Insertions{0, 63, 127, 128});
}

TEST_CASE_TEMPLATE("files that hash alike with their paths are found after names of one file",
                   Cache, LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 8});
  for (const File& file : FilesAlikeWithPaths(kMany)) files.push_back(file);
  CheckThatEvenOnesAreFound<Cache>(files, kAllKeyBits);
}

TEST_CASE_TEMPLATE("names of one file are found even if memory ran out when they became many",
                   Cache, LRUCache, FileTypeCache) {
  // This many go in by their numbers.
  constexpr uint64_t kMostAlike = 128;
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  std::vector<File> names;
  for (uint64_t i = 0; i < kMostAlike; ++i) names.push_back({PathNumber(i), 7, 9});
  const File last{PathNumber(kMostAlike), 7, 9};
  int points = 0;
  for (int failures = 1; failures != 0; ++points) {
    CAPTURE(points);
    CacheOfFiles<Cache> files;
    for (const File& name : names) files.Store(name, kAllKeyBits);
    int code = 0;
    {
      const FailingNew failing(points + 1, false);
      code = files.Store(last, kAllKeyBits);
      failures = failing.failures;
    }
    CHECK(BrokenInvariant(files.cache) == "");
    CHECK(files.Holds(last, kAllKeyBits) == (code == 0));
    for (const File& name : names) CHECK(files.Holds(name, kAllKeyBits));
  }
  CHECK(points > 1);
}

TEST_CASE_TEMPLATE("many files that have fields in common are dumped in the order of the others",
                   Cache, LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < 96; ++i) {
    files.push_back({i < 48 ? "/a" : "/b", i / 16 % 3, i % 4, i / 8 % 2, i / 4 % 2});
  }
  CheckThatDumpIsInOrder<Cache>(files, kAllKeyBits);
}

TEST_CASE_TEMPLATE("fields that do not count change nothing in the order of a dump", Cache,
                   LRUCache, FileTypeCache) {
  std::vector<File> byFile, bySize;
  for (uint64_t i = 0; i < 64; ++i) {
    const std::string path = PathNumber(i * 37 % 64);
    byFile.push_back({path, i * 11 % 64, i, i * 7 % 64, 64 - i});
    bySize.push_back({path, i, 64 - i, i * 7 % 64, i * 11 % 64});
  }
  CheckThatDumpIsInOrder<Cache>(byFile, KEY_FILE_ID);
  CheckThatDumpIsInOrder<Cache>(bySize, KEY_SIZE);
}

TEST_CASE_TEMPLATE("files that are told apart by their numbers are not kept in order", Cache,
                   LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", i, i + 1});
  CHECK(MoreMemoryWith<Cache>(files) == Insertions{0, 63, 127, 191, 255, 319, 383, 447});
}

TEST_CASE_TEMPLATE("names of one file are rehashed by their paths and not kept in order", Cache,
                   LRUCache, FileTypeCache) {
  // Of several directories: in some of them two names meet when it matters.
  for (char directory = 'a'; directory <= 'p'; ++directory) {
    CAPTURE(directory);
    std::vector<File> files;
    for (uint64_t i = 0; i < kMany; ++i) {
      files.push_back({"/" + std::string(1, directory) + PathNumber(i), 7, 9});
    }
    CHECK(MoreMemoryWith<Cache>(files) == Insertions{0, 63, 127, 128, 191, 255, 319, 383, 447});
  }
}

TEST_CASE_TEMPLATE("files that hash alike are kept in order once there are too many", Cache,
                   LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", NumberToHashAlike(kSize, 0, i), 0});
  Insertions expected{0, 63, 127};
  for (size_t i = 128; i < kMany; ++i) expected.push_back(i);
  CHECK(MoreMemoryWith<Cache>(files) == expected);
}

TEST_CASE_TEMPLATE("files are found by one mask after files of another came in, and after a flush",
                   Cache, LRUCache, FileTypeCache) {
  CacheOfFiles<Cache> files;
  files.Store({"/a", 1, 1}, KEY_PATH);
  CHECK(files.Holds({"/a", 2, 2}, KEY_PATH));
  files.Store({"/b", 1, 1}, KEY_PATH | KEY_SIZE);
  CHECK(files.Holds({"/a", 2, 2}, KEY_PATH));
  CHECK(files.Holds({"/b", 1, 2}, KEY_PATH | KEY_SIZE));
  files.cache.FlushCache();
  CHECK_FALSE(files.Holds({"/a", 2, 2}, KEY_PATH));
  files.Store({"/c", 1, 1}, KEY_SIZE);
  CHECK(files.Holds({"/d", 1, 2}, KEY_SIZE));
}

TEST_CASE_TEMPLATE("an entry is removed with its node, and keys that shared it are no longer found",
                   Cache, LRUCache, FileTypeCache) {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  CacheOfFiles<Cache> files;
  files.cache.SetCapacity(2);
  const File file{"/a", 1, 1};
  for (int i = 0; i < 2; ++i) files.InsertBeside(file, kAllKeyBits);
  CHECK(files.Holds(file, kAllKeyBits));
  files.cache.SetCapacity(1);
  CHECK_FALSE(files.Holds(file, kAllKeyBits));
  CHECK(BrokenInvariant(files.cache, true) == "");
  files.cache.SetCapacity(2);
  for (uint64_t i = 2; i < 5; ++i) files.Store({"/a", i, i}, kAllKeyBits);
  CHECK_FALSE(files.Holds(file, kAllKeyBits));
  CHECK(BrokenInvariant(files.cache) == "");
}

TEST_CASE_TEMPLATE("after mixed masks an evicted file is not found once no entry was left", Cache,
                   LRUCache, FileTypeCache) {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  CacheOfFiles<Cache> files;
  files.Store({"/a", 1, 1}, KEY_SIZE);
  for (int i = 0; i < 2; ++i) files.InsertBeside({"/b", 2, 2}, KEY_SIZE | KEY_PATH);
  // Of the nodes of one entry the first takes it along, and one without an entry is left.
  files.cache.SetCapacity(1);
  files.cache.SetCapacity(2);
  files.Store({"/c", 3, 3}, KEY_SIZE);
  CHECK(files.Size() == 2);
  CHECK_FALSE(files.Holds({"/a", 1, 1}, KEY_SIZE));
  CHECK(BrokenInvariant(files.cache, true) == "");
}

TEST_CASE_TEMPLATE("what is found stays right while files come and go at random", Cache, LRUCache,
                   FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < 300; ++i) files.push_back({PathNumber(i % 7), i, i / 50});
  CheckThatOnlyRecentOnesAreFound<Cache>(files, 100);
}

TEST_CASE_TEMPLATE("what is found stays right while files that hash alike come and go", Cache,
                   LRUCache, FileTypeCache) {
  std::vector<File> files;
  for (uint64_t i = 0; i < 300; ++i) files.push_back({"/a", NumberToHashAlike(kSize, 0, i), 0});
  CheckThatOnlyRecentOnesAreFound<Cache>(files, 150);
}
