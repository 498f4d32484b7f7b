// A system whose mutexes and conditions fail when a test wants them to.
#pragma once

#include <pthread.h>

#include <functional>
#include <set>
#include <string>

// Stands in for the POSIX thread functions of the whole program while it lives:
// counts their calls, and fails those whose error is not 0 without doing anything,
// but for an unlock, which gives the mutex back and then reports its error. A mutex
// that could not be locked stays as it is when it is unlocked, and a wait with it
// fails with EPERM.
//
// Threads: only calls of the thread that made it count and fail. The test
// framework locks as well: check nothing while this lives.
class FailingPThread {
 public:
  FailingPThread();
  ~FailingPThread();
  FailingPThread(const FailingPThread&) = delete;
  FailingPThread& operator=(const FailingPThread&) = delete;

  int lockError = 0;
  int unlockError = 0;
  int waitError = 0;
  int broadcastError = 0;
  int mutexInitError = 0;
  int conditionInitError = 0;
  // Which call of a kind fails first, counted from 1, and whether it is the only
  // one.
  int firstFailing = 1;
  bool once = false;

  // Called before each lock, except its own: a moment between two steps of the
  // library.
  std::function<void()> onLock;

  int locks = 0;
  int unlocks = 0;
  int waits = 0;
  int broadcasts = 0;
  int mutexInits = 0;
  int conditionInits = 0;
  // "mutex" and "condition" in the order in which they were destroyed, each with a blank.
  std::string destroyed;
  // Unlocks of a mutex that this thread had not even tried to lock.
  int wrongUnlocks = 0;
  // What this thread holds.
  std::multiset<const pthread_mutex_t*> held;
  // What it could not lock and has not unlocked since.
  std::multiset<const pthread_mutex_t*> notTaken;
};
