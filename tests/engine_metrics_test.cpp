// The counters of both caches as the host reads, prints and resets them.
#include <doctest/doctest.h>

#include <cstring>
#include <string>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "engine/orvex_engine.h"
#include "harness/engine_under_test.h"
#include "harness/recorded_log.h"
#include "harness/virtual_table.h"
#include "support/orvex_profiling.h"

namespace {

std::string MetricsError(const std::string& text) {
  return "ERROR GetMetrics orvex_engine: " + text;
}

// Every counter of both caches gets a value of its own.
void CauseEverything(EngineUnderTest& engine) {
  RecordedLog quiet(ORVEX_LOG_FATAL);
  orvex_set_cache_capacity(0, 2);
  orvex_set_cache_capacity(1, 1);
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_PATH;
  const auto ask = [&](const char* path, uint64_t mtime, uint32_t parts) {
    in.path = path;
    in.mtime = mtime;
    in.queryFlags = parts;
    Answer out;
    engine.Query(in, out);
  };
  for (const char* path : {"/a", "/b", "/c", "/d"})
    ask(path, 5, QUERY_DIGEST32);                            // 4 misses, 2 evictions
  for (int i = 0; i < 5; ++i) ask("/d", 5, QUERY_DIGEST32);  // 5 hits
  for (int i = 0; i < 3; ++i) ask("/d", 5, QUERY_SIGNERS);   // 3 partial hits
  ask("/d", 6, QUERY_DIGEST32);                              // 1 out of date
  for (int i = 0; i < 6; ++i) {
    Answer out;
    orvex_update_metadata(&in, &out);
  }
  for (int i = 0; i < 7; ++i) orvex_update_metadata(nullptr, nullptr);
  for (const char* path : {"/a", "/b", "/c"})
    ask(path, 5, QUERY_FILE_TYPE);                            // 3 misses, 2 evictions
  for (int i = 0; i < 4; ++i) ask("/c", 5, QUERY_FILE_TYPE);  // 4 hits
  ask("/c", 6, QUERY_FILE_TYPE);                              // 1 out of date
}

// What a log callback reads in the messages of one query that hold a text: each with its
// lookups, misses, hits, partial hits and out-of-date ones, or with calls of the host.
std::string CountersInLines(EngineUnderTest& engine, metadata_input_s& in, const std::string& text,
                            ORVEX_LOG level = ORVEX_LOG_DEBUG) {
  orvex_reset_metrics();
  std::string seen;
  {
    RecordedLog log(level);
    log.onMessage = [&](const LogRecord& record) {
      if (record.text.find(text) == std::string::npos) return;
      const orvex_metrics_s now = engine.Metrics();
      const std::string told = record.text.substr(0, record.text.find(" used"));
      seen += told.substr(0, told.find_first_of(",=(")) + ":";
      const bool ofType = in.queryFlags == QUERY_FILE_TYPE;
      for (const int64_t counter :
           {ofType ? now.fileTypeHelpFuncCalled : now.cacheQuery,
            ofType ? now.fileTypeMiss : now.cacheMiss, ofType ? now.fileTypeHit : now.cacheHit,
            ofType ? int64_t{0} : now.cachePartialHit,
            ofType ? now.fileTypeOutOfDate : now.cacheOutOfDate}) {
        seen += " " + std::to_string(counter);
      }
      seen += "\n";
    };
    Answer out;
    engine.Query(in, out);
  }
  return seen;
}

}  // namespace

TEST_CASE("a log callback finds a lookup and its result counted when they are logged") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_PATH;
  CHECK(CountersInLines(engine, in, "Cache query") == "Cache query: cache miss: 1 1 0 0 0\n");
  CHECK(CountersInLines(engine, in, "ache") ==
        Lines({"Cache query: cache hits: 1 0 1 0 0", "Cache node updated: path: 1 0 1 0 0"}));
  CHECK(CountersInLines(engine, in, "metaOut") == "metaOut.modificationTime: 1 0 0 0 0\n");
  in.queryFlags = QUERY_SIGNERS;
  CHECK(CountersInLines(engine, in, "Cache query") ==
        "Cache query: cache partial hits: 1 0 0 1 0\n");
  for (const ORVEX_LOG level : {ORVEX_LOG_DEBUG, ORVEX_LOG_WARNING}) {
    ++in.mtime;
    CHECK(CountersInLines(engine, in, "Cache query", level) ==
          "Cache query: cache out-of-date: 1 0 0 0 1\n");
  }
}

TEST_CASE("a log callback finds a hit counted when the hit's move to the front was timed") {
  EngineUnderTest engine;
  engine.Query("/a");
  metadata_input_s in = InputFor("/a");
  orvex_profiling_set_enable(true);
  CHECK(CountersInLines(engine, in, "LRUCacheNodeUpdate", ORVEX_LOG_INFO) ==
        "[PROFILING] LRUCache::LRUCacheNodeUpdate: 1 0 1 0 0\n");
  orvex_profiling_set_enable(false);
}

