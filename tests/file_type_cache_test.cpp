// The cache of file types.
#include <doctest/doctest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>

#include "cache/orvex_lru_cache_file_type.h"
#include "harness/latch.h"
#include "harness/recorded_log.h"
#include "harness/records.h"

namespace {

metadata_input_s TypeOf(const char* path) {
  metadata_input_s in = InputFor(path);
  in.queryFlags = QUERY_FILE_TYPE;
  return in;
}

// A separate file type cache, with its host.
struct TypeCacheUnderTest {
  TypeCacheUnderTest() {
    cache.InitLRUCache();
    cache.RegisterMetaQueryCallback(CallHost);
  }
  ~TypeCacheUnderTest() { cache.FlushCache(); }
  TypeCacheUnderTest(const TypeCacheUnderTest&) = delete;
  TypeCacheUnderTest& operator=(const TypeCacheUnderTest&) = delete;

  static int CallHost(metadata_input_s* in, metadata_output_s* out, void* ctx) {
    auto& self = *static_cast<TypeCacheUnderTest*>(ctx);
    ++self.calls;
    return self.onFileType(*in, *out);
  }

  int Ask(metadata_input_s in, metadata_output_s& out) { return cache.Query(&in, &out, this); }
  FileTypeCacheMetrics_s Metrics() const {
    FileTypeCacheMetrics_s metrics;
    cache.GetMetrics(metrics);
    return metrics;
  }

  FileTypeCache cache;
  std::atomic<int> calls{0};
  std::function<int(metadata_input_s&, metadata_output_s&)> onFileType =
      [](metadata_input_s&, metadata_output_s& out) {
        out.major = 3;
        out.minor = -4;
        out.queryFlags |= QUERY_FILE_TYPE;
        return 0;
      };
};

}  // namespace

TEST_CASE("a file type that was asked for again outlives one that was not, logged or not") {
  for (const ORVEX_LOG level : {ORVEX_LOG_INFO, ORVEX_LOG_DEBUG}) {
    CAPTURE(level);
    RecordedLog log(level);
    TypeCacheUnderTest test;
    test.cache.SetCapacity(2);
    Answer out;
    for (const char* path : {"/a", "/b", "/a", "/c", "/a"}) CHECK(test.Ask(TypeOf(path), out) == 0);
    CHECK(test.calls == 3);
    CHECK(test.Ask(TypeOf("/b"), out) == 0);
    CHECK(test.calls == 4);
  }
}

TEST_CASE("the second query of a kept file type is a hit and calls no host") {
  TypeCacheUnderTest test;
  for (int i = 0; i < 2; ++i) {
    Answer out;
    CHECK(test.Ask(TypeOf("/a"), out) == 0);
    CHECK(out.resultReady == 1);
    CHECK(out.major == 3);
    CHECK(out.minor == -4);
    CHECK((out.queryFlags & QUERY_FILE_TYPE) != 0);
    if (i == 1) {
      CHECK(out.modificationTime == 5);
      CHECK((out.queryFlags & QUERY_MTIME) != 0);
    }
  }
  CHECK(test.calls == 1);
  CHECK(test.Metrics().Hit == 1);
  CHECK(test.Metrics().Miss == 1);
}

TEST_CASE("without INV_KEEP_IN_CACHE every query of a file type asks the host") {
  TypeCacheUnderTest test;
  metadata_input_s in = TypeOf("/a");
  in.invOperation = INV_CACHE_ONLY;  // Means nothing to this cache.
  for (int i = 0; i < 3; ++i) {
    Answer out;
    CHECK(test.Ask(in, out) == 0);
    CHECK(out.resultReady == 1);
  }
  CHECK(test.calls == 3);
  CHECK(test.Metrics().Miss == 3);
  CHECK(test.Metrics().numOfHelpFuncCalled == 3);
}

