// How the hash cache answers a query, and how threads that ask about one path wait
// for each other.
#include <doctest/doctest.h>

#include <pthread.h>

#include <algorithm>
#include <future>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "harness/cancelled_thread.h"
#include "harness/counted_sleep.h"
#include "harness/engine_under_test.h"
#include "harness/failing_pthread.h"
#include "harness/held_host.h"
#include "harness/latch.h"
#include "harness/open_hash_cache.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"
#include "support/orvex_profiling.h"

namespace {

std::future<int> AskFromAnotherThread(OpenHashCache& cache, const char* path) {
  return std::async(std::launch::async, [&cache, path] { return cache.Ask(path); });
}

bool IsBeingCalculated(OpenHashCache& cache, const char* path) {
  const ORVEX_ScopeLock guard(&cache.calHashSet.condLock);
  return cache.calHashSet.paths.count(path) != 0;
}

// Runs a hook of the test between the lookup and what follows.
class InterruptedCache : public OpenHashCache {
 public:
  int QueryLRUCache(metadata_input_s* in, metadata_output_s* out) override {
    const int result = OpenHashCache::QueryLRUCache(in, out);
    return afterLookup(result);
  }
  // As if another thread had started to calculate the path.
  void MarkAfterLookup(const char* path) {
    afterLookup = [this, path](int result) {
      const ORVEX_ScopeLock guard(&calHashSet.condLock);
      calHashSet.paths.insert(path);
      return result;
    };
  }
  // As if a stop had reached the set.
  void StopSetAfterLookup() {
    afterLookup = [this](int result) {
      const ORVEX_ScopeLock guard(&calHashSet.condLock);
      calHashSet.active = false;
      return result;
    };
  }

  std::function<int(int)> afterLookup = [](int result) { return result; };
};

Paths PathsBeingCalculated() {
  ORVEX_Set& set = OpenedHashCache::Set(HashCache());
  const ORVEX_ScopeLock guard(&set.condLock);
  return {set.paths.begin(), set.paths.end()};
}

// Two threads hand the engine one record for "/a". While the second sleeps, the callback
// of the first changes the record.
struct SharedRecord {
  explicit SharedRecord(const std::function<void(metadata_input_s&)>& change) {
    in.invOperation = 0;
    out.resultReady = 9;
    engine.host.onHash = [&](metadata_input_s& record, metadata_output_s& answer) {
      if (engine.host.hashCalls == 1) {
        leaderInside.Open();
        log.WaitFor("wait for signal: /a");
        change(record);
      } else {
        marked = PathsBeingCalculated();
      }
      GiveDigests(answer, kAllDigests, 1);
      return 0;
    };
    auto leader = std::async(std::launch::async, [&] {
      Answer leadersOut;
      return engine.Query(in, leadersOut);
    });
    leaderInside.Wait();
    code = engine.Query(in, out);
    leaderCode = leader.get();
    lines = log.TakeTranscriptOf(std::this_thread::get_id());
  }

  EngineUnderTest engine;
  RecordedLog log;
  Latch leaderInside;
  metadata_input_s in = InputFor("/a");
  Answer out;
  int code = 99;
  int leaderCode = 99;
  Paths marked;
  std::string lines;  // Of the second thread.
};

const std::string kQueryLine = "DEBUG Query orvex_lru_cache: ";

// What a thread logs that slept until "/a" was free.
const std::string kSlept =
    Lines({"INFO PreWaitLogFunc orvex_set: [CalHashSet] File hash is calculating, wait for "
           "signal: /a",
           "INFO PostWaitLogFunc orvex_set: [CalHashSet] File hash is calculating, signaled: /a"});

// What a query for "/a" logs that looked up another path, found nothing and asked the host.
std::string CalculatedAfterMissOf(const std::string& path) {
  return Lines({kQueryLine + "Free to calculate file hash: /a",
                "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, " + path,
                kQueryLine + "[CalHashSet] Insert CalHashSet succeed: /a",
                kQueryLine + "Calling query callback for file /a",
                kQueryLine + "[CalHashSet] Erase CalHashSet succeed: /a",
                "INFO Query orvex_lru_cache: [CalHashSet] File hash calculation is done, "
                "broadcast signal: /a"});
}

}  // namespace

TEST_CASE("a query of an unknown file asks the host and keeps the answer") {
  OpenHashCache cache;
  cache.InitLRUCache();
  int calls = 0;
  const auto answer = cache.onHash;
  cache.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    ++calls;
    return answer(in, out);
  };
  for (int i = 0; i < 3; ++i) {
    Answer out;
    CHECK(cache.Ask(InputFor("/a"), out) == 0);
    CHECK(out.resultReady == 1);
    CHECK(out.digest32[0] == 1);
  }
  CHECK(calls == 1);
  CHECK(cache.Counters().numOfHelpFuncCalled == 1);
  CHECK(cache.Counters().Hit == 2);
}

