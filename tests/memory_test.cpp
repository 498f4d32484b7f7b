// What the engine does when memory runs out.
#include <doctest/doctest.h>

#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cache/orvex_lru_cache_file_type.h"
#include "harness/engine_under_test.h"
#include "harness/failing_new.h"
#include "harness/open_hash_cache.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"

namespace {

const char* const kLongPath = "/a/path/of/more/characters/than/a/string/holds/in/itself";

// A path of its own for each number, every other one too long for a string to
// hold in itself.
std::string PathOf(int number) {
  return (number % 2 == 0 ? "/" : kLongPath) + std::to_string(number);
}

// How many allocations the work leaves behind. The test framework allocates as
// well: check nothing in there.
template <typename Work>
long LeftBehindBy(Work work) {
  RecordedLog quiet(ORVEX_LOG_FATAL);
  const long before = LiveAllocations();
  work();
  return LiveAllocations() - before;
}

// Stores, replaces and evicts nodes; more of them than the compiler would lay out
// one by one.
template <typename Cache>
void Fill(Cache& cache) {
  cache.SetCapacity(300);
  for (int number = 0; number < 500; ++number) {
    const std::string path = PathOf(number);
    metadata_input_s in = InputFor(path.c_str());
    in.name = path.c_str();
    Answer out;
    GiveSigners(out, {"Kelda"});
    for (int time = 0; time < 2; ++time) cache.UpdateCache(&in, &out);
  }
}

template <typename Node, typename Metrics>
std::vector<Node*> NodesOf(LRUCacheT<LRUCacheKey, Node, Metrics>& cache) {
  const auto& list = OpenedCache<LRUCacheKey, Node, Metrics>::List(cache);
  return {list.begin(), list.end()};
}

// Stores a file with each of the allocations failing in turn that this takes.
template <typename Cache>
void StoreWithoutMemory(Cache& cache) {
  for (int allocation = 1, failures = 1; failures != 0; ++allocation) {
    metadata_input_s in = InputFor(kLongPath);
    in.name = kLongPath;
    Answer out;
    {
      const FailingNew failing(allocation, false);
      cache.UpdateCache(&in, &out);
      failures = failing.failures;
    }
    cache.FlushCache();
  }
}

}  // namespace

