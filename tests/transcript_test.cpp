// Whole stories as logged: level, function, file and text of every message, in
// order.
#include <doctest/doctest.h>

#include <fstream>
#include <future>
#include <string>

#include "harness/counted_sleep.h"
#include "harness/engine_under_test.h"
#include "harness/held_host.h"
#include "harness/recorded_log.h"
#include "harness/scripted_clock.h"

namespace {

const std::string kQuery = "DEBUG Query orvex_lru_cache: ";
const std::string kLookup = "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache ";
const std::string kNodeUpdate = "DEBUG LRUCacheNodeUpdate orvex_lru_cache: ";
const std::string kMtime = "DEBUG GetDataFromCacheNode orvex_lru_cache: metaOut.modificationTime=";
const std::string kDone =
    "INFO Query orvex_lru_cache: [CalHashSet] File hash calculation is done, broadcast signal: ";
const std::string kEngineInfo = "INFO Init orvex_engine: Kelda Inventory Engine ";
const std::string kRegistered =
    "DEBUG RegisterMetaQueryCallback orvex_lru_cache: Kelda Inventory Engine register query "
    "callback successfully";
const std::string kHashStarted = "DEBUG InitLRUCache orvex_lru_cache: Init LRUCache successfully";
const std::string kHashStopping = "WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache: ";
const std::string kHashStopped =
    "DEBUG DeinitLRUCache orvex_lru_cache: Deinit LRUCache successfully";
const std::string kEngineStopping = "WARNING Deinit orvex_engine: Kelda Inventory Engine deinit";

// What a query logs from finding its path free until it asks the host.
std::string UntilTheHostIsAsked(const std::string& path, const std::string& lookup) {
  return Lines({kQuery + "Free to calculate file hash: " + path, lookup,
                kQuery + "[CalHashSet] Insert CalHashSet succeed: " + path,
                kQuery + "Calling query callback for file " + path});
}

// What it logs once the path is unmarked.
std::string Leaving(const std::string& path) {
  return Lines({kQuery + "[CalHashSet] Erase CalHashSet succeed: " + path, kDone + path});
}

}  // namespace

TEST_CASE("the story of a start without a configuration file") {
  RecordedLog log;
  const EngineUnderTest engine;
  CHECK(log.TakeTranscript() ==
        Lines({kEngineInfo + "is initializing, version=1.1.1035",
               "ERROR ReadConfig orvex_config: Open config file orvexeng.ini failed", kHashStarted,
               kRegistered, kRegistered, kEngineInfo + "init successfully"}));
}

TEST_CASE("the story of a start with a configuration file") {
  std::ofstream("orvexeng.ini") << "LogEnable=1\nLogLevel=4\nDatabaseEnable=0\n"
                                   "ProfilingEnable=0\nCacheCapacity=100\n";
  RecordedLog log;
  const EngineUnderTest engine;
  const std::string set = "INFO SetConfig orvex_config: Set config ";
  CHECK(log.TakeTranscript() ==
        Lines({kEngineInfo + "is initializing, version=1.1.1035", set + "LogEnable to 1",
               set + "LogLevel to 4", set + "DatabaseEnable to 0", set + "ProfilingEnable to 0",
               "INFO SetCapacity orvex_lru_cache: Set max cache capacity to 100",
               set + "CacheCapacity to 100", kHashStarted, kRegistered, kRegistered,
               kEngineInfo + "init successfully"}));
}

TEST_CASE("the story of a miss that is kept") {
  EngineUnderTest engine;
  RecordedLog log;
  engine.Query("/a");
  CHECK(log.TakeTranscript() == UntilTheHostIsAsked("/a", kLookup + "miss, /a") +
                                    Lines({kNodeUpdate + "Insert new cache node: path=/a"}) +
                                    Leaving("/a"));
}

TEST_CASE("the story of a hit") {
  EngineUnderTest engine;
  engine.Query("/a");
  RecordedLog log;
  engine.Query("/a");
  CHECK(log.TakeTranscript() ==
        Lines({kQuery + "Free to calculate file hash: /a", kMtime + "5", kLookup + "hits, /a",
               kNodeUpdate + "Cache node updated: path=/a"}));
}

TEST_CASE("the story of a partial hit") {
  EngineUnderTest engine;
  engine.Query("/a");
  RecordedLog log;
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  Answer out;
  engine.Query(in, out);
  CHECK(log.TakeTranscript() ==
        Lines({kQuery + "Free to calculate file hash: /a", kMtime + "5",
               kLookup + "partial hits, /a", kNodeUpdate + "Cache node updated: path=/a",
               kQuery + "[CalHashSet] Insert CalHashSet succeed: /a",
               kQuery + "Calling query callback for file /a",
               kNodeUpdate + "Cache node updated: path=/a"}) +
            Leaving("/a"));
}