TEST_CASE("a query hands the host the very pointers it was given") {
  OpenHashCache cache;
  cache.InitLRUCache();
  static void* seen[3];
  cache.RegisterMetaQueryCallback([](metadata_input_s* in, metadata_output_s* out, void* ctx) {
    seen[0] = in;
    seen[1] = out;
    seen[2] = ctx;
    return 0;
  });
  metadata_input_s in = InputFor("/a");
  Answer out;
  int context = 0;
  cache.Query(&in, &out, &context);
  CHECK(seen[0] == &in);
  CHECK(seen[1] == &out);
  CHECK(seen[2] == &context);
}

TEST_CASE("a query without INV_KEEP_IN_CACHE asks the host on every miss and stores nothing") {
  OpenHashCache cache;
  cache.InitLRUCache();
  metadata_input_s in = InputFor("/a");
  in.invOperation = 0;
  for (int i = 0; i < 3; ++i) {
    Answer out;
    CHECK(cache.Ask(in, out) == 0);
    CHECK(out.resultReady == 1);
  }
  CHECK(cache.Counters().numOfHelpFuncCalled == 3);
  CHECK(cache.Counters().Miss == 3);
  CHECK(cache.PathsInOrder().empty());
}

TEST_CASE("a callback can veto that its answer is kept") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.onHash = [](metadata_input_s& in, metadata_output_s&) {
    in.invOperation &= ~uint32_t{INV_KEEP_IN_CACHE};
    return 0;
  };
  CHECK(cache.Ask("/a") == 0);
  CHECK(cache.PathsInOrder().empty());
}

TEST_CASE("a cache-only query of an unknown file neither asks the host nor touches the set") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  metadata_input_s in = InputFor("/a");
  in.invOperation = INV_KEEP_IN_CACHE | INV_CACHE_ONLY;
  Answer out;
  out.resultReady = 9;
  CHECK(cache.Ask(in, out) == 0);
  CHECK(out.resultReady == 0);
  CHECK(cache.Counters().numOfHelpFuncCalled == 0);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG Query orvex_lru_cache: Free to calculate file hash: /a",
               "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, /a"}));
}

TEST_CASE("a cache-only query answers from the cache like any other") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.Store("/a");
  metadata_input_s in = InputFor("/a");
  in.invOperation = INV_CACHE_ONLY;
  Answer out;
  CHECK(cache.Ask(in, out) == 0);
  CHECK(out.resultReady == 1);
  CHECK(out.digest32[0] == 1);
}

TEST_CASE("a cache-only partial hit leaves the parts it found with no result") {
  OpenHashCache cache;
  cache.InitLRUCache();
  Answer stored;
  GiveDigests(stored, QUERY_DIGEST32, 1);
  cache.Store(InputFor("/a"), stored);
  metadata_input_s in = InputFor("/a");
  in.invOperation = INV_CACHE_ONLY;
  Answer out;
  CHECK(cache.Ask(in, out) == 0);
  CHECK(out.resultReady == 0);
  CHECK((out.queryFlags & kAllDigests) == QUERY_DIGEST32);
}

TEST_CASE("a cache-only query does not wait for a path that is being calculated") {
  OpenHashCache cache;
  cache.InitLRUCache();
  HeldHost held(cache.onHash);
  auto first = AskFromAnotherThread(cache, "/a");
  held.entered.Wait();
  metadata_input_s in = InputFor("/a");
  in.invOperation = INV_CACHE_ONLY;
  Answer out;
  CHECK(cache.Ask(in, out) == 0);
  CHECK(out.resultReady == 0);
  held.mayAnswer.Open();
  CHECK(first.get() == 0);
  CHECK(cache.Counters().numOfWaitInHashCalculation == 0);
}

TEST_CASE("an inactive cache refuses with 8 before it looks at the records") {
  OpenHashCache cache;
  RecordedLog log;
  Answer out;
  out.resultReady = 9;
  metadata_input_s in = InputFor("/a");
  CHECK(cache.Query(nullptr, nullptr, nullptr) == 8);
  CHECK(cache.Query(&in, &out, nullptr) == 8);
  in.path = nullptr;
  CHECK(cache.Query(&in, &out, nullptr) == 8);
  CHECK(out.resultReady == 9);
  CHECK(cache.Counters().Query == 0);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a query without both records returns 3 and logs nothing") {
  OpenHashCache cache;
  cache.InitLRUCache();
  for (const ORVEX_LOG level : {ORVEX_LOG_INFO, ORVEX_LOG_DEBUG}) {
    RecordedLog log(level);
    metadata_input_s in = InputFor("/a");
    Answer out;
    CHECK(cache.Query(nullptr, nullptr, nullptr) == 3);
    CHECK(cache.Query(&in, nullptr, nullptr) == 3);
    CHECK(cache.Query(nullptr, &out, nullptr) == 3);
    CHECK(log.TakeTranscript() == "");
  }
}

