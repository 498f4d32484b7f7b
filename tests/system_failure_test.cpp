// Every system call that the library makes fails, either once or from then on.
//
// The reference is a run without failures: whatever the system refuses, the host must
// see the same codes, answers and counters.
#include <doctest/doctest.h>
#include <errno.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "harness/captured_output.h"
#include "harness/counted_sleep.h"
#include "harness/failing_pthread.h"
#include "harness/held_host.h"
#include "harness/open_hash_cache.h"
#include "harness/opened_caches.h"
#include "harness/scripted_clock.h"
#include "harness/whole_life.h"
#include "support/orvex_config.h"

namespace {

// Messages take no lock and go nowhere, unless a test asks for them.
std::function<void(const char*)> onMessage;

void PassMessage(unsigned int, unsigned int, const char*, const char*, const char* message,
                 unsigned int) {
  if (onMessage) onMessage(message);
}

// Everything that can be logged or timed is.
class TalkativeLibrary {
 public:
  TalkativeLibrary() {
    orvex_register_log_cb(PassMessage);
    ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
    orvex_profiling_set_enable(true);
  }
  ~TalkativeLibrary() {
    orvex_profiling_set_enable(false);
    onMessage = nullptr;
  }
};

Steps UndisturbedLife() { return WholeLife().Tell(); }

std::string Repeated(const std::string& line, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += line;
  return text;
}

}  // namespace

TEST_CASE("locks that do not fail say nothing") {
  const TalkativeLibrary library;
  std::string output;
  {
    CapturedOutput captured;
    UndisturbedLife();
    output = captured.Take();
  }
  CHECK(output == "");
}

TEST_CASE("a mutex that cannot be locked, once or from then on, changes nothing a host sees") {
  const TalkativeLibrary talkative;
  const Steps undisturbed = UndisturbedLife();
  for (const bool once : {true, false}) {
    CAPTURE(once);
    int points = 0;
    for (int first = 1;; ++first) {
      CAPTURE(first);
      CapturedOutput output;
      WholeLife life;
      Steps steps;
      int locks = 0;
      int unlocks = 0;
      int wrongUnlocks = 0;
      size_t held = 0;
      {
        FailingPThread failing;
        failing.lockError = EINVAL;
        failing.firstFailing = first;
        failing.once = once;
        steps = life.Tell();
        locks = failing.locks;
        unlocks = failing.unlocks;
        wrongUnlocks = failing.wrongUnlocks;
        held = failing.held.size();
      }
      const std::string said = output.Take();
      const int failures = locks < first ? 0 : once ? 1 : locks - first + 1;
      CHECK(steps == undisturbed);
      CHECK(unlocks == locks);
      CHECK(wrongUnlocks == 0);
      CHECK(held == 0);
      CHECK(BrokenInvariantOfIdleCaches() == "");
      if (failures == 0) break;
      ++points;
      CHECK(said == Repeated("[LOCK] lock failed: 22\n", failures));
    }
    CHECK(points > 0);
    std::printf("%4d points: pthread_mutex_lock, %s\n", points, once ? "once" : "from there on");
  }
}

TEST_CASE("a mutex whose unlock reports failure changes nothing a host sees") {
  const TalkativeLibrary talkative;
  const Steps undisturbed = UndisturbedLife();
  for (const bool once : {true, false}) {
    CAPTURE(once);
    int points = 0;
    for (int first = 1;; ++first) {
      CAPTURE(first);
      CapturedOutput output;
      WholeLife life;
      Steps steps;
      int unlocks = 0;
      {
        FailingPThread failing;
        failing.unlockError = EPERM;
        failing.firstFailing = first;
        failing.once = once;
        steps = life.Tell();
        unlocks = failing.unlocks;
      }
      const std::string said = output.Take();
      CHECK(steps == undisturbed);
      CHECK(BrokenInvariantOfIdleCaches() == "");
      if (unlocks < first) break;
      ++points;
      CHECK(said == Repeated("[LOCK] unlock failed: 1\n", once ? 1 : unlocks - first + 1));
    }
    CHECK(points > 0);
    std::printf("%4d points: pthread_mutex_unlock, %s\n", points, once ? "once" : "from there on");
  }
}

TEST_CASE("a broadcast that fails changes nothing for a host whose threads do not wait") {
  const TalkativeLibrary talkative;
  const Steps undisturbed = UndisturbedLife();
  for (const bool once : {true, false}) {
    int points = 0;
    for (int first = 1;; ++first) {
      Steps steps;
      int broadcasts = 0;
      {
        FailingPThread failing;
        failing.broadcastError = EINVAL;
        failing.firstFailing = first;
        failing.once = once;
        steps = WholeLife().Tell();
        broadcasts = failing.broadcasts;
      }
      CHECK(steps == undisturbed);
      if (broadcasts < first) break;
      ++points;
    }
    CHECK(points > 0);
    std::printf("%4d points: pthread_cond_broadcast, %s\n", points,
                once ? "once" : "from there on");
  }
}

