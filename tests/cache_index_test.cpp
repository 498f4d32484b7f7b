// The hash index finds exactly what the ordered map would, however keys collide or
// mix.
#include <doctest/doctest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/failing_new.h"
#include "support/open_hash_cache.h"
#include "support/records.h"

namespace {

// Enough to make the table grow several times.
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

// Who knows by which factors the index hashes can make files that all hash alike.
struct Field {
  uint32_t bit;
  uint64_t factor;
  uint64_t File::*number;
};
constexpr Field kSize{KEY_SIZE, 0xBB67AE8584CAA73B, &File::size};
constexpr Field kMtime{KEY_MTIME, 0x3C6EF372FE94F82B, &File::mtime};
constexpr Field kDevice{KEY_DEVICE_ID, 0xA54FF53A5F1D36F1, &File::deviceID};
constexpr Field kFile{KEY_FILE_ID, 0x510E527FADE682D1, &File::fileID};
constexpr uint64_t kPathFactor = 0x9B05688C2B3E6C1F;

uint64_t Inverse(uint64_t factor) {
  uint64_t inverse = factor;
  for (int i = 0; i < 5; ++i) inverse *= 2 - factor * inverse;  // Newton's method
  return inverse;
}

// The number which, hashed by the field, makes a hash of given rest the one that the
// others have.
uint64_t NumberToHashAlike(const Field& field, uint64_t rest, uint64_t which) {
  return Inverse(field.factor) * ((uint64_t{0x12345678} << 32) + which - rest);
}

// Files that hash alike once paths are hashed as well, and not before.
std::vector<File> FilesAlikeWithPaths(size_t count) {
  std::vector<File> files;
  for (uint64_t i = 0; i < count; ++i) {
    const std::string path = "/alike-" + std::to_string(i);
    const uint64_t rest = 9 * kFile.factor + std::hash<std::string>()(path) * kPathFactor;
    files.push_back({path, NumberToHashAlike(kSize, rest, i), 9});
  }
  return files;
}

void Store(OpenHashCache& cache, const File& file, uint32_t fields) {
  metadata_input_s in = KeyOf(file, fields);
  Answer out;
  REQUIRE(cache.UpdateCache(&in, &out) == 0);
}

bool Holds(OpenHashCache& cache, const File& file, uint32_t fields) {
  metadata_input_s in = KeyOf(file, fields);
  Answer out;
  return cache.QueryLRUCache(&in, &out) == LRU_HIT;
}

// Stores the even ones of many files and looks all of them up. No memory stays behind.
void CheckThatEvenOnesAreFound(const std::vector<File>& files, uint32_t fields) {
  std::vector<bool> found(files.size());
  const long before = LiveAllocations();
  {
    OpenHashCache cache;
    for (size_t i = 0; i < files.size(); i += 2) Store(cache, files[i], fields);
    for (size_t i = 0; i < files.size(); ++i) found[i] = Holds(cache, files[i], fields);
  }
  const long left = LiveAllocations() - before;
  CHECK(left == 0);
  for (size_t i = 0; i < files.size(); ++i) {
    CAPTURE(files[i].path);
    CAPTURE(files[i].size);
    CHECK(found[i] == (i % 2 == 0));
  }
}

using Insertions = std::vector<size_t>;

// At which of the insertions the index asks for memory. It grows as long as it works:
// what it finds by itself and what it leaves to the map are the same, only its memory
// tells.
Insertions GrowthsWith(const std::vector<File>& files) {
  OpenHashCache cache;
  std::vector<int> allocations;
  for (const File& file : files) {
    metadata_input_s in = KeyOf(file, kAllKeyBits);
    Answer out;
    int made = 0;
    {
      const FailingNew counted(0, false);
      cache.UpdateCache(&in, &out);
      made = counted.allocations;
    }
    allocations.push_back(made);
  }
  // All take what an entry takes, some a table as well.
  const int ofEntry = *std::min_element(allocations.begin(), allocations.end());
  Insertions growths;
  for (size_t i = 0; i < files.size(); ++i) {
    if (allocations[i] > ofEntry) growths.push_back(i);
  }
  return growths;
}

std::string PathNumber(uint64_t number) { return "/usr/share/name-" + std::to_string(number); }

}  // namespace