TEST_CASE("a query without a path throws and leaves no thread counted") {
  OpenHashCache cache;
  cache.InitLRUCache();
  metadata_input_s in = InputFor(nullptr);
  for (const uint32_t operation : {INV_KEEP_IN_CACHE, INV_CACHE_ONLY}) {
    in.invOperation = operation;
    Answer out;
    CHECK_THROWS_AS(cache.Ask(in, out), std::logic_error);
  }
  CHECK(cache.ThreadsInside() == 0);
  CHECK(cache.Counters().Query == 0);
}

TEST_CASE("a failing host's code is returned, nothing is kept and the path is free again") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.onHash = [](metadata_input_s&, metadata_output_s& out) {
    GiveDigests(out, kAllDigests, 1);
    return -77;
  };
  Answer out;
  out.resultReady = 9;
  CHECK(cache.Ask(InputFor("/a"), out) == -77);
  CHECK(out.resultReady == 0);
  CHECK(cache.PathsInOrder().empty());
  CHECK(cache.Counters().numOfHelpFuncCalled == 1);
  CHECK_FALSE(IsBeingCalculated(cache, "/a"));
}

TEST_CASE("a thread that ends inside the log callback leaves no path marked") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  bool ended = false;
  log.onMessage = [&ended](const LogRecord& record) {
    if (record.text.find("Insert CalHashSet succeed") == std::string::npos) return;
    ended = true;
    pthread_exit(nullptr);
  };
  std::thread([&] {
    Answer out;
    cache.Ask(InputFor("/a"), out);
  }).join();
  CHECK(ended);
  CHECK_FALSE(IsBeingCalculated(cache, "/a"));
}

TEST_CASE("a failing store's code is returned although there is a result") {
  class FullCache : public OpenHashCache {
   public:
    int UpdateCache(metadata_input_s*, metadata_output_s*) override { return 2; }
  } cache;
  cache.InitLRUCache();
  Answer out;
  CHECK(cache.Ask(InputFor("/a"), out) == 2);
  CHECK(out.resultReady == 1);
  CHECK(out.digest32[0] == 1);
}

TEST_CASE("a partial hit asks the host and completes the entry") {
  OpenHashCache cache;
  cache.InitLRUCache();
  Answer stored;
  GiveDigests(stored, QUERY_DIGEST32, 7);
  cache.Store(InputFor("/a"), stored);
  cache.onHash = [](metadata_input_s&, metadata_output_s& out) {
    CHECK(out.resultReady == 0);
    CHECK(out.digest32[0] == 7);
    GiveDigests(out, kAllDigests & ~uint32_t{QUERY_DIGEST32}, 8);
    return 0;
  };
  CHECK(cache.Ask("/a") == 0);
  Answer out;
  CHECK(cache.Look(InputFor("/a"), out) == 2);
  CHECK(out.digest32[0] == 7);
  CHECK(out.digest20[0] == 8);
  CHECK(cache.entries_.Size() == 1);
}

TEST_CASE("an out-of-date entry is refreshed with the new mtime") {
  OpenHashCache cache;
  cache.InitLRUCache();
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  cache.Ask(in, first);
  in.mtime = 6;
  for (int i = 0; i < 2; ++i) {
    Answer out;
    CHECK(cache.Ask(in, out) == 0);
    CHECK(out.resultReady == 1);
  }
  CHECK(cache.Counters().OutOfDate == 1);
  CHECK(cache.Counters().numOfHelpFuncCalled == 2);
  CHECK(cache.Counters().Hit == 1);
  CHECK(cache.entries_.Size() == 1);
}

TEST_CASE("an out-of-date entry stays so when its refresh is not kept") {
  OpenHashCache cache;
  cache.InitLRUCache();
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_PATH;
  Answer first;
  cache.Ask(in, first);
  in.mtime = 6;
  in.invOperation = 0;
  for (int i = 0; i < 2; ++i) {
    Answer out;
    cache.Ask(in, out);
  }
  CHECK(cache.Counters().OutOfDate == 2);
}

TEST_CASE("threads that ask for one path at once make the host calculate it once") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  HeldHost held(cache.onHash);
  auto first = AskFromAnotherThread(cache, "/a");
  held.entered.Wait();
  Answer out;
  auto second = std::async(std::launch::async, [&] { return cache.Ask(InputFor("/a"), out); });
  log.WaitFor("wait for signal: /a");
  held.mayAnswer.Open();
  CHECK(first.get() == 0);
  CHECK(second.get() == 0);
  CHECK(out.resultReady == 1);
  CHECK(out.digest32[0] == 1);
  CHECK(held.calls == 1);
  CHECK(cache.Counters().numOfWaitInHashCalculation == 1);
  CHECK(cache.Counters().Hit == 1);
  CHECK(cache.Counters().Miss == 1);
}

