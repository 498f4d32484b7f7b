// The least-recently-used cache under both caches, with a key and a node of its own.
#include <doctest/doctest.h>

#include <map>
#include <new>
#include <string>
#include <vector>

#include "cache/orvex_lru_cache_t.h"
#include "harness/recorded_log.h"

namespace {

int liveNodes = 0;
bool memoryIsOut = false;

// Orders files by size, which is all there is to them here.
struct SizeKey {
  explicit SizeKey(metadata_input_s& in) : size(in.size) {}
  bool operator<(const SizeKey& right) const { return size < right.size; }
  void Dump() const {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, "test", "key %d", static_cast<int>(size));
  }

  uint64_t size;
};

struct PathNode {
  PathNode(metadata_input_s& in, metadata_output_s& out) {
    SetDataToCacheNode(in, out);
    ++liveNodes;
  }
  ~PathNode() { --liveNodes; }
  void SetDataToCacheNode(metadata_input_s& in, metadata_output_s&) {
    if (memoryIsOut) throw std::bad_alloc();
    path = in.path;
  }
  void Dump() const { ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, "test", "node %s", path.c_str()); }

  LRUCacheMap<SizeKey, PathNode>::iterator mapEntry;
  std::string path;
};

struct OneCounter {
  alignas(8) long long evictions = 0;
  alignas(8) long long untouched = 0;
};

// The rules of its own that a subclass adds; its parts are open to the tests.
class SizeCache : public LRUCacheT<SizeKey, PathNode, OneCounter> {
 public:
  using LRUCacheT::active;
  using LRUCacheT::CacheMap;
  using LRUCacheT::CacheNodeList;
  using LRUCacheT::capacity;
  using LRUCacheT::metrics;
  using LRUCacheT::queryCallback;

  ~SizeCache() { FlushCache(); }

  int Query(metadata_input_s*, metadata_output_s*, void*) override { return 0; }
  int GetMetrics(OneCounter& out) const override {
    out = metrics;
    return 0;
  }
  void DumpMetrics() const override {}
  int QueryLRUCache(metadata_input_s*, metadata_output_s*) override { return LRU_MISS; }
  void LRUCacheNodeWipe() override {
    while (IsBeyondCapacity()) {
      EvictOldest();
      ++metrics.evictions;
    }
  }

  // Stores a node under a size and returns the code.
  int Store(uint64_t size, const char* path) {
    metadata_input_s in{};
    in.size = size;
    in.path = path;
    metadata_output_s out{};
    return UpdateCache(&in, &out);
  }

  // The paths from the most to the least recently used.
  std::vector<std::string> Paths() const {
    std::vector<std::string> paths;
    for (const PathNode* node : CacheNodeList) paths.push_back(node->path);
    return paths;
  }
};

using Paths = std::vector<std::string>;

SizeKey KeyOf(uint64_t size) {
  metadata_input_s in{};
  in.size = size;
  return SizeKey(in);
}

int SomeCallback(metadata_input_s*, metadata_output_s*, void*) { return 0; }

}  // namespace

TEST_CASE("a new cache is empty and inactive and has the largest capacity") {
  const SizeCache cache;
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.CacheMap.empty());
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.capacity == 4096);
  CHECK((cache.queryCallback == nullptr));
  CHECK(cache.metrics.evictions == 0);
}

