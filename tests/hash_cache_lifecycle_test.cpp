// How the hash cache starts, stops and counts.
#include <doctest/doctest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <new>
#include <string>

#include "harness/counted_sleep.h"
#include "harness/failing_pthread.h"
#include "harness/held_host.h"
#include "harness/latch.h"
#include "harness/open_hash_cache.h"
#include "harness/recorded_log.h"
#include "support/orvex_profiling.h"

namespace {

std::string MetricsLine(const char* counters) {
  return "DEBUG DumpMetrics orvex_lru_cache: Cache Metrics: " + std::string(counters);
}

const char* const kTenZeros =
    "Query=0, Miss=0, Hit=0, PartialHit=0, Out-of-date=0, WipeOuts=0, "
    "numOfCacheUpdateMetaDataSuccess=0, numOfCacheUpdateMetaDataFailure=0, "
    "numOfHelpFuncCalled=0, numOfWaitInHashCalculation=0";

// The lines of a drain during which the one thread inside never leaves.
void AppendFullDrain(std::string& transcript, const char* threads) {
  const std::string head = "WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache: ";
  for (int retry = 0; retry < 10; ++retry) {
    transcript += head + "Waiting for threads(" + threads +
                  ") to leave, retry=" + std::to_string(retry) + "\n";
  }
  transcript += head + "Threads(" + threads + ") still running after max retry\n";
}

// Whether the cache serves without its set at any lock that the action takes.
bool ServesWithoutSet(OpenHashCache& cache, const std::function<void()>& action) {
  bool serves = false;
  FailingPThread system;
  system.onLock = [&] { serves |= cache.active && !cache.calHashSet.active; };
  action();
  return serves;
}

// A record in memory that is read-only until the first write.
class GuardedRecord {
 public:
  explicit GuardedRecord(OpenHashCache& cache)
      : page_(mmap(nullptr, PageSize(), PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    current_ = this;
    cache_ = &cache;
    struct sigaction onFault {};
    onFault.sa_handler = LetIn;
    sigaction(SIGSEGV, &onFault, &before_);
  }
  ~GuardedRecord() {
    sigaction(SIGSEGV, &before_, nullptr);
    munmap(page_, PageSize());
  }
  GuardedRecord(const GuardedRecord&) = delete;
  GuardedRecord& operator=(const GuardedRecord&) = delete;

  LRUCacheMetrics_s& Metrics() { return *static_cast<LRUCacheMetrics_s*>(page_); }

  // How many threads were inside the cache at the first write.
  int threadsInside = -1;

 private:
  static size_t PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
  static void LetIn(int) {
    current_->threadsInside = cache_->ThreadsInside();
    mprotect(current_->page_, PageSize(), PROT_READ | PROT_WRITE);
  }

  static inline GuardedRecord* current_ = nullptr;
  static inline OpenHashCache* cache_ = nullptr;

  void* page_;
  struct sigaction before_ {};
};

}  // namespace

TEST_CASE("a new hash cache is stopped and its counters are zero") {
  RecordedLog log;
  OpenHashCache cache;
  log.TakeTranscript();
  CHECK_FALSE(cache.IsInit());
  CHECK_FALSE(cache.calHashSet.active);
  CHECK(cache.capacity == 4096);
  CHECK(cache.ThreadsInside() == 0);
  cache.DumpMetrics();
  CHECK(log.TakeTranscript() == Lines({MetricsLine(kTenZeros)}));
}

TEST_CASE("starting the hash cache makes cache and set active and can be repeated") {
  OpenHashCache cache;
  for (int i = 0; i < 2; ++i) {
    RecordedLog log;
    CHECK(cache.InitLRUCache() == 0);
    CHECK(cache.IsInit());
    CHECK(cache.calHashSet.active);
    CHECK(log.TakeTranscript() ==
          Lines({"DEBUG InitLRUCache orvex_lru_cache: Init LRUCache successfully"}));
  }
}

TEST_CASE("starting the hash cache is logged before anything is changed") {
  OpenHashCache cache;
  RecordedLog log;
  bool wasActive = true;
  log.onMessage = [&](const LogRecord&) { wasActive = cache.active || cache.calHashSet.active; };
  cache.InitLRUCache();
  CHECK_FALSE(wasActive);
}

TEST_CASE("the hash cache never serves without its set of paths being calculated") {
  const RecordedLog quiet(ORVEX_LOG_FATAL);
  OpenHashCache cache;
  CHECK_FALSE(ServesWithoutSet(cache, [&] { cache.InitLRUCache(); }));
  CHECK_FALSE(ServesWithoutSet(cache, [&] { cache.DeinitLRUCache(); }));
}

TEST_CASE("starting the hash cache keeps what was pushed before") {
  OpenHashCache cache;
  cache.Store("/a");
  cache.InitLRUCache();
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}

TEST_CASE("stopping an idle hash cache does not pause") {
  OpenHashCache cache;
  cache.InitLRUCache();
  RecordedLog log;
  CountedSleep pauses;
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(pauses.sleeps == 0);
  CHECK(log.TakeTranscript() ==
        Lines({"WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache: All threads leaves "
               "successfully, retry=0",
               "DEBUG DeinitLRUCache orvex_lru_cache: Deinit LRUCache successfully"}));
}

TEST_CASE("a thread blocked in the host is waited for ten times 100 ms and then left") {
  OpenHashCache cache;
  cache.InitLRUCache();
  HeldHost held(cache.onHash);
  auto blocked = std::async(std::launch::async, [&] { return cache.Ask("/a"); });
  held.entered.Wait();
  RecordedLog log;
  CountedSleep pauses;
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(pauses.sleeps == 10);
  CHECK(pauses.microseconds == 1000000);
  std::string expected;
  AppendFullDrain(expected, "1");
  expected += "DEBUG DeinitLRUCache orvex_lru_cache: Deinit LRUCache successfully\n";
  CHECK(log.TakeTranscript() == expected);
  held.mayAnswer.Open();
  CHECK(blocked.get() == 0);
}

TEST_CASE("a thread that leaves during the drain ends it") {
  OpenHashCache cache;
  cache.InitLRUCache();
  HeldHost held(cache.onHash);
  auto blocked = std::async(std::launch::async, [&] { return cache.Ask("/a"); });
  held.entered.Wait();
  RecordedLog log;
  CountedSleep pauses;
  pauses.onSleep = [&] {
    if (pauses.sleeps < 3) return;
    held.mayAnswer.Open();
    blocked.wait();
  };
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(pauses.sleeps == 3);
  CHECK(log.CountOf("Waiting for threads(1) to leave, retry=2") == 1);
  CHECK(log.CountOf("All threads leaves successfully, retry=3") == 1);
  CHECK(log.CountOf("still running") == 0);
}

TEST_CASE("a thread that leaves in the last pause of a drain is no longer counted") {
  OpenHashCache cache;
  cache.InitLRUCache();
  Latch hostEntered;
  Latch hostMayAnswer;
  cache.onHash = [&](metadata_input_s&, metadata_output_s&) {
    hostEntered.Open();
    hostMayAnswer.Wait();
    return 0;
  };
  auto blocked = std::async(std::launch::async, [&] { return cache.Ask("/a"); });
  hostEntered.Wait();
  RecordedLog log;
  CountedSleep pauses;
  pauses.onSleep = [&] {
    if (pauses.sleeps < 10) return;
    hostMayAnswer.Open();
    blocked.wait();
  };
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(log.CountOf("Waiting for threads(1) to leave, retry=9") == 1);
  CHECK(log.CountOf("Threads(0) still running after max retry") == 1);
}

TEST_CASE("a stop zeroes the counters before it waits and keeps what is counted later") {
  OpenHashCache cache;
  cache.InitLRUCache();
  Latch hostEntered;
  Latch hostMayAnswer;
  cache.onHash = [&](metadata_input_s&, metadata_output_s&) {
    hostEntered.Open();
    hostMayAnswer.Wait();
    return 0;
  };
  auto blocked = std::async(std::launch::async, [&] { return cache.Ask("/a"); });
  hostEntered.Wait();
  const RecordedLog quiet;
  CountedSleep pauses;
  LRUCacheMetrics_s during;
  pauses.onSleep = [&] {
    cache.GetMetrics(during);
    hostMayAnswer.Open();
    blocked.wait();
  };
  cache.DeinitLRUCache();
  CHECK(pauses.sleeps == 1);
  CHECK(during.Query == 0);
  CHECK(during.Miss == 0);
  LRUCacheMetrics_s after;
  cache.GetMetrics(after);
  CHECK(after.numOfHelpFuncCalled == 1);
}

TEST_CASE("a thread that reads the counters of the hash cache counts as inside") {
  OpenHashCache cache;
  GuardedRecord record(cache);
  cache.GetMetrics(record.Metrics());
  CHECK(record.threadsInside == 1);
  CHECK(cache.ThreadsInside() == 0);
}

TEST_CASE("a thread that resets the counters of the hash cache counts as inside") {
  OpenHashCache cache;
  int threadsInside = -1;
  {
    FailingPThread system;
    system.onLock = [&] { threadsInside = cache.ThreadsInside(); };
    cache.ResetMetrics();
  }
  CHECK(threadsInside == 1);
  CHECK(cache.ThreadsInside() == 0);
}

TEST_CASE("a stopped hash cache is empty with zero counters and counts no query") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.Ask("/a");
  cache.Ask("/a");
  cache.DeinitLRUCache();
  CHECK(cache.PathsInOrder().empty());
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK(cache.calHashSet.paths.empty());
  CHECK(cache.Ask("/a") == 8);
  LRUCacheMetrics_s metrics;
  CHECK(cache.GetMetrics(metrics) == 0);
  const long long all[] = {metrics.Query,
                           metrics.Miss,
                           metrics.Hit,
                           metrics.PartialHit,
                           metrics.OutOfDate,
                           metrics.WipeOuts,
                           metrics.numOfCacheUpdateMetaDataSuccess,
                           metrics.numOfCacheUpdateMetaDataFailure,
                           metrics.numOfHelpFuncCalled,
                           metrics.numOfWaitInHashCalculation};
  for (const long long counter : all) CHECK(counter == 0);
}