TEST_CASE("a thread whose leader fails calculates instead") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  HeldHost held(cache.onHash, 5);
  auto first = AskFromAnotherThread(cache, "/a");
  held.entered.Wait();
  auto second = AskFromAnotherThread(cache, "/a");
  log.WaitFor("wait for signal: /a");
  held.mayAnswer.Open();
  CHECK(first.get() == 5);
  CHECK(second.get() == 0);
  CHECK(held.calls == 2);
}

TEST_CASE("different paths are calculated at the same time") {
  const RecordedLog quiet;
  OpenHashCache cache;
  cache.InitLRUCache();
  Latch entered[2];
  cache.onHash = [&](metadata_input_s& in, metadata_output_s&) {
    const bool isFirst = std::string(in.path) == "/a";
    entered[isFirst ? 0 : 1].Open();
    entered[isFirst ? 1 : 0].Wait();  // Returns only if both are inside at once.
    return 0;
  };
  auto first = AskFromAnotherThread(cache, "/a");
  auto second = AskFromAnotherThread(cache, "/b");
  CHECK(first.get() == 0);
  CHECK(second.get() == 0);
}

TEST_CASE("queries of other paths do not sleep and count no wait") {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  OpenHashCache cache;
  cache.InitLRUCache();
  const auto answer = cache.onHash;
  cache.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    if (std::string(in.path) != "/a") return answer(in, out);
    // Enough that some share a count with the one being calculated.
    for (int i = 0; i < 1000; ++i) cache.Ask(("/" + std::to_string(i)).c_str());
    return 0;
  };
  CHECK(cache.Ask("/a") == 0);
  CHECK(cache.Counters().Query == 1001);
  CHECK(cache.Counters().numOfWaitInHashCalculation == 0);
}

TEST_CASE("a path is marked while the host computes and free afterwards") {
  OpenHashCache cache;
  cache.InitLRUCache();
  bool marked = false;
  cache.onHash = [&](metadata_input_s&, metadata_output_s&) {
    marked = IsBeingCalculated(cache, "/a");
    return 0;
  };
  cache.Ask("/a");
  CHECK(marked);
  CHECK_FALSE(IsBeingCalculated(cache, "/a"));
}

TEST_CASE("a sleeper whose record gets another path marks and names the one it was handed") {
  SharedRecord shared([](metadata_input_s& in) { in.path = "/b"; });
  CHECK(shared.leaderCode == 0);
  CHECK(shared.code == 0);
  CHECK(shared.out.resultReady == 1);
  CHECK(shared.engine.host.hashCalls == 2);
  CHECK(shared.marked == Paths{"/a"});
  CHECK(shared.lines == kSlept + CalculatedAfterMissOf("/b"));
}

TEST_CASE("a sleeper whose record loses its path marks and names the one it was handed") {
  SharedRecord shared([](metadata_input_s& in) { in.path = nullptr; });
  CHECK(shared.leaderCode == 0);
  CHECK(shared.code == 0);
  CHECK(shared.out.resultReady == 1);
  CHECK(shared.engine.host.hashCalls == 2);
  CHECK(shared.marked == Paths{"/a"});
  CHECK(shared.lines == kSlept + CalculatedAfterMissOf("(null)"));
}

TEST_CASE("a sleeper whose record becomes cache-only does not ask the host") {
  SharedRecord shared([](metadata_input_s& in) { in.invOperation |= INV_CACHE_ONLY; });
  CHECK(shared.leaderCode == 0);
  CHECK(shared.code == 0);
  CHECK(shared.out.resultReady == 0);
  CHECK(shared.engine.host.hashCalls == 1);
  CHECK(shared.lines ==
        kSlept + Lines({kQueryLine + "Free to calculate file hash: /a",
                        "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, /a"}));
}

TEST_CASE("a log callback that takes the path away changes nothing but the lookup's line") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  in.invOperation = 0;
  Paths marked;
  engine.host.onHash = [&](metadata_input_s&, metadata_output_s& out) {
    marked = PathsBeingCalculated();
    GiveDigests(out, kAllDigests, 1);
    return 0;
  };
  RecordedLog log;
  log.onMessage = [&in](const LogRecord& record) {
    if (record.text.find("Free to calculate") != std::string::npos) in.path = nullptr;
  };
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.resultReady == 1);
  CHECK(engine.host.hashCalls == 1);
  CHECK(marked == Paths{"/a"});
  CHECK(log.TakeTranscript() == CalculatedAfterMissOf("(null)"));
}

