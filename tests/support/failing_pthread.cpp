// A system whose mutexes and conditions fail when a test wants them to.
#include "support/failing_pthread.h"

#include <dlfcn.h>
#include <pthread.h>

namespace {

thread_local FailingPThread* current = nullptr;

template <typename Function>
Function* Real(const char* name) {
  void* real = nullptr;
#if !defined(__SANITIZE_THREAD__)
  // Conditions have two versions, and without a word the older one is handed out.
  // A race detector's own functions have none, and must not be passed by.
  real = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
#endif
  if (real == nullptr) real = dlsym(RTLD_NEXT, name);
  return reinterpret_cast<Function*>(real);
}

int CountAndFail(int FailingPThread::*count, int FailingPThread::*error) {
  if (current == nullptr) return 0;
  ++(current->*count);
  return current->*error;
}

}  // namespace

FailingPThread::FailingPThread() { current = this; }

FailingPThread::~FailingPThread() { current = nullptr; }

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = Real<int(pthread_mutex_t*)>("pthread_mutex_lock");
  const int error = CountAndFail(&FailingPThread::locks, &FailingPThread::lockError);
  return error != 0 ? error : real(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = Real<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  const int error = CountAndFail(&FailingPThread::unlocks, &FailingPThread::unlockError);
  // Given back all the same: a mutex must not be destroyed while it is locked.
  const int result = real(mutex);
  return error != 0 ? error : result;
}

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static auto* const real = Real<int(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
  const int error = CountAndFail(&FailingPThread::waits, &FailingPThread::waitError);
  return error != 0 ? error : real(condition, mutex);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static auto* const real = Real<int(pthread_cond_t*)>("pthread_cond_broadcast");
  const int error = CountAndFail(&FailingPThread::broadcasts, &FailingPThread::broadcastError);
  return error != 0 ? error : real(condition);
}
