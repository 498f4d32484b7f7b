// The operations that either cache has from its base, as the library holds them
// for its own subclasses and for those of a host.
#include <doctest/doctest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "harness/failing_new.h"
#include "harness/recorded_log.h"
#include "harness/records.h"

namespace {

using Paths = std::vector<std::string>;

// A host's own cache with no more than it must have.
template <typename Node, typename Metrics>
class BareCache : public LRUCacheT<LRUCacheKey, Node, Metrics> {
 public:
  using Base = LRUCacheT<LRUCacheKey, Node, Metrics>;
  using NodeType = Node;
  using Base::active;
  using Base::CacheMap;
  using Base::CacheNodeList;
  using Base::capacity;
  using Base::metrics;
  using Base::queryCallback;

  ~BareCache() {
    if (flushesAtEnd) Base::FlushCache();
  }

  int Query(metadata_input_s*, metadata_output_s*, void*) override { return 0; }
  int GetMetrics(Metrics&) const override { return 0; }
  void DumpMetrics() const override {}
  int QueryLRUCache(metadata_input_s*, metadata_output_s*) override { return LRU_MISS; }
  void LRUCacheNodeWipe() override { ++wipes; }

  int Store(const char* path) {
    metadata_input_s in = InputFor(path);
    Answer out;
    return Base::UpdateMetaData(&in, &out);
  }
  // A node that enters beside one under an equivalent key.
  Node* InsertBeside(const char* path, const char* name) {
    metadata_input_s in = InputFor(path);
    Answer out;
    LRUCacheKey key(in);
    auto* const node = new Node(in, out);
    node->path = name;
    Base::LRUCacheNodeUpdate(key, node, LRU_INSERT);
    return node;
  }
  void Move(Node* node) {
    LRUCacheKey key;
    Base::LRUCacheNodeUpdate(key, node, LRU_UPDATE);
  }
  Paths PathsInOrder() const {
    Paths paths;
    for (const Node* node : CacheNodeList) paths.push_back(node->path);
    return paths;
  }

  int wipes = 0;
  bool flushesAtEnd = true;
};

using BareHashCache = BareCache<LRUCacheNode, LRUCacheMetrics_s>;
using BareFileTypeCache = BareCache<FileTypeCacheNode, FileTypeCacheMetrics_s>;

int SomeCallback(metadata_input_s*, metadata_output_s*, void*) { return 0; }

std::string Message(const char* level, const char* function, const char* text) {
  return std::string(level) + " " + function + " orvex_lru_cache: " + text;
}

}  // namespace

TEST_CASE_TEMPLATE("a cache is active from its start to its stop, which empties it", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.InitLRUCache() == 0);
  CHECK(cache.IsInit());
  for (const char* path : {"/a", "/b", "/c"}) cache.Store(path);
  cache.metrics.Hit = 5;
  cache.metrics.numOfHelpFuncCalled = 6;
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.CacheMap.empty());
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.metrics.Hit == 0);
  CHECK(cache.metrics.numOfHelpFuncCalled == 0);
}

TEST_CASE_TEMPLATE("storing, a stop and a dump go by the operations of the subclass", Cache,
                   BareHashCache, BareFileTypeCache) {
  struct Counting : Cache {
    void LRUCacheNodeUpdate(LRUCacheKey& key, typename Cache::NodeType* node,
                            LRU_OPERATION operation) override {
      ++updates;
      Cache::LRUCacheNodeUpdate(key, node, operation);
    }
    void DumpCacheMap() const override { ++dumps; }
    void DumpCacheNodeList() const override { ++dumps; }
    int FlushCache() override { return ++flushes; }
    int ResetMetrics() override { return ++resets; }
    int updates = 0;
    mutable int dumps = 0;
    int flushes = 0;
    int resets = 0;
  };
  Counting cache;
  for (const char* path : {"/a", "/b", "/a"}) cache.Store(path);
  CHECK(cache.updates == 3);
  cache.DumpCache();
  CHECK(cache.dumps == 2);
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(cache.flushes == 1);
  CHECK(cache.resets == 1);
}

