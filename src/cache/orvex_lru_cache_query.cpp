// The hash cache's queries, and the coordination of
// threads that want the same path.
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "cache/orvex_lru_cache.h"
#include "support/orvex_profiling.h"

namespace {

// The function named in every message below.
constexpr char kFunction[] = "Query";

int EndWithoutMemory(metadata_output_s& out) {
  // The file type cache may already have set it.
  out.resultReady = 0;
  return ORVEX_NO_MEMORY;
}

int SkipInactive(const char* path) {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, kFunction, kLRUCacheSourceFile,
                    "[CalHashSet] File hash is skipped due to inactive state: %s", path);
  return ORVEX_CACHE_NOT_INITIALISED;
}

// Throws std::logic_error.
int RefuseMissingPath(metadata_output_s& out) {
  try {
    throw std::logic_error("a hash query needs a path");
  } catch (const std::bad_alloc&) {
    // Copying its message failed.
    return EndWithoutMemory(out);
  }
}

// True if the path was free and is now marked. Throws std::bad_alloc.
bool MarkAsCalculating(ORVEX_Set& set, std::string_view path, size_t stripe) {
  const ORVEX_MutexGuard guard(&set.condLock);
  return set.active && set.Insert(path, stripe);
}

bool Unmark(ORVEX_Set& set, std::string_view path, size_t stripe) {
  const ORVEX_MutexGuard guard(&set.condLock);
  return set.active && set.Erase(path, stripe);
}

// Unmarks a path and wakes the threads waiting for it, however the host's
// callback ends. A thread that did not mark the path does not unmark it,
// but still wakes the others.
class LeavePathOnReturn {
 public:
  LeavePathOnReturn(ORVEX_Set& calHashSet, const KeptText& path, size_t stripe, bool marked)
      : set_(calHashSet), text_(path.View()), stripe_(stripe), marked_(marked) {}
  ~LeavePathOnReturn() {
    const char* const path = text_.data();  // NUL-terminated.
    if (!marked_) {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                        "[CalHashSet] Erase CalHashSet skipped: %s", path);
    } else if (Unmark(set_, text_, stripe_)) {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                        "[CalHashSet] Erase CalHashSet succeed: %s", path);
    } else {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                        "[CalHashSet] Erase CalHashSet failed: %s", path);
    }
    // All, not one: waiters wait for different paths on this one condition.
    set_.condLock.SignalAll();
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, kFunction, kLRUCacheSourceFile,
                      "[CalHashSet] File hash calculation is done, broadcast signal: %s", path);
  }
  LeavePathOnReturn(const LeavePathOnReturn&) = delete;
  LeavePathOnReturn& operator=(const LeavePathOnReturn&) = delete;

 private:
  ORVEX_Set& set_;
  const std::string_view text_;
  const size_t stripe_;
  const bool marked_;
};

}  // namespace

int LRUCache::Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) {
  const ORVEX_CallsInFlight::Scope inFlight(calls_, ORVEX_CallsInFlight::kOfCache);
  const int lookup = IsObserved() ? LRU_NOT_YET : LookUpQuietly(metaIn, metaOut);
  return lookup == LRU_HIT ? ORVEX_OK : QueryStepByStep(metaIn, metaOut, ctx, lookup);
}

int LRUCache::LookUpQuietly(const metadata_input_s* metaIn, metadata_output_s* metaOut) {
  if (!IsActive() || metaIn == nullptr || metaOut == nullptr || metaIn->path == nullptr ||
      ((metaIn->invOperation & INV_CACHE_ONLY) == 0 && calHashSet.MayHold(metaIn->path))) {
    return LRU_NOT_YET;
  }
  const uint32_t hash = HashOf(*metaIn);
  const ORVEX_MutexGuard guard(&lock);
  const int lookup = LookUp<false>(*metaIn, *metaOut, hash);
  if (lookup == LRU_HIT) metaOut->resultReady = 1;
  return lookup;
}

int LRUCache::QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const ORVEX_ProfilingScope profiling("LRUCache::QueryLRUCache");
  const ORVEX_MutexGuard guard(&lock);
  return LookUp<true>(*metaIn, *metaOut, HashOf(*metaIn));
}

template <bool kObserved>
inline LRU_LOOKUP LRUCache::LookUp(const metadata_input_s& in, metadata_output_s& out,
                                   uint32_t hash) {
  LRUCacheSlot slot = 0;
  try {
    if (kObserved) key_.Read(in);
    slot = entries_.Find(in, hash);
  } catch (const std::exception&) {
    return LRU_NO_MEMORY;
  }
  LRUCacheNode* const node = slot != 0 ? NodeIn(slot) : nullptr;
  const bool isCurrent = node != nullptr && (in.mtime == 0 || in.mtime == node->mtime);
  // Logging is not quiet: the log callback may change the record.
  if (!kObserved && node != nullptr && !isCurrent && ORVEX_LOG_BASE::Keeps(ORVEX_LOG_WARNING)) {
    return LRU_NOT_YET;
  }
  // Counted before anything is logged: a log callback may read the counters.
  if (kObserved || !isCurrent) ORVEX_atomic_increment_64(&metrics.Query);
  if (!isCurrent) return MissOrOutOfDate(node, in);
  // If the signers could not be copied, their bit is clear and the
  // comparison below sees that.
  node->GiveTo<kObserved>(out);
  const bool isComplete = (in.queryFlags & ~out.queryFlags) == 0;
  if (kObserved) {
    ORVEX_atomic_increment_64(isComplete ? &metrics.Hit : &metrics.PartialHit);
    ORVEX_LOG_MESSAGE(
        ORVEX_LOG_DEBUG, "QueryLRUCache", kLRUCacheSourceFile,
        isComplete ? "Cache query: cache hits, %s" : "Cache query: cache partial hits, %s",
        in.path);
  }
  Use(slot, kObserved);
  // Last: a locked add is a full barrier and would stall the loads that follow.
  if (!kObserved && isComplete) {
    ORVEX_atomic_increment_64(&metrics.silentHits);
  } else if (!kObserved) {
    ORVEX_atomic_increment_64(&metrics.Query);
    ORVEX_atomic_increment_64(&metrics.PartialHit);
  }
  return isComplete ? LRU_HIT : LRU_PARTIAL_HIT;
}

