// A system whose mutexes and conditions fail when a test wants them to.
#pragma once

// Stands in for the POSIX thread functions of the whole program while it lives:
// counts their calls, and fails those whose error is not 0 without doing anything,
// but for an unlock, which gives the mutex back and then reports its error.
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
  int locks = 0;
  int unlocks = 0;
  int waits = 0;
  int broadcasts = 0;
};
