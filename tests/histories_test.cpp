// Short histories of many threads, each judged afterwards by what its callers saw.
//
// At the end of each, no thread is left that could wake another by chance, as in a longer
// run. Thirty of each mix, ten under a sanitizer, or as many as ORVEXENG_HISTORIES says,
// from the seed ORVEXENG_HISTORY_SEED on.
#include <doctest/doctest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "harness/counted_sleep.h"
#include "harness/history.h"
#include "harness/records.h"
#include "harness/sanitizers.h"
#include "harness/stamped_answer.h"
#include "orvexeng.h"
#include "support/orvex_log.h"

namespace {

constexpr uint32_t kHistories = ORVEXENG_CHECKS_THREADS || ORVEXENG_CHECKS_MEMORY ? 10 : 30;

constexpr uint32_t kFiles = 100;
constexpr uint32_t kOperations = 200;  // of each thread
constexpr int kStops = 4;
constexpr int kFailed = 77;
constexpr int kThrown = 78;
constexpr uint32_t kNeverGiven = 0x400;

uint32_t FromEnvironment(const char* name, uint32_t otherwise) {
  const char* const wanted = std::getenv(name);
  return wanted != nullptr ? static_cast<uint32_t>(std::atol(wanted)) : otherwise;
}

// What happens apart from plain queries.
struct Mix {
  // Of a thousand operations.
  uint32_t pushes = 0;
  uint32_t flushes = 0;
  uint32_t capacities = 0;
  // Of a hundred queries.
  uint32_t notKept = 0;
  uint32_t cacheOnly = 0;
  uint32_t neverFull = 0;
  uint32_t otherMtime = 0;
  // Of a hundred callbacks.
  uint32_t failures = 0;
  bool stops = false;

  bool KeepsAll() const { return capacities == 0 && otherMtime == 0; }
};

// Relaxed: a locked add is a full barrier on x86 anyway, and a stronger order would hide
// races from a detector.
std::atomic<uint32_t> lastEvent{0};
uint32_t Now() { return lastEvent.fetch_add(1, std::memory_order_relaxed) + 1; }

const std::deque<std::string> paths = [] {
  std::deque<std::string> made;
  for (uint32_t i = 0; i < kFiles; ++i) made.push_back("/usr/lib/file-" + std::to_string(i));
  return made;
}();

// One thread: what it does, and its part of the history. The context of its queries.
class Caller {
 public:
  Caller(const Mix& mix, uint32_t seed, bool withSigners)
      : mix_(mix), withSigners_(withSigners), random_(seed) {}

  void Work() {
    for (done_ = 0; done_ < kOperations; ++done_) {
      const uint32_t what = Below(1000);
      if (what < mix_.pushes) {
        Push();
      } else if (what < mix_.pushes + mix_.flushes) {
        Flush();
      } else if (what < mix_.pushes + mix_.flushes + mix_.capacities) {
        orvex_set_cache_capacity(AnyCache(), static_cast<int>(1 + Below(kFiles)));
      } else {
        QueryAny();
      }
    }
  }

  // How many files the hash cache still has an answer for.
  uint32_t CountCached() {
    const long before = hits;
    for (uint32_t i = 0; i < kFiles; ++i) {
      file_ = static_cast<uint16_t>(i);
      mtime_ = 1;
      metadata_input_s in = Input();
      in.invOperation = INV_CACHE_ONLY;
      Query(in);
    }
    return static_cast<uint32_t>(hits - before);
  }

  static int AnswerHash(metadata_input_s*, metadata_output_s* out, void* ctx) {
    auto& self = *static_cast<Caller*>(ctx);
    const int code = self.Answer(self.hashAnswer_);
    if (code == 0) FillStamped(*out, self.StampOf(self.hashAnswer_), self.withSigners_);
    self.StandBack();
    self.hashAnswer_.callback.end = Now();
    return code;
  }

