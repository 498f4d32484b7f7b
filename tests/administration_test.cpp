// The functions that go straight to the caches, with no engine initialised.
#include <doctest/doctest.h>

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "harness/recorded_log.h"
#include "harness/records.h"
#include "harness/virtual_table.h"
#include "support/orvex_profiling.h"

namespace {

std::string Inserted(const char* path) {
  return "DEBUG LRUCacheNodeUpdate orvex_lru_cache: Insert new cache node: path=" +
         std::string(path);
}

std::string Count(const char* operation, const char* container, int count) {
  return "DEBUG " + std::string(operation) + " orvex_lru_cache: " + container +
         ".size=" + std::to_string(count);
}

void Push(const char* path) {
  metadata_input_s in = InputFor(path);
  Answer out;
  GiveDigests(out, kAllDigests, 1);
  orvex_update_metadata(&in, &out);
}

// Fills the file type cache, which no function pushes into.
void StoreFileType(const char* path) {
  metadata_input_s in = InputFor(path);
  Answer out;
  TypeCache().UpdateCache(&in, &out);
}

// How many entries a dump finds in the hash cache and in the file type cache.
std::pair<int, int> Entries() {
  RecordedLog log;
  orvex_dump_cache();
  std::pair<int, int> counts{-1, -1};
  for (const LogRecord& record : log.Records()) {
    const std::string head = "CacheNodeList.size=";
    if (record.text.rfind(head, 0) != 0) continue;
    (counts.first < 0 ? counts.first : counts.second) = std::stoi(record.text.substr(head.size()));
  }
  return counts;
}

// Leaves both caches as a stopped engine would: nothing else empties them here.
class EmptiedAtTheEnd {
 public:
  ~EmptiedAtTheEnd() {
    orvex_flush_cache(ORVEX_HASH_CACHE);
    orvex_flush_cache(ORVEX_FILE_TYPE_CACHE);
  }
};

}  // namespace

TEST_CASE_FIXTURE(EmptiedAtTheEnd, "metadata can be pushed into the hash cache alone") {
  RecordedLog log;
  Push("/a");
  CHECK(log.TakeTranscript() == Lines({Inserted("/a")}));
  CHECK(Entries() == std::pair(1, 0));
}

TEST_CASE_FIXTURE(EmptiedAtTheEnd, "pushing metadata returns 0 whether it stored or not") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(orvex_update_metadata(&in, &out) == 0);
  CHECK(orvex_update_metadata(nullptr, &out) == 0);
  CHECK(orvex_update_metadata(&in, nullptr) == 0);
  CHECK(orvex_update_metadata(nullptr, nullptr) == 0);
  LRUCacheMetrics_s metrics;
  HashCache().GetMetrics(metrics);
  CHECK(metrics.numOfCacheUpdateMetaDataSuccess == 1);
  CHECK(metrics.numOfCacheUpdateMetaDataFailure == 3);
}

TEST_CASE_FIXTURE(EmptiedAtTheEnd, "metadata can be pushed without a path") {
  metadata_input_s in = InputFor(nullptr);
  Answer out;
  RecordedLog log;
  CHECK(orvex_update_metadata(&in, &out) == 0);
  CHECK(log.TakeTranscript() == Lines({Inserted("")}));
}

TEST_CASE("a dump before anything else finds two empty caches") {
  RecordedLog log;
  orvex_dump_cache();
  const std::string capacity = "DEBUG DumpCache orvex_lru_cache: Cache capacity = 4096";
  const std::string noEntries = Count("DumpCacheMap", "CacheMap", 0);
  const std::string noNodes = Count("DumpCacheNodeList", "CacheNodeList", 0);
  CHECK(log.TakeTranscript() == Lines({"DEBUG orvex_dump_cache orvex_user: >>> DumpCache", capacity,
                                       noEntries, noNodes, capacity, noEntries, noNodes}));
}

TEST_CASE("flushing empties the cache it names and no other") {
  Push("/a");
  StoreFileType("/b");
  CHECK(Entries() == std::pair(1, 1));
  CHECK(orvex_flush_cache(0) == 0);
  CHECK(Entries() == std::pair(0, 1));
  CHECK(orvex_flush_cache(1) == 0);
  CHECK(Entries() == std::pair(0, 0));
}

TEST_CASE_FIXTURE(EmptiedAtTheEnd, "flushing an unknown cache returns 3 and logs nothing") {
  Push("/a");
  RecordedLog log;
  for (const int unknown : {-1, 2, INT_MAX, INT_MIN}) CHECK(orvex_flush_cache(unknown) == 3);
  CHECK(log.TakeTranscript() == "");
  CHECK(Entries() == std::pair(1, 0));
}