TEST_CASE_TEMPLATE("a cache that ends without a flush leaves its nodes behind and no more", Cache,
                   BareHashCache, BareFileTypeCache) {
  std::vector<typename Cache::NodeType*> nodes;
  nodes.reserve(100);
  const long before = LiveAllocations();
  {
    Cache cache;
    cache.flushesAtEnd = false;
    for (int i = 0; i < 100; ++i) cache.Store(("/" + std::to_string(i)).c_str());
    nodes.assign(cache.CacheNodeList.begin(), cache.CacheNodeList.end());
  }
  for (const auto* node : nodes) delete node;
  const long left = LiveAllocations() - before;
  CHECK(nodes.size() == 100);
  CHECK(left == 0);
}

TEST_CASE_TEMPLATE("resetting zeroes every counter of a cache", Cache, BareHashCache,
                   BareFileTypeCache) {
  Cache cache;
  auto* const counters = reinterpret_cast<long long*>(&cache.metrics);
  const size_t count = sizeof cache.metrics / sizeof *counters;
  for (size_t i = 0; i < count; ++i) counters[i] = -1;
  CHECK(cache.ResetMetrics() == 0);
  for (size_t i = 0; i < count; ++i) {
    CAPTURE(i);
    CHECK(counters[i] == 0);
  }
}

TEST_CASE_TEMPLATE("storing refuses with 3 unless there are both records", Cache, BareHashCache,
                   BareFileTypeCache) {
  Cache cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(cache.UpdateCache(nullptr, &out) == 3);
  CHECK(cache.UpdateCache(&in, nullptr) == 3);
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.UpdateCache(&in, &out) == 0);
  CHECK(cache.PathsInOrder() == Paths{"/a"});
  CHECK(cache.wipes == 1);
}