TEST_CASE("initialising a cache makes it active without a word") {
  RecordedLog log;
  SizeCache cache;
  CHECK(cache.InitLRUCache() == 0);
  CHECK(cache.IsInit());
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("beyond its capacity a cache evicts the least recently stored") {
  SizeCache cache;
  cache.SetCapacity(2);
  CHECK(cache.Store(1, "/a") == 0);
  CHECK(cache.Store(2, "/b") == 0);
  CHECK(cache.Store(3, "/c") == 0);
  CHECK(cache.Paths() == Paths{"/c", "/b"});
  CHECK(cache.metrics.evictions == 1);
  CHECK(cache.CacheMap.find(KeyOf(1)) == cache.CacheMap.end());
}

TEST_CASE("storing under a key that is cached merges, moves to the front and evicts nothing") {
  SizeCache cache;
  cache.SetCapacity(2);
  cache.Store(1, "/a");
  cache.Store(2, "/b");
  CHECK(cache.Store(1, "/a2") == 0);
  CHECK(cache.Paths() == Paths{"/a2", "/b"});
  CHECK(cache.metrics.evictions == 0);
  CHECK(liveNodes == 2);
}

TEST_CASE("every map entry designates the place of its own node") {
  SizeCache cache;
  for (const int size : {5, 3, 8, 3, 1, 5}) cache.Store(static_cast<uint64_t>(size), "/x");
  REQUIRE(cache.CacheMap.size() == cache.CacheNodeList.size());
  for (auto entry = cache.CacheMap.begin(); entry != cache.CacheMap.end(); ++entry) {
    CHECK((*entry->second)->mapEntry == entry);
  }
}

TEST_CASE("storing tells what it did at DEBUG") {
  RecordedLog log;
  SizeCache cache;
  cache.Store(1, "/a");
  cache.Store(1, "/b");
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG LRUCacheNodeUpdate orvex_lru_cache: Insert new cache node: path=/a",
               "DEBUG LRUCacheNodeUpdate orvex_lru_cache: Cache node updated: path=/b"}));
}

TEST_CASE("storing without both records is refused with 3 and without a word") {
  RecordedLog log;
  SizeCache cache;
  metadata_input_s in{};
  metadata_output_s out{};
  for (const bool throughUpdate : {false, true}) {
    const auto store = [&](metadata_input_s* i, metadata_output_s* o) {
      return throughUpdate ? cache.UpdateMetaData(i, o) : cache.UpdateCache(i, o);
    };
    CHECK(store(nullptr, nullptr) == 3);
    CHECK(store(&in, nullptr) == 3);
    CHECK(store(nullptr, &out) == 3);
  }
  CHECK(log.TakeTranscript() == "");
  CHECK(cache.CacheNodeList.empty());
}

TEST_CASE("a node that cannot be made is an error and leaves the cache as it was") {
  SizeCache cache;
  cache.SetCapacity(1);
  cache.Store(1, "/a");
  RecordedLog log;
  memoryIsOut = true;
  CHECK(cache.Store(2, "/b") == 2);
  CHECK(cache.Store(1, "/a2") == 2);
  memoryIsOut = false;
  CHECK(log.TakeTranscript() ==
        Lines({"ERROR UpdateCache orvex_lru_cache: Insufficient memory for create cache node",
               "ERROR UpdateCache orvex_lru_cache: Insufficient memory for create cache node"}));
  CHECK(cache.Paths() == Paths{"/a"});
  CHECK(liveNodes == 1);
}

TEST_CASE("an inactive cache can be filled") {
  SizeCache cache;
  CHECK(cache.Store(1, "/a") == 0);
  CHECK(cache.Paths() == Paths{"/a"});
}

TEST_CASE("a capacity of 1 to 4096 is kept and any other means 4096") {
  const struct {
    unsigned int asked;
    unsigned int kept;
  } rows[] = {{1, 1},       {2, 2},    {4095, 4095},        {4096, 4096},
              {4097, 4096}, {0, 4096}, {4294967295u, 4096}, {4294967291u, 4096}};
  for (const auto& row : rows) {
    CAPTURE(row.asked);
    RecordedLog log;
    SizeCache cache;
    cache.capacity = 7;
    cache.SetCapacity(row.asked);
    CHECK(cache.capacity == row.kept);
    CHECK(log.TakeTranscript() ==
          Lines({"INFO SetCapacity orvex_lru_cache: Set max cache capacity to " +
                 std::to_string(row.kept)}));
  }
}