TEST_CASE("flushing returns the code of the cache it names") {
  const ReplacedOperation hash(
      &HashCache(), kHashCacheSlots, 4, +[](void*) { return 55; });
  const ReplacedOperation fileType(
      &TypeCache(), kFileTypeCacheSlots, 4, +[](void*) { return 56; });
  CHECK(orvex_flush_cache(0) == 55);
  CHECK(orvex_flush_cache(1) == 56);
}

TEST_CASE_FIXTURE(EmptiedAtTheEnd, "each cache keeps 4096 entries by default") {
  const auto storeOne = [](int number) {
    const std::string path = "/" + std::to_string(number);
    Push(path.c_str());
    StoreFileType(path.c_str());
  };
  for (int i = 0; i < 4096; ++i) storeOne(i);
  CHECK(Entries() == std::pair(4096, 4096));
  storeOne(4096);
  CHECK(Entries() == std::pair(4096, 4096));
}

TEST_CASE("a capacity out of range means 4096") {
  for (const int cache : {0, 1}) {
    for (const int asked : {0, -5, 5000, 4097, INT_MAX, INT_MIN}) {
      CAPTURE(cache);
      CAPTURE(asked);
      RecordedLog log;
      CHECK(orvex_set_cache_capacity(cache, asked) == 0);
      CHECK(log.TakeTranscript() ==
            Lines({"INFO SetCapacity orvex_lru_cache: Set max cache capacity to 4096"}));
    }
  }
}

TEST_CASE_FIXTURE(
    EmptiedAtTheEnd,
    "setting the capacity trims the cache it names at once to its most recent entries") {
  for (const char* path : {"/a", "/b", "/c"}) {
    Push(path);
    StoreFileType(path);
  }
  CHECK(orvex_set_cache_capacity(1, 1) == 0);
  CHECK(Entries() == std::pair(3, 1));
  CHECK(orvex_set_cache_capacity(0, 2) == 0);
  CHECK(Entries() == std::pair(2, 1));
  RecordedLog log;
  orvex_dump_cache();
  CHECK(log.CountOf("path=/a,") == 0);
  CHECK(log.CountOf("Node: path=/c major=0") == 1);
}

TEST_CASE("setting the capacity of an unknown cache returns 3 and logs nothing") {
  RecordedLog log;
  for (const int unknown : {-1, 2, INT_MAX, INT_MIN}) {
    CHECK(orvex_set_cache_capacity(unknown, 100) == 3);
  }
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("profiling is switched on and off and reports its state") {
  bool enabled = true;
  CHECK(orvex_profiling_get_enable(&enabled) == 0);
  CHECK_FALSE(enabled);
  CHECK(orvex_profiling_set_enable(true) == 0);
  CHECK(orvex_profiling_get_enable(&enabled) == 0);
  CHECK(enabled);
  CHECK(ORVEX_Profiling::EnableProfiling);
  CHECK(orvex_profiling_set_enable(false) == 0);
  CHECK(orvex_profiling_get_enable(&enabled) == 0);
  CHECK_FALSE(enabled);
}

TEST_CASE("every database function returns 312 and does nothing") {
  RecordedLog log;
  bool enabled = true;
  int status = 77;
  CHECK(orvex_db_init() == 312);
  CHECK(orvex_db_set_enable(true) == 312);
  CHECK(orvex_db_get_enable(&enabled) == 312);
  CHECK(orvex_db_get_enable(nullptr) == 312);
  CHECK(orvex_db_get_status(&status) == 312);
  CHECK(orvex_db_get_status(nullptr) == 312);
  CHECK(enabled);
  CHECK(status == 77);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("keys of mixed masks may share an entry, which is evicted with the first of them") {
  const auto pushWith = [](uint32_t mask, const char* path, uint64_t size) {
    metadata_input_s in = InputFor(path);
    in.size = size;
    in.fileOperation = mask;
    Answer out;
    orvex_update_metadata(&in, &out);
  };
  // Map entries and nodes of the hash cache, whose dump comes first.
  const auto sizes = [] {
    RecordedLog log;
    orvex_dump_cache();
    std::vector<int> found;
    for (const LogRecord& record : log.Records()) {
      const size_t at = record.text.find(".size=");
      if (at != std::string::npos) found.push_back(std::stoi(record.text.substr(at + 6)));
    }
    return std::pair(found.at(0), found.at(1));
  };
  // The lookup goes by the mask of entry "/b", its path, the insertion by that of the
  // new key, its size.
  pushWith(KEY_PATH, "/b", 2);
  pushWith(KEY_SIZE, "/d", 1);
  pushWith(KEY_SIZE, "/d", 1);
  CHECK(sizes() == std::pair(2, 3));
  orvex_set_cache_capacity(0, 1);
  CHECK(sizes() == std::pair(0, 1));
  pushWith(KEY_SIZE, "/e", 5);
  CHECK(sizes() == std::pair(1, 1));
  CHECK(orvex_flush_cache(0) == 0);
  CHECK(Entries().first == 0);
}