TEST_CASE("a stopped hash cache starts again with its capacity and callback") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.SetCapacity(2);
  cache.DeinitLRUCache();
  cache.InitLRUCache();
  CHECK(cache.capacity == 2);
  CHECK(cache.Ask("/a") == 0);
  CHECK(cache.metrics.numOfHelpFuncCalled == 1);
}

TEST_CASE("a thread that outlived a stop takes the count below zero and the next drain waits") {
  OpenHashCache cache;
  cache.InitLRUCache();
  HeldHost held(cache.onHash);
  auto outliving = std::async(std::launch::async, [&] { return cache.Ask("/a"); });
  held.entered.Wait();
  CountedSleep pauses;
  cache.DeinitLRUCache();
  cache.InitLRUCache();
  held.mayAnswer.Open();
  outliving.get();
  CHECK(cache.ThreadsInside() == -1);
  RecordedLog log;
  pauses.sleeps = 0;
  CHECK(cache.DeinitLRUCache() == 0);
  CHECK(pauses.sleeps == 10);
  std::string expected;
  AppendFullDrain(expected, "-1");
  expected += "DEBUG DeinitLRUCache orvex_lru_cache: Deinit LRUCache successfully\n";
  CHECK(log.TakeTranscript() == expected);
}

TEST_CASE("a flush that fails is passed on as the result of the stop") {
  class StuckCache : public OpenHashCache {
   public:
    int FlushCache() override { return 55; }
  } cache;
  cache.InitLRUCache();
  RecordedLog log;
  CHECK(cache.DeinitLRUCache() == 55);
  CHECK_FALSE(cache.IsInit());
  CHECK_FALSE(cache.calHashSet.active);
  CHECK(log.TakeTranscript() ==
        Lines({"WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache: All threads leaves "
               "successfully, retry=0",
               "WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache flush cache failed: "
               "rc=55"}));
}

