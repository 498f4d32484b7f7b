// The least-recently-used cache under both caches: with a key and a node of its own,
// and as the library holds it for its own subclasses and for those of a host.
#include <doctest/doctest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "harness/failing_new.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"
#include "harness/records.h"

namespace {

// The number that a path has besides: its first letter.
metadata_input_s FileAt(const char* path, uint32_t mask = kAllKeyBits) {
  metadata_input_s in = InputFor(path);
  in.fileOperation = mask;
  in.size = static_cast<uint64_t>(path[1]);
  return in;
}

// A host's own minimal cache; its parts are open to the tests.
template <typename Key, typename Node, typename Metrics>
class BareCache : public LRUCacheT<Key, Node, Metrics> {
 public:
  using Base = LRUCacheT<Key, Node, Metrics>;
  using KeyType = Key;
  using NodeType = Node;
  using Base::active;
  using Base::capacity;
  using Base::entries_;
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

  Node* Find(const Key& key) {
    const LRUCacheSlot slot = entries_.Find(LRUCacheKeyView(key));
    return slot != 0 ? static_cast<Node*>(entries_.NodeIn(slot)) : nullptr;
  }
  // Under KEY_SIZE paths of one first letter are one file, whatever the key.
  int Store(const char* path, uint32_t mask = kAllKeyBits) {
    metadata_input_s in = FileAt(path, mask);
    Answer out;
    return Base::UpdateMetaData(&in, &out);
  }
  // A node that enters next to one under an equivalent key.
  Node* InsertBeside(const char* path, const char* name) {
    metadata_input_s in = FileAt(path);
    Answer out;
    Key key(in);
    auto* const node = new Node(in, out);
    node->path = name;
    Base::LRUCacheNodeUpdate(key, node, LRU_INSERT);
    return node;
  }
  void Move(Node* node) {
    Key key;
    Base::LRUCacheNodeUpdate(key, node, LRU_UPDATE);
  }
  Paths PathsInOrder() const {
    Paths paths;
    for (const Node* node : NodesIn<Node>(entries_)) paths.push_back(node->path);
    return paths;
  }
  void SetEveryCounter(long long value) {
    auto* const counters = reinterpret_cast<long long*>(&metrics);
    std::fill(counters, counters + sizeof metrics / sizeof *counters, value);
  }
  bool EveryCounterIs(long long value) const {
    const auto* const counters = reinterpret_cast<const long long*>(&metrics);
    const auto count = static_cast<std::ptrdiff_t>(sizeof metrics / sizeof *counters);
    return std::count(counters, counters + count, value) == count;
  }

  int wipes = 0;
  bool flushesAtEnd = true;
};

using BareHashCache = BareCache<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
using BareFileTypeCache = BareCache<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>;

int liveNodes = 0;

// Here only the size identifies a file.
struct SizeKey {
  SizeKey() = default;
  explicit SizeKey(metadata_input_s& in) { Read(in); }
  void Read(const metadata_input_s& in) { size = in.size; }
  operator LRUCacheKeyView() const {
    metadata_input_s in{};
    in.fileOperation = KEY_SIZE;
    in.size = size;
    return LRUCacheKeyView(in);
  }

  uint64_t size = 0;
};

struct PathNode {
  PathNode(metadata_input_s& in, metadata_output_s& out) {
    SetDataToCacheNode(in, out);
    ++liveNodes;
  }
  ~PathNode() { --liveNodes; }
  void SetDataToCacheNode(metadata_input_s& in, metadata_output_s&) { path = in.path; }
  void Dump() const {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, "test", "node %s", path.c_str());
  }

  LRUCacheSlot mapEntry = 0;
  std::string path;
};

struct TwoCounters {
  alignas(8) long long WipeOuts = 0;
  alignas(8) long long untouched = 0;
};

// Evicts by the operations that the library keeps to itself for its own two.
class SizeCache : public BareCache<SizeKey, PathNode, TwoCounters> {
 public:
  void LRUCacheNodeWipe() override {
    BareCache::LRUCacheNodeWipe();
    EvictBeyondCapacity();
  }
};