TEST_CASE("a log callback finds a file type's lookup counted before its line") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_PATH;
  in.queryFlags = QUERY_FILE_TYPE;
  CHECK(CountersInLines(engine, in, "Cache query") == "Cache query: cache miss: 0 1 0 0 0\n");
  CHECK(CountersInLines(engine, in, "Cache query") == "Cache query: cache hits: 0 0 1 0 0\n");
  in.mtime = 6;
  CHECK(CountersInLines(engine, in, "Cache query") ==
        "Cache query: cache out-of-date: 0 0 0 0 1\n");
}

TEST_CASE("a log callback finds the host's file type counted after the line of its answer") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_FILE_TYPE;
  for (const int code : {0, 77}) {
    engine.host.onFileType = [code](metadata_input_s& asked, metadata_output_s& out) {
      return code != 0 ? code : Host::AnswerFileType(asked, out);
    };
    CHECK(CountersInLines(engine, in, "Get file type result") ==
          "Get file type result [" + std::to_string(code) + "]. Keep in cache [1]: 0 1 0 0 0\n");
    CHECK(engine.Metrics().fileTypeHelpFuncCalled == 1);
    orvex_flush_cache(ORVEX_FILE_TYPE_CACHE);
  }
}

TEST_CASE("a log callback finds a hash calculation counted before its time is logged") {
  EngineUnderTest engine;
  orvex_profiling_set_enable(true);
  int64_t calls = -1;
  RecordedLog log(ORVEX_LOG_INFO);
  log.onMessage = [&](const LogRecord& record) {
    if (record.text.find("MetaQueryCallback") != std::string::npos) {
      calls = engine.Metrics().cacheHelpFuncCalled;
    }
  };
  engine.Query("/a");
  orvex_profiling_set_enable(false);
  CHECK(calls == 1);
}

TEST_CASE("every counter is copied to its own field") {
  EngineUnderTest engine;
  CauseEverything(engine);
  const orvex_metrics_s metrics = engine.Metrics();
  CHECK(std::string(metrics.version) == "1.1.1035");
  CHECK(metrics.cacheQuery == 13);
  CHECK(metrics.cacheMiss == 4);
  CHECK(metrics.cacheHit == 5);
  CHECK(metrics.cachePartialHit == 3);
  CHECK(metrics.cacheOutOfDate == 1);
  CHECK(metrics.cacheWipeOuts == 2);
  CHECK(metrics.fileTypeHit == 4);
  CHECK(metrics.fileTypeMiss == 3);
  CHECK(metrics.fileTypeOutOfDate == 1);
  CHECK(metrics.fileTypeWipeOuts == 2);
  CHECK(metrics.fileTypeHelpFuncCalled == 4);
  CHECK(metrics.cacheUpdateMetaDataSuccess == 6);
  CHECK(metrics.cacheUpdateMetaDataFailure == 7);
  CHECK(metrics.cacheHelpFuncCalled == 8);
  CHECK(metrics.cacheWaitInHashCalculation == 0);
  for (const int64_t word : metrics.reserved) CHECK(word == 0);
}

TEST_CASE("the version is padded with zero bytes") {
  EngineUnderTest engine;
  orvex_metrics_s metrics;
  std::memset(&metrics, 0xff, sizeof metrics);
  unsigned int size = 0;
  CHECK(orvex_get_metrics(&metrics, sizeof metrics, &size) == 0);
  char expected[32] = "1.1.1035";
  CHECK(std::memcmp(metrics.version, expected, sizeof expected) == 0);
}

TEST_CASE("as much of the record is copied as the buffer takes") {
  EngineUnderTest engine;
  for (const char* path : {"/a", "/a", "/b"}) engine.Query(path);
  const orvex_metrics_s all = engine.Metrics();
  const auto check = [&all](unsigned int offered, unsigned int written) {
    CAPTURE(offered);
    unsigned char buffer[4096];
    std::memset(buffer, 0xee, sizeof buffer);
    unsigned int size = 0;
    CHECK(orvex_get_metrics(reinterpret_cast<orvex_metrics_s*>(buffer), offered, &size) == 0);
    CHECK(size == written);
    CHECK(std::memcmp(buffer, &all, written) == 0);
    CHECK(buffer[written] == 0xee);
  };
  for (unsigned int offered = 1; offered <= 192; ++offered) check(offered, offered);
  for (const unsigned int offered : {193U, 4096U, ~0U}) check(offered, 192);
}

TEST_CASE("a buffer of size 0 is refused with 3") {
  EngineUnderTest engine;
  RecordedLog log;
  orvex_metrics_s metrics{};
  unsigned int size = 77;
  CHECK(orvex_get_metrics(&metrics, 0, &size) == 3);
  CHECK(size == 77);
  CHECK(log.TakeTranscript() == Lines({MetricsError("Invalid metrics data size = 0")}));
}