  static int AnswerFileType(metadata_input_s*, metadata_output_s* out, void* ctx) {
    auto& self = *static_cast<Caller*>(ctx);
    const int code = self.Answer(self.typeAnswer_);
    if (code != 0) return code;
    out->major = static_cast<int32_t>(self.typeAnswer_.serial);
    out->minor = ~out->major;
    out->queryFlags |= QUERY_FILE_TYPE;
    return 0;
  }

  CacheHistory hash;
  CacheHistory type;
  // The first error it saw itself.
  std::string wrong;
  long hashQueries = 0;
  long hashCalls = 0;
  long hits = 0;
  long typeQueries = 0;
  long typeCalls = 0;
  long pushes = 0;

 private:
  // What a callback did for the query under way.
  struct OwnAnswer {
    EventSpan callback{0, 0};
    uint32_t serial = 0;  // 0 unless it answered

    bool WasCalled() const { return callback.begin != 0; }
  };

  uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(random_()) % limit; }
  bool OfHundred(uint32_t chances) { return Below(100) < chances; }
  int AnyCache() { return OfHundred(50) ? ORVEX_HASH_CACHE : ORVEX_FILE_TYPE_CACHE; }
  // Processors are few: without it callbacks would hardly ever overlap.
  void StandBack() {
    for (uint32_t i = Below(4); i > 0; --i) sched_yield();
  }
  Stamp StampOf(const OwnAnswer& answer) const { return {file_, mtime_, answer.serial}; }

  // Half of the time where the others are: all go through the files together.
  void ChooseFile() {
    const uint32_t place = OfHundred(50) ? done_ * kFiles / kOperations + Below(3) : Below(kFiles);
    file_ = static_cast<uint16_t>(place % kFiles);
    mtime_ = OfHundred(mix_.otherMtime) ? 2 : 1;
  }
  metadata_input_s Input() const {
    metadata_input_s in{};
    in.path = paths[file_].c_str();
    in.size = file_ + 1u;
    in.mtime = mtime_;
    in.fileOperation = KEY_PATH | KEY_SIZE;
    in.invOperation = INV_KEEP_IN_CACHE;
    in.queryFlags = kAllDigests;
    return in;
  }

  void QueryAny() {
    ChooseFile();
    metadata_input_s in = Input();
    if (OfHundred(mix_.notKept)) in.invOperation = 0;
    if (OfHundred(mix_.cacheOnly)) in.invOperation |= INV_CACHE_ONLY;
    if (OfHundred(mix_.neverFull)) in.queryFlags |= kNeverGiven;
    const uint32_t kind = Below(4);
    if (kind == 0) in.queryFlags = QUERY_FILE_TYPE;
    if (kind == 1) in.queryFlags |= QUERY_FILE_TYPE;
    Query(in);
  }

  void Query(metadata_input_s& in) {
    hashAnswer_ = {};
    typeAnswer_ = {};
    metadata_output_s out{};
    EventSpan span{Now(), 0};
    int code = kThrown;
    try {
      code = orvex_query(&in, &out, this);
    } catch (const std::runtime_error&) {
    }
    span.end = Now();
    LookAtAnswer(in, out, span, code);
    delete[] out.signers;
    // The thread that restarts the engine needs a processor, too.
    if (code == ORVEX_NOT_INITIALISED) sched_yield();
  }

