// The hash cache's answer to one query, and the coordination of threads that ask
// about one path.
#include <exception>
#include <new>
#include <stdexcept>
#include <string>

#include "cache/orvex_lru_cache.h"
#include "support/orvex_profiling.h"
#include "support/orvex_scope_ref_cnt.h"

namespace {

// Every message below belongs to the query.
constexpr char kFunction[] = "Query";

int EndWithoutMemory(metadata_output_s& out) {
  // The file type cache may have called its part of the answer ready.
  out.resultReady = 0;
  return ORVEX_NO_MEMORY;
}

// Throws std::logic_error.
int RefuseMissingPath(metadata_output_s& out) {
  try {
    throw std::logic_error("a hash query needs a path");
  } catch (const std::bad_alloc&) {
    // Thrown while its message was copied.
    return EndWithoutMemory(out);
  }
}

// Whether the path was free and is now marked. Throws std::bad_alloc.
bool MarkAsCalculating(ORVEX_Set& set, const std::string& path) {
  const ORVEX_ScopeLock guard(&set.condLock);
  return set.active && set.Insert(path);
}

bool Unmark(ORVEX_Set& set, const std::string& path) {
  const ORVEX_ScopeLock guard(&set.condLock);
  return set.active && set.Erase(path);
}

// Frees a path and wakes those that wait for it, whichever way the host's
// callback ends. Who did not mark the path does not free it, but wakes all the
// same.
class LeavePathOnReturn {
 public:
  LeavePathOnReturn(ORVEX_Set& calHashSet, const std::string& path, bool marked)
      : set_(calHashSet), path_(path), marked_(marked) {}
  ~LeavePathOnReturn() {
    if (!marked_) {
      ORVEX_LOG_FROM(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                     "[CalHashSet] Erase CalHashSet skipped: %s", path_.c_str());
    } else if (Unmark(set_, path_)) {
      ORVEX_LOG_FROM(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                     "[CalHashSet] Erase CalHashSet succeed: %s", path_.c_str());
    } else {
      ORVEX_LOG_FROM(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                     "[CalHashSet] Erase CalHashSet failed: %s", path_.c_str());
    }
    // All, not one: waiters wait for different paths on this one condition.
    set_.condLock.SignalAll();
    ORVEX_LOG_FROM(ORVEX_LOG_INFO, kFunction, kLRUCacheSourceFile,
                   "[CalHashSet] File hash calculation is done, broadcast signal: %s",
                   path_.c_str());
  }
  LeavePathOnReturn(const LeavePathOnReturn&) = delete;
  LeavePathOnReturn& operator=(const LeavePathOnReturn&) = delete;

 private:
  ORVEX_Set& set_;
  const std::string& path_;
  const bool marked_;
};

}  // namespace

int LRUCache::Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) {
  const ORVEX_ScopeRefCnt inFlight(&activeThreads);
  const ORVEX_ProfilingScope profiling("LRUCache::Query");
  // Before the records: a stopped cache answers 8 whatever it is handed.
  if (!IsActive()) return ORVEX_CACHE_NOT_INITIALISED;
  if (metaIn == nullptr || metaOut == nullptr) return ORVEX_INVALID_PARAMETER;

  if (metaIn->path == nullptr) return RefuseMissingPath(*metaOut);

  const bool cacheOnly = (metaIn->invOperation & INV_CACHE_ONLY) != 0;
  if (!cacheOnly) {
    if (calHashSet.MayHold(metaIn->path) && !WaitUntilFree(metaIn->path)) {
      return EndWithoutMemory(*metaOut);
    }
    if (!IsActive()) {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, kLRUCacheSourceFile,
                        "[CalHashSet] File hash is skipped due to inactive state: %s",
                        metaIn->path);
      return ORVEX_CACHE_NOT_INITIALISED;
    }
  }
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kLRUCacheSourceFile, "Free to calculate file hash: %s",
                    metaIn->path);

  switch (QueryLRUCache(metaIn, metaOut)) {
    case LRU_HIT:
      metaOut->resultReady = 1;
      return ORVEX_OK;
    case LRU_MISS:
    case LRU_PARTIAL_HIT:
    case LRU_OUT_OF_DATE:
      break;
    default:
      return ORVEX_OK;
  }
  metaOut->resultReady = 0;
  if (cacheOnly) return ORVEX_OK;
  if (!IsInit()) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, kLRUCacheSourceFile,
                      "File hash calculation is skipped due to inactive state: %s", metaIn->path);
    return ORVEX_CACHE_NOT_INITIALISED;
  }
  return Calculate(metaIn, metaOut, ctx);
}

bool LRUCache::WaitUntilFree(const char* pathOfCaller) {
  // A copy: the caller's text may go away while this thread sleeps.
  std::string path;
  try {
    path = pathOfCaller;
  } catch (const std::bad_alloc&) {
    return false;
  }
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
  return true;
}

int LRUCache::Calculate(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) {
  // A copy: the host may change its record meanwhile.
  std::string path;
  bool marked = false;
  try {
    path = metaIn->path;
    marked = MarkAsCalculating(calHashSet, path);
  } catch (const std::exception&) {
    return ORVEX_NO_MEMORY;
  }
  const LeavePathOnReturn leave(calHashSet, path, marked);
  if (marked) {
    ORVEX_LOG_FROM(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                   "[CalHashSet] Insert CalHashSet succeed: %s", path.c_str());
  } else {
    // Another thread got in between. This one calculates as well: answering twice
    // is better than starting to wait anew.
    ORVEX_LOG_FROM(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                   "[CalHashSet] Insert CalHashSet failed: %s", path.c_str());
  }
  int code;
  {
    const ORVEX_ProfilingScope profiling("LRUCache::MetaQueryCallback");
    ORVEX_LOG_FROM(ORVEX_LOG_DEBUG, kFunction, kLRUCacheSourceFile,
                   "Calling query callback for file %s", path.c_str());
    code = AskHost(metaIn, metaOut, ctx, &metrics.numOfHelpFuncCalled);
  }
  if (code != ORVEX_OK) return code;
  metaOut->resultReady = 1;
  // Looked at now: the callback may have taken the bit away.
  if ((metaIn->invOperation & INV_KEEP_IN_CACHE) == 0) return ORVEX_OK;
  return UpdateCache(metaIn, metaOut);
}
