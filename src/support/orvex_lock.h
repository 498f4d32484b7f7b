// Mutexes and condition waits behind an interface that reports failures as codes.
#pragma once

#include <pthread.h>

#include <cstdio>

#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"
#include "support/orvex_cancellation.h"

// Codes of the support layer; they stay inside the library.
enum : unsigned int {
  ORVEX_LOCK_FAILED = 5,
  ORVEX_UNLOCK_FAILED = 6,
};

// pthread_mutex_trylock, in libc since 2.34 and in libpthread before. Weak and bound to its older
// version, so that the library also loads into a host without libpthread.
extern "C" __attribute__((weak)) int ORVEX_TryToLock(pthread_mutex_t* mutex);

// Held by one thread at a time.
class ORVEX_API ORVEX_CAPABILITY("mutex") ORVEX_Lock {
 public:
  ORVEX_Lock() = default;
  virtual ~ORVEX_Lock();
  ORVEX_Lock(const ORVEX_Lock&) = delete;
  ORVEX_Lock& operator=(const ORVEX_Lock&) = delete;

  // The system's error number for the last Lock or Unlock, 0 after a success.
  virtual unsigned int GetLastErrorCode() const;
  virtual unsigned int Lock() ORVEX_ACQUIRE() = 0;
  virtual unsigned int Unlock() ORVEX_RELEASE() = 0;
};

// A POSIX mutex with default attributes: not recursive.
//
// Threads: any number at once. The thread that locks it must unlock it.
class ORVEX_API ORVEX_PThread_Lock : public ORVEX_Lock {
 public:
  ORVEX_PThread_Lock();
  ~ORVEX_PThread_Lock() override;

  unsigned int GetLastErrorCode() const override;
  // 0, or ORVEX_LOCK_FAILED.
  unsigned int Lock() override ORVEX_ACQUIRE();
  // 0, or ORVEX_UNLOCK_FAILED.
  unsigned int Unlock() override ORVEX_RELEASE();

  // Lock and Unlock without the virtual call.
  ORVEX_LOCAL unsigned int Acquire() {
    if (ORVEX_LoadRelaxed(hints_) != 0) return AcquireAfterPauses();
    return Acquired(pthread_mutex_lock(&mutex_), kTaken);
  }
  ORVEX_LOCAL unsigned int Release() {
    ORVEX_StoreRelaxed(hints_, static_cast<unsigned char>(ORVEX_LoadRelaxed(hints_) & kContended));
    const int error = pthread_mutex_unlock(&mutex_);
    ORVEX_StoreRelaxed(lastError_, error);
    if (error != 0) return ORVEX_UNLOCK_FAILED;
    return ORVEX_OK;
  }

  // Asserts to the analysis that the caller holds this lock where it cannot see that.
  void AssertHeld() const ORVEX_ASSERT_CAPABILITY(this) {}

 protected:
  // Usable even if pthread_mutex_init fails.
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  // Relaxed, not guarded: Unlock writes it after releasing the mutex.
  int lastError_ = 0;

 private:
  // kTaken: a thread is between Lock and Unlock; a condition wait holds the mutex without it.
  // kContended: two threads have contended for this lock.
  enum Hints : unsigned char { kTaken = 1, kContended = 2 };

  ORVEX_LOCAL unsigned int Acquired(int error, int hints) {
    ORVEX_StoreRelaxed(lastError_, error);
    if (error != 0) return ORVEX_LOCK_FAILED;
    ORVEX_StoreRelaxed(hints_, static_cast<unsigned char>(hints));
    return ORVEX_OK;
  }
  // pthread_mutex_lock puts a thread to sleep at once, but a critical section is usually shorter
  // than a sleep and a wake-up. A hundred pauses take about as long as these.
  ORVEX_LOCAL __attribute__((noinline)) unsigned int AcquireAfterPauses() {
    // Inside, so that it is emitted wherever the function is.
#if defined(__x86_64__)
    __asm__(".symver ORVEX_TryToLock, pthread_mutex_trylock@GLIBC_2.2.5");
#else
    __asm__(".symver ORVEX_TryToLock, pthread_mutex_trylock@GLIBC_2.0");
#endif
    int pauses = ORVEX_TryToLock != nullptr ? 100 : 0;
    while (pauses != 0 &&
           ((ORVEX_LoadRelaxed(hints_) & kTaken) != 0 || ORVEX_TryToLock(&mutex_) != 0)) {
      __builtin_ia32_pause();
      --pauses;
    }
    return Acquired(pauses != 0 ? 0 : pthread_mutex_lock(&mutex_), kTaken | kContended);
  }