TEST_CASE("signers that cannot be stored leave the node without any") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveSigners(out, {"Kelda"});
  LRUCacheNode node(in, out);
  {
    const FailingNew failing(1);
    node.SetDataToCacheNode(in, out);
  }
  CHECK(node.signerCount == 0);
  CHECK(node.signers == nullptr);
  CHECK((node.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("signers that cannot be assigned leave the node without any") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveSigners(out, {"Kelda"});
  const LRUCacheNode source(in, out);
  Answer others;
  GiveSigners(others, {"Other"});
  LRUCacheNode target(in, others);
  {
    const FailingNew failing(1);
    target = source;
  }
  CHECK(target.signerCount == 0);
  CHECK((target.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("signers that cannot be given back are told by 2 and copy no feedback") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveSigners(out, {"Kelda"});
  GiveDigests(out, kAllDigests, 1);
  LRUCacheNode node(in, out);
  Answer back;
  GiveSigners(back, {"stale"});
  back.feedback = 9;
  unsigned int code = 0;
  {
    const FailingNew failing(1);
    code = node.GetDataFromCacheNode(back);
  }
  CHECK(code == 2);
  CHECK(back.signers == nullptr);
  CHECK(back.signerCount == 0);
  CHECK((back.queryFlags & (QUERY_SIGNERS | QUERY_FEEDBACK)) == 0);
  CHECK((back.queryFlags & kAllDigests) == kAllDigests);
  CHECK(back.feedback == 9);
}

TEST_CASE("a hit whose signers cannot be copied is a partial hit") {
  OpenHashCache cache;
  Answer stored;
  GiveSigners(stored, {"Kelda"});
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  cache.Store(in, stored);
  Answer out;
  int result = 0;
  {
    const FailingNew failing(1);
    result = cache.Look(in, out);
  }
  CHECK(result == 3);
  CHECK(cache.metrics.PartialHit == 1);
}

TEST_CASE("a node that cannot be made is an error with 2 and leaves the hash cache as it was") {
  OpenHashCache cache;
  cache.Store("/a");
  for (int allocation = 1; allocation <= 5; ++allocation) {
    CAPTURE(allocation);
    RecordedLog log(ORVEX_LOG_FATAL);
    metadata_input_s in = InputFor(kLongPath);
    Answer out;
    int code = 0;
    int failures = 0;
    {
      ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_FATAL;
      const FailingNew failing(allocation, false);
      code = cache.UpdateCache(&in, &out);
      failures = failing.failures;
    }
    CHECK(failures == 1);
    CHECK(code == 2);
    CHECK(cache.PathsInOrder() == Paths{"/a"});
    CHECK(cache.CacheMap.size() == 1);
  }
}

TEST_CASE("storing without memory is told at ERROR") {
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_ERROR;
  static int errors = 0;
  orvex_register_log_cb([](unsigned int level, unsigned int, const char*, const char*,
                           const char* message, unsigned int) {
    if (level == 1 && std::string_view(message) == "Insufficient memory for create cache node") {
      ++errors;
    }
  });
  OpenHashCache cache;
  metadata_input_s in = InputFor(kLongPath);
  Answer out;
  {
    const FailingNew failing(1);
    cache.UpdateCache(&in, &out);
  }
  CHECK(errors == 1);
}

TEST_CASE("storing a file type without memory is told at ERROR and by 2") {
  static int errors = 0;
  orvex_register_log_cb([](unsigned int level, unsigned int, const char*, const char*,
                           const char* message, unsigned int) {
    if (level == 1 && std::string_view(message) == "Insufficient memory for create cache node") {
      ++errors;
    }
  });
  FileTypeCache cache;
  metadata_input_s in = InputFor(kLongPath);
  Answer out;
  for (const auto level : {ORVEX_LOG_FATAL, ORVEX_LOG_ERROR}) {
    ORVEX_LOG_BASE::LogLevel = level;
    int code = 0;
    {
      const FailingNew failing(1);
      code = cache.UpdateCache(&in, &out);
    }
    CHECK(code == 2);
    CHECK(errors == (level == ORVEX_LOG_ERROR ? 1 : 0));
  }
}

TEST_CASE("a node frees signers that others replace, in itself and in a record, and at its end") {
  CHECK(LeftBehindBy([] {
          metadata_input_s in = InputFor("/a");
          Answer kelda;
          GiveSigners(kelda, {"Kelda"});
          Answer other;
          GiveSigners(other, {"Other"});
          LRUCacheNode node(in, kelda);
          node.SetDataToCacheNode(in, other);
          LRUCacheNode copy(in, kelda);
          copy = node;
          Answer back;
          for (int time = 0; time < 2; ++time) node.GetDataFromCacheNode(back);
        }) == 0);
}

TEST_CASE("a hash cache gives back all its memory when it stops") {
  CHECK(LeftBehindBy([] {
          OpenHashCache cache;
          cache.InitLRUCache();
          Fill(cache);
          for (int file = 0; file < 1000; ++file) cache.calHashSet.paths.insert(PathOf(file));
          cache.DeinitLRUCache();
        }) == 0);
}

TEST_CASE("a file type cache gives back all its memory when it stops") {
  CHECK(LeftBehindBy([] {
          FileTypeCache cache;
          cache.InitLRUCache();
          Fill(cache);
          cache.DeinitLRUCache();
        }) == 0);
}

TEST_CASE_TEMPLATE("a cache that ends without a flush leaves its nodes behind and no more", Cache,
                   LRUCache, FileTypeCache) {
  CHECK(LeftBehindBy([] {
          decltype(NodesOf(std::declval<Cache&>())) nodes;
          {
            Cache cache;
            const auto onHeap = std::make_unique<Cache>();
            for (Cache* filled : {&cache, onHeap.get()}) {
              Fill(*filled);
              const auto its = NodesOf(*filled);
              nodes.insert(nodes.end(), its.begin(), its.end());
            }
          }
          for (const auto* node : nodes) delete node;
        }) == 0);
}

TEST_CASE("a cache keeps nothing of an answer that it has no memory for") {
  CHECK(LeftBehindBy([] {
          OpenHashCache cache;
          StoreWithoutMemory(cache);
        }) == 0);
  CHECK(LeftBehindBy([] {
          FileTypeCache cache;
          StoreWithoutMemory(cache);
        }) == 0);
}

TEST_CASE("a query keeps no memory of its own however it ends") {
  CHECK(LeftBehindBy([] {
          for (int allocation = 1, failures = 1; failures != 0; ++allocation) {
            OpenHashCache cache;
            cache.InitLRUCache();
            metadata_input_s in = InputFor(kLongPath);
            Answer out;
            const FailingNew failing(allocation, false);
            cache.Ask(in, out);
            failures = failing.failures;
          }
        }) == 0);
  CHECK(LeftBehindBy([] {
          OpenHashCache cache;
          cache.InitLRUCache();
          cache.onHash = [](metadata_input_s&, metadata_output_s&) -> int { throw 1; };
          Answer out;
          try {
            cache.Ask(InputFor(kLongPath), out);
          } catch (int) {
          }
        }) == 0);
}

TEST_CASE("a node that cannot be inserted gives 2 and stays the caller's") {
  OpenHashCache cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  LRUCacheKey key(in);
  LRUCacheNode mine(in, out);
  int code = 0;
  {
    const FailingNew failing(1);
    code = cache.InsertCacheNode(key, &mine);
  }
  CHECK(code == 2);
  CHECK(cache.CacheNodeList.empty());
}

TEST_CASE("pushing metadata without memory gives 0 and counts a failure") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  metadata_input_s in = InputFor(kLongPath);
  Answer out;
  int code = 9;
  {
    const FailingNew failing(1);
    code = orvex_update_metadata(&in, &out);
  }
  CHECK(code == 0);
  CHECK(engine.Metrics().cacheUpdateMetaDataFailure == 1);
  CHECK(engine.Metrics().cacheUpdateMetaDataSuccess == 0);
}

TEST_CASE("a query that runs out of memory gives 2 and the next one works") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  // The host itself allocates nothing.
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) { return 0; };
  metadata_input_s in = InputFor(kLongPath);
  int points = 0;
  for (;; ++points) {
    Answer out;
    int code = 0;
    int failures = 0;
    {
      const FailingNew failing(points + 1, false);
      code = engine.Query(in, out);
      failures = failing.failures;
    }
    if (failures == 0) break;
    CHECK(code == 2);
  }
  CHECK(points > 0);
  CHECK(engine.Metrics().cacheHit == 0);
  Answer out;
  in.queryFlags = QUERY_SIZE;
  CHECK(engine.Query(in, out) == 0);
  CHECK(engine.Metrics().cacheHit == 1);
}