TEST_CASE("a clock that cannot be read, once or from then on, changes nothing a host sees") {
  const TalkativeLibrary talkative;
  const Steps undisturbed = UndisturbedLife();
  int points = 0;
  for (int failing = 1;; ++failing) {
    CAPTURE(failing);
    ScriptedClock clock;
    clock.failingReading = failing;
    CHECK(WholeLife().Tell() == undisturbed);
    if (clock.monotonicReadings + clock.realTimeReadings < failing) break;
    ++points;
  }
  CHECK(points > 0);
  std::printf("%4d points: clock_gettime, once\n", points);
  ScriptedClock clock;
  clock.broken = true;
  CHECK(WholeLife().Tell() == undisturbed);
  std::printf("%4d points: clock_gettime, always\n",
              clock.monotonicReadings + clock.realTimeReadings);
}

TEST_CASE("a lock that fails in a waiting thread leaves it neither hanging nor unlocking wrongly") {
  const TalkativeLibrary talkative;
  int points = 0;
  for (const bool once : {true, false}) {
    CAPTURE(once);
    for (int first = 1;; ++first) {
      CAPTURE(first);
      CapturedOutput output;
      EngineUnderTest engine;
      HeldHost held(engine.host.onHash);
      auto leader = engine.QueryFromAnotherThread("/a");
      held.entered.Wait();
      FailingPThread* waitersSystem = nullptr;
      bool opened = false;
      std::thread opener;
      onMessage = [&](const char* message) {
        // The message first: other threads send others.
        if (std::strstr(message, "wait for signal") == nullptr || opened) return;
        opened = true;
        // Not from here: the latch locks too.
        opener = std::thread([&] {
          held.mayAnswer.Open();
          leader.wait();
        });
        // Without its mutex the waiter would look at the set while the leader changes it.
        if (waitersSystem->held.empty()) opener.join();
      };
      int code = 0;
      int locks = 0;
      int unlocks = 0;
      int wrongUnlocks = 0;
      {
        FailingPThread failing;
        waitersSystem = &failing;
        failing.lockError = EINVAL;
        failing.firstFailing = first;
        failing.once = once;
        code = engine.Query("/a");
        locks = failing.locks;
        unlocks = failing.unlocks;
        wrongUnlocks = failing.wrongUnlocks;
      }
      held.mayAnswer.Open();
      if (opener.joinable()) opener.join();  // It waits for the leader.
      const int leaderCode = leader.get();
      onMessage = nullptr;
      CHECK(code == 0);
      CHECK(leaderCode == 0);
      CHECK(opened);
      CHECK(unlocks == locks);
      CHECK(wrongUnlocks == 0);
      CHECK(BrokenInvariantOfIdleCaches() == "");
      if (locks < first) break;
      ++points;
    }
  }
  CHECK(points > 0);
  std::printf("%4d points: pthread_mutex_lock next to a calculating thread\n", points);
}

TEST_CASE("a failing condition wait, once or always, does not block the calculating thread") {
  const TalkativeLibrary talkative;
  for (const bool once : {true, false}) {
    CAPTURE(once);
    EngineUnderTest engine;
    HeldHost held(engine.host.onHash);
    auto leader = engine.QueryFromAnotherThread("/a");
    held.entered.Wait();
    std::thread opener;
    onMessage = [&](const char* message) {
      // The message first: other threads send others.
      if (std::strstr(message, "wait for signal") == nullptr || opener.joinable()) return;
      opener = std::thread([&held] { held.mayAnswer.Open(); });
    };
    int code = 9;
    int waits = 0;
    int wrongUnlocks = 0;
    size_t stillLocked = 9;
    {
      FailingPThread failing;
      failing.waitError = EINVAL;
      failing.once = once;
      code = engine.Query("/a");
      waits = failing.waits;
      wrongUnlocks = failing.wrongUnlocks;
      stillLocked = failing.held.size();
    }
    CHECK(leader.get() == 0);
    opener.join();
    onMessage = nullptr;
    CHECK(code == 0);
    CHECK(waits > 0);
    CHECK(wrongUnlocks == 0);
    CHECK(stillLocked == 0);
    CHECK(engine.host.hashCalls == 1);
    CHECK(engine.Metrics().cacheWaitInHashCalculation == 1);
  }
}

TEST_CASE("a waiter whose broadcast failed is woken by the next one") {
  const TalkativeLibrary talkative;
  EngineUnderTest engine;
  FailingPThread* leadersSystem = nullptr;
  HeldHost held(engine.host.onHash, [&](metadata_input_s& in, metadata_output_s& out) {
    // Not before: the latches broadcast too.
    leadersSystem->broadcastError = EINVAL;
    return Host::AnswerHash(in, out);
  });
  onMessage = [&](const char* message) { held.AnswerOnceWaitedFor(message); };
  int leaderCode = 9;
  std::thread leader([&] {
    FailingPThread failing;
    leadersSystem = &failing;
    leaderCode = engine.Query("/a");
  });
  held.entered.Wait();
  auto waiter = engine.QueryFromAnotherThread("/a");
  leader.join();
  CHECK(leaderCode == 0);
  CHECK(engine.Query("/b") == 0);
  CHECK(waiter.get() == 0);
  CHECK(engine.host.hashCalls == 2);
}