TEST_CASE("a file type of another mtime is out of date until it is refreshed") {
  TypeCacheUnderTest test;
  metadata_input_s in = TypeOf("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  test.Ask(in, first);
  in.mtime = 6;
  in.invOperation = 0;
  Answer notKept;
  test.Ask(in, notKept);
  in.invOperation = INV_KEEP_IN_CACHE;
  Answer kept;
  test.Ask(in, kept);
  Answer hit;
  test.Ask(in, hit);
  CHECK(hit.modificationTime == 6);
  CHECK(test.calls == 3);
  CHECK(test.Metrics().OutOfDate == 2);
  CHECK(test.Metrics().Hit == 1);
}

TEST_CASE("a file type of an older mtime is out of date as well") {
  TypeCacheUnderTest test;
  metadata_input_s in = TypeOf("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  test.Ask(in, first);
  in.mtime = 4;
  Answer out;
  test.Ask(in, out);
  CHECK(test.calls == 2);
  CHECK(test.Metrics().OutOfDate == 1);
}

TEST_CASE("threads that miss on one file at once all ask the host and share one entry") {
  TypeCacheUnderTest test;
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  Latch bothInside;
  const auto answer = test.onFileType;
  test.onFileType = [&](metadata_input_s& in, metadata_output_s& out) {
    if (test.calls == 2) bothInside.Open();
    bothInside.Wait();
    return answer(in, out);
  };
  const auto ask = [&test] {
    Answer out;
    return test.Ask(TypeOf("/a"), out) == 0 && out.resultReady == 1 && out.major == 3;
  };
  auto first = std::async(std::launch::async, ask);
  auto second = std::async(std::launch::async, ask);
  CHECK(first.get());
  CHECK(second.get());
  CHECK(test.calls == 2);
  CHECK(test.Metrics().Miss == 2);
  RecordedLog log;
  test.cache.DumpCache();
  CHECK(log.CountOf("CacheNodeList.size=1") == 1);
}

TEST_CASE("an mtime of 0 never makes a file type out of date") {
  TypeCacheUnderTest test;
  metadata_input_s in = TypeOf("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  test.Ask(in, first);
  in.mtime = 0;
  Answer out;
  test.Ask(in, out);
  CHECK(test.Metrics().Hit == 1);
  CHECK(out.modificationTime == 5);
}

TEST_CASE("an answer without a file type is kept and later hits have none") {
  TypeCacheUnderTest test;
  test.onFileType = [](metadata_input_s&, metadata_output_s&) { return 0; };
  Answer first;
  CHECK(test.Ask(TypeOf("/a"), first) == 0);
  Answer out;
  CHECK(test.Ask(TypeOf("/a"), out) == 0);
  CHECK(out.resultReady == 1);
  CHECK((out.queryFlags & QUERY_FILE_TYPE) == 0);
  CHECK(test.Metrics().Hit == 1);
}

TEST_CASE("with a capacity of 1 each new file evicts the previous one at INFO") {
  TypeCacheUnderTest test;
  test.cache.SetCapacity(1);
  Answer first;
  test.Ask(TypeOf("/a"), first);
  RecordedLog log(ORVEX_LOG_INFO);
  Answer second;
  test.Ask(TypeOf("/b"), second);
  const auto records = log.Records();
  REQUIRE(records.size() == 1);
  CHECK(records[0].function == "Dump");
  CHECK(records[0].file == "orvex_lru_cache");
  CHECK(records[0].text.rfind("Node: path=/a major=3, minor=", 0) == 0);
  CHECK(test.Metrics().WipeOuts == 1);
}

TEST_CASE("the line of an evicted node reads as its narrow conversions make it") {
  // What follows the first number depends on the width of the target.
  metadata_input_s in = TypeOf("/a");
  Answer out;
  out.major = 3;
  out.minor = 4;
  out.queryFlags = QUERY_FILE_TYPE;
  RecordedLog log;
  FileTypeCacheNode(in, out).Dump();
  CHECK(log.TakeTranscript() ==
        Lines({std::string("INFO Dump orvex_lru_cache: Node: path=/a major=3, minor=") +
               (sizeof(void*) == 4 ? "0, mtime=4, queryFlag=5" : "4, mtime=5, queryFlag=384")}));
}

TEST_CASE("a query of a file type is logged step by step at DEBUG") {
  TypeCacheUnderTest test;
  RecordedLog log;
  Answer miss;
  test.Ask(TypeOf("/a"), miss);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, /a",
               "DEBUG Query orvex_lru_cache: FileTypeCache::Query [/a] result=1",
               "DEBUG Query orvex_lru_cache: Get file type result [0]. Keep in cache [1]",
               "DEBUG LRUCacheNodeUpdate orvex_lru_cache: Insert new cache node: path=/a"}));
  Answer hit;
  test.Ask(TypeOf("/a"), hit);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache hits, /a",
               "DEBUG LRUCacheNodeUpdate orvex_lru_cache: Cache node updated: path=/a",
               "DEBUG Query orvex_lru_cache: FileTypeCache::Query [/a] result=2"}));
}

