// Many threads doing everything at once, and sums that must be exact when they are done.
//
// Ten million operations, a tenth of that under a sanitizer, or as many as
// ORVEXENG_STRESS_OPERATIONS says.
#include <doctest/doctest.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "harness/counted_sleep.h"
#include "harness/open_hash_cache.h"
#include "harness/sanitizers.h"
#include "harness/stamped_answer.h"
#include "orvexeng.h"
#include "support/orvex_log.h"

namespace {

constexpr long kOperations =
    ORVEXENG_CHECKS_THREADS || ORVEXENG_CHECKS_MEMORY ? 1'000'000 : 4'000'000;

constexpr int kThreads = 8;
constexpr int kFailed = 77;
constexpr uint32_t kFiles = 200;
constexpr uint32_t kHotFiles = 4;

// That percentage of all operations.
long Operations(long percent) {
  const char* const wanted = std::getenv("ORVEXENG_STRESS_OPERATIONS");
  return (wanted != nullptr ? std::atol(wanted) : kOperations) / 100 * percent;
}

// A few random bits at a time; always the same for the same thread.
class Dice {
 public:
  explicit Dice(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}
  uint32_t Below(uint32_t limit) {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return static_cast<uint32_t>((state_ >> 32) % limit);
  }
  bool OneIn(uint32_t chances) { return Below(chances) == 0; }

 private:
  uint64_t state_;
};

// Each fills 32 bytes, terminator included. The C library reads strings a word at a time,
// and so past the end of a block of 18: after a free, a race detector still holds that
// read against whichever thread is given the memory next.
const std::deque<std::string> paths = [] {
  std::deque<std::string> made;
  for (uint32_t i = 0; i < kFiles; ++i) {
    made.push_back("/usr/lib/some-package/file-" + std::to_string(1000 + i));
  }
  return made;
}();

const char* PathOf(uint32_t file) { return paths[file].c_str(); }

std::atomic<uint32_t> lastSerial{0};
std::atomic<int> tornMessages{0};

// Two of them, to register one in place of the other.
void TakeMessage(const char* message, unsigned int length) {
  const size_t kept = length < 511 ? length : 511;
  if (std::strlen(message) != kept) ++tornMessages;
}
void OneLog(unsigned int, unsigned int, const char*, const char*, const char* message,
            unsigned int length) {
  TakeMessage(message, length);
}
void OtherLog(unsigned int, unsigned int, const char*, const char*, const char* message,
              unsigned int length) {
  TakeMessage(message, length);
}

// What one thread does and counts. It is the context of its own queries.
class Worker {
 public:
  explicit Worker(int number) : dice_(static_cast<uint64_t>(number) + 1) {}

  // A query; what comes of it is looked at.
  void Query() {
    metadata_input_s in = AnyFile();
    if (dice_.OneIn(8)) in.invOperation = 0;
    if (dice_.OneIn(16)) in.invOperation |= INV_CACHE_ONLY;
    if (dice_.OneIn(4)) in.queryFlags |= QUERY_SIGNERS;
    const uint32_t kind = dice_.Below(8);
    if (kind == 0) in.queryFlags = QUERY_FILE_TYPE;
    if (kind == 1) in.queryFlags |= QUERY_FILE_TYPE;
    const bool wantsHash = (in.queryFlags & ~uint32_t{QUERY_FILE_TYPE}) != 0;
    const bool wantsType = (in.queryFlags & QUERY_FILE_TYPE) != 0;
    hashQueries += wantsHash;
    typeQueries += wantsType;
    const long callsBefore = hashCalls;

    Answer out;
    int code = kFailed;
    try {
      code = orvex_query(&in, &out, this);
    } catch (const std::runtime_error&) {
      ++exceptions;
    }
    if (wantsHash && code == ORVEX_OK && out.resultReady == 1 && hashCalls == callsBefore) ++hits;
    if (code == ORVEX_NOT_INITIALISED || code == ORVEX_CACHE_NOT_INITIALISED) {
      ++refusals;
      sched_yield();  // The thread that restarts the engine needs a processor, too.
    } else if (code != ORVEX_OK && code != kFailed) {
      Report("code " + std::to_string(code));
    }
    Report(WrongInStamped(out, file_, mtime_));
    Report(WrongInStampedType(out, file_, mtime_));
  }

