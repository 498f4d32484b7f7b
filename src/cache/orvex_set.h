// The paths whose hash metadata is being calculated right now.
#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"
#include "support/orvex_local.h"
#include "support/orvex_lock.h"

// Lets one thread calculate a path while the others that want it wait.
//
// Ownership: keeps its own copy of each path.
// Threads: any number at once.
// Locking: condLock guards both members, and its condition wakes the threads that
// wait for a path to leave. It is never held while the host computes.
// Invariant: a path is in paths while one thread calculates it. Who inserts a
// path erases it again, whichever way the host's callback ends; an inactive set
// is empty, admits no path, and nobody waits on it. A thread that was calculating
// across a stop and a start erases the path all the same, were it another's by
// then: that one only calculates unannounced.
class ORVEX_API ORVEX_Set {
 public:
  // What PredicateFunc is asked about.
  using PathInSet = std::pair<ORVEX_Set*, const std::string*>;

  ORVEX_Set();
  ~ORVEX_Set();
  ORVEX_Set(const ORVEX_Set&) = delete;
  ORVEX_Set& operator=(const ORVEX_Set&) = delete;

  // The callbacks of a condition wait on condLock, which holds it meanwhile.
  // arg is a PathInSet*; whether its path is being calculated. False for null.
  static bool PredicateFunc(void* arg);
  // arg is a const std::string*, the path. They log; null is ignored.
  static void PreWaitLogFunc(void* arg);
  static void PostWaitLogFunc(void* arg);

  // False once no path is in the set: then nobody needs the lock to find his own
  // path missing. A path comes in before its callback runs, and what a callback
  // brought is in the cache before its path leaves.
  ORVEX_LOCAL bool MayHoldPaths() const { return ORVEX_LoadAcquire(pathCount_) != 0; }
  // After each change of paths.
  ORVEX_LOCAL void TellSize() ORVEX_REQUIRES(condLock) {
    ORVEX_StoreRelease(pathCount_, paths.size());
  }

  bool active ORVEX_GUARDED_BY(condLock) = false;  // as long as the cache is
  std::set<std::string> paths ORVEX_GUARDED_BY(condLock);
  ORVEX_PThread_CondLock condLock;

 private:
  size_t pathCount_ = 0;
};