TEST_CASE("lowering the capacity evicts the surplus at once and oldest first") {
  SizeCache cache;
  for (const char* path : {"/a", "/b", "/c", "/d"}) {
    cache.Store(static_cast<uint64_t>(path[1]), path);
  }
  cache.SetCapacity(3);
  CHECK(cache.Paths() == Paths{"/d", "/c", "/b"});
  cache.SetCapacity(1);
  CHECK(cache.Paths() == Paths{"/d"});
  CHECK(cache.metrics.evictions == 3);
  CHECK(cache.CacheMap.size() == 1);
}

TEST_CASE("flushing empties a cache and leaves all else") {
  SizeCache cache;
  cache.InitLRUCache();
  cache.SetCapacity(2);
  cache.RegisterMetaQueryCallback(SomeCallback);
  for (const char* path : {"/a", "/b", "/c"}) cache.Store(static_cast<uint64_t>(path[1]), path);
  CHECK(cache.FlushCache() == 0);
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.CacheMap.empty());
  CHECK(liveNodes == 0);
  CHECK(cache.IsInit());
  CHECK(cache.capacity == 2);
  CHECK((cache.queryCallback == SomeCallback));
  CHECK(cache.metrics.evictions == 1);
}

TEST_CASE("resetting the counters of a cache zeroes them all and leaves its nodes") {
  SizeCache cache;
  cache.Store(1, "/a");
  cache.metrics.evictions = 0x100000001;
  cache.metrics.untouched = -1;
  CHECK(cache.ResetMetrics() == 0);
  CHECK(cache.metrics.evictions == 0);
  CHECK(cache.metrics.untouched == 0);
  CHECK(cache.Paths() == Paths{"/a"});
}

TEST_CASE("a cache that is stopped and started is empty and keeps capacity and callback") {
  SizeCache cache;
  cache.InitLRUCache();
  cache.SetCapacity(2);
  cache.RegisterMetaQueryCallback(SomeCallback);
  for (const char* path : {"/a", "/b", "/c"}) cache.Store(static_cast<uint64_t>(path[1]), path);
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.metrics.evictions == 0);
  CHECK(cache.InitLRUCache() == 0);
  CHECK(cache.IsInit());
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.CacheMap.empty());
  CHECK(cache.capacity == 2);
  CHECK((cache.queryCallback == SomeCallback));
}

TEST_CASE("a dump lists capacity, keys in key order and nodes in recency order") {
  SizeCache cache;
  cache.SetCapacity(10);
  cache.Store(2, "/b");
  cache.Store(3, "/c");
  cache.Store(1, "/a");
  cache.Store(2, "/b");
  RecordedLog log;
  cache.DumpCache();
  CHECK(
      log.TakeTranscript() ==
      Lines({"DEBUG DumpCache orvex_lru_cache: Cache capacity = 10",
             "DEBUG DumpCacheMap orvex_lru_cache: CacheMap.size=3", "DEBUG Dump test: key 1",
             "DEBUG Dump test: key 2", "DEBUG Dump test: key 3",
             "DEBUG DumpCacheNodeList orvex_lru_cache: CacheNodeList.size=3",
             "DEBUG Dump test: node /b", "DEBUG Dump test: node /a", "DEBUG Dump test: node /c"}));
}

TEST_CASE("a dump of an empty cache lists only counts") {
  SizeCache cache;
  RecordedLog log;
  cache.DumpCache();
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG DumpCache orvex_lru_cache: Cache capacity = 4096",
               "DEBUG DumpCacheMap orvex_lru_cache: CacheMap.size=0",
               "DEBUG DumpCacheNodeList orvex_lru_cache: CacheNodeList.size=0"}));
}

TEST_CASE("registering a callback stores it and says so") {
  RecordedLog log;
  SizeCache cache;
  cache.RegisterMetaQueryCallback(SomeCallback);
  CHECK((cache.queryCallback == SomeCallback));
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG RegisterMetaQueryCallback orvex_lru_cache: Kelda Inventory Engine register "
               "query callback successfully"}));
}