TEST_CASE("flushing the hash cache leaves all counters as they were") {
  OpenHashCache cache;
  cache.SetCapacity(1);
  cache.Store("/a");
  cache.Store("/b");
  Answer out;
  cache.Look(InputFor("/b"), out);
  CHECK(cache.FlushCache() == 0);
  CHECK(cache.PathsInOrder().empty());
  CHECK(cache.metrics.WipeOuts == 1);
  CHECK(cache.Counters().Hit == 1);
  CHECK(cache.Counters().Query == 1);
}

TEST_CASE("a flush removes all keys, then destroys the nodes from the most recent to the oldest") {
  static OpenHashCache* flushed = nullptr;
  struct TellingNode : LRUCacheNode {
    using LRUCacheNode::LRUCacheNode;
    ~TellingNode() override {
      // The flush holds the lock that this expects.
      flushed->DumpCacheMap();
      ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, "TellingNode", "test", "%s ends", path.c_str());
    }
  };
  OpenHashCache cache;
  flushed = &cache;
  for (const char* path : {"/a", "/b", "/c"}) {
    metadata_input_s in = InputFor(path);
    Answer out;
    LRUCacheKey key(in);
    cache.InsertCacheNode(key, new TellingNode(in, out));
  }
  RecordedLog log;
  cache.FlushCache();
  const std::string noKeys = "DEBUG DumpCacheMap orvex_lru_cache: CacheMap.size=0";
  CHECK(log.TakeTranscript() ==
        Lines({noKeys, "INFO TellingNode test: /c ends", noKeys, "INFO TellingNode test: /b ends",
               noKeys, "INFO TellingNode test: /a ends"}));
}

