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
// Locking: condLock guards active and paths, and its condition wakes the threads that
// wait for a path to leave. It is never held while the host computes.
// Invariant: a path is in paths while one thread calculates it. Who inserts a
// path erases it again, whichever way the host's callback ends; an inactive set
// is empty, admits no path, and nobody waits on it. A thread that was calculating
// across a stop and a start erases the path all the same, were it another's by
// then: that one only calculates unannounced.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the counts have lines of their own.
class ORVEX_API ORVEX_Set {
 public:
  // What PredicateFunc is asked about.
  using PathInSet = std::pair<ORVEX_Set*, const std::string*>;

  ORVEX_Set();
  ~ORVEX_Set();
  ORVEX_Set(const ORVEX_Set&) = delete;
  ORVEX_Set& operator=(const ORVEX_Set&) = delete;

  // The callbacks of a condition wait on condLock, which is held while they run.
  // arg is a PathInSet*; whether its path is being calculated. False for null.
  static bool PredicateFunc(void* arg);
  // arg is a const std::string*, the path. They log; null is ignored.
  static void PreWaitLogFunc(void* arg);
  static void PostWaitLogFunc(void* arg);

  // False means the path is not in the set, so the caller can skip the lock. A path is
  // marked before its callback runs, and the answer is cached before it is unmarked.
  ORVEX_LOCAL bool MayHold(const char* path) const {
    return ORVEX_LoadAcquire(pathCount_) != 0 && ORVEX_LoadAcquire(stripes_[StripeOf(path)]) != 0;
  }
  // Which of the counts below a path is in.
  ORVEX_LOCAL static size_t StripeOf(std::string_view path) {
    // Neighbours differ in length or at their ends. Where stripes are shared a query only
    // takes the lock in vain.
    uint32_t end = 0;
    if (path.size() >= sizeof end) {
      std::memcpy(&end, path.data() + path.size() - sizeof end, sizeof end);
    }
    return ((end + static_cast<uint32_t>(path.size())) * 0x9E3779B9U) >> 26;
  }
  // False when it is there already. Throws std::bad_alloc, and then nothing has
  // changed.
  ORVEX_LOCAL bool Insert(std::string_view path, size_t stripe) ORVEX_REQUIRES(condLock);
  // False when it is not there.
  ORVEX_LOCAL bool Erase(std::string_view path, size_t stripe) ORVEX_REQUIRES(condLock);
  ORVEX_LOCAL void Clear() ORVEX_REQUIRES(condLock);

  bool active ORVEX_GUARDED_BY(condLock) = false;  // as long as the cache is
  // Public, but the counts below follow only what Insert, Erase and Clear change.
  std::set<std::string, std::less<>> paths ORVEX_GUARDED_BY(condLock);
  ORVEX_PThread_CondLock condLock;

 private:
  static constexpr size_t kStripes = 64;  // as many as six bits tell apart

  // The path erased last, whose memory serves the next one.
  std::set<std::string, std::less<>>::node_type spare_ ORVEX_GUARDED_BY(condLock);
  // How many paths there are, and how many with each remainder of their hash: asked by
  // queries that may call the host, so that hardly one takes the lock on account of
  // another's path. Written under condLock.
  alignas(kCacheLineBytes) size_t pathCount_ = 0;
  unsigned int stripes_[kStripes] = {};
};