  void LookAtAnswer(const metadata_input_s& in, const metadata_output_s& out, EventSpan span,
                    int code) {
    const bool keep = (in.invOperation & INV_KEEP_IN_CACHE) != 0;
    const bool refused = code == ORVEX_NOT_INITIALISED || code == ORVEX_CACHE_NOT_INITIALISED;
    if (code != ORVEX_OK && code != kFailed && code != kThrown && !refused) {
      Report("code " + std::to_string(code));
    }
    if ((in.queryFlags & QUERY_FILE_TYPE) != 0) {
      ++typeQueries;
      typeCalls += typeAnswer_.WasCalled();
      const bool given = (out.queryFlags & QUERY_FILE_TYPE) != 0;
      if (given && out.minor != ~out.major) Report("a torn file type");
      Note(type, typeAnswer_, given ? static_cast<uint32_t>(out.major) : 0, span, keep, true, code);
      // What the file type's callback throws leaves the hash cache unasked.
      if (code == kThrown && !hashAnswer_.WasCalled()) return;
    }
    if ((in.queryFlags & kAllDigests) == 0) return;
    ++hashQueries;
    hashCalls += hashAnswer_.WasCalled();
    Report(WrongInStamped(out, file_, mtime_));
    Stamp stamp{};
    if ((out.queryFlags & kAllDigests) != 0) std::memcpy(&stamp, out.digest16, sizeof stamp);
    // A file type that was wanted and not given is a missing part of a hash answer, too.
    const bool anyWillDo = (in.queryFlags & ~out.queryFlags & ~kAllDigests) == 0;
    Note(hash, hashAnswer_, stamp.serial, span, keep, anyWillDo, code);
    if (hashAnswer_.WasCalled()) hash.calculations.push_back({span, hashAnswer_.callback, file_});
    const bool hit = out.resultReady == 1 && !hashAnswer_.WasCalled() && !refused;
    hits += hit;
    const bool cacheOnly = (in.invOperation & INV_CACHE_ONLY) != 0;
    if (cacheOnly && hashAnswer_.WasCalled()) Report("a host called for a cache-only query");
    const bool asked = hit || hashAnswer_.WasCalled();
    if (code == ORVEX_OK && !cacheOnly && !asked) Report("nobody was asked");
  }

  void Note(CacheHistory& history, const OwnAnswer& own, uint32_t serial, EventSpan span, bool keep,
            bool anyWillDo, int code) {
    if (own.serial != 0) {
      history.stored.push_back({{own.serial, span.end}, file_, mtime_, keep});
      if (serial != own.serial) Report("another answer than its own callback's");
      serial = 0;
    }
    history.asked.push_back({span, file_, mtime_, serial, own.WasCalled(), anyWillDo, code});
  }

  void Push() {
    ChooseFile();
    metadata_input_s in = Input();
    metadata_output_s out{};
    const uint32_t serial = Now();
    FillStamped(out, {file_, mtime_, serial}, withSigners_);
    if (orvex_update_metadata(&in, &out) != ORVEX_OK) Report("a push failed");
    hash.stored.push_back({{serial, Now()}, file_, mtime_, true});
    delete[] out.signers;
    ++pushes;
  }

  void Flush() {
    const int cache = AnyCache();
    const uint32_t begin = Now();
    if (orvex_flush_cache(cache) != ORVEX_OK) Report("a flush failed");
    (cache == ORVEX_HASH_CACHE ? hash : type).flushes.push_back({begin, Now()});
  }

  // The part that both callbacks have in common. Returns the code.
  int Answer(OwnAnswer& answer) {
    answer.callback.begin = Now();
    StandBack();
    if (OfHundred(mix_.failures)) {
      answer.callback.end = Now();
      if (OfHundred(50)) throw std::runtime_error("no disk");
      return kFailed;
    }
    answer.serial = Now();
    return 0;
  }

  void Report(const std::string& what) {
    if (wrong.empty() && !what.empty()) wrong = "file " + std::to_string(file_) + ": " + what;
  }

  const Mix mix_;
  const bool withSigners_;
  std::minstd_rand random_;
  uint32_t done_ = 0;
  uint16_t file_ = 0;
  uint16_t mtime_ = 1;
  OwnAnswer hashAnswer_;
  OwnAnswer typeAnswer_;
};

// The threads of one history between a start of the engine and its end.
class Life {
 public:
  Life(const Mix& mix, uint32_t seed) : mix_(mix), seed_(seed), random_(seed) {
    hash_.keepsAll = type_.keepsAll = mix.KeepsAll();
    const bool withSigners = Below(2) == 0;
    for (uint32_t threads = 2 + Below(15); threads > 0; --threads) {
      callers_.emplace_back(mix, static_cast<uint32_t>(random_()), withSigners);
    }
  }