TEST_CASE("a null record is an error and no crash") {
  EngineUnderTest engine;
  RecordedLog log;
  unsigned int size = 77;
  CHECK(orvex_get_metrics(nullptr, sizeof(orvex_metrics_s), &size) == 1);
  CHECK(size == 77);
  CHECK(log.TakeTranscript() == Lines({MetricsError("Memory copy metrics operation failed")}));
}

TEST_CASE("the engine returns its counters by reference as the exported function does") {
  EngineUnderTest engine;
  CauseEverything(engine);
  const orvex_metrics_s exported = engine.Metrics();
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  const ORVEX_ENGINE& inside = *ORVEX_Singleton<ORVEX_ENGINE>::GetInstance();
  CHECK(inside.GetMetrics(metrics, sizeof metrics, size) == 0);
  CHECK(size == sizeof metrics);
  CHECK(metrics.cacheQuery == 13);
  CHECK(std::memcmp(&metrics, &exported, sizeof metrics) == 0);
}

TEST_CASE("before it is initialised the engine returns no counters") {
  RecordedLog log;
  orvex_metrics_s metrics{};
  unsigned int size = 77;
  CHECK(orvex_get_metrics(&metrics, sizeof metrics, &size) == 100);
  CHECK(orvex_get_metrics(nullptr, 0, nullptr) == 100);
  CHECK(orvex_reset_metrics() == 100);
  CHECK(size == 77);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("counters are dumped in any state of the engine") {
  const std::string zeros = Lines(
      {"DEBUG DumpMetrics orvex_lru_cache: Cache Metrics: Query=0, Miss=0, Hit=0, PartialHit=0, "
       "Out-of-date=0, WipeOuts=0, numOfCacheUpdateMetaDataSuccess=0, "
       "numOfCacheUpdateMetaDataFailure=0, numOfHelpFuncCalled=0, numOfWaitInHashCalculation=0",
       "DEBUG DumpMetrics orvex_lru_cache: File type cache Metrics: Hit=0, Miss=0, Out-of-date=0, "
       "WipeOuts=0, numOfHelpFuncCalled=0"});
  RecordedLog log;
  orvex_dump_metrics();
  CHECK(log.TakeTranscript() == zeros);
  {
    EngineUnderTest engine;
    CauseEverything(engine);
  }
  RecordedLog again;
  orvex_dump_metrics();
  CHECK(again.TakeTranscript() == zeros);
}

TEST_CASE("after a reset every counter is zero until new queries come") {
  EngineUnderTest engine;
  CauseEverything(engine);
  CHECK(orvex_reset_metrics() == 0);
  orvex_metrics_s zero{};
  std::strcpy(zero.version, "1.1.1035");
  orvex_metrics_s metrics = engine.Metrics();
  CHECK(std::memcmp(&metrics, &zero, sizeof zero) == 0);
  engine.Query("/z");
  CHECK(engine.Metrics().cacheQuery == 1);
}

TEST_CASE("reading the counters is timed under its name") {
  EngineUnderTest engine;
  ORVEX_Profiling::EnableProfiling = true;
  RecordedLog log(ORVEX_LOG_INFO);
  engine.Metrics();
  orvex_reset_metrics();
  ORVEX_Profiling::EnableProfiling = false;
  CHECK(log.CountOf("[PROFILING] ORVEX_ENGINE::GetMetrics used") == 1);
  CHECK(log.Records().size() == 1);
}

TEST_CASE("counters that the hash cache cannot return are an error with its code") {
  EngineUnderTest engine;
  RecordedLog log;
  const ReplacedOperation failing(
      &HashCache(), kHashCacheSlots, 8, +[](void*, void*) { return 46; });
  orvex_metrics_s metrics{};
  unsigned int size = 77;
  CHECK(orvex_get_metrics(&metrics, sizeof metrics, &size) == 46);
  CHECK(size == 77);
  CHECK(metrics.version[0] == '\0');
  CHECK(log.TakeTranscript() == Lines({MetricsError("Get cache metrics failed: rc=46")}));
}

TEST_CASE("counters that the file type cache cannot return are an error with its code") {
  EngineUnderTest engine;
  RecordedLog log;
  const ReplacedOperation failing(
      &TypeCache(), kFileTypeCacheSlots, 8, +[](void*, void*) { return 47; });
  orvex_metrics_s metrics{};
  unsigned int size = 77;
  CHECK(orvex_get_metrics(&metrics, sizeof metrics, &size) == 47);
  CHECK(metrics.version[0] == '\0');
  CHECK(log.TakeTranscript() == Lines({MetricsError("Get file type cache metrics failed: rc=47")}));
}