TEST_CASE("a log callback that writes over the text of the path changes the lookup alone") {
  EngineUnderTest engine;
  std::string text = "/a";
  metadata_input_s in = InputFor(text.c_str());
  in.invOperation = 0;
  Paths marked;
  engine.host.onHash = [&](metadata_input_s&, metadata_output_s&) {
    marked = PathsBeingCalculated();
    return 0;
  };
  RecordedLog log;
  log.onMessage = [&text](const LogRecord& record) {
    if (record.text.find("Free to calculate") != std::string::npos) text[1] = 'b';
  };
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(marked == Paths{"/a"});
  CHECK(log.TakeTranscript() == CalculatedAfterMissOf("/b"));
}

TEST_CASE("whether a query is cache-only is checked again after a miss") {
  for (const bool becomes : {true, false}) {
    CAPTURE(becomes);
    EngineUnderTest engine;
    metadata_input_s in = InputFor("/a");
    in.invOperation = becomes ? 0 : INV_CACHE_ONLY;
    RecordedLog log;
    log.onMessage = [&](const LogRecord& record) {
      if (record.text.find("cache miss") == std::string::npos) return;
      in.invOperation = becomes ? INV_CACHE_ONLY : 0;
    };
    Answer out;
    out.resultReady = 9;
    CHECK(engine.Query(in, out) == 0);
    CHECK(out.resultReady == (becomes ? 0 : 1));
    CHECK(engine.host.hashCalls == (becomes ? 0 : 1));
  }
}

TEST_CASE("an answer is kept under the path that its record has by then") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  metadata_input_s in = InputFor("/a");
  engine.host.onHash = [](metadata_input_s& record, metadata_output_s& out) {
    record.path = "/b";
    GiveDigests(out, kAllDigests, 1);
    return 0;
  };
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(engine.Query("/b") == 0);
  CHECK(engine.host.hashCalls == 1);
  CHECK(engine.Query("/a") == 0);
  CHECK(engine.host.hashCalls == 2);
}

TEST_CASE("a log callback that changes the path in a line of profiling changes no mark") {
  EngineUnderTest engine;
  orvex_profiling_set_enable(true);
  metadata_input_s in = InputFor("/a");
  in.invOperation = 0;
  Paths marked;
  engine.host.onHash = [&](metadata_input_s&, metadata_output_s&) {
    marked = PathsBeingCalculated();
    return 0;
  };
  RecordedLog log(ORVEX_LOG_INFO);
  log.onMessage = [&in](const LogRecord& record) {
    if (record.text.find("LRUCache::QueryLRUCache") != std::string::npos) in.path = "/b";
  };
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(marked == Paths{"/a"});
  orvex_profiling_set_enable(false);
}

TEST_CASE("a path that is taken away by the line of an old entry reads as empty") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  in.fileOperation = KEY_FILE_ID;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s& out) {
    GiveDigests(out, kAllDigests, 1);
    return 0;
  };
  Answer first;
  engine.Query(in, first);
  RecordedLog log(ORVEX_LOG_WARNING);
  log.onMessage = [&in](const LogRecord&) { in.path = nullptr; };
  in.mtime = 6;
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.resultReady == 1);
  CHECK(engine.host.hashCalls == 2);
  CHECK(log.TakeTranscript() ==
        Lines({"WARNING QueryLRUCache orvex_lru_cache: Cache query: cache out-of-date, (6/5) /a"}));
  CHECK(PathsBeingCalculated().empty());
}

TEST_CASE("a sleeping thread returns 8 when the cache is stopped") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  HeldHost held(cache.onHash);
  auto leader = AskFromAnotherThread(cache, "/a");
  held.entered.Wait();
  Answer out;
  out.resultReady = 9;
  auto sleeper = std::async(std::launch::async, [&] { return cache.Ask(InputFor("/a"), out); });
  log.WaitFor("wait for signal: /a");
  CountedSleep noPauses;
  noPauses.onSleep = [&] { log.WaitFor("skipped due to inactive state: /a"); };
  cache.DeinitLRUCache();
  CHECK(sleeper.get() == 8);
  CHECK(out.resultReady == 9);
  CHECK(log.CountOf("[CalHashSet] File hash is skipped due to inactive state: /a") == 1);
  held.mayAnswer.Open();
  CHECK(leader.get() == 0);
}

TEST_CASE("a cache that stops during the calculation finds nothing to erase") {
  OpenHashCache cache;
  cache.InitLRUCache();
  CountedSleep noPauses;
  cache.onHash = [&](metadata_input_s&, metadata_output_s&) {
    cache.DeinitLRUCache();
    return 0;
  };
  RecordedLog log;
  CHECK(cache.Ask("/a") == 0);
  CHECK(log.CountOf("[CalHashSet] Erase CalHashSet failed: /a") == 1);
  CHECK(log.CountOf("calculation is done, broadcast signal: /a") == 1);
}

