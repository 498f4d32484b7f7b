// How the engine starts and stops.
#include <doctest/doctest.h>

#include <fstream>
#include <future>
#include <string>
#include <utility>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "engine/orvex_engine.h"
#include "harness/captured_output.h"
#include "harness/counted_sleep.h"
#include "harness/engine_under_test.h"
#include "harness/failing_pthread.h"
#include "harness/latch.h"
#include "harness/recorded_log.h"
#include "harness/virtual_table.h"
#include "support/orvex_config.h"

namespace {

int Init() {
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  return orvex_init(&callbacks);
}

std::string EngineLine(const std::string& level, const std::string& function,
                       const std::string& text) {
  return level + " " + function + " orvex_engine: Kelda Inventory Engine " + text;
}

const char* const kOneLeftInside =
    "Kelda Inventory Engine deinit: Threads(1) still running after max retry";

int CallNobody(metadata_input_s*, metadata_output_s*, void*) { return 0; }

}  // namespace

TEST_CASE("before it is initialised the engine returns 100") { CHECK(orvex_get_status() == 100); }

TEST_CASE("an initialised engine returns 101 until it is stopped") {
  CHECK(Init() == 0);
  CHECK(orvex_get_status() == 101);
  CHECK(orvex_deinit() == 0);
  CHECK(orvex_get_status() == 100);
}

TEST_CASE("a second initialisation is refused with 101 and changes nothing") {
  EngineUnderTest engine;
  std::ofstream("orvexeng.ini") << "CacheCapacity=7\n";
  RecordedLog log;
  CHECK(Init() == 101);
  CHECK(log.TakeTranscript() ==
        Lines({EngineLine("ERROR", "Init", "init failed: already been initialized")}));
  CHECK(orvex_get_status() == 101);
}

TEST_CASE("the second initialisation is refused before its table is looked at") {
  EngineUnderTest engine;
  CHECK(orvex_init(nullptr) == 101);
}

TEST_CASE("a table that is null or lacks an entry is refused with 102") {
  metadata_query_fptrs_s noEntries{nullptr, nullptr};
  metadata_query_fptrs_s noHash{nullptr, CallNobody};
  metadata_query_fptrs_s noFileType{CallNobody, nullptr};
  const struct {
    const char* missing;
    metadata_query_fptrs_s* table;
  } rows[] = {{"the table", nullptr},
              {"both entries", &noEntries},
              {"the first entry", &noHash},
              {"the second entry", &noFileType}};
  for (const auto& row : rows) {
    CAPTURE(row.missing);
    RecordedLog log;
    CHECK(orvex_init(row.table) == 102);
    CHECK(
        log.TakeTranscript() ==
        Lines({EngineLine("ERROR", "Init", "register query callback failed: invalid parameter")}));
    CHECK(orvex_get_status() == 100);
  }
  CHECK(Init() == 0);
}

TEST_CASE("stopping an engine that is not initialised is refused with 100") {
  RecordedLog log;
  CHECK(orvex_deinit() == 100);
  CHECK(log.TakeTranscript() ==
        Lines({EngineLine("ERROR", "Deinit", "deinit failed: Engine is not inited")}));
}

TEST_CASE("an engine can be started again after it was stopped") {
  RecordedLog log;
  CHECK(Init() == 0);
  CHECK(orvex_deinit() == 0);
  CHECK(Init() == 0);
  CHECK(log.CountOf("is initializing, version=1.1.1035") == 2);
  CHECK(orvex_get_status() == 101);
}

TEST_CASE("a second start replaces the callbacks") {
  Init();
  orvex_deinit();
  metadata_query_fptrs_s others{CallNobody, CallNobody};
  CHECK(orvex_init(&others) == 0);
}

TEST_CASE("a configuration that cannot be read does not keep the engine from starting") {
  RecordedLog log;
  CHECK(Init() == 0);
  CHECK(log.CountOf("Open config file orvexeng.ini failed") == 1);
}

TEST_CASE("the configuration is read from where the host wants it") {
  std::ofstream("elsewhere.ini") << "CacheCapacity=7\n";
  ORVEX_Config::ConfigFilePath = "elsewhere.ini";
  RecordedLog log;
  CHECK(Init() == 0);
  CHECK(log.CountOf("Set config CacheCapacity to 7") == 1);
}

TEST_CASE("the configuration is read at every start") {
  RecordedLog log;
  Init();
  orvex_deinit();
  std::ofstream("orvexeng.ini") << "CacheCapacity=7\n";
  Init();
  CHECK(log.CountOf("Set config CacheCapacity to 7") == 1);
}

TEST_CASE("a hash cache that fails to start fails the engine with its code") {
  RecordedLog log;
  {
    const ReplacedOperation failing(
        &HashCache(), kHashCacheSlots, 0, +[](void*) { return 42; });
    std::ofstream("orvexeng.ini") << "CacheCapacity=7\n";
    CHECK(Init() == 42);
  }
  CHECK(log.TakeTranscript() ==
        Lines({EngineLine("INFO", "Init", "is initializing, version=1.1.1035"),
               "INFO SetCapacity orvex_lru_cache: Set max cache capacity to 7",
               "INFO SetConfig orvex_config: Set config CacheCapacity to 7",
               EngineLine("ERROR", "Init", "init failed: cache init failed, rc=42")}));
  CHECK(orvex_get_status() == 100);
  CHECK(Init() == 0);
}