TEST_CASE("a query without a path that runs out of memory gives 2") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  metadata_input_s in = InputFor(nullptr);
  Answer out;
  int code = 0;
  {
    const FailingNew failing(1);
    code = engine.Query(in, out);
  }
  CHECK(code == 2);
}

TEST_CASE("an answer that cannot be kept is in the record all the same") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  for (const uint32_t part : {QUERY_FILE_TYPE, QUERY_DIGEST32}) {
    metadata_input_s in = InputFor("/a");
    in.queryFlags = part;
    Answer out;
    int code = 0;
    // The short path is copied without memory; the path set's element is the
    // first allocation of a hash query, the node comes after it.
    {
      const FailingNew failing(part == QUERY_FILE_TYPE ? 1 : 2);
      code = engine.Query(in, out);
    }
    CHECK(code == 2);
    CHECK(out.resultReady == 1);
    CHECK((out.queryFlags & part) == part);
  }
}

TEST_CASE("a path that cannot be marked gives 2 before the host is asked") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  metadata_input_s in = InputFor("/a");
  Answer out;
  int code = 0;
  {
    const FailingNew failing(1);
    code = engine.Query(in, out);
  }
  CHECK(code == 2);
  CHECK(out.resultReady == 0);
  CHECK(engine.host.hashCalls == 0);
  CHECK(engine.Query("/a") == 0);
}

TEST_CASE("a file type does not make an answer whose hash part ran out of memory ready") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  // A hash query without a path needs memory for its exception, a file type needs no path.
  metadata_input_s in = InputFor(nullptr);
  in.queryFlags = QUERY_FILE_TYPE;
  Answer first;
  REQUIRE(engine.Query(in, first) == 0);
  in.queryFlags |= QUERY_DIGEST32;
  Answer out;
  int code = 0;
  {
    const FailingNew failing(1);
    code = engine.Query(in, out);
  }
  CHECK(code == 2);
  CHECK(out.resultReady == 0);
  CHECK(out.queryFlags == (QUERY_FILE_TYPE | QUERY_MTIME));
}

TEST_CASE("an engine that runs out of memory while it reads its configuration does not start") {
  std::ofstream("orvexeng.ini") << "CacheCapacity=7\n" << kLongPath << "=1\n";
  RecordedLog quiet(ORVEX_LOG_FATAL);
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  int points = 0;
  for (;; ++points) {
    int code = 0;
    int failures = 0;
    {
      const FailingNew failing(points + 1, false);
      code = orvex_init(&callbacks);
      failures = failing.failures;
    }
    if (failures == 0) break;
    CHECK(code == 2);
    CHECK(orvex_get_status() == 100);
  }
  CHECK(points > 0);
  CHECK(orvex_get_status() == 101);
}