int SomeCallback(metadata_input_s*, metadata_output_s*, void*) { return 0; }

std::string Message(const char* level, const char* function, const char* text) {
  return std::string(level) + " " + function + " orvex_lru_cache: " + text;
}

}  // namespace

TEST_CASE_TEMPLATE("a new cache is empty and inactive and has the largest capacity", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  const Cache cache;
  CHECK(cache.entries_.Size() == 0);
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.capacity == 4096);
  CHECK((cache.queryCallback == nullptr));
  CHECK(cache.EveryCounterIs(0));
}

TEST_CASE_TEMPLATE("a cache is active from its start, which logs nothing, to its stop", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  RecordedLog log;
  Cache cache;
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.InitLRUCache() == 0);
  CHECK(cache.IsInit());
  CHECK(log.TakeTranscript() == "");
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK_FALSE(cache.IsInit());
}

TEST_CASE_TEMPLATE("a stop empties a cache and a start brings back its capacity and callback",
                   Cache, SizeCache, BareHashCache, BareFileTypeCache) {
  Cache cache;
  cache.InitLRUCache();
  cache.SetCapacity(2);
  cache.RegisterMetaQueryCallback(SomeCallback);
  for (const char* path : {"/a", "/b", "/c"}) cache.Store(path);
  cache.SetEveryCounter(5);
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK(cache.entries_.Size() == 0);
  CHECK(cache.EveryCounterIs(0));
  CHECK(cache.InitLRUCache() == 0);
  CHECK(cache.IsInit());
  CHECK(cache.entries_.Size() == 0);
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK(cache.capacity == 2);
  CHECK((cache.queryCallback == SomeCallback));
}

TEST_CASE_TEMPLATE("flushing empties a cache and changes nothing else", Cache, SizeCache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  cache.InitLRUCache();
  cache.SetCapacity(2);
  cache.RegisterMetaQueryCallback(SomeCallback);
  for (const char* path : {"/a", "/b", "/c"}) cache.Store(path);
  cache.SetEveryCounter(5);
  CHECK(cache.FlushCache() == 0);
  CHECK(cache.entries_.Size() == 0);
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK(liveNodes == 0);
  CHECK(cache.IsInit());
  CHECK(cache.capacity == 2);
  CHECK((cache.queryCallback == SomeCallback));
  CHECK(cache.EveryCounterIs(5));
}

TEST_CASE_TEMPLATE("resetting zeroes every counter of a cache and leaves its nodes", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  Cache cache;
  cache.Store("/a");
  for (const long long value : {-1LL, 0x100000001LL}) {
    cache.SetEveryCounter(value);
    CHECK(cache.ResetMetrics() == 0);
    CHECK(cache.EveryCounterIs(0));
  }
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}

TEST_CASE_TEMPLATE("storing without both records returns 3 and logs nothing", Cache, SizeCache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  metadata_input_s in = FileAt("/a");
  Answer out;
  {
    RecordedLog log;
    for (const bool throughUpdate : {false, true}) {
      const auto store = [&](metadata_input_s* i, metadata_output_s* o) {
        return throughUpdate ? cache.UpdateMetaData(i, o) : cache.UpdateCache(i, o);
      };
      CHECK(store(nullptr, nullptr) == 3);
      CHECK(store(&in, nullptr) == 3);
      CHECK(store(nullptr, &out) == 3);
    }
    CHECK(log.TakeTranscript() == "");
  }
  CHECK(cache.entries_.Size() == 0);
  CHECK(cache.wipes == 0);
  // An inactive cache can be filled.
  CHECK(cache.UpdateCache(&in, &out) == 0);
  CHECK_FALSE(cache.IsInit());
  CHECK(cache.PathsInOrder() == Paths{"/a"});
  CHECK(cache.wipes == 1);
}