  // Lives it, and returns the first thing wrong, or "".
  std::string WrongInLife() {
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, ORVEX_MAX_CAPACITY);
    orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, ORVEX_MAX_CAPACITY);
    // Queries that log run through other code.
    ORVEX_StoreRelaxed(ORVEX_LOG_BASE::LogLevel, Below(2) == 0 ? ORVEX_LOG_DEBUG : ORVEX_LOG_ERROR);
    if (Start() != ORVEX_OK) return "the engine does not start";
    RunThreads();
    std::string wrong = mix_.stops ? WrongInLookups(Metrics()) : WrongInSums(Metrics());
    if (wrong.empty()) wrong = WrongInRest();
    if (orvex_deinit() != ORVEX_OK && wrong.empty()) wrong = "the engine does not stop";
    for (const Caller& caller : callers_) {
      if (wrong.empty()) wrong = caller.wrong;
      hash_.Append(caller.hash);
      type_.Append(caller.type);
    }
    if (wrong.empty()) wrong = WrongInHistory(hash_);
    if (wrong.empty()) wrong = WrongInHistory(type_);
    return wrong;
  }

 private:
  static int Start() {
    metadata_query_fptrs_s callbacks{Caller::AnswerHash, Caller::AnswerFileType};
    return orvex_init(&callbacks);
  }
  static orvex_metrics_s Metrics() {
    orvex_metrics_s metrics{};
    unsigned int size = 0;
    orvex_get_metrics(&metrics, sizeof metrics, &size);
    return metrics;
  }
  uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(random_()) % limit; }

  // Ends the program if some do not return: after a long time without progress there will
  // be none. Such threads can be neither joined nor abandoned.
  void RunThreads() {
    threadsOut_ = callers_.size() + (mix_.stops ? 1 : 0);
    std::vector<std::thread> threads;
    for (Caller& caller : callers_) {
      threads.emplace_back([this, &caller] {
        caller.Work();
        ComeBack();
      });
    }
    if (mix_.stops) {
      threads.emplace_back([this] {
        StopAndStart();
        ComeBack();
      });
    }
    uint32_t seen = 0;
    std::unique_lock guard(lock_);
    while (
        !cameBack_.wait_for(guard, std::chrono::seconds(20), [this] { return threadsOut_ == 0; })) {
      if (seen == lastEvent) {
        std::fprintf(stderr, "seed %u: %zu threads of %zu do not come back\n", seed_, threadsOut_,
                     threads.size());
        std::_Exit(EXIT_FAILURE);
      }
      seen = lastEvent;
    }
    guard.unlock();
    for (std::thread& thread : threads) thread.join();
  }
  void ComeBack() {
    const std::lock_guard guard(lock_);
    --threadsOut_;
    cameBack_.notify_all();
  }
  bool IsAlone() {
    const std::lock_guard guard(lock_);
    return threadsOut_ == 1;
  }

  void StopAndStart() {
    for (int i = 0; i < kStops; ++i) {
      LetHappen(Below(1000));
      EngineStop stop{};
      stop.stop.begin = Now();
      if (orvex_deinit() != ORVEX_OK) wrong_ = "a stop failed";
      stop.stop.end = Now();
      LetHappen(Below(30));
      stop.start.begin = Now();
      if (Start() != ORVEX_OK) wrong_ = "a start failed";
      stop.start.end = Now();
      hash_.stops.push_back(stop);
      type_.stops.push_back(stop);
    }
  }
  // Waits for that many events of the callers, if there are as many.
  void LetHappen(uint32_t events) {
    for (const uint32_t begin = lastEvent; lastEvent - begin < events && !IsAlone();) sched_yield();
  }

  long Sum(long Caller::*count) const {
    long sum = 0;
    for (const Caller& caller : callers_) sum += caller.*count;
    return sum;
  }
  static std::string WrongInLookups(const orvex_metrics_s& m) {
    const int64_t sum = m.cacheMiss + m.cacheHit + m.cachePartialHit + m.cacheOutOfDate;
    return m.cacheQuery == sum ? "" : "lookups that do not add up";
  }
  std::string WrongInSums(const orvex_metrics_s& m) const {
    const struct {
      const char* what;
      int64_t counted;
      int64_t seen;
    } sums[] = {
        {"queries", m.cacheQuery, Sum(&Caller::hashQueries)},
        {"hits", m.cacheHit, Sum(&Caller::hits)},
        {"calls", m.cacheHelpFuncCalled, Sum(&Caller::hashCalls)},
        {"file type queries", m.fileTypeHit + m.fileTypeMiss + m.fileTypeOutOfDate,
         Sum(&Caller::typeQueries)},
        {"file type calls", m.fileTypeHelpFuncCalled, Sum(&Caller::typeCalls)},
        {"pushes", m.cacheUpdateMetaDataSuccess, Sum(&Caller::pushes)},
        {"failed pushes", m.cacheUpdateMetaDataFailure, 0},
    };
    for (const auto& sum : sums) {
      if (sum.counted == sum.seen) continue;
      return std::to_string(sum.counted) + " " + sum.what + " counted, " +
             std::to_string(sum.seen) + " seen";
    }
    if (m.cacheWaitInHashCalculation > m.cacheQuery) return "more waits than queries";
    if (mix_.capacities == 0 && m.cacheWipeOuts + m.fileTypeWipeOuts != 0) return "evictions";
    return WrongInLookups(m);
  }

  // Looks at the quiet engine. What it then serves must be legal, too.
  std::string WrongInRest() {
    if (!wrong_.empty()) return wrong_;
    const int capacity = static_cast<int>(1 + Below(10));
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, capacity);
    Caller& last = callers_.emplace_back(mix_, 0U, false);
    const uint32_t cached = last.CountCached();
    return cached <= static_cast<uint32_t>(capacity) ? "" : "more entries than the capacity";
  }

  const Mix mix_;
  const uint32_t seed_;
  std::minstd_rand random_;
  std::deque<Caller> callers_;
  CacheHistory hash_;
  CacheHistory type_;
  std::string wrong_;
  std::mutex lock_;
  std::condition_variable cameBack_;
  size_t threadsOut_ = 0;
};

