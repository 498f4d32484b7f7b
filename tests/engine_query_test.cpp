// Which cache a query goes to, and what both return.
#include <doctest/doctest.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "harness/engine_under_test.h"
#include "harness/latch.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"
#include "support/orvex_profiling.h"

namespace {

metadata_input_s Asking(uint32_t parts) {
  metadata_input_s in = InputFor("/a");
  in.queryFlags = parts;
  return in;
}

std::string QueryError(const std::string& text) { return "ERROR Query orvex_engine: " + text; }

// The errors of the engine alone, in order.
std::string EngineErrors(RecordedLog& log) {
  std::string errors;
  for (const LogRecord& record : log.Records()) {
    if (record.level == ORVEX_LOG_ERROR && record.file == "orvex_engine") {
      errors += QueryError(record.text) + "\n";
    }
  }
  return errors;
}

}  // namespace

TEST_CASE("a query that asks for nothing returns 0 and leaves the output alone") {
  EngineUnderTest engine;
  RecordedLog log;
  metadata_input_s in = Asking(0);
  Answer out;
  out.queryFlags = 0x77;
  out.resultReady = 9;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.queryFlags == 0x77);
  CHECK(out.resultReady == 9);
  CHECK(engine.host.hashCalls == 0);
  CHECK(engine.host.fileTypeCalls == 0);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a query for the file type alone never reaches the hash cache") {
  EngineUnderTest engine;
  RecordedLog log;
  metadata_input_s in = Asking(QUERY_FILE_TYPE);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.major == 3);
  CHECK(out.minor == 4);
  CHECK(engine.host.fileTypeCalls == 1);
  CHECK(engine.host.hashCalls == 0);
  CHECK(log.CountOf("Free to calculate") == 0);
}

TEST_CASE("a query without the file type never reaches the file type cache") {
  EngineUnderTest engine;
  for (const uint32_t part :
       {0x01u, 0x02u, 0x04u, 0x08u, 0x10u, 0x20u, 0x40u, 0x80u, 0x200u, 0x80000000u}) {
    CAPTURE(part);
    metadata_input_s in = Asking(part);
    in.invOperation = 0;
    Answer out;
    const int before = engine.host.hashCalls;
    CHECK(engine.Query(in, out) == 0);
    CHECK(engine.host.hashCalls == before + 1);
  }
  CHECK(engine.host.fileTypeCalls == 0);
}

TEST_CASE("a query for both asks the file type first") {
  EngineUnderTest engine;
  std::string order;
  engine.host.onFileType = [&](metadata_input_s& in, metadata_output_s& out) {
    order += "type ";
    return Host::AnswerFileType(in, out);
  };
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    order += "hash ";
    return Host::AnswerHash(in, out);
  };
  metadata_input_s in = Asking(QUERY_FILE_TYPE | QUERY_DIGEST32);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(order == "type hash ");
  CHECK((out.queryFlags & in.queryFlags) == in.queryFlags);
  CHECK(engine.Query(in, out) == 0);
  CHECK(order == "type hash ");
}

TEST_CASE("a failing file type does not keep the hash from being asked") {
  EngineUnderTest engine;
  engine.host.onFileType = [](metadata_input_s&, metadata_output_s&) { return 11; };
  RecordedLog log;
  metadata_input_s in = Asking(QUERY_FILE_TYPE | QUERY_DIGEST32);
  Answer out;
  CHECK(engine.Query(in, out) == 11);
  CHECK(engine.host.hashCalls == 1);
  CHECK((out.queryFlags & QUERY_DIGEST32) != 0);
  CHECK(EngineErrors(log) == Lines({QueryError("Error query file type cache 11")}));
}

TEST_CASE("a lone failure of the hash cache is logged with 0 and returned") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) { return 22; };
  RecordedLog log;
  metadata_input_s in = Asking(QUERY_DIGEST32);
  Answer out;
  CHECK(engine.Query(in, out) == 22);
  CHECK(EngineErrors(log) == Lines({QueryError("Error query hash cache 0")}));
}

TEST_CASE("a failure of the hash cache after a good file type is logged with 0 and returned") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) { return 22; };
  RecordedLog log;
  metadata_input_s in = Asking(QUERY_FILE_TYPE | QUERY_DIGEST32);
  Answer out;
  CHECK(engine.Query(in, out) == 22);
  CHECK(EngineErrors(log) == Lines({QueryError("Error query hash cache 0")}));
}

TEST_CASE("when both fail the file type's code is returned and logged twice") {
  EngineUnderTest engine;
  engine.host.onFileType = [](metadata_input_s&, metadata_output_s&) { return 11; };
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) { return 22; };
  RecordedLog log;
  metadata_input_s in = Asking(QUERY_FILE_TYPE | QUERY_DIGEST32);
  Answer out;
  CHECK(engine.Query(in, out) == 11);
  CHECK(EngineErrors(log) == Lines({QueryError("Error query file type cache 11"),
                                    QueryError("Error query hash cache 11")}));
}