TEST_CASE_TEMPLATE("storing under a key that is cached merges and moves to the front", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  Cache cache;
  cache.SetCapacity(2);
  cache.Store("/a", KEY_SIZE);
  cache.Store("/b", KEY_SIZE);
  CHECK(cache.Store("/a2", KEY_SIZE) == 0);
  CHECK(cache.PathsInOrder() == Paths{"/a2", "/b"});
  CHECK(cache.entries_.EntryCount() == 2);
}

TEST_CASE_TEMPLATE("every entry's key leads to its own node", Cache, SizeCache, BareHashCache,
                   BareFileTypeCache) {
  Cache cache;
  for (const char* path : {"/5", "/3", "/8", "/3", "/1", "/5"}) cache.Store(path);
  CHECK(cache.entries_.Size() == 4);
  REQUIRE(cache.entries_.EntryCount() == cache.entries_.Size());
  CHECK(BrokenInvariant(cache) == "");
}

TEST_CASE_TEMPLATE("without memory a store returns 2, logs an ERROR and changes nothing", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  static int errors = 0;
  // Keeps nothing: there is no memory for it.
  orvex_register_log_cb([](unsigned int level, unsigned int, const char* function, const char* file,
                           const char* message, unsigned int) {
    using Text = std::string_view;
    if (level == ORVEX_LOG_ERROR && Text(function) == "UpdateCache" &&
        Text(file) == "orvex_lru_cache" &&
        Text(message) == "Insufficient memory for create cache node") {
      ++errors;
    }
  });
  for (const char* path :
       {"/a path longer than a string holds in itself", "/b as long a path as it"}) {
    for (const auto level : {ORVEX_LOG_FATAL, ORVEX_LOG_ERROR}) {
      CAPTURE(path);
      CAPTURE(level);
      ORVEX_LOG_BASE::LogLevel = level;
      Cache cache;
      cache.Store("/a", KEY_SIZE);
      int points = 0;
      for (;; ++points) {
        metadata_input_s in = FileAt(path, KEY_SIZE);
        Answer out;
        int code = 0;
        int failures = 0;
        errors = 0;
        {
          const FailingNew failing(points + 1, false);
          code = cache.UpdateCache(&in, &out);
          failures = failing.failures;
        }
        if (failures == 0) break;
        CHECK(code == 2);
        CHECK(errors == (level == ORVEX_LOG_ERROR ? 1 : 0));
        CHECK(cache.PathsInOrder() == Paths{"/a"});
        CHECK(cache.entries_.EntryCount() == 1);
      }
      CHECK(points > 0);
    }
  }
  CHECK(liveNodes == 0);
}

TEST_CASE("beyond its capacity a cache evicts the least recently stored") {
  SizeCache cache;
  cache.SetCapacity(2);
  CHECK(cache.Store("/a") == 0);
  CHECK(cache.Store("/b") == 0);
  CHECK(cache.Store("/b") == 0);
  CHECK(cache.metrics.WipeOuts == 0);
  CHECK(liveNodes == 2);
  CHECK(cache.Store("/c") == 0);
  CHECK(cache.PathsInOrder() == Paths{"/c", "/b"});
  CHECK(cache.metrics.WipeOuts == 1);
  CHECK(liveNodes == 2);
  metadata_input_s evicted = FileAt("/a");
  CHECK(cache.Find(SizeKey(evicted)) == nullptr);
}

TEST_CASE("lowering the capacity evicts the surplus at once, least recently used first") {
  SizeCache cache;
  for (const char* path : {"/a", "/b", "/c", "/d"}) cache.Store(path);
  cache.SetCapacity(3);
  CHECK(cache.PathsInOrder() == Paths{"/d", "/c", "/b"});
  cache.SetCapacity(1);
  CHECK(cache.PathsInOrder() == Paths{"/d"});
  CHECK(cache.metrics.WipeOuts == 3);
  CHECK(cache.entries_.EntryCount() == 1);
}

