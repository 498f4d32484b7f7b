// How the hash cache starts, stops and counts.
#include <doctest/doctest.h>

#include <future>
#include <string>

#include "harness/counted_sleep.h"
#include "harness/held_host.h"
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

// Lines of a drain that never saw the one thread inside leave.
void AppendFullDrain(std::string& transcript, const char* threads) {
  const std::string head = "WARNING DeinitLRUCache orvex_lru_cache: Deinit LRUCache: ";
  for (int retry = 0; retry < 10; ++retry) {
    transcript += head + "Waiting for threads(" + threads +
                  ") to leave, retry=" + std::to_string(retry) + "\n";
  }
  transcript += head + "Threads(" + threads + ") still running after max retry\n";
}

}  // namespace

TEST_CASE("a new hash cache is stopped and its counters are zero") {
  RecordedLog log;
  OpenHashCache cache;
  log.TakeTranscript();
  CHECK_FALSE(cache.IsInit());
  CHECK_FALSE(cache.calHashSet.active);
  CHECK(cache.capacity == 4096);
  CHECK(cache.activeThreads == 0);
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

TEST_CASE("a stopped hash cache is empty with zero counters and counts no query") {
  OpenHashCache cache;
  cache.InitLRUCache();
  cache.Ask("/a");
  cache.Ask("/a");
  cache.DeinitLRUCache();
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.CacheMap.empty());
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
  CHECK(cache.activeThreads == -1);
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
  CHECK(cache.CacheNodeList.empty());
  CHECK(cache.metrics.WipeOuts == 1);
  CHECK(cache.metrics.Hit == 1);
  CHECK(cache.metrics.Query == 1);
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
  CHECK(sizeof(LRUCacheMetrics_s) == 80);
}

TEST_CASE("there is one hash cache") {
  CHECK(ORVEX_Singleton<LRUCache>::GetInstance() == ORVEX_Singleton<LRUCache>::GetInstance());
}
