// The paths whose hash metadata is being calculated right now.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"
#include "support/orvex_lock.h"

// Lets one thread calculate a path while the others that want it wait.
//
// Ownership: keeps its own copy of each path.
// Threads: any number at once.
// Locking: condLock guards active and paths, and its condition wakes the threads waiting for a
// path. It is never held while the host computes.
// Invariant: a path is in paths while a thread calculates it. The thread that inserted it erases
// it, however the host's callback ends. An inactive set is empty, accepts no path, and nobody waits
// on it. A calculation that outlives a stop and a restart still erases its path, even if another
// thread has marked it since; others then do not wait for that thread.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the counts get their own cache lines.
class ORVEX_API ORVEX_Set {
 public:
  // The argument of PredicateFunc.
  using PathInSet = std::pair<ORVEX_Set*, const std::string*>;

  ORVEX_Set();
  ~ORVEX_Set();
  ORVEX_Set(const ORVEX_Set&) = delete;
  ORVEX_Set& operator=(const ORVEX_Set&) = delete;

  // The callbacks of a condition wait on condLock, which is held while they run. arg is a
  // PathInSet*. True while its path is being calculated; false for null.
  static bool PredicateFunc(void* arg);
  // arg is a const std::string*, the path. They log; null is ignored.
  static void PreWaitLogFunc(void* arg);
  static void PostWaitLogFunc(void* arg);

  // False means the path is not in the set, so the caller can skip the lock. A path is
  // marked before its callback runs, and the answer is cached before it is unmarked.
  ORVEX_LOCAL bool MayHold(const char* path) const {
    return ORVEX_LoadAcquire(pathCount_) != 0 && ORVEX_LoadAcquire(stripes_[StripeOf(path)]) != 0;
  }
  // The index of a path's count in stripes_.
  ORVEX_LOCAL static size_t StripeOf(std::string_view path) {
    // Paths of one directory differ in length or near the end. A shared stripe only costs a query
    // the lock.
    uint32_t end = 0;
    if (path.size() >= sizeof end) {
      std::memcpy(&end, path.data() + path.size() - sizeof end, sizeof end);
    }
    return ((end + static_cast<uint32_t>(path.size())) * 0x9E3779B9U) >> 26;
  }
  // False if it is already there. Changes nothing if it throws std::bad_alloc.
  ORVEX_LOCAL bool Insert(std::string_view path, size_t stripe) ORVEX_REQUIRES(condLock);
  // False if it is not there.
  ORVEX_LOCAL bool Erase(std::string_view path, size_t stripe) ORVEX_REQUIRES(condLock);
  ORVEX_LOCAL void Clear() ORVEX_REQUIRES(condLock);

  bool active ORVEX_GUARDED_BY(condLock) = false;  // while the cache is
  // Public, but only Insert, Erase and Clear keep the counts below in step.
  std::set<std::string, std::less<>> paths ORVEX_GUARDED_BY(condLock);
  ORVEX_PThread_CondLock condLock;

 private:
  static constexpr size_t kStripes = 64;  // StripeOf yields six bits

  // The node of the path erased last, reused by the next insertion.
  std::set<std::string, std::less<>>::node_type spare_ ORVEX_GUARDED_BY(condLock);
  // The number of paths, in total and per stripe. Queries that may call the host read them first,
  // so that they seldom take the lock because of another path. Written under condLock.
  alignas(kCacheLineBytes) size_t pathCount_ = 0;
  unsigned int stripes_[kStripes] = {};
};