TEST_CASE("a stop forgets every path that is being calculated") {
  // Enough for each count in front of the set.
  std::vector<std::string> paths;
  for (int i = 0; i < 400; ++i) paths.push_back("/" + std::to_string(i));
  const std::string later = "/later";
  OpenHashCache cache;
  cache.InitLRUCache();
  CountedSleep noPauses;
  size_t begun = 0;
  int counted = 0;
  cache.onHash = [&](metadata_input_s& in, metadata_output_s&) {
    if (in.path == later) {
      for (const std::string& path : paths) counted += cache.calHashSet.MayHold(path.c_str());
    } else if (++begun < paths.size()) {
      cache.Ask(paths[begun].c_str());
    } else {
      for (const std::string& path : paths) counted -= cache.calHashSet.MayHold(path.c_str());
      CHECK(counted == -400);
      cache.DeinitLRUCache();
      cache.InitLRUCache();
      counted = 0;
      cache.Ask(later.c_str());
    }
    return 0;
  };
  cache.Ask(paths[0].c_str());
  CHECK(begun == paths.size());
  // Some share the count of the path that is being calculated by then.
  CHECK(counted < 40);
}

TEST_CASE("an answer whose host outlived the stop is stored in the stopped cache") {
  OpenHashCache cache;
  cache.InitLRUCache();
  CountedSleep noPauses;
  const auto answer = cache.onHash;
  cache.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    cache.DeinitLRUCache();
    return answer(in, out);
  };
  cache.Ask("/a");
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}

TEST_CASE("a cache that stops between lookup and calculation refuses with 8 and no result") {
  InterruptedCache cache;
  cache.InitLRUCache();
  metadata_input_s in = InputFor("/a");
  cache.afterLookup = [&](int result) {
    in.path = "/changed by the host";
    const ORVEX_ScopeLock guard(&cache.lock);
    cache.active = false;
    return result;
  };
  RecordedLog log;
  Answer out;
  out.resultReady = 9;
  CHECK(cache.Query(&in, &out, nullptr) == 8);
  CHECK(out.resultReady == 0);
  CHECK(cache.Counters().numOfHelpFuncCalled == 0);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG Query orvex_lru_cache: Free to calculate file hash: /a",
               "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, /a",
               "WARNING Query orvex_lru_cache: File hash calculation is skipped due to inactive "
               "state: /a"}));
}

TEST_CASE("two threads past the wait at once both calculate, and only the first one erases") {
  InterruptedCache cache;
  cache.InitLRUCache();
  cache.MarkAfterLookup("/a");
  RecordedLog log;
  metadata_input_s in = InputFor("/a");
  in.invOperation = 0;
  Answer out;
  CHECK(cache.Ask(in, out) == 0);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG Query orvex_lru_cache: Free to calculate file hash: /a",
               "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, /a",
               "DEBUG Query orvex_lru_cache: [CalHashSet] Insert CalHashSet failed: /a",
               "DEBUG Query orvex_lru_cache: Calling query callback for file /a",
               "DEBUG Query orvex_lru_cache: [CalHashSet] Erase CalHashSet skipped: /a",
               "INFO Query orvex_lru_cache: [CalHashSet] File hash calculation is done, broadcast "
               "signal: /a"}));
  CHECK(IsBeingCalculated(cache, "/a"));
}

TEST_CASE(
    "the second of two that both calculate logs at INFO only that it is done, and nothing when "
    "off") {
  InterruptedCache cache;
  cache.InitLRUCache();
  cache.MarkAfterLookup("/a");
  RecordedLog log(ORVEX_LOG_INFO);
  CHECK(cache.Ask("/a") == 0);
  CHECK(log.TakeTranscript() ==
        Lines({"INFO Query orvex_lru_cache: [CalHashSet] File hash calculation is done, broadcast "
               "signal: /a"}));
  cache.FlushCache();
  cache.calHashSet.paths.clear();
  ORVEX_LOG_BASE::LogEnable = false;
  CHECK(cache.Ask("/a") == 0);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a query that meets a stop after its lookup calculates unannounced") {
  InterruptedCache cache;
  cache.InitLRUCache();
  cache.StopSetAfterLookup();
  RecordedLog log;
  CHECK(cache.Ask("/a") == 0);
  CHECK(log.CountOf("[CalHashSet] Insert CalHashSet failed: /a") == 1);
  CHECK(log.CountOf("[CalHashSet] Erase CalHashSet skipped: /a") == 1);
  CHECK(cache.Counters().numOfHelpFuncCalled == 1);
}