TEST_CASE("an evicted node takes its entry along, and nodes that shared it have none") {
  SizeCache cache;
  cache.Store("/a");
  const auto* const second = cache.InsertBeside("/a", "second");
  cache.SetCapacity(1);
  CHECK(cache.PathsInOrder() == Paths{"second"});
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK_FALSE(cache.entries_.HasEntry(second->mapEntry));

  // The one without an entry is evicted without touching the map.
  cache.Store("/c");
  CHECK(cache.PathsInOrder() == Paths{"/c"});
  CHECK(cache.entries_.EntryCount() == 1);
  CHECK(liveNodes == 1);
}

TEST_CASE("a node without an entry moves to the front alone") {
  SizeCache cache;
  cache.Store("/a");
  auto* const second = cache.InsertBeside("/a", "second");
  cache.SetCapacity(1);
  cache.SetCapacity(3);
  cache.Store("/b");
  cache.Move(second);
  CHECK(cache.PathsInOrder() == Paths{"second", "/b"});
}

TEST_CASE("a dump lists capacity, keys in key order and nodes in recency order") {
  SizeCache cache;
  cache.SetCapacity(10);
  for (const char* path : {"/b", "/c", "/a", "/b"}) cache.Store(path);
  const auto key = [](char size) {
    return Message("DEBUG", "Dump",
                   ("Key: flags=0x00000002, path=, size=" + std::to_string(size) +
                    ", mtime=0, deviceID=0, fileID=0")
                       .c_str());
  };
  RecordedLog log;
  cache.DumpCache();
  CHECK(
      log.TakeTranscript() ==
      Lines({Message("DEBUG", "DumpCache", "Cache capacity = 10"),
             Message("DEBUG", "DumpCacheMap", "CacheMap.size=3"), key('a'), key('b'), key('c'),
             Message("DEBUG", "DumpCacheNodeList", "CacheNodeList.size=3"),
             "DEBUG Dump test: node /b", "DEBUG Dump test: node /a", "DEBUG Dump test: node /c"}));
}

TEST_CASE_TEMPLATE("a dump of an empty cache lists only counts", Cache, SizeCache, BareHashCache,
                   BareFileTypeCache) {
  Cache cache;
  RecordedLog log;
  cache.DumpCache();
  CHECK(log.TakeTranscript() ==
        Lines({Message("DEBUG", "DumpCache", "Cache capacity = 4096"),
               Message("DEBUG", "DumpCacheMap", "CacheMap.size=0"),
               Message("DEBUG", "DumpCacheNodeList", "CacheNodeList.size=0")}));
}