TEST_CASE("a file type callback can change what the hash cache is asked") {
  EngineUnderTest engine;
  engine.host.onFileType = [](metadata_input_s& in, metadata_output_s& out) {
    in.queryFlags = QUERY_FILE_TYPE;
    return Host::AnswerFileType(in, out);
  };
  metadata_input_s in = Asking(QUERY_FILE_TYPE | QUERY_DIGEST32);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(engine.host.hashCalls == 0);
  engine.host.onFileType = [](metadata_input_s& asked, metadata_output_s&) {
    asked.queryFlags |= QUERY_DIGEST20;
    return 0;
  };
  in.path = "/b";
  CHECK(engine.Query(in, out) == 0);
  CHECK(engine.host.hashCalls == 1);
}

TEST_CASE("a query without both records is refused before the host is asked") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  Answer out;
  const struct {
    const char* missing;
    metadata_input_s* in;
    metadata_output_s* out;
  } rows[] = {
      {"both", nullptr, nullptr}, {"the input", nullptr, &out}, {"the output", &in, nullptr}};
  for (const auto& row : rows) {
    CAPTURE(row.missing);
    RecordedLog log;
    CHECK(orvex_query(row.in, row.out, &engine.host) == 3);
    char expected[100];
    std::snprintf(expected, sizeof expected, "Invalid parameter: metaIn=0x%08x, metaOut=0x%08x",
                  static_cast<unsigned int>(reinterpret_cast<uintptr_t>(row.in)),
                  static_cast<unsigned int>(reinterpret_cast<uintptr_t>(row.out)));
    CHECK(log.TakeTranscript() == Lines({QueryError(expected)}));
  }
  CHECK(engine.host.hashCalls == 0);
  CHECK(engine.host.fileTypeCalls == 0);
}

TEST_CASE("before it is initialised the engine refuses queries with 100 and logs nothing") {
  RecordedLog log;
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(orvex_query(&in, &out, nullptr) == 100);
  CHECK(orvex_query(&in, nullptr, nullptr) == 100);
  CHECK(orvex_query(nullptr, nullptr, nullptr) == 100);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("an engine that is not running reads no record") {
  // Unmapped memory.
  auto* const in = reinterpret_cast<metadata_input_s*>(uintptr_t{64});
  auto* const out = reinterpret_cast<metadata_output_s*>(uintptr_t{64});
  CHECK(orvex_query(in, out, nullptr) == 100);
  { EngineUnderTest engine; }
  CHECK(orvex_query(in, out, nullptr) == 100);
}

TEST_CASE("a stopped engine refuses queries with 100") {
  { EngineUnderTest engine; }
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(orvex_query(&in, &out, nullptr) == 100);
}

TEST_CASE("a log callback that gets a failure finds no query inside the hash cache") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) { return 77; };
  static int inside;
  inside = 0;
  orvex_register_log_cb(
      [](unsigned int level, unsigned int, const char*, const char*, const char*, unsigned int) {
        if (level == ORVEX_LOG_ERROR) inside += 1 + OpenedHashCache::ThreadsInside(HashCache());
      });
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_ERROR;
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(engine.Query(in, out) == 77);
  CHECK(orvex_query(&in, nullptr, nullptr) == 3);
  CHECK(inside == 2);  // Once for each message, and nobody inside.
}

TEST_CASE("a path that the warning about an old entry changes is marked and logged as it was") {
  EngineUnderTest engine;
  static metadata_input_s in;
  in = InputFor("/a");
  in.fileOperation = KEY_SIZE;
  Answer first;
  REQUIRE(engine.Query(in, first) == 0);
  in.mtime = 6;
  static std::string told;
  told.clear();
  orvex_register_log_cb(
      [](unsigned int, unsigned int, const char*, const char*, const char* message, unsigned int) {
        told += message;
        told += '\n';
        in.path = "/b";
      });
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;
  Answer second;
  CHECK(orvex_query(&in, &second, &engine.host) == 0);
  CHECK(told ==
        "Cache query: cache out-of-date, (6/5) /a\n"
        "[CalHashSet] File hash calculation is done, broadcast signal: /a\n");
}

TEST_CASE("a refused query is timed all the same") {
  ORVEX_Profiling::EnableProfiling = true;
  RecordedLog log(ORVEX_LOG_INFO);
  metadata_input_s in = InputFor("/a");
  Answer out;
  orvex_query(&in, &out, nullptr);
  CHECK(log.CountOf("[PROFILING] ORVEX_ENGINE::Query used") == 1);
}