TEST_CASE("a file type cache that fails to start stops the hash cache again") {
  RecordedLog log;
  {
    const ReplacedOperation failing(
        &TypeCache(), kFileTypeCacheSlots, 0, +[](void*) { return 43; });
    CHECK(Init() == 43);
  }
  CHECK_FALSE(HashCache().IsInit());
  CHECK(log.TakeTranscript() ==
        Lines({EngineLine("INFO", "Init", "is initializing, version=1.1.1035"),
               "ERROR ReadConfig orvex_config: Open config file orvexeng.ini failed",
               "DEBUG InitLRUCache orvex_lru_cache: Init LRUCache successfully",
               "WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache: All threads leaves "
               "successfully, retry=0",
               "DEBUG DeinitLRUCache orvex_lru_cache: Deinit LRUCache successfully",
               EngineLine("ERROR", "Init", "init failed: file type cache init failed, rc=43")}));
  CHECK(orvex_get_status() == 100);
  CHECK(Init() == 0);
}

TEST_CASE("codes of caches that fail to stop are ignored") {
  Init();
  const ReplacedOperation hash(
      &HashCache(), kHashCacheSlots, 1, +[](void*) { return 44; });
  const ReplacedOperation fileType(
      &TypeCache(), kFileTypeCacheSlots, 1, +[](void*) { return 45; });
  CHECK(orvex_deinit() == 0);
}

TEST_CASE("an engine lock that fails is reported on standard output and the work goes on") {
  orvex_get_status();
  RecordedLog quiet(ORVEX_LOG_FATAL);
  CapturedOutput output;
  int failed = 0;
  {
    FailingPThread failing;
    failing.lockError = 22;
    failed = orvex_get_status();
  }
  CHECK(failed == 100);
  CHECK(output.Take() == "[LOCK] lock failed: 22\n");
  {
    FailingPThread failing;
    failing.unlockError = 1;
    failed = orvex_get_status();
  }
  CHECK(failed == 100);
  CHECK(output.Take() == "[LOCK] unlock failed: 1\n");
}

TEST_CASE("starting and stopping pass the engine's lock before they are refused") {
  RecordedLog quiet(ORVEX_LOG_FATAL);
  orvex_get_status();  // Builds the engine, which takes locks of its own.
  const struct {
    const char* call;
    int (*refused)();
  } rows[] = {{"a start", [] { return orvex_init(nullptr); }}, {"a stop", orvex_deinit}};
  for (const auto& row : rows) {
    CAPTURE(row.call);
    CapturedOutput output;
    {
      FailingPThread failing;
      failing.unlockError = 1;
      row.refused();
    }
    CHECK(output.Take() == "[LOCK] unlock failed: 1\n");
  }
}

TEST_CASE("every function returns 100 from the beginning of a stop") {
  EngineUnderTest engine;
  Latch hostEntered;
  Latch hostMayAnswer;
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    hostEntered.Open();
    hostMayAnswer.Wait();
    return Host::AnswerHash(in, out);
  };
  auto blocked = engine.QueryFromAnotherThread("/a");
  hostEntered.Wait();
  RecordedLog log;
  CountedSleep pauses;
  pauses.onSleep = [&] {
    if (pauses.sleeps > 1) return;
    // The hash cache waits; the file type cache is yet to be stopped.
    CHECK(log.CountOf("Deinit LRUCache: Waiting for threads(1) to leave, retry=0") == 1);
    CHECK(orvex_get_status() == 100);
    CHECK(engine.Query("/b") == 100);
    orvex_metrics_s metrics{};
    unsigned int size = 0;
    CHECK(orvex_get_metrics(&metrics, sizeof metrics, &size) == 100);
    CHECK(orvex_reset_metrics() == 100);
    CHECK(orvex_deinit() == 100);
    hostMayAnswer.Open();
    blocked.wait();
  };
  CHECK(orvex_deinit() == 0);
  CHECK(pauses.sleeps == 1);
  CHECK(blocked.get() == 0);
}

TEST_CASE("a stop waits for a thread that asks for the state") {
  EngineUnderTest engine;
  RecordedLog log;
  CountedSleep noPauses;
  bool stopped = false;
  {
    FailingPThread system;
    system.onLock = [&] {
      if (!std::exchange(stopped, true)) orvex_deinit();
    };
    orvex_get_status();
  }
  CHECK(log.CountOf(kOneLeftInside) == 1);
}

TEST_CASE("a stop waits for a thread that reads the counters") {
  EngineUnderTest engine;
  RecordedLog log;
  CountedSleep noPauses;
  log.onMessage = [](const LogRecord& record) {
    if (record.text == "Invalid metrics data size = 0") orvex_deinit();
  };
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  CHECK(orvex_get_metrics(&metrics, 0, &size) == 3);
  CHECK(log.CountOf(kOneLeftInside) == 1);
}

TEST_CASE("a stop waits for a thread that resets the counters") {
  EngineUnderTest engine;
  RecordedLog log;
  CountedSleep noPauses;
  {
    const ReplacedOperation stopping(
        &HashCache(), kHashCacheSlots, 5, +[](void*) { return orvex_deinit(); });
    CHECK(orvex_reset_metrics() == 0);
  }
  CHECK(log.CountOf(kOneLeftInside) == 1);
}

TEST_CASE("the engine is the only one and starts with nobody inside") {
  CHECK(ORVEX_Singleton<ORVEX_ENGINE>::GetInstance() ==
        ORVEX_Singleton<ORVEX_ENGINE>::GetInstance());
  CHECK_FALSE(ORVEX_Singleton<ORVEX_ENGINE>::GetInstance()->IsInit());
}