TEST_CASE("locks whose initialisation fails, once or always, work all the same") {
  int points = 0;
  for (const bool once : {true, false}) {
    for (int first = 1;; ++first) {
      CAPTURE(first);
      int inits = 0;
      std::unique_ptr<OpenHashCache> cache;
      {
        FailingPThread failing;
        failing.mutexInitError = ENOMEM;
        failing.conditionInitError = ENOMEM;
        failing.firstFailing = first;
        failing.once = once;
        cache = std::make_unique<OpenHashCache>();
        inits = std::max(failing.mutexInits, failing.conditionInits);
      }
      orvex_register_log_cb(PassMessage);
      ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
      cache->InitLRUCache();
      HeldHost held(cache->onHash);
      onMessage = [&](const char* message) { held.AnswerOnceWaitedFor(message); };
      int leaderCode = 9;
      std::thread leader([&] { leaderCode = cache->Ask("/a"); });
      held.entered.Wait();
      metadata_input_s in = InputFor("/a");
      in.queryFlags = kAllDigests;
      Answer out;
      CHECK(cache->Ask(in, out) == 0);
      leader.join();
      CHECK(leaderCode == 0);
      CHECK(cache->metrics.numOfWaitInHashCalculation == 1);
      CHECK(BrokenInvariant(*cache) == "");
      onMessage = nullptr;
      if (inits < first) break;
      ++points;
    }
  }
  CHECK(points > 0);
  std::printf("%4d points: pthread_mutex_init and pthread_cond_init\n", points);
}

TEST_CASE("pauses that signals cut short leave a stop with its ten tries and 0") {
  const TalkativeLibrary talkative;
  EngineUnderTest engine;
  HeldHost held(engine.host.onHash);
  auto query = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  int waits = 0;
  onMessage = [&waits](const char* message) {
    if (std::strstr(message, "Waiting for threads(1) to leave") != nullptr) ++waits;
  };
  {
    CountedSleep pauses;
    pauses.interrupted = true;
    CHECK(orvex_deinit() == 0);
    CHECK(pauses.sleeps == 20);  // Ten of the hash cache, ten of the engine.
  }
  CHECK(waits == 20);
  onMessage = nullptr;
  held.mayAnswer.Open();
  CHECK(query.get() == 0);
  // The answer was kept after the stop had emptied the cache.
  orvex_flush_cache(ORVEX_HASH_CACHE);
}

namespace {

int StartEngine() {
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  return orvex_init(&callbacks);
}

unsigned int HashCapacity() { return OpenedHash::Capacity(HashCache()); }

}  // namespace

TEST_CASE("a configuration that opens but cannot be read changes nothing") {
  const TalkativeLibrary talkative;
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, ORVEX_MAX_CAPACITY);
  ORVEX_Config::ConfigFilePath = ".";  // A directory opens for reading and reads EISDIR.
  CHECK(StartEngine() == 0);
  CHECK(HashCapacity() == 4096);
  CHECK(orvex_deinit() == 0);
}

TEST_CASE("a configuration the system fails to open is one ERROR and stops nothing") {
  const TalkativeLibrary talkative;
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, ORVEX_MAX_CAPACITY);
  int errors = 0;
  onMessage = [&errors](const char* message) {
    if (std::strstr(message, "Open config file") != nullptr) ++errors;
  };
  std::ofstream("orvexeng.ini") << "CacheCapacity=7\n";
  std::filesystem::create_symlink("loop.ini", "loop.ini");
  const std::string tooLong(5000, 'x');
  int points = 0;
  for (const std::string& path : {std::string("loop.ini"), std::string("missing.ini"), tooLong,
                                  std::string("orvexeng.ini/below"), std::string()}) {
    CAPTURE(path.substr(0, 20));
    ORVEX_Config::ConfigFilePath = path;
    errors = 0;
    CHECK(StartEngine() == 0);
    CHECK(errors == 1);
    CHECK(HashCapacity() == 4096);
    CHECK(orvex_deinit() == 0);
    ++points;
  }
  ORVEX_Config::ConfigFilePath = "orvexeng.ini";

  // No descriptor left: twice in a row, then there is one.
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  for (int i = 0; i < 2; ++i) {
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    errors = 0;
    const int code = StartEngine();
    setrlimit(RLIMIT_NOFILE, &before);
    CHECK(code == 0);
    CHECK(errors == 1);
    CHECK(HashCapacity() == 4096);
    CHECK(orvex_deinit() == 0);
    ++points;
  }
  errors = 0;
  CHECK(StartEngine() == 0);
  CHECK(errors == 0);
  CHECK(HashCapacity() == 7);
  CHECK(orvex_deinit() == 0);
  std::printf("%4d points: opening the configuration\n", points);
}