TEST_CASE("an out-of-date file type is logged at WARNING") {
  TypeCacheUnderTest test;
  metadata_input_s in = TypeOf("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  test.Ask(in, first);
  in.mtime = 6;
  RecordedLog log(ORVEX_LOG_WARNING);
  Answer out;
  test.Ask(in, out);
  CHECK(log.TakeTranscript() ==
        Lines({"WARNING QueryLRUCache orvex_lru_cache: Cache query: cache out-of-date, (6/5) /a"}));
}

TEST_CASE("a file type query needs no path") {
  TypeCacheUnderTest test;
  for (int i = 0; i < 2; ++i) {
    Answer out;
    CHECK(test.Ask(TypeOf(nullptr), out) == 0);
    CHECK(out.resultReady == 1);
  }
  CHECK(test.calls == 1);
}

TEST_CASE("a stopped file type cache refuses with 8 before it looks at the records") {
  TypeCacheUnderTest test;
  test.cache.DeinitLRUCache();
  Answer out;
  out.resultReady = 9;
  CHECK(test.cache.Query(nullptr, nullptr, nullptr) == 8);
  CHECK(test.Ask(TypeOf("/a"), out) == 8);
  CHECK(out.resultReady == 9);
  CHECK(test.calls == 0);
}

TEST_CASE("a file type query without both records returns 3 and logs nothing") {
  TypeCacheUnderTest test;
  RecordedLog log;
  metadata_input_s in = TypeOf("/a");
  Answer out;
  CHECK(test.cache.Query(nullptr, nullptr, nullptr) == 3);
  CHECK(test.cache.Query(&in, nullptr, nullptr) == 3);
  CHECK(test.cache.Query(nullptr, &out, nullptr) == 3);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a failing file type host's code is returned and nothing is kept") {
  TypeCacheUnderTest test;
  test.onFileType = [](metadata_input_s&, metadata_output_s&) { return -9; };
  RecordedLog log;
  Answer out;
  out.resultReady = 9;
  CHECK(test.Ask(TypeOf("/a"), out) == -9);
  CHECK(out.resultReady == 0);
  CHECK(log.CountOf("Get file type result [-9]. Keep in cache [1]") == 1);
  CHECK(test.Metrics().numOfHelpFuncCalled == 1);
  test.Ask(TypeOf("/a"), out);
  CHECK(test.Metrics().Miss == 2);
}

TEST_CASE("a file type callback can veto that its answer is kept") {
  TypeCacheUnderTest test;
  test.onFileType = [](metadata_input_s& in, metadata_output_s&) {
    in.invOperation = 0;
    return 0;
  };
  RecordedLog log;
  Answer out;
  test.Ask(TypeOf("/a"), out);
  CHECK(log.CountOf("Get file type result [0]. Keep in cache [0]") == 1);
  test.Ask(TypeOf("/a"), out);
  CHECK(test.Metrics().Miss == 2);
}

TEST_CASE("an exception of the file type host passes through and the call counts") {
  TypeCacheUnderTest test;
  test.onFileType = [](metadata_input_s&, metadata_output_s&) -> int {
    throw std::runtime_error("the host's own");
  };
  Answer out;
  CHECK_THROWS_WITH_AS(test.Ask(TypeOf("/a"), out), "the host's own", std::runtime_error);
  CHECK(test.Metrics().numOfHelpFuncCalled == 1);
}

TEST_CASE("a file type cache can be made with a capacity") {
  RecordedLog log;
  FileTypeCache cache(7);
  FileTypeCache largest(5000);
  CHECK(log.TakeTranscript() ==
        Lines({"INFO SetCapacity orvex_lru_cache: Set max cache capacity to 7",
               "INFO SetCapacity orvex_lru_cache: Set max cache capacity to 4096"}));
}

TEST_CASE("the counters of the file type cache are dumped in their order") {
  TypeCacheUnderTest test;
  test.cache.SetCapacity(1);
  metadata_input_s in = TypeOf("/a");
  in.fileOperation = KEY_PATH;
  const auto ask = [&](const char* path, uint64_t mtime) {
    in.path = path;
    in.mtime = mtime;
    Answer out;
    test.Ask(in, out);
  };
  ask("/a", 5);
  ask("/a", 5);
  ask("/a", 6);
  ask("/b", 5);
  ask("/c", 5);
  ask("/c", 5);
  ask("/c", 5);
  RecordedLog log;
  test.cache.DumpMetrics();
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG DumpMetrics orvex_lru_cache: File type cache Metrics: Hit=3, Miss=3, "
               "Out-of-date=1, WipeOuts=2, numOfHelpFuncCalled=4"}));
}