TEST_CASE("the scopes of a query are timed from the innermost out") {
  EngineUnderTest engine;
  ORVEX_Profiling::EnableProfiling = true;
  RecordedLog log(ORVEX_LOG_INFO);
  metadata_input_s in = Asking(QUERY_FILE_TYPE | QUERY_DIGEST32);
  Answer out;
  engine.Query(in, out);
  ORVEX_Profiling::EnableProfiling = false;
  std::string names;
  for (const LogRecord& record : log.Records()) {
    if (record.file == "orvex_profiling") {
      names += record.text.substr(12, record.text.find(" used") - 12) + "\n";
    }
  }
  CHECK(names == Lines({"LRUCache::QueryLRUCache", "LRUCache::MetaQueryCallback",
                        "LRUCache::LRUCacheNodeUpdate", "LRUCache::LRUCacheNodeWipe",
                        "LRUCache::UpdateCache", "LRUCache::Query", "ORVEX_ENGINE::Query"}));
}

TEST_CASE("a hash query without a path throws and the engine goes on") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor(nullptr);
  Answer out;
  CHECK_THROWS_AS(engine.Query(in, out), std::logic_error);
  CHECK(engine.Query("/a") == 0);
  RecordedLog log;
  orvex_deinit();
  CHECK(log.CountOf("All threads leaves successfully, retry=0") == 2);
}

TEST_CASE("an exception of a callback passes through the engine and leaves no call counted") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) -> int {
    throw std::runtime_error("the host's own");
  };
  engine.host.onFileType = engine.host.onHash;
  for (const uint32_t part : {QUERY_FILE_TYPE, QUERY_DIGEST32}) {
    metadata_input_s in = Asking(part);
    Answer out;
    CHECK_THROWS_WITH_AS(engine.Query(in, out), "the host's own", std::runtime_error);
  }
  RecordedLog log;
  orvex_deinit();
  CHECK(log.CountOf("All threads leaves successfully, retry=0") == 2);
}

TEST_CASE("entries pushed before the engine starts are hits afterwards") {
  metadata_input_s in = InputFor("/a");
  Answer pushed;
  GiveDigests(pushed, kAllDigests, 9);
  orvex_update_metadata(&in, &pushed);
  EngineUnderTest engine;
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.digest32[0] == 9);
  CHECK(engine.host.hashCalls == 0);
}

TEST_CASE("a callback that asks the cache for its own path finds what is cached") {
  EngineUnderTest engine;
  int codes[2] = {9, 9};
  uint32_t ready[2] = {9, 9};
  int call = 0;
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    metadata_input_s own = in;
    own.queryFlags = QUERY_DIGEST16;
    own.invOperation = INV_CACHE_ONLY;
    Answer known;
    codes[call] = engine.Query(own, known);
    ready[call] = known.resultReady;
    ++call;
    GiveDigests(out, call == 1 ? uint32_t{QUERY_DIGEST16} : kAllDigests, 1);
    return 0;
  };
  CHECK(engine.Query("/a") == 0);  // Nothing known yet; leaves one part.
  CHECK(engine.Query("/a") == 0);  // A partial hit, which finds that part.
  CHECK(codes[0] == 0);
  CHECK(ready[0] == 0);
  CHECK(codes[1] == 0);
  CHECK(ready[1] == 1);
  CHECK(engine.host.hashCalls == 2);
}

TEST_CASE("a signer array passed in again is freed and one handed out is deleted as an array") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s& out) {
    // Free what a partial hit left here.
    GiveSigners(out, {"Kelda"});
    return 0;
  };
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  metadata_output_s out{};
  REQUIRE(engine.Query(in, out) == 0);
  REQUIRE(engine.Query(in, out) == 0);  // Takes the first array and leaves another.
  CHECK(engine.host.hashCalls == 1);
  CHECK(SignersIn(out) == Names{"Kelda"});
  delete[] out.signers;
}

TEST_CASE("a callback may call any function of the library") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_ERROR);
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    if (std::string(in.path) == "/inner") return Host::AnswerHash(in, out);
    CHECK(engine.Query("/inner") == 0);
    metadata_input_s own = InputFor("/a");
    own.invOperation = INV_CACHE_ONLY;
    Answer none;
    CHECK(engine.Query(own, none) == 0);
    metadata_input_s type = Asking(QUERY_FILE_TYPE);
    CHECK(engine.Query(type, none) == 0);
    metadata_query_fptrs_s callbacks = Host::Callbacks();
    CHECK(orvex_init(&callbacks) == 101);
    CHECK(orvex_get_status() == 101);
    CHECK(orvex_update_metadata(&own, &none) == 0);
    CHECK(orvex_set_cache_capacity(0, 100) == 0);
    CHECK(orvex_flush_cache(0) == 0);
    CHECK(orvex_flush_cache(1) == 0);
    orvex_dump_cache();
    CHECK(orvex_profiling_set_enable(false) == 0);
    return Host::AnswerHash(in, out);
  };
  CHECK(engine.Query("/a") == 0);
  CHECK(engine.host.hashCalls == 2);
}
