// A system whose mutexes and conditions fail when a test wants them to.
#include "support/failing_pthread.h"

#include <pthread.h>

#include "support/real_function.h"

namespace {

thread_local FailingPThread* current = nullptr;

int CountAndFail(int FailingPThread::*count, int FailingPThread::*error) {
  if (current == nullptr) return 0;
  ++(current->*count);
  return current->*error;
}

}  // namespace

FailingPThread::FailingPThread() { current = this; }

FailingPThread::~FailingPThread() { current = nullptr; }

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_lock");
  const int error = CountAndFail(&FailingPThread::locks, &FailingPThread::lockError);
  return error != 0 ? error : real(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  const int error = CountAndFail(&FailingPThread::unlocks, &FailingPThread::unlockError);
  // Given back all the same: a mutex must not be destroyed while it is locked.
  const int result = real(mutex);
  return error != 0 ? error : result;
}

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static auto* const real =
      RealFunction<int(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
  const int error = CountAndFail(&FailingPThread::waits, &FailingPThread::waitError);
  return error != 0 ? error : real(condition, mutex);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static auto* const real = RealFunction<int(pthread_cond_t*)>("pthread_cond_broadcast");
  const int error = CountAndFail(&FailingPThread::broadcasts, &FailingPThread::broadcastError);
  return error != 0 ? error : real(condition);
}