TEST_CASE("flushing the hash cache is timed under its name") {
  OpenHashCache cache;
  ORVEX_Profiling::EnableProfiling = true;
  RecordedLog log(ORVEX_LOG_INFO);
  cache.FlushCache();
  ORVEX_Profiling::EnableProfiling = false;
  CHECK(log.CountOf("[PROFILING] LRUCache::FlushCache used") == 1);
}

TEST_CASE("the counters are copied out and dumped in their order") {
  OpenHashCache cache;
  cache.metrics.Query = 1;
  cache.metrics.Miss = 2;
  cache.metrics.Hit = 3;
  cache.metrics.PartialHit = 4;
  cache.metrics.OutOfDate = 5;
  cache.metrics.WipeOuts = 6;
  cache.metrics.numOfCacheUpdateMetaDataSuccess = 7;
  cache.metrics.numOfCacheUpdateMetaDataFailure = 8;
  cache.metrics.numOfHelpFuncCalled = 9;
  cache.metrics.numOfWaitInHashCalculation = 0x7fffffffffffffff;
  LRUCacheMetrics_s copy;
  CHECK(cache.GetMetrics(copy) == 0);
  CHECK(copy.Query == 1);
  CHECK(copy.numOfWaitInHashCalculation == 0x7fffffffffffffff);
  RecordedLog log;
  cache.DumpMetrics();
  CHECK(log.TakeTranscript() ==
        Lines({MetricsLine("Query=1, Miss=2, Hit=3, PartialHit=4, Out-of-date=5, WipeOuts=6, "
                           "numOfCacheUpdateMetaDataSuccess=7, numOfCacheUpdateMetaDataFailure=8, "
                           "numOfHelpFuncCalled=9, "
                           "numOfWaitInHashCalculation=9223372036854775807")}));
}

TEST_CASE("the counters are dumped as a subclass of the cache returns them") {
  class Telling : public OpenHashCache {
   public:
    int GetMetrics(LRUCacheMetrics_s& out) const override {
      out = LRUCacheMetrics_s();
      out.Hit = 7;
      return 0;
    }
  } cache;
  RecordedLog log;
  cache.DumpMetrics();
  CHECK(log.CountOf("Query=0, Miss=0, Hit=7, ") == 1);
}

TEST_CASE("resetting the counters of the hash cache zeroes all ten") {
  OpenHashCache cache;
  long long* const counters = &cache.metrics.Query;
  for (int i = 0; i < 10; ++i) counters[i] = 0x100000001;
  CHECK(cache.ResetMetrics() == 0);
  RecordedLog log;
  cache.DumpMetrics();
  CHECK(log.TakeTranscript() == Lines({MetricsLine(kTenZeros)}));
}

TEST_CASE("no counter of the hash cache lies across two cache lines") {
  const OpenHashCache cache;
  CHECK(reinterpret_cast<uintptr_t>(&cache.metrics) % 8 == 0);
  CHECK(reinterpret_cast<uintptr_t>(&cache.metrics.silentHits) % 8 == 0);
  CHECK(sizeof(LRUCacheMetrics_s) == 80);
}

TEST_CASE("there is one hash cache") {
  CHECK(ORVEX_Singleton<LRUCache>::GetInstance() == ORVEX_Singleton<LRUCache>::GetInstance());
}