__attribute__((noinline)) int LRUCache::QueryStepByStep(metadata_input_s* metaIn,
                                                        metadata_output_s* metaOut, void* ctx,
                                                        int lookup) {
  const ORVEX_ProfilingScope profiling("LRUCache::Query");
  KeptText path;
  if (lookup == LRU_NOT_YET) {
    // Before the records: a stopped cache returns 8 whatever it is passed.
    if (!IsActive()) return ORVEX_CACHE_NOT_INITIALISED;
    if (metaIn == nullptr || metaOut == nullptr) return ORVEX_INVALID_PARAMETER;
    if (metaIn->path == nullptr) return RefuseMissingPath(*metaOut);
    // Waiting, marking and messages use the path passed in; lookup and store read the record again,
    // since the host may change it while this thread sleeps or logs.
    const bool mayCalculate = (metaIn->invOperation & INV_CACHE_ONLY) == 0;
    try {
      path.Keep(metaIn->path);
      if (mayCalculate && calHashSet.MayHold(path.c_str())) WaitUntilFree(path.c_str());
    } catch (const std::exception&) {
      // No memory, or a text longer than a string can be.
      return EndWithoutMemory(*metaOut);
    }
    if (mayCalculate && !IsActive()) return SkipInactive(path.c_str());
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                      "Free to calculate file hash: %s", path.c_str());
    lookup = QueryLRUCache(metaIn, metaOut);
    if (lookup == LRU_HIT) {
      metaOut->resultReady = 1;
      return ORVEX_OK;
    }
  }
  if (lookup == LRU_NO_MEMORY) return EndWithoutMemory(*metaOut);
  if (lookup != LRU_MISS && lookup != LRU_PARTIAL_HIT && lookup != LRU_OUT_OF_DATE) return ORVEX_OK;
  metaOut->resultReady = 0;
  // Read again: the host may have changed its mind while this thread slept or logged.
  if ((metaIn->invOperation & INV_CACHE_ONLY) != 0) return ORVEX_OK;
  if (!IsActive()) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, kFunction, kLRUCacheSourceFile,
                      "File hash calculation is skipped due to inactive state: %s",
                      path.c_str() != nullptr ? path.c_str() : TextOrEmpty(metaIn->path));
    return ORVEX_CACHE_NOT_INITIALISED;
  }
  return Calculate(metaIn, metaOut, ctx, path);
}

void LRUCache::WaitUntilFree(const std::string& path) {
  ORVEX_Set::PathInSet pathInSet(&calHashSet, &path);
  auto* const pathArg = const_cast<std::string*>(&path);  // Only read; void* has no const.
  CondWaitCallbacks_t callbacks{ORVEX_Set::PredicateFunc,
                                ORVEX_Set::PreWaitLogFunc,
                                ORVEX_Set::PostWaitLogFunc,
                                &pathInSet,
                                pathArg,
                                pathArg};
  bool waited = false;
  calHashSet.condLock.Wait(waited, callbacks);
  if (waited) ORVEX_atomic_increment_64(&metrics.numOfWaitInHashCalculation);
}

int LRUCache::Calculate(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx,
                        KeptText& keptPath) {
  size_t stripe = 0;
  bool marked = false;
  try {
    keptPath.Keep(TextOrEmpty(metaIn->path));
    stripe = ORVEX_Set::StripeOf(keptPath.View());
    marked = MarkAsCalculating(calHashSet, keptPath.View(), stripe);
  } catch (const std::exception&) {
    return ORVEX_NO_MEMORY;
  }
  const char* const path = keptPath.c_str();
  const LeavePathOnReturn leave(calHashSet, keptPath, stripe, marked);
  if (marked) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                      "[CalHashSet] Insert CalHashSet succeed: %s", path);
  } else {
    // Another thread marked it first. This one calculates as well: answering twice is
    // better than waiting again.
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                      "[CalHashSet] Insert CalHashSet failed: %s", path);
  }
  int code;
  {
    const ORVEX_ProfilingScope profiling("LRUCache::MetaQueryCallback");
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                      "Calling query callback for file %s", path);
    const ORVEX_CountAtEnd count{&metrics.numOfHelpFuncCalled};
    code = AskHost(metaIn, metaOut, ctx);
  }
  if (code != ORVEX_OK) return code;
  metaOut->resultReady = 1;
  // Checked only now: the callback may have cleared the bit.
  if ((metaIn->invOperation & INV_KEEP_IN_CACHE) == 0) return ORVEX_OK;
  return UpdateCache(metaIn, metaOut);
}