TEST_CASE_TEMPLATE("a dump logs capacity, keys and nodes unless their levels are dropped", Cache,
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

TEST_CASE_TEMPLATE("storing, a stop and a dump call the subclass's overrides", Cache, SizeCache,
                   BareHashCache, BareFileTypeCache) {
  struct Counting : Cache {
    void LRUCacheNodeUpdate(typename Cache::KeyType& key, typename Cache::NodeType* node,
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

TEST_CASE_TEMPLATE("a stop refuses queries before it flushes, and zeroes the counters last", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  struct Telling : Cache {
    int FlushCache() override {
      story += this->IsInit() ? "flushes while active" : "flushes";
      return Cache::FlushCache();
    }
    int ResetMetrics() override {
      story += ", zeroes";
      return Cache::ResetMetrics();
    }
    std::string story;
  };
  Telling cache;
  cache.InitLRUCache();
  cache.DeinitLRUCache();
  CHECK(cache.story == "flushes, zeroes");
}

TEST_CASE_TEMPLATE("storing and moving are logged at DEBUG, unless the log is off or at INFO",
                   Cache, SizeCache, BareHashCache, BareFileTypeCache) {
  Cache cache;
  const auto story = [&] {
    cache.Store("/a", KEY_SIZE);
    cache.Store("/b", KEY_SIZE);
    cache.Store("/a2", KEY_SIZE);
    cache.FlushCache();
  };
  RecordedLog log;
  story();
  CHECK(log.TakeTranscript() ==
        Lines({Message("DEBUG", "LRUCacheNodeUpdate", "Insert new cache node: path=/a"),
               Message("DEBUG", "LRUCacheNodeUpdate", "Insert new cache node: path=/b"),
               Message("DEBUG", "LRUCacheNodeUpdate", "Cache node updated: path=/a2")}));
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;
  story();
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
  ORVEX_LOG_BASE::LogEnable = false;
  story();
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE_TEMPLATE("nodes inserted and moved one by one are logged as those of a store", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
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

TEST_CASE_TEMPLATE("nodes that share an entry move to the front one by one", Cache, SizeCache,
                   BareHashCache, BareFileTypeCache) {
  Cache cache;
  auto* const first = cache.InsertBeside("/a", "first");
  auto* const second = cache.InsertBeside("/a", "second");
  auto* const third = cache.InsertBeside("/a", "third");
  // The entry stays the first one's.
  REQUIRE(cache.entries_.EntryCount() == 1);
  metadata_input_s in = FileAt("/a");
  const typename Cache::KeyType shared(in);
  CHECK(cache.Find(shared) == first);
  CHECK(cache.entries_.HasEntry(second->mapEntry));
  CHECK(cache.entries_.HasEntry(third->mapEntry));
  cache.Store("/b");
  CHECK(cache.entries_.EntryCount() == 2);
  CHECK(cache.PathsInOrder() == Paths{"/b", "third", "second", "first"});
  cache.Move(second);
  CHECK(cache.PathsInOrder() == Paths{"second", "/b", "third", "first"});
  CHECK(cache.Find(shared) == first);
  cache.Move(first);
  CHECK(cache.PathsInOrder() == Paths{"first", "second", "/b", "third"});
  cache.Move(third);
  CHECK(cache.PathsInOrder() == Paths{"third", "first", "second", "/b"});
}

TEST_CASE_TEMPLATE("each of many nodes that share an entry is found wherever it lies", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
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

TEST_CASE_TEMPLATE("an operation on a null node or of unknown kind changes nothing", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  Cache cache;
  cache.Store("/a");
  metadata_input_s in = FileAt("/b");
  Answer out;
  typename Cache::KeyType key(in);
  typename Cache::NodeType node(in, out);
  RecordedLog log;
  cache.LRUCacheNodeUpdate(key, nullptr, LRU_INSERT);
  cache.LRUCacheNodeUpdate(key, nullptr, LRU_UPDATE);
  cache.LRUCacheNodeUpdate(key, &node, static_cast<LRU_OPERATION>(3));
  CHECK(cache.PathsInOrder() == Paths{"/a"});
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE_TEMPLATE("a capacity out of range means the largest and is logged at INFO", Cache,
                   SizeCache, BareHashCache, BareFileTypeCache) {
  Cache cache;
  const struct {
    unsigned int wanted, kept;
  } rows[] = {{0, 4096},    {1, 1},       {2, 2},      {4095, 4095},
              {4096, 4096}, {4097, 4096}, {~0u, 4096}, {~0u - 4, 4096}};
  int wipes = 0;
  for (const auto& row : rows) {
    CAPTURE(row.wanted);
    RecordedLog log(ORVEX_LOG_INFO);
    cache.capacity = 7;
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

TEST_CASE_TEMPLATE("a callback is stored and logged, and a null one refused", Cache, SizeCache,
                   BareHashCache, BareFileTypeCache) {
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

TEST_CASE_TEMPLATE("a cache destroyed without a flush leaks its nodes and nothing else", Cache,
                   BareHashCache, BareFileTypeCache) {
  std::vector<typename Cache::NodeType*> nodes;
  nodes.reserve(100);
  const long before = LiveAllocations();
  {
    Cache cache;
    cache.flushesAtEnd = false;
    for (int i = 0; i < 100; ++i) {
      const std::string path = "/" + std::to_string(i);
      nodes.push_back(cache.InsertBeside(path.c_str(), path.c_str()));
    }
  }
  for (const auto* node : nodes) delete node;
  const long left = LiveAllocations() - before;
  CHECK(nodes.size() == 100);
  CHECK(left == 0);
}