  unsigned char hints_ = 0;  // relaxed
};

// The callbacks of a condition wait.
struct CondWaitCallbacks_t {
  bool (*predicate)(void*);  // true while the caller must go on waiting; required
  void (*preWait)(void*);    // called before each sleep; may be null
  void (*postWait)(void*);   // called after each wake-up; may be null
  void* predicateArg;        // required
  void* preWaitArg;
  void* postWaitArg;
};

// Threads sleep on it until the state they wait for changes.
class ORVEX_API ORVEX_CondVar {
 public:
  ORVEX_CondVar() = default;
  virtual ~ORVEX_CondVar();
  ORVEX_CondVar(const ORVEX_CondVar&) = delete;
  ORVEX_CondVar& operator=(const ORVEX_CondVar&) = delete;

  virtual unsigned int Signal() = 0;
  virtual unsigned int SignalAll() = 0;
  virtual unsigned int Wait(bool& waited, CondWaitCallbacks_t& callbacks) = 0;
};

// A POSIX condition variable together with the mutex that its waiters hold.
//
// Change the state that a predicate reads only while this object is locked, then call Signal or
// SignalAll: no wake-up is lost that way.
class ORVEX_API ORVEX_PThread_CondLock : public ORVEX_CondVar, public ORVEX_PThread_Lock {
 public:
  ORVEX_PThread_CondLock();
  ~ORVEX_PThread_CondLock() override;

  // Wakes one waiter. Always 0. For hosts: the library itself does not use it.
  unsigned int Signal() override;
  // Wakes all waiters. Always 0.
  unsigned int SignalAll() override;
  // Sleeps while callbacks.predicate(callbacks.predicateArg) is true. Sets waited to true if the
  // thread slept; otherwise leaves it alone.
  //
  // All three callbacks run with the mutex held; the predicate runs again after every wake-up, so
  // wake-ups meant for others do no harm. If the condition wait fails, the mutex is released for a
  // millisecond and the thread counts as woken. Failing to lock the mutex is ignored: the predicate
  // decides. Returns ORVEX_INVALID_PARAMETER, without locking, if the predicate or its argument is
  // null; otherwise 0.
  unsigned int Wait(bool& waited, CondWaitCallbacks_t& callbacks) override ORVEX_EXCLUDES(this);

 private:
  pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

// Holds a lock for the length of a scope. A null lock means none. For hosts: the library
// itself does not use it.
//
// Reports a failure on standard output and carries on: the library lives in somebody else's process
// and neither throws nor aborts over a mutex. Unlocks at the end even if locking failed.
class ORVEX_API ORVEX_SCOPED_CAPABILITY ORVEX_ScopeLock {
 public:
  explicit ORVEX_ScopeLock(ORVEX_Lock* lock) ORVEX_ACQUIRE(lock);
  ~ORVEX_ScopeLock() ORVEX_RELEASE();
  ORVEX_ScopeLock(const ORVEX_ScopeLock&) = delete;
  ORVEX_ScopeLock& operator=(const ORVEX_ScopeLock&) = delete;

 private:
  ORVEX_Lock* lock_;
};

// The same for the library's own mutexes, without virtual calls.
class ORVEX_LOCAL ORVEX_SCOPED_CAPABILITY ORVEX_MutexGuard {
 public:
  explicit ORVEX_MutexGuard(ORVEX_PThread_Lock* lock) ORVEX_ACQUIRE(lock) : lock_(*lock) {
    if (lock_.Acquire() != ORVEX_OK) ReportFailure("lock", lock_);
  }
  ~ORVEX_MutexGuard() ORVEX_RELEASE() {
    if (lock_.Release() != ORVEX_OK) ReportFailure("unlock", lock_);
  }
  ORVEX_MutexGuard(const ORVEX_MutexGuard&) = delete;
  ORVEX_MutexGuard& operator=(const ORVEX_MutexGuard&) = delete;

  // Prints to standard output, never through the logger: its callback may depend on this very lock.
  __attribute__((noinline)) static void ReportFailure(const char* operation,
                                                      const ORVEX_Lock& lock) {
    const ORVEX_CancellationHold hold;
    std::printf("[LOCK] %s failed: %d\n", operation, static_cast<int>(lock.GetLastErrorCode()));
    std::fflush(stdout);
  }

 private:
  ORVEX_PThread_Lock& lock_;
};