TEST_CASE("the story of an out-of-date entry") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  engine.Query(in, first);
  RecordedLog log;
  in.mtime = 6;
  Answer out;
  engine.Query(in, out);
  CHECK(log.TakeTranscript() ==
        UntilTheHostIsAsked("/a",
                            "WARNING QueryLRUCache orvex_lru_cache: Cache query: cache "
                            "out-of-date, (6/5) /a") +
            Lines({kNodeUpdate + "Cache node updated: path=/a"}) + Leaving("/a"));
}

TEST_CASE("the story of a cache-only miss") {
  EngineUnderTest engine;
  RecordedLog log;
  metadata_input_s in = InputFor("/a");
  in.invOperation = INV_CACHE_ONLY;
  Answer out;
  engine.Query(in, out);
  CHECK(log.TakeTranscript() ==
        Lines({kQuery + "Free to calculate file hash: /a", kLookup + "miss, /a"}));
}

TEST_CASE("the story of a failing callback") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) { return 5; };
  RecordedLog log;
  engine.Query("/a");
  CHECK(log.TakeTranscript() == UntilTheHostIsAsked("/a", kLookup + "miss, /a") + Leaving("/a") +
                                    Lines({"ERROR Query orvex_engine: Error query hash cache 0"}));
}

TEST_CASE("the story of a throwing callback") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s&) -> int { throw 1; };
  RecordedLog log;
  CHECK_THROWS_AS(engine.Query("/a"), int);
  CHECK(log.TakeTranscript() == UntilTheHostIsAsked("/a", kLookup + "miss, /a") + Leaving("/a"));
}

TEST_CASE("the story of waiting and being woken") {
  EngineUnderTest engine;
  HeldHost held(engine.host.onHash);
  RecordedLog log;
  std::thread::id waiter;
  auto first = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  auto second = std::async(std::launch::async, [&] {
    waiter = std::this_thread::get_id();
    return engine.Query("/a");
  });
  log.WaitFor("wait for signal: /a");
  held.mayAnswer.Open();
  CHECK(first.get() == 0);
  CHECK(second.get() == 0);
  std::string ofWaiter = log.TakeTranscriptOf(waiter);
  // A spurious wake-up puts the thread back to sleep and is logged.
  const std::string oneSleep =
      Lines({"INFO PreWaitLogFunc orvex_set: [CalHashSet] File hash is calculating, wait for "
             "signal: /a",
             "INFO PostWaitLogFunc orvex_set: [CalHashSet] File hash is calculating, signaled: "
             "/a"});
  int sleeps = 0;
  while (ofWaiter.rfind(oneSleep, 0) == 0) {
    ofWaiter.erase(0, oneSleep.size());
    ++sleeps;
  }
  CHECK(sleeps >= 1);
  CHECK(ofWaiter == Lines({kQuery + "Free to calculate file hash: /a", kMtime + "5",
                           kLookup + "hits, /a", kNodeUpdate + "Cache node updated: path=/a"}));
  CHECK(log.TakeTranscript() == UntilTheHostIsAsked("/a", kLookup + "miss, /a") +
                                    Lines({kNodeUpdate + "Insert new cache node: path=/a"}) +
                                    Leaving("/a"));
}

TEST_CASE("the story of a query of both caches with each mix of failures") {
  for (const int typeCode : {0, 11}) {
    for (const int hashCode : {0, 22}) {
      CAPTURE(typeCode);
      CAPTURE(hashCode);
      EngineUnderTest engine;
      engine.host.onFileType = [&](metadata_input_s& in, metadata_output_s& out) {
        Host::AnswerFileType(in, out);
        return typeCode;
      };
      engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
        Host::AnswerHash(in, out);
        return hashCode;
      };
      RecordedLog log;
      metadata_input_s in = InputFor("/a");
      in.queryFlags |= QUERY_FILE_TYPE;
      Answer out;
      CHECK(engine.Query(in, out) == (typeCode != 0 ? typeCode : hashCode));
      const std::string inserted = Lines({kNodeUpdate + "Insert new cache node: path=/a"});
      std::string expected = Lines(
          {kLookup + "miss, /a", kQuery + "FileTypeCache::Query [/a] result=1",
           kQuery + "Get file type result [" + std::to_string(typeCode) + "]. Keep in cache [1]"});
      if (typeCode == 0) {
        expected += inserted;
      } else {
        expected += Lines({"ERROR Query orvex_engine: Error query file type cache 11"});
      }
      expected += UntilTheHostIsAsked("/a", kLookup + "miss, /a");
      if (hashCode == 0) expected += inserted;
      expected += Leaving("/a");
      if (hashCode != 0) {
        expected +=
            Lines({"ERROR Query orvex_engine: Error query hash cache " + std::to_string(typeCode)});
      }
      CHECK(log.TakeTranscript() == expected);
    }
  }
}