void DropMessage(unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {}

void CheckHistories(const Mix& mix) {
  CountedSleep noPause;  // A stop also overtakes threads that are still inside.
  noPause.onSleep = sched_yield;
  orvex_register_log_cb(DropMessage);
  const uint32_t first = FromEnvironment("ORVEXENG_HISTORY_SEED", 1);
  const uint32_t count = FromEnvironment("ORVEXENG_HISTORIES", kHistories);
  for (uint32_t seed = first; seed < first + count; ++seed) {
    CAPTURE(seed);
    CHECK(Life(mix, seed).WrongInLife() == "");
  }
}

}  // namespace

TEST_CASE("a history is judged by what its calls leave no room for") {
  const StoredAnswer stored{{10, 12}, 0, 1, true};
  const StoredAnswer later{{20, 22}, 0, 1, true};
  const StoredAnswer notKept{{20, 22}, 0, 1, false};
  const auto served = [](EventSpan span, uint32_t serial) {
    return AskedAnswer{span, 0, 1, serial, false, true, ORVEX_OK};
  };
  const auto called = [](EventSpan span) { return AskedAnswer{span, 0, 1, 0, true, true, 0}; };
  const auto refused = [](EventSpan span) {
    return AskedAnswer{span, 0, 1, 0, false, true, ORVEX_NOT_INITIALISED};
  };
  const Calculation leader{{1, 12}, {5, 11}, 0};
  const Calculation together{{2, 9}, {6, 8}, 0};
  const Calculation follower{{7, 16}, {10, 15}, 0};
  const Calculation afterwards{{7, 16}, {13, 15}, 0};
  const EngineStop stop{{14, 16}, {24, 26}};
  const struct {
    const char* wrong;
    std::vector<StoredAnswer> stored;
    std::vector<AskedAnswer> asked;
    std::vector<Calculation> calculations;
    std::vector<EventSpan> flushes;
    std::vector<EngineStop> stops;
  } rows[] = {
      {"", {stored}, {served({13, 14}, 10)}, {}, {}, {}},
      {"nobody calculated", {stored}, {served({13, 14}, 11)}, {}, {}, {}},
      {"", {stored, later}, {served({21, 30}, 10), served({21, 30}, 20)}, {}, {}, {}},
      {"replaced", {stored, later}, {served({23, 30}, 10)}, {}, {}, {}},
      {"", {stored, notKept}, {served({23, 30}, 10)}, {}, {}, {}},
      {"not to be kept", {stored, notKept}, {served({23, 30}, 20)}, {}, {}, {}},
      {"", {stored}, {served({15, 17}, 10)}, {}, {{13, 16}}, {}},
      {"", {stored}, {served({15, 17}, 10)}, {}, {{11, 14}}, {}},
      {"removed", {stored}, {served({15, 17}, 10)}, {}, {{13, 14}}, {}},
      {"removed", {stored}, {served({27, 28}, 10)}, {}, {}, {stop}},
      {"", {stored}, {called({11, 15})}, {}, {}, {}},
      {"in the cache", {stored}, {called({13, 15})}, {}, {}, {}},
      {"", {stored}, {called({13, 15})}, {}, {{11, 14}}, {}},
      {"in the cache", {stored}, {called({7, 16})}, {leader}, {}, {}},
      {"", {stored}, {called({7, 16})}, {leader, together}, {}, {}},
      {"", {}, {}, {leader, together}, {}, {}},
      {"", {}, {}, {leader, afterwards}, {}, {}},
      {"twice at once", {}, {}, {leader, follower}, {}, {}},
      {"", {}, {}, {leader, together, follower}, {}, {}},
      {"", {}, {}, {leader, follower}, {}, {stop}},
      {"running engine", {}, {refused({12, 13})}, {}, {}, {stop}},
      {"", {}, {refused({13, 15}), refused({17, 23}), refused({25, 27})}, {}, {}, {stop}},
      {"stopped engine", {}, {served({17, 23}, 0)}, {}, {}, {stop}},
  };
  for (const auto& row : rows) {
    CacheHistory history;
    history.keepsAll = true;
    history.stored = row.stored;
    history.asked = row.asked;
    history.calculations = row.calculations;
    history.flushes = row.flushes;
    history.stops = row.stops;
    const std::string wrong = WrongInHistory(history);
    CAPTURE(&row - rows);
    CAPTURE(wrong);
    CHECK((wrong == "") == (std::string(row.wrong) == ""));
    CHECK(wrong.find(row.wrong) != std::string::npos);
  }
}