  void Push() {
    metadata_input_s in = AnyFile();
    Answer out;
    FillStamped(out, NewStamp(), dice_.OneIn(2));
    orvex_update_metadata(&in, &out);
    ++pushes;
  }

  // Reads the counters, which only grow unless somebody resets them.
  void LookAtMetrics() {
    orvex_metrics_s now{};
    unsigned int size = 0;
    if (orvex_get_metrics(&now, sizeof now, &size) != ORVEX_OK) return;
    if (size != sizeof now || std::strcmp(now.version, ORVEX_VERSION) != 0) Report("a torn record");
    if (!countersAreReset && (now.cacheQuery < seenQueries_ || now.cacheHit > now.cacheQuery)) {
      Report("a counter that went backwards");
    }
    seenQueries_ = now.cacheQuery;
  }

  // Anything but a stop.
  void DoSomething() {
    const uint32_t what = dice_.Below(10'000);
    if (what < 9'000) return Query();
    if (what < 9'500) return Push();
    if (what < 9'800) return LookAtMetrics();
    if (what < 9'970) {
      orvex_get_status();
    } else if (what < 9'980) {
      orvex_set_cache_capacity(dice_.OneIn(2) ? ORVEX_HASH_CACHE : ORVEX_FILE_TYPE_CACHE,
                               static_cast<int>(1 + dice_.Below(kFiles)));
    } else if (what < 9'990) {
      orvex_flush_cache(dice_.OneIn(2) ? ORVEX_HASH_CACHE : ORVEX_FILE_TYPE_CACHE);
    } else if (what < 9'992) {
      // While the dumps run, all threads' messages are formatted.
      ORVEX_StoreRelaxed(ORVEX_LOG_BASE::LogLevel, ORVEX_LOG_DEBUG);
      orvex_dump_cache();
      orvex_dump_metrics();
      ORVEX_StoreRelaxed(ORVEX_LOG_BASE::LogLevel, ORVEX_LOG_ERROR);
    } else if (what < 9'994) {
      orvex_register_log_cb(dice_.OneIn(2) ? OneLog : OtherLog);
    } else if (what < 9'996) {
      orvex_profiling_set_enable(dice_.OneIn(2));
    } else if (countersAreReset) {
      orvex_reset_metrics();
    }
  }

  static int AnswerHash(metadata_input_s* in, metadata_output_s* out, void* ctx) {
    auto& self = *static_cast<Worker*>(ctx);
    ++self.hashCalls;
    self.MayStandBack();
    if (self.dice_.OneIn(64)) return kFailed;
    if (self.dice_.OneIn(64)) throw std::runtime_error("no disk");
    FillStamped(*out, self.NewStamp(), (in->queryFlags & QUERY_SIGNERS) != 0);
    self.MayStandBack();
    return 0;
  }

  static int AnswerFileType(metadata_input_s*, metadata_output_s* out, void* ctx) {
    auto& self = *static_cast<Worker*>(ctx);
    ++self.typeCalls;
    if (self.dice_.OneIn(64)) return kFailed;
    FillStampedType(*out, self.NewStamp());
    return 0;
  }

  bool countersAreReset = false;
  long hashQueries = 0;
  long typeQueries = 0;
  long hashCalls = 0;
  long typeCalls = 0;
  long hits = 0;
  long pushes = 0;
  long refusals = 0;
  long exceptions = 0;
  // The first error.
  std::string wrong;

 private:
  // Its mtime changes now and then, and is not in the key.
  metadata_input_s AnyFile() {
    file_ = static_cast<uint16_t>(dice_.Below(dice_.OneIn(2) ? kHotFiles : kFiles));
    mtime_ = dice_.OneIn(64) ? 2 : 1;
    metadata_input_s in{};
    in.path = PathOf(file_);
    in.size = file_ + 1u;
    in.mtime = mtime_;
    in.fileOperation = KEY_PATH | KEY_SIZE;
    in.invOperation = INV_KEEP_IN_CACHE;
    in.queryFlags = QUERY_SIZE | kAllDigests;
    return in;
  }
  Stamp NewStamp() const { return {file_, mtime_, ++lastSerial}; }
  // Otherwise two processors rarely interfere.
  void MayStandBack() {
    if (dice_.OneIn(4)) sched_yield();
  }
  void Report(const std::string& what) {
    if (wrong.empty()) wrong = what;
  }

  Dice dice_;
  uint16_t file_ = 0;
  uint16_t mtime_ = 0;
  int64_t seenQueries_ = 0;
};

// Several workers, each on a thread, and their counts added up.
class Workers {
 public:
  explicit Workers(bool countersAreReset) {
    for (int i = 0; i < kThreads; ++i) workers_.emplace_back(i).countersAreReset = countersAreReset;
  }

  void Work(long operations) {
    std::vector<std::thread> threads;
    for (Worker& worker : workers_) {
      threads.emplace_back([&worker, operations] {
        for (long i = 0; i < operations / kThreads; ++i) worker.DoSomething();
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  long Sum(long Worker::*count) const {
    long sum = 0;
    for (const Worker& worker : workers_) sum += worker.*count;
    return sum;
  }
  void CheckNothingWrong() const {
    for (const Worker& worker : workers_) CHECK(worker.wrong == "");
    CHECK(tornMessages == 0);
  }

 private:
  std::deque<Worker> workers_;
};

int Start() {
  orvex_register_log_cb(OneLog);
  metadata_query_fptrs_s callbacks{Worker::AnswerHash, Worker::AnswerFileType};
  return orvex_init(&callbacks);
}

orvex_metrics_s Metrics() {
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  orvex_get_metrics(&metrics, sizeof metrics, &size);
  return metrics;
}

void CheckLookupsAddUp(const orvex_metrics_s& m) {
  CHECK(m.cacheQuery == m.cacheMiss + m.cacheHit + m.cachePartialHit + m.cacheOutOfDate);
}

// Counts what comes and goes where the cache lock is held anyway.
class CountingCache : public OpenHashCache {
 public:
  void LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node, LRU_OPERATION operation) override {
    if (operation == LRU_INSERT) {
      NoticeFlush();
      ++inserted;
      ++live;
    }
    OpenHashCache::LRUCacheNodeUpdate(key, node, operation);
  }
  void LRUCacheNodeWipe() override {
    NoticeFlush();
    OpenHashCache::LRUCacheNodeWipe();
    evicted += live - static_cast<long>(entries_.Size());
    live = static_cast<long>(entries_.Size());
  }
  // A flush takes all: the list is empty or as long as it was.
  void NoticeFlush() {
    if (static_cast<long>(entries_.Size()) == live) return;
    if (!PathsInOrder().empty()) ++lost;
    flushed += live;
    live = 0;
  }

  long live = 0;
  long inserted = 0;
  long evicted = 0;
  long flushed = 0;
  long lost = 0;
};

}  // namespace

TEST_CASE("every sum is exact and every answer whole after a mix of everything" *
          doctest::test_suite("slow")) {
  REQUIRE(Start() == 0);
  // Too small from the start: a worker seldom sets one.
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, kFiles / 4);
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, kFiles / 4);
  Workers workers(false);
  const long operations = Operations(60);
  workers.Work(operations);
  workers.CheckNothingWrong();
  const orvex_metrics_s m = Metrics();
  CheckLookupsAddUp(m);
  CHECK(m.cacheQuery == workers.Sum(&Worker::hashQueries));
  CHECK(m.cacheHit == workers.Sum(&Worker::hits));
  CHECK(m.cacheHelpFuncCalled == workers.Sum(&Worker::hashCalls));
  CHECK(m.fileTypeHit + m.fileTypeMiss + m.fileTypeOutOfDate == workers.Sum(&Worker::typeQueries));
  CHECK(m.fileTypeHelpFuncCalled == workers.Sum(&Worker::typeCalls));
  CHECK(m.cacheUpdateMetaDataSuccess == workers.Sum(&Worker::pushes));
  CHECK(m.cacheUpdateMetaDataFailure == 0);
  CHECK(workers.Sum(&Worker::refusals) == 0);
  // All of it happened.
  CHECK(m.cacheMiss > 0);
  CHECK(m.cachePartialHit > 0);
  CHECK(m.cacheOutOfDate > 0);
  CHECK(m.cacheWipeOuts > 0);
  CHECK(m.fileTypeWipeOuts > 0);
  CHECK(m.cacheWaitInHashCalculation > 0);
  CHECK(workers.Sum(&Worker::exceptions) > 0);
  std::printf(
      "%ld operations: %lld lookups, %lld hits, %lld host calls, %lld waits, %lld evicted\n",
      operations, static_cast<long long>(m.cacheQuery), static_cast<long long>(m.cacheHit),
      static_cast<long long>(m.cacheHelpFuncCalled),
      static_cast<long long>(m.cacheWaitInHashCalculation),
      static_cast<long long>(m.cacheWipeOuts));
  orvex_deinit();
}

TEST_CASE("lookups still add up when the counters are reset concurrently" *
          doctest::test_suite("slow")) {
  REQUIRE(Start() == 0);
  Workers workers(true);
  workers.Work(Operations(15));
  workers.CheckNothingWrong();
  CheckLookupsAddUp(Metrics());
  CHECK(Metrics().cacheQuery > 0);
  orvex_deinit();
}

TEST_CASE("queries are answered or refused while the engine stops and starts" *
          doctest::test_suite("slow")) {
  CountedSleep noPause;  // So that a stop also overtakes threads that are still inside.
  noPause.onSleep = sched_yield;
  Workers workers(true);
  std::atomic<bool> done{false};
  std::atomic<long> stops{0};
  std::thread switcher([&] {
    while (!done) {
      Start();
      while (!done && Metrics().cacheQuery < 100) sched_yield();
      orvex_deinit();
      ++stops;
    }
  });
  // The scheduler decides how soon the switcher gets to stop anything.
  for (int round = 0; round < 100; ++round) {
    workers.Work(Operations(15));
    if (stops > 1 && workers.Sum(&Worker::refusals) > 0 && workers.Sum(&Worker::hits) > 0) break;
  }
  done = true;
  switcher.join();
  CHECK(stops > 1);
  CHECK(workers.Sum(&Worker::refusals) > 0);
  CHECK(workers.Sum(&Worker::hits) > 0);
  workers.CheckNothingWrong();
  // Afterwards it works as if nothing had happened.
  REQUIRE(Start() == 0);
  orvex_flush_cache(ORVEX_HASH_CACHE);
  orvex_reset_metrics();
  Worker last(99);
  while (last.hashQueries < 100) last.Query();
  CHECK(last.wrong == "");
  CHECK(Metrics().cacheQuery == 100);
  CHECK(Metrics().cacheHit == last.hits);
  CHECK(Metrics().cacheHelpFuncCalled == last.hashCalls);
  std::printf("%ld stops, %ld queries refused\n", stops.load(), workers.Sum(&Worker::refusals));
  orvex_deinit();
}

TEST_CASE("what was inserted is evicted, flushed or still there" * doctest::test_suite("slow")) {
  orvex_register_log_cb(OneLog);
  CountingCache cache;
  cache.InitLRUCache();
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&cache, number] {
      Dice dice(static_cast<uint64_t>(number) + 50);
      for (long i = 0; i < Operations(10) / kThreads; ++i) {
        const uint32_t what = dice.Below(1000);
        if (what < 5) {
          cache.FlushCache();
        } else if (what < 10) {
          cache.SetCapacity(1 + dice.Below(kFiles));
        } else if (what < 100) {
          cache.Store(PathOf(dice.Below(kFiles)));
        } else {
          cache.Ask(PathOf(dice.Below(kFiles)));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  cache.NoticeFlush();
  CHECK(cache.lost == 0);
  CHECK(cache.metrics.WipeOuts == cache.evicted);
  CHECK(cache.evicted == cache.inserted - cache.live - cache.flushed);
  CHECK(cache.entries_.EntryCount() == cache.entries_.Size());
  CHECK(cache.evicted > 0);
  CHECK(cache.flushed > 0);
  std::printf("%ld inserted, %ld evicted, %ld flushed, %ld left\n", cache.inserted, cache.evicted,
              cache.flushed, cache.live);
}
