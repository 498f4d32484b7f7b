// A system whose mutexes and conditions fail when a test wants them to.
#include "harness/failing_pthread.h"

#include <errno.h>
#include <pthread.h>

#include <utility>

#include "harness/real_function.h"

namespace {

thread_local FailingPThread* current = nullptr;

int CountAndFail(int FailingPThread::*count, int FailingPThread::*error) {
  if (current == nullptr) return 0;
  const int number = ++(current->*count);
  const int first = current->firstFailing;
  return (current->once ? number == first : number >= first) ? current->*error : 0;
}

void CallOnLock() {
  if (current == nullptr || !current->onLock) return;
  const auto onLock = std::exchange(current->onLock, nullptr);
  onLock();
  current->onLock = onLock;
}

bool TakeOut(std::multiset<const pthread_mutex_t*>& mutexes, const pthread_mutex_t* mutex) {
  const auto found = mutexes.find(mutex);
  if (found == mutexes.end()) return false;
  mutexes.erase(found);
  return true;
}

// Whether the mutex is this thread's to release. If locking failed, another thread may
// hold it.
bool NoteUnlock(const pthread_mutex_t* mutex) {
  if (current == nullptr || TakeOut(current->held, mutex)) return true;
  if (TakeOut(current->notTaken, mutex)) return false;
  ++current->wrongUnlocks;
  return true;
}

}  // namespace

FailingPThread::FailingPThread() { current = this; }

FailingPThread::~FailingPThread() { current = nullptr; }

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* how) noexcept {
  static auto* const real =
      RealFunction<int(pthread_mutex_t*, const pthread_mutexattr_t*)>("pthread_mutex_init");
  const int error = CountAndFail(&FailingPThread::mutexInits, &FailingPThread::mutexInitError);
  return error != 0 ? error : real(mutex, how);
}

extern "C" int pthread_cond_init(pthread_cond_t* condition,
                                 const pthread_condattr_t* how) noexcept {
  static auto* const real =
      RealFunction<int(pthread_cond_t*, const pthread_condattr_t*)>("pthread_cond_init");
  const int error =
      CountAndFail(&FailingPThread::conditionInits, &FailingPThread::conditionInitError);
  return error != 0 ? error : real(condition, how);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_lock");
  CallOnLock();
  int error = CountAndFail(&FailingPThread::locks, &FailingPThread::lockError);
  if (error == 0) error = real(mutex);
  if (current != nullptr) (error == 0 ? current->held : current->notTaken).insert(mutex);
  return error;
}

// What may fail must be locked.
extern "C" int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_trylock");
  return current != nullptr ? EBUSY : real(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  const bool isHeld = NoteUnlock(mutex);
  const int error = CountAndFail(&FailingPThread::unlocks, &FailingPThread::unlockError);
  // Released all the same: a mutex must not be destroyed while locked.
  const int result = isHeld ? real(mutex) : 0;
  return error != 0 ? error : result;
}

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static auto* const real =
      RealFunction<int(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
  int error = CountAndFail(&FailingPThread::waits, &FailingPThread::waitError);
  if (error == 0 && current != nullptr && current->notTaken.count(mutex) != 0) error = EPERM;
  return error != 0 ? error : real(condition, mutex);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static auto* const real = RealFunction<int(pthread_cond_t*)>("pthread_cond_broadcast");
  const int error = CountAndFail(&FailingPThread::broadcasts, &FailingPThread::broadcastError);
  return error != 0 ? error : real(condition);
}

extern "C" int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_destroy");
  if (current != nullptr) current->destroyed += "mutex ";
  return real(mutex);
}

extern "C" int pthread_cond_destroy(pthread_cond_t* condition) noexcept {
  static auto* const real = RealFunction<int(pthread_cond_t*)>("pthread_cond_destroy");
  if (current != nullptr) current->destroyed += "condition ";
  return real(condition);
}