TEST_CASE("stopping the file type cache empties it and zeroes its counters") {
  TypeCacheUnderTest test;
  Answer out;
  test.Ask(TypeOf("/a"), out);
  CHECK(test.cache.DeinitLRUCache() == 0);
  CHECK(test.Metrics().Miss == 0);
  CHECK(test.cache.InitLRUCache() == 0);
  test.Ask(TypeOf("/a"), out);
  CHECK(test.Metrics().Miss == 1);
  CHECK(test.calls == 2);
}

TEST_CASE("a new file type node is empty") {
  const FileTypeCacheNode node;
  CHECK(node.queryFlag == 0);
  CHECK(node.path == "");
  CHECK(node.major == 0);
  CHECK(node.minor == 0);
  CHECK(node.mtime == 0);
}

TEST_CASE("a file type node keeps a type and an mtime once it had them") {
  metadata_input_s in = TypeOf("/a");
  Answer out;
  out.major = -1;
  out.minor = 2;
  out.queryFlags = QUERY_FILE_TYPE;
  FileTypeCacheNode node(in, out);
  CHECK(node.major == -1);
  metadata_input_s unknown = TypeOf(nullptr);
  unknown.mtime = 0;
  Answer nothing;
  node.SetDataToCacheNode(unknown, nothing);
  CHECK(node.path == "");
  CHECK(node.queryFlag == (QUERY_MTIME | QUERY_FILE_TYPE));
  Answer back;
  back.queryFlags = QUERY_SIZE;
  CHECK(node.GetDataFromCacheNode(back) == 0);
  CHECK(back.queryFlags == (QUERY_SIZE | QUERY_MTIME | QUERY_FILE_TYPE));
  CHECK(back.major == -1);
  CHECK(back.minor == 2);
  CHECK(back.modificationTime == 5);
}

TEST_CASE("an empty file type node returns nothing") {
  FileTypeCacheNode node;
  Answer back;
  back.major = 7;
  back.modificationTime = 8;
  CHECK(node.GetDataFromCacheNode(back) == 0);
  CHECK(back.queryFlags == 0);
  CHECK(back.major == 7);
  CHECK(back.modificationTime == 8);
}

TEST_CASE("assigning a file type node copies path and type but no mtime") {
  metadata_input_s in = TypeOf("/a");
  Answer out;
  out.major = 3;
  out.minor = 4;
  out.queryFlags = QUERY_FILE_TYPE;
  FileTypeCacheNode source(in, out);
  FileTypeCacheNode target;
  target = source;
  CHECK(target.path == "/a");
  CHECK(target.major == 3);
  CHECK(target.minor == 4);
  CHECK(target.queryFlag == QUERY_FILE_TYPE);
  CHECK(target.mtime == 0);
}

TEST_CASE("a file type node that takes over another's type keeps its own place in the cache") {
  TypeCacheUnderTest test;
  FileTypeCacheNode* nodes[2] = {};
  const char* const paths[2] = {"/a", "/b"};
  for (const int i : {0, 1}) {
    metadata_input_s in = TypeOf(paths[i]);
    Answer out;
    LRUCacheKey key(in);
    nodes[i] = new FileTypeCacheNode(in, out);
    test.cache.LRUCacheNodeUpdate(key, nodes[i], LRU_INSERT);
  }
  *nodes[0] = *nodes[1];
  test.cache.SetCapacity(1);
  metadata_input_s evicted = TypeOf("/a");
  metadata_input_s kept = TypeOf("/b");
  Answer out;
  CHECK(test.cache.QueryLRUCache(&evicted, &out) == LRU_MISS);
  CHECK(test.cache.QueryLRUCache(&kept, &out) == LRU_HIT);
}

TEST_CASE("assigning a file type node without a type leaves the target's") {
  metadata_input_s in = TypeOf("/a");
  Answer out;
  out.major = 3;
  out.queryFlags = QUERY_FILE_TYPE;
  FileTypeCacheNode target(in, out);
  FileTypeCacheNode source;
  target = source;
  CHECK(target.path == "");
  CHECK(target.major == 3);
  CHECK((target.queryFlag & QUERY_FILE_TYPE) != 0);
}

TEST_CASE("no counter of the file type cache lies across two cache lines") {
  CHECK(alignof(FileTypeCacheMetrics_s) == 8);
  CHECK(sizeof(FileTypeCacheMetrics_s) == 40);
}
