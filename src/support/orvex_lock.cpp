// Mutexes and condition waits behind an interface that reports failures as codes.
#include "support/orvex_lock.h"

#include <unistd.h>

#include "support/orvex_atomic.h"

namespace {

// Holds a mutex for the length of a wait and releases it on every way out: a host may cancel a
// sleeping thread. Failing to lock is ignored.
class WaitersMutex {
 public:
  explicit WaitersMutex(pthread_mutex_t* mutex) : mutex_(mutex) { Lock(); }
  ~WaitersMutex() {
    if (!lent_) pthread_mutex_unlock(mutex_);
  }
  WaitersMutex(const WaitersMutex&) = delete;
  WaitersMutex& operator=(const WaitersMutex&) = delete;

  // Lets other threads have the mutex for a moment.
  void Lend() {
    lent_ = true;
    pthread_mutex_unlock(mutex_);
    usleep(kLendingUs);
    Lock();
    lent_ = false;
  }

 private:
  // Short next to a host calculation, long next to a critical section.
  static constexpr unsigned int kLendingUs = 1000;

  // Not ORVEX_PThread_Lock::Lock: a wait leaves the last error of Lock and Unlock alone.
  void Lock() { pthread_mutex_lock(mutex_); }

  pthread_mutex_t* const mutex_;
  bool lent_ = false;
};

}  // namespace

ORVEX_Lock::~ORVEX_Lock() = default;

unsigned int ORVEX_Lock::GetLastErrorCode() const { return 0; }

ORVEX_PThread_Lock::ORVEX_PThread_Lock() { pthread_mutex_init(&mutex_, nullptr); }

ORVEX_PThread_Lock::~ORVEX_PThread_Lock() { pthread_mutex_destroy(&mutex_); }

unsigned int ORVEX_PThread_Lock::GetLastErrorCode() const {
  return static_cast<unsigned int>(ORVEX_LoadRelaxed(lastError_));
}

unsigned int ORVEX_PThread_Lock::Lock() { return Acquire(); }

unsigned int ORVEX_PThread_Lock::Unlock() { return Release(); }

ORVEX_CondVar::~ORVEX_CondVar() = default;

ORVEX_PThread_CondLock::ORVEX_PThread_CondLock() { pthread_cond_init(&condition_, nullptr); }

ORVEX_PThread_CondLock::~ORVEX_PThread_CondLock() { pthread_cond_destroy(&condition_); }

unsigned int ORVEX_PThread_CondLock::Signal() {
  pthread_cond_signal(&condition_);
  return ORVEX_OK;
}

unsigned int ORVEX_PThread_CondLock::SignalAll() {
  pthread_cond_broadcast(&condition_);
  return ORVEX_OK;
}

unsigned int ORVEX_PThread_CondLock::Wait(bool& waited, CondWaitCallbacks_t& callbacks) {
  if (callbacks.predicate == nullptr || callbacks.predicateArg == nullptr) {
    return ORVEX_INVALID_PARAMETER;
  }
  WaitersMutex mutex(&mutex_);
  while (callbacks.predicate(callbacks.predicateArg)) {
    waited = true;
    if (callbacks.preWait != nullptr) callbacks.preWait(callbacks.preWaitArg);
    // A failed wait has not released the mutex, and the thread that will make the predicate false
    // needs it.
    if (pthread_cond_wait(&condition_, &mutex_) != 0) mutex.Lend();
    if (callbacks.postWait != nullptr) callbacks.postWait(callbacks.postWaitArg);
  }
  return ORVEX_OK;
}

ORVEX_ScopeLock::ORVEX_ScopeLock(ORVEX_Lock* lock) : lock_(lock) {
  if (lock_ != nullptr && lock_->Lock() != ORVEX_OK)
    ORVEX_MutexGuard::ReportFailure("lock", *lock_);
}

ORVEX_ScopeLock::~ORVEX_ScopeLock() {
  if (lock_ != nullptr && lock_->Unlock() != ORVEX_OK)
    ORVEX_MutexGuard::ReportFailure("unlock", *lock_);
}