TEST_CASE("files are told apart by their numbers") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", i, i + 1});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("many names of one file are told apart by their paths") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 9});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("files without a file number are told apart by their paths") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 0, 0});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("files whose numbers all hash alike are found all the same") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", NumberToHashAlike(kSize, 0, i), 0});
  CheckThatEvenOnesAreFound(files, KEY_SIZE);
}

TEST_CASE("files that hash alike are told apart by each number") {
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
      file.*row.first.number = NumberToHashAlike(row.first, (i + 1) * row.second.factor, i);
      files.push_back(file);
    }
    CheckThatEvenOnesAreFound(files, row.first.bit | row.second.bit);
  }
}

TEST_CASE("files that hash alike with their paths are told apart by the device") {
  std::vector<File> files;
  for (uint64_t i = 0; i < 20; ++i) {
    File file{PathNumber(i), 0, 0};
    const uint64_t rest = std::hash<std::string>()(file.path) * kPathFactor;
    file.deviceID = NumberToHashAlike(kDevice, rest, i);
    files.push_back(file);
  }
  CheckThatEvenOnesAreFound(files, KEY_PATH | KEY_DEVICE_ID);
}

TEST_CASE("names of one file are found beside files whose paths then hash alike") {
  std::vector<File> files = FilesAlikeWithPaths(kMany);
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 8});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("files that hash alike with their paths are found after names of one file") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 8});
  for (const File& file : FilesAlikeWithPaths(kMany)) files.push_back(file);
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("the index grows by doubling while files are told apart by their numbers") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", i, i + 1});
  CHECK(GrowthsWith(files) == Insertions{0, 32, 64, 128, 256});
}

TEST_CASE("the index grows by doubling while names of one file are told apart by their paths") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 9});
  CHECK(GrowthsWith(files) == Insertions{0, 32, 64, 128, 256});
}

TEST_CASE("the index grows no more once it meets too many files that hash alike") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", NumberToHashAlike(kSize, 0, i), 0});
  CHECK(GrowthsWith(files) == Insertions{0, 32, 64});
}

TEST_CASE("files are found by one mask after files of another came in, and after a flush") {
  OpenHashCache cache;
  Store(cache, {"/a", 1, 1}, KEY_PATH);
  CHECK(Holds(cache, {"/a", 2, 2}, KEY_PATH));
  Store(cache, {"/b", 1, 1}, KEY_PATH | KEY_SIZE);
  CHECK(Holds(cache, {"/a", 2, 2}, KEY_PATH));
  CHECK(Holds(cache, {"/b", 1, 2}, KEY_PATH | KEY_SIZE));
  cache.FlushCache();
  CHECK_FALSE(Holds(cache, {"/a", 2, 2}, KEY_PATH));
  Store(cache, {"/c", 1, 1}, KEY_SIZE);
  CHECK(Holds(cache, {"/d", 1, 2}, KEY_SIZE));
}

TEST_CASE("an entry that goes with another's node is no longer found") {
  OpenHashCache cache;
  cache.SetCapacity(2);
  const File file{"/a", 1, 1};
  metadata_input_s in = KeyOf(file, kAllKeyBits);
  Answer out;
  LRUCacheKey key(in);
  // Two nodes of one key, which only this operation lets in.
  for (int i = 0; i < 2; ++i) cache.LRUCacheNodeUpdate(key, new LRUCacheNode(in, out), LRU_INSERT);
  CHECK(Holds(cache, file, kAllKeyBits));
  for (uint64_t i = 2; i < 5; ++i) Store(cache, {"/a", i, i}, kAllKeyBits);
  CHECK_FALSE(Holds(cache, file, kAllKeyBits));
  CHECK(cache.CacheNodeList.size() == 2);
}

TEST_CASE("what is found stays right while files come and go at random") {
  OpenHashCache cache;
  cache.SetCapacity(100);
  std::mt19937 random(1);
  for (int step = 0; step < 20000; ++step) {
    const uint64_t number = random() % 300;
    const File file{PathNumber(number % 7), number, number / 50};
    metadata_input_s in = KeyOf(file, kAllKeyBits);
    const bool inMap = cache.CacheMap.find(LRUCacheKey(in)) != cache.CacheMap.end();
    REQUIRE(Holds(cache, file, kAllKeyBits) == inMap);
    if (random() % 2 == 0) Store(cache, file, kAllKeyBits);
  }
}