TEST_CASE_TEMPLATE("storing and moving are told at DEBUG, unless the log is off or terser", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  const auto story = [&] {
    cache.Store("/a");
    cache.Store("/b");
    cache.Store("/a");
    cache.FlushCache();
  };
  RecordedLog log;
  story();
  CHECK(log.TakeTranscript() ==
        Lines({Message("DEBUG", "LRUCacheNodeUpdate", "Insert new cache node: path=/a"),
               Message("DEBUG", "LRUCacheNodeUpdate", "Insert new cache node: path=/b"),
               Message("DEBUG", "LRUCacheNodeUpdate", "Cache node updated: path=/a")}));
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;
  story();
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
  ORVEX_LOG_BASE::LogEnable = false;
  story();
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE_TEMPLATE("nodes that come and move one by one are told as those of a store", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  RecordedLog log;
  cache.Move(cache.InsertBeside("/a", "first"));
  CHECK(log.TakeTranscript() ==
        Lines({Message("DEBUG", "LRUCacheNodeUpdate", "Insert new cache node: path=first"),
               Message("DEBUG", "LRUCacheNodeUpdate", "Cache node updated: path=first")}));
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;
  cache.Move(cache.InsertBeside("/b", "second"));
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
  ORVEX_LOG_BASE::LogEnable = false;
  cache.Move(cache.InsertBeside("/c", "third"));
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE_TEMPLATE("nodes that share an entry move to the front each alone", Cache, BareHashCache,
                   BareFileTypeCache) {
  Cache cache;
  auto* const first = cache.InsertBeside("/a", "first");
  auto* const second = cache.InsertBeside("/a", "second");
  auto* const third = cache.InsertBeside("/a", "third");
  cache.Store("/b");
  CHECK(cache.CacheMap.size() == 2);
  CHECK(cache.PathsInOrder() == Paths{"/b", "third", "second", "first"});
  cache.Move(second);
  CHECK(cache.PathsInOrder() == Paths{"second", "/b", "third", "first"});
  cache.Move(first);
  CHECK(cache.PathsInOrder() == Paths{"first", "second", "/b", "third"});
  cache.Move(third);
  CHECK(cache.PathsInOrder() == Paths{"third", "first", "second", "/b"});
  // One that has no entry at all is found among the others too.
  second->mapEntry = cache.CacheMap.end();
  cache.Move(second);
  CHECK(cache.PathsInOrder() == Paths{"second", "third", "first", "/b"});
}

TEST_CASE_TEMPLATE("each of many nodes that share an entry is found wherever it lies", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  std::vector<typename Cache::NodeType*> nodes;
  for (char name = 'a'; name <= 'j'; ++name) {
    nodes.push_back(cache.InsertBeside("/a", std::string(1, name).c_str()));
  }
  for (size_t step = 1; step < nodes.size(); ++step) {
    for (size_t i = 0; i < nodes.size(); ++i) {
      Paths expected = cache.PathsInOrder();
      const auto moved = std::find(expected.begin(), expected.end(), nodes[i * step % 10]->path);
      std::rotate(expected.begin(), moved, moved + 1);
      cache.Move(nodes[i * step % 10]);
      REQUIRE(cache.PathsInOrder() == expected);
    }
  }
}

TEST_CASE_TEMPLATE("an operation on no node or of no known kind changes nothing", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  cache.Store("/a");
  metadata_input_s in = InputFor("/b");
  Answer out;
  LRUCacheKey key(in);
  typename Cache::NodeType node(in, out);
  RecordedLog log;
  cache.LRUCacheNodeUpdate(key, nullptr, LRU_INSERT);
  cache.LRUCacheNodeUpdate(key, nullptr, LRU_UPDATE);
  cache.LRUCacheNodeUpdate(key, &node, static_cast<LRU_OPERATION>(3));
  CHECK(cache.PathsInOrder() == Paths{"/a"});
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE_TEMPLATE("a capacity out of range means the largest and is told at INFO", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  const struct {
    unsigned int wanted, kept;
  } rows[] = {{0, 4096}, {1, 1}, {4096, 4096}, {4097, 4096}, {~0u, 4096}};
  int wipes = 0;
  for (const auto& row : rows) {
    CAPTURE(row.wanted);
    RecordedLog log(ORVEX_LOG_INFO);
    cache.SetCapacity(row.wanted);
    CHECK(cache.capacity == row.kept);
    CHECK(cache.wipes == ++wipes);
    const std::string text = "Set max cache capacity to " + std::to_string(row.kept);
    CHECK(log.TakeTranscript() == Lines({Message("INFO", "SetCapacity", text.c_str())}));
    ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_WARNING;
    cache.SetCapacity(row.wanted);
    CHECK(cache.wipes == ++wipes);
    CHECK(log.TakeTranscript() == "");
  }
}

TEST_CASE_TEMPLATE("a callback is stored and told, and a null one refused", Cache, BareHashCache,
                   BareFileTypeCache) {
  const std::string text = "Kelda Inventory Engine register query callback ";
  Cache cache;
  RecordedLog log;
  cache.RegisterMetaQueryCallback(SomeCallback);
  CHECK((cache.queryCallback == SomeCallback));
  cache.RegisterMetaQueryCallback(nullptr);
  CHECK((cache.queryCallback == SomeCallback));
  CHECK(log.TakeTranscript() ==
        Lines({Message("DEBUG", "RegisterMetaQueryCallback", (text + "successfully").c_str()),
               Message("ERROR", "RegisterMetaQueryCallback",
                       (text + "failed: invalid parameter").c_str())}));
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_FATAL;
  cache.RegisterMetaQueryCallback(SomeCallback);
  cache.RegisterMetaQueryCallback(nullptr);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE_TEMPLATE("a dump tells capacity, keys and nodes unless their levels are dropped", Cache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  for (const char* path : {"/a", "/b", "/c"}) cache.Store(path);
  RecordedLog log;
  cache.DumpCache();
  CHECK(log.CountOf("Cache capacity = 4096") == 1);
  CHECK(log.CountOf("CacheMap.size=3") == 1);
  CHECK(log.CountOf("CacheNodeList.size=3") == 1);
  CHECK(log.CountOf("Key: ") == 3);
  CHECK(log.CountOf("Node: ") == 3);
  for (const char* path : {"path=/a", "path=/b", "path=/c"}) {
    CAPTURE(path);
    CHECK(log.CountOf(path) == 2);
  }
  log.TakeTranscript();
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_FATAL;
  cache.DumpCache();
  CHECK(log.TakeTranscript() == "");
}