TEST_CASE("a thread that calculates unannounced still wakes the sleepers") {
  InterruptedCache cache;
  cache.InitLRUCache();
  cache.StopSetAfterLookup();
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  int broadcasts = 0;
  {
    FailingPThread system;
    cache.Ask("/a");
    broadcasts = system.broadcasts;
  }
  CHECK(broadcasts == 1);
}

TEST_CASE("a query that meets a stop after its lookup logs nothing at FATAL") {
  InterruptedCache cache;
  cache.InitLRUCache();
  cache.StopSetAfterLookup();
  RecordedLog log(ORVEX_LOG_FATAL);
  CHECK(cache.Ask("/a") == 0);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a lookup with an unknown result ends the query with 0") {
  const RecordedLog log;  // A lookup that logs nothing skips the subclass.
  InterruptedCache cache;
  cache.InitLRUCache();
  cache.afterLookup = [](int) { return 7; };
  Answer out;
  out.resultReady = 9;
  CHECK(cache.Ask(InputFor("/a"), out) == 0);
  CHECK(out.resultReady == 9);
  CHECK(cache.Counters().numOfHelpFuncCalled == 0);
}

TEST_CASE("an exception of the host passes through and frees the path") {
  OpenHashCache cache;
  cache.InitLRUCache();
  const auto answer = cache.onHash;
  cache.onHash = [](metadata_input_s&, metadata_output_s&) -> int { throw std::bad_alloc(); };
  Answer out;
  CHECK_THROWS_AS(cache.Ask(InputFor("/a"), out), std::bad_alloc);
  CHECK(out.resultReady == 0);
  CHECK(cache.ThreadsInside() == 0);
  CHECK(cache.PathsInOrder().empty());
  CHECK(cache.Counters().numOfHelpFuncCalled == 1);
  CHECK_FALSE(IsBeingCalculated(cache, "/a"));
  cache.onHash = answer;
  CHECK(cache.Ask("/a") == 0);
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}

TEST_CASE("an exception of the host wakes those that wait for the path") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  HeldHost held(cache.onHash, [](metadata_input_s&, metadata_output_s&) -> int {
    throw std::runtime_error("the host's own");
  });
  auto first = AskFromAnotherThread(cache, "/a");
  held.entered.Wait();
  auto second = AskFromAnotherThread(cache, "/a");
  log.WaitFor("wait for signal: /a");
  held.mayAnswer.Open();
  CHECK_THROWS_WITH_AS(first.get(), "the host's own", std::runtime_error);
  CHECK(second.get() == 0);
}

TEST_CASE("a pending cancellation does not interrupt a query, whatever the log callback does") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  log.onMessage = [](const LogRecord&) { pthread_testcancel(); };
  int code = -1;
  CHECK(OutlastsCancellation([&] { code = cache.Ask("/a"); }));
  CHECK(code == 0);
  CHECK(log.CountOf("broadcast signal: /a") == 1);
}

TEST_CASE("a thread that is cancelled inside the host frees the path") {
  OpenHashCache cache;
  cache.InitLRUCache();
  static Latch hostEntered;
  cache.onHash = [](metadata_input_s&, metadata_output_s&) {
    hostEntered.Open();
    for (;;) pthread_testcancel();
    return 0;
  };
  pthread_t thread;
  const auto ask = [](void* arg) -> void* {
    static_cast<OpenHashCache*>(arg)->Ask("/a");
    return nullptr;
  };
  REQUIRE(pthread_create(&thread, nullptr, ask, &cache) == 0);
  hostEntered.Wait();
  pthread_cancel(thread);
  pthread_join(thread, nullptr);
  CHECK_FALSE(IsBeingCalculated(cache, "/a"));
  CHECK(cache.ThreadsInside() == 0);
}

TEST_CASE("the host may call back into the cache while it computes") {
  OpenHashCache cache;
  cache.InitLRUCache();
  const auto answer = cache.onHash;
  cache.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    if (std::string(in.path) == "/b") return answer(in, out);
    CHECK(cache.Ask("/b") == 0);
    metadata_input_s own = InputFor("/a");
    own.invOperation = INV_CACHE_ONLY;
    Answer none;
    CHECK(cache.Ask(own, none) == 0);
    CHECK(none.resultReady == 0);
    cache.DumpCache();
    cache.DumpMetrics();
    cache.SetCapacity(100);
    cache.ResetMetrics();
    CHECK(cache.FlushCache() == 0);
    return answer(in, out);
  };
  CHECK(cache.Ask("/a") == 0);
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}