TEST_CASE("registering a null callback is an error and keeps the earlier one") {
  SizeCache cache;
  cache.RegisterMetaQueryCallback(SomeCallback);
  RecordedLog log;
  cache.RegisterMetaQueryCallback(nullptr);
  CHECK((cache.queryCallback == SomeCallback));
  CHECK(log.TakeTranscript() ==
        Lines({"ERROR RegisterMetaQueryCallback orvex_lru_cache: Kelda Inventory Engine register "
               "query callback failed: invalid parameter"}));
}

TEST_CASE("an operation on no node or an unknown operation does nothing") {
  RecordedLog log;
  SizeCache cache;
  SizeKey key = KeyOf(1);
  cache.LRUCacheNodeUpdate(key, nullptr, LRU_INSERT);
  metadata_input_s in{};
  in.path = "/a";
  metadata_output_s out{};
  PathNode node(in, out);
  cache.LRUCacheNodeUpdate(key, &node, static_cast<LRU_OPERATION>(3));
  CHECK(cache.CacheNodeList.empty());
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a node inserted under a key that is taken shares the old entry") {
  SizeCache cache;
  cache.Store(1, "/a");
  metadata_input_s in{};
  in.size = 1;
  in.path = "/b";
  metadata_output_s out{};
  SizeKey key(in);
  auto* const second = new PathNode(in, out);
  cache.LRUCacheNodeUpdate(key, second, LRU_INSERT);
  CHECK(cache.Paths() == Paths{"/b", "/a"});
  REQUIRE(cache.CacheMap.size() == 1);
  CHECK((*cache.CacheMap.begin()->second)->path == "/a");
  CHECK(second->mapEntry == cache.CacheMap.begin());
}

TEST_CASE("a node that shares an entry moves to the front alone") {
  SizeCache cache;
  cache.Store(1, "/a");
  cache.Store(2, "/c");
  metadata_input_s in{};
  in.size = 1;
  in.path = "/b";
  metadata_output_s out{};
  SizeKey key(in);
  auto* const second = new PathNode(in, out);
  cache.LRUCacheNodeUpdate(key, second, LRU_INSERT);
  cache.Store(2, "/c");
  cache.LRUCacheNodeUpdate(key, second, LRU_UPDATE);
  CHECK(cache.Paths() == Paths{"/b", "/c", "/a"});
  CHECK((*cache.CacheMap.find(key)->second)->path == "/a");
}

TEST_CASE("an evicted node takes its entry along and whoever shared it has none") {
  SizeCache cache;
  cache.Store(1, "/a");
  metadata_input_s in{};
  in.size = 1;
  in.path = "/b";
  metadata_output_s out{};
  SizeKey key(in);
  cache.LRUCacheNodeUpdate(key, new PathNode(in, out), LRU_INSERT);
  cache.SetCapacity(1);
  CHECK(cache.Paths() == Paths{"/b"});
  CHECK(cache.CacheMap.empty());
  CHECK(cache.CacheNodeList.front()->mapEntry == cache.CacheMap.end());

  // The one without an entry is evicted without touching the map.
  cache.Store(2, "/c");
  CHECK(cache.Paths() == Paths{"/c"});
  CHECK(cache.CacheMap.size() == 1);
  CHECK(liveNodes == 1);
}

TEST_CASE("a node without an entry moves to the front alone") {
  SizeCache cache;
  cache.Store(1, "/a");
  metadata_input_s in{};
  in.size = 1;
  in.path = "/b";
  metadata_output_s out{};
  SizeKey key(in);
  auto* const second = new PathNode(in, out);
  cache.LRUCacheNodeUpdate(key, second, LRU_INSERT);
  cache.SetCapacity(1);
  cache.SetCapacity(3);
  cache.Store(2, "/c");
  cache.LRUCacheNodeUpdate(key, second, LRU_UPDATE);
  CHECK(cache.Paths() == Paths{"/b", "/c"});
}