TEST_CASE("the story of an idle stop") {
  RecordedLog log;
  {
    const EngineUnderTest engine;
    log.TakeTranscript();
  }
  CHECK(log.TakeTranscript() ==
        Lines({kHashStopping + "All threads leaves successfully, retry=0", kHashStopped,
               kEngineStopping + ": All threads leaves successfully, retry=0",
               kEngineStopping + " successfully"}));
}

TEST_CASE("the story of a stop past a blocked thread") {
  EngineUnderTest engine;
  HeldHost held(engine.host.onHash, 5);
  auto blocked = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  RecordedLog log;
  CountedSleep pauses;
  CHECK(orvex_deinit() == 0);
  CHECK(pauses.sleeps == 20);
  CHECK(pauses.microseconds == 2000000);
  std::string expected;
  for (const std::string& who : {kHashStopping, kEngineStopping + ": "}) {
    for (int retry = 0; retry < 10; ++retry) {
      expected += Lines({who + "Waiting for threads(1) to leave, retry=" + std::to_string(retry)});
    }
    expected += Lines({who + "Threads(1) still running after max retry"});
    if (who == kHashStopping) expected += Lines({kHashStopped});
  }
  CHECK(log.TakeTranscript() == expected + Lines({kEngineStopping + " successfully"}));
  held.mayAnswer.Open();
  CHECK(blocked.get() == 5);
}

TEST_CASE("the story of a stop that a thread leaves in time") {
  EngineUnderTest engine;
  HeldHost held(engine.host.onHash, 5);
  auto blocked = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  RecordedLog log;
  CountedSleep pauses;
  pauses.onSleep = [&] {
    if (pauses.sleeps != 12) return;
    held.mayAnswer.Open();
    blocked.wait();
  };
  CHECK(orvex_deinit() == 0);
  CHECK(pauses.sleeps == 12);
  CHECK(log.CountOf("Deinit LRUCache: Threads(1) still running after max retry") == 1);
  CHECK(log.CountOf("Kelda Inventory Engine deinit: Waiting for threads(1) to leave, retry=1") ==
        1);
  CHECK(log.CountOf("Kelda Inventory Engine deinit: All threads leaves successfully, retry=2") ==
        1);
  CHECK(blocked.get() == 5);
}

TEST_CASE("the story of a dump with entries in both caches") {
  EngineUnderTest engine;
  {
    ScriptedClock clock;
    clock.realTime = {{1, 0}, {2, 0}};
    engine.Query("/b");
    engine.Query("/a");
    metadata_input_s in = InputFor("/c");
    in.queryFlags = QUERY_FILE_TYPE;
    Answer out;
    engine.Query(in, out);
  }
  RecordedLog log;
  orvex_dump_cache();
  const std::string dump = "DEBUG Dump orvex_lru_cache: ";
  const std::string capacity = "DEBUG DumpCache orvex_lru_cache: Cache capacity = 4096";
  const std::string mapSize = "DEBUG DumpCacheMap orvex_lru_cache: CacheMap.size=";
  const std::string listSize = "DEBUG DumpCacheNodeList orvex_lru_cache: CacheNodeList.size=";
  const auto key = [&](const std::string& path) {
    return dump + "Key: flags=0x0000001f, path=" + path +
           ", size=1000, mtime=5, deviceID=1, fileID=2";
  };
  const auto node = [&](const std::string& path, int second) {
    return dump +
           "Node: queryFlags=0x000000af, fileOperation=0x0000001f, invOperation=0x00000001, "
           "path=" +
           path +
           ", size=1000, mtime=5, signerCount=0, feedback=0, recordTime=" + std::to_string(second) +
           "000000000";
  };
  const std::string fileTypeNode =
      std::string("INFO Dump orvex_lru_cache: Node: path=/c major=3, minor=") +
      (sizeof(void*) == 4 ? "0, mtime=4, queryFlag=5" : "4, mtime=5, queryFlag=384");
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG orvex_dump_cache orvex_user: >>> DumpCache", capacity, mapSize + "2",
               key("/a"), key("/b"), listSize + "2", node("/a", 2), node("/b", 1), capacity,
               mapSize + "1", key("/c"), listSize + "1", fileTypeNode}));
}