TEST_CASE("a query uses the callback that was registered when it asked") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.RegisterMetaQueryCallback([](metadata_input_s*, metadata_output_s*, void* ctx) {
    static_cast<OpenHashCache*>(ctx)->RegisterMetaQueryCallback(
        [](metadata_input_s*, metadata_output_s*, void*) { return 2222; });
    return 1111;
  });
  CHECK(cache.Ask("/a") == 1111);
  CHECK(cache.Ask("/a") == 2222);
}

TEST_CASE("the query and the host's part of it are timed under their names") {
  OpenHashCache cache;
  cache.InitLRUCache();
  ORVEX_Profiling::EnableProfiling = true;
  RecordedLog log(ORVEX_LOG_INFO);
  metadata_input_s in = InputFor("/a");
  in.invOperation = 0;
  Answer out;
  cache.Ask(in, out);
  ORVEX_Profiling::EnableProfiling = false;
  std::string texts;
  for (const LogRecord& record : log.Records()) {
    texts += record.text.substr(0, record.text.find(" used")) + "\n";
  }
  CHECK(texts ==
        Lines({"[PROFILING] LRUCache::QueryLRUCache", "[PROFILING] LRUCache::MetaQueryCallback",
               "[CalHashSet] File hash calculation is done, broadcast signal: /a",
               "[PROFILING] LRUCache::Query"}));
}

TEST_CASE("a query logs nothing while the log is off") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  ORVEX_LOG_BASE::LogEnable = false;
  for (const char* path : {"/a", "/a", "/b"}) cache.Ask(path);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("the predicate of a set holds for its own paths while it is active") {
  ORVEX_Set set;
  const std::string path = "/a";
  ORVEX_Set::PathInSet arg(&set, &path);
  CHECK_FALSE(ORVEX_Set::PredicateFunc(nullptr));
  set.paths.insert("/a");
  CHECK_FALSE(ORVEX_Set::PredicateFunc(&arg));
  set.active = true;
  CHECK(ORVEX_Set::PredicateFunc(&arg));
  set.paths.clear();
  CHECK_FALSE(ORVEX_Set::PredicateFunc(&arg));
}

TEST_CASE("paths that are calculated at once are told apart until the last of them leaves") {
  // They begin alike, and some are prefixes of others.
  std::vector<std::string> paths;
  for (size_t i = 0; i < 8; ++i) {
    for (const char* end : {"", "a", "b", "c", "aa"}) {
      paths.push_back("/" + std::string(i, 'x') + end);
    }
  }
  std::mt19937 random(1);
  for (int round = 0; round < 20; ++round) {
    std::shuffle(paths.begin(), paths.end(), random);
    OpenHashCache cache;
    cache.InitLRUCache();
    std::set<std::string> calculated;
    const auto isExact = [&] {
      const auto& marked = cache.calHashSet.paths;
      bool exact = std::equal(marked.begin(), marked.end(), calculated.begin(), calculated.end());
      for (const std::string& path : paths) {
        ORVEX_Set::PathInSet arg(&cache.calHashSet, &path);
        exact = exact && ORVEX_Set::PredicateFunc(&arg) == (calculated.count(path) != 0);
      }
      return exact;
    };
    // Each callback asks about the next path.
    int inexact = 0;
    cache.onHash = [&](metadata_input_s& in, metadata_output_s&) {
      calculated.insert(in.path);
      if (!isExact()) ++inexact;
      if (calculated.size() < paths.size()) cache.Ask(paths[calculated.size()].c_str());
      if (!isExact()) ++inexact;
      calculated.erase(in.path);
      return 0;
    };
    cache.Ask(paths[0].c_str());
    CHECK(inexact == 0);
    CHECK(cache.calHashSet.paths.empty());
    CHECK(cache.Counters().numOfHelpFuncCalled == 40);
  }
}

TEST_CASE("the messages around a sleep name the path and need one") {
  RecordedLog log;
  std::string path = "/a";
  ORVEX_Set::PreWaitLogFunc(&path);
  ORVEX_Set::PostWaitLogFunc(&path);
  ORVEX_Set::PreWaitLogFunc(nullptr);
  ORVEX_Set::PostWaitLogFunc(nullptr);
  CHECK(log.TakeTranscript() ==
        Lines({"INFO PreWaitLogFunc orvex_set: [CalHashSet] File hash is calculating, wait for "
               "signal: /a",
               "INFO PostWaitLogFunc orvex_set: [CalHashSet] File hash is calculating, signaled: "
               "/a"}));
}

TEST_CASE("a store keeps one reading of a record that changes while it takes the lock") {
  OpenHashCache cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveDigests(out, kAllDigests, 1);
  {
    FailingPThread system;
    system.onLock = [&] {
      in.path = "/b";
      in.size = 7;
    };
    cache.UpdateCache(&in, &out);
  }
  Answer found;
  CHECK(cache.Look(InputFor("/a"), found) == LRU_HIT);
  CHECK(found.size == 1000);
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}