TEST_CASE("a history of queries alone calculates each file once") { CheckHistories({}); }

TEST_CASE("a history of queries that keep, only look or are never content has an order") {
  Mix mix;
  mix.notKept = 40;
  mix.cacheOnly = 15;
  mix.neverFull = 15;
  CheckHistories(mix);
}

TEST_CASE("a history with flushes serves nothing from before one") {
  Mix mix;
  mix.flushes = 60;
  CheckHistories(mix);
}

TEST_CASE("a history with changing capacities serves what was kept, or nothing") {
  Mix mix;
  mix.capacities = 30;
  mix.pushes = 50;
  CheckHistories(mix);
}

TEST_CASE("a history with hosts that fail and throw lets the next thread calculate") {
  Mix mix;
  mix.failures = 40;
  mix.flushes = 20;
  CheckHistories(mix);
}

TEST_CASE("a history with pushes and new mtimes serves nothing that was replaced") {
  Mix mix;
  mix.pushes = 200;
  mix.otherMtime = 10;
  CheckHistories(mix);
}

TEST_CASE("a history with stops and starts serves nothing from before one") {
  Mix mix;
  mix.stops = true;
  mix.notKept = 20;
  CheckHistories(mix);
}

TEST_CASE("a history of everything at once has an order") {
  Mix mix;
  mix.pushes = 50;
  mix.flushes = 20;
  mix.capacities = 10;
  mix.notKept = 20;
  mix.cacheOnly = 10;
  mix.neverFull = 10;
  mix.otherMtime = 10;
  mix.failures = 20;
  mix.stops = true;
  CheckHistories(mix);
}
