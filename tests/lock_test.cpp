// Mutexes, condition waits and scope locks.
#include <doctest/doctest.h>
#include <errno.h>
#include <pthread.h>

#include <string>
#include <thread>
#include <type_traits>

#include "harness/cancelled_thread.h"
#include "harness/captured_output.h"
#include "harness/failing_pthread.h"
#include "harness/latch.h"
#include "support/orvex_lock.h"

namespace {

// A state that threads wait on, and what happened while they did.
struct Waiting {
  static bool StillClosed(void* arg) {
    auto& self = *static_cast<Waiting*>(arg);
    ++self.predicateCalls;
    return !self.open;
  }
  static void BeforeSleep(void* arg) {
    auto& self = *static_cast<Waiting*>(arg);
    ++self.sleeps;
    self.asleep.Open();
  }
  // For a thread whose locks fail: a latch locks too.
  static bool WantsThreeSleeps(void* arg) {
    return ++static_cast<Waiting*>(arg)->predicateCalls < 4;
  }
  static void CountSleep(void* arg) { ++static_cast<Waiting*>(arg)->sleeps; }
  static void AfterSleep(void* arg) { ++static_cast<Waiting*>(arg)->wakeUps; }

  CondWaitCallbacks_t Callbacks() {
    return {StillClosed, BeforeSleep, AfterSleep, this, this, this};
  }
  CondWaitCallbacks_t ThreeSleeps() {
    return {WantsThreeSleeps, CountSleep, AfterSleep, this, this, this};
  }

  ORVEX_PThread_CondLock condition;
  Latch asleep;
  bool open = false;
  int predicateCalls = 0;
  int sleeps = 0;
  int wakeUps = 0;
};

// A lock of a host's own, whose results a test sets.
class ScriptedLock : public ORVEX_Lock {
 public:
  unsigned int GetLastErrorCode() const override { return error; }
  unsigned int Lock() override { return lockResult; }
  unsigned int Unlock() override { return unlockResult; }

  unsigned int error = 0;
  unsigned int lockResult = 0;
  unsigned int unlockResult = 0;
};

template <typename Lock>
struct OpenLock : Lock {
  using Lock::mutex_;
};

}  // namespace

TEST_CASE("a lock is free again once it was unlocked") {
  ORVEX_PThread_Lock lock;
  CHECK(lock.Lock() == 0);
  CHECK(lock.Unlock() == 0);
  CHECK(lock.Lock() == 0);
  CHECK(lock.Unlock() == 0);
}

TEST_CASE_TEMPLATE("a held lock cannot be taken again by the thread that holds it", Lock,
                   ORVEX_PThread_Lock, ORVEX_PThread_CondLock) {
  OpenLock<Lock> lock;
  REQUIRE(lock.Lock() == 0);
  CHECK(pthread_mutex_trylock(&lock.mutex_) == EBUSY);
  CHECK(lock.Unlock() == 0);
}

TEST_CASE("a lock destroys its mutex, and a condition lock its condition first") {
  std::string destroyed[2];
  {
    FailingPThread system;
    { const ORVEX_PThread_Lock lock; }
    destroyed[0].swap(system.destroyed);
    { const ORVEX_PThread_CondLock condition; }
    destroyed[1].swap(system.destroyed);
  }
  CHECK(destroyed[0] == "mutex ");
  CHECK(destroyed[1] == "condition mutex ");
}

TEST_CASE("the last error of a lock is zero before its first use and after a success") {
  ORVEX_PThread_Lock lock;
  CHECK(lock.GetLastErrorCode() == 0);
  lock.Lock();
  CHECK(lock.GetLastErrorCode() == 0);
  lock.Unlock();
  CHECK(lock.GetLastErrorCode() == 0);
}

TEST_CASE("the base of all locks has no last error") {
  class FreeForAll : public ORVEX_Lock {
   public:
    unsigned int Lock() override { return 0; }
    unsigned int Unlock() override { return 0; }
  } lock;
  CHECK(lock.ORVEX_Lock::GetLastErrorCode() == 0);
}

TEST_CASE("a mutex that cannot be locked gives 5 and keeps the system's error number") {
  ORVEX_PThread_Lock lock;
  unsigned int result = 0;
  {
    FailingPThread failing;
    failing.lockError = 35;
    result = lock.Lock();
  }
  CHECK(result == 5);
  CHECK(lock.GetLastErrorCode() == 35);
}

TEST_CASE("a lock that two threads want is held by one at a time, and can fail afterwards") {
  ORVEX_PThread_Lock lock;
  int counted = 0;
  const auto count = [&] {
    for (int i = 0; i < 50000; ++i) {
      lock.Lock();
      ++counted;
      lock.Unlock();
    }
  };
  std::thread other(count);
  count();
  other.join();
  CHECK(counted == 100000);
  FailingPThread system;
  system.lockError = EINVAL;
  CHECK(lock.Lock() == 5);
  CHECK(lock.GetLastErrorCode() == EINVAL);
  lock.Unlock();
}

TEST_CASE("a mutex that cannot be unlocked gives 6 and keeps the system's error number") {
  ORVEX_PThread_Lock lock;
  lock.Lock();
  unsigned int result = 0;
  {
    FailingPThread failing;
    failing.unlockError = 1;
    result = lock.Unlock();
  }
  CHECK(result == 6);
  CHECK(lock.GetLastErrorCode() == 1);
  CHECK(lock.Lock() == 0);
  CHECK(lock.Unlock() == 0);
}

TEST_CASE("a scope lock holds its lock to the end of the scope and no longer") {
  ORVEX_PThread_Lock lock;
  int counter = 0;
  std::thread other;
  {
    const ORVEX_ScopeLock guard(&lock);
    other = std::thread([&] {
      const ORVEX_ScopeLock othersGuard(&lock);
      counter *= 2;
    });
    counter = 21;
  }
  other.join();
  CHECK(counter == 42);
}

TEST_CASE("a scope lock on no lock does nothing at either end") {
  CapturedOutput output;
  { const ORVEX_ScopeLock guard(nullptr); }
  CHECK(output.Take() == "");
}

TEST_CASE("a scope lock that cannot lock says so on standard output and goes on") {
  ORVEX_PThread_Lock lock;
  CapturedOutput output;
  bool reached = false;
  {
    FailingPThread failing;
    failing.lockError = 22;
    const ORVEX_ScopeLock guard(&lock);
    reached = true;
  }
  CHECK(reached);
  CHECK(output.Take() == "[LOCK] lock failed: 22\n");
}

TEST_CASE("a scope lock that could not lock still unlocks at its end") {
  ORVEX_PThread_Lock lock;
  CapturedOutput output;
  int unlocksInside = -1;
  int unlocks = -1;
  {
    FailingPThread failing;
    failing.lockError = 22;
    {
      const ORVEX_ScopeLock guard(&lock);
      unlocksInside = failing.unlocks;
    }
    unlocks = failing.unlocks;
  }
  const std::string said = output.Take();
  CHECK(unlocksInside == 0);
  CHECK(unlocks == 1);
  CHECK(said == "[LOCK] lock failed: 22\n");
  CHECK(lock.GetLastErrorCode() == 0);
}

TEST_CASE("a scope lock that can neither lock nor unlock says both on standard output") {
  ORVEX_PThread_Lock lock;
  CapturedOutput output;
  {
    FailingPThread failing;
    failing.lockError = 22;
    failing.unlockError = 1;
    const ORVEX_ScopeLock guard(&lock);
  }
  CHECK(output.Take() == "[LOCK] lock failed: 22\n[LOCK] unlock failed: 1\n");
}

TEST_CASE("a scope lock that cannot unlock says so on standard output") {
  ORVEX_PThread_Lock lock;
  CapturedOutput output;
  {
    FailingPThread failing;
    const ORVEX_ScopeLock guard(&lock);
    failing.unlockError = 1;
  }
  CHECK(output.Take() == "[LOCK] unlock failed: 1\n");
}

TEST_CASE("the error number of a scope lock's line has a sign") {
  ScriptedLock lock;
  lock.error = static_cast<unsigned int>(-5);
  CapturedOutput output;
  lock.lockResult = ORVEX_LOCK_FAILED;
  { const ORVEX_ScopeLock guard(&lock); }
  CHECK(output.Take() == "[LOCK] lock failed: -5\n");
  lock.lockResult = 0;
  lock.unlockResult = ORVEX_UNLOCK_FAILED;
  { const ORVEX_ScopeLock guard(&lock); }
  CHECK(output.Take() == "[LOCK] unlock failed: -5\n");
}

TEST_CASE("a pending cancellation does not interrupt the lines of a scope lock") {
  ScriptedLock lock;
  CapturedOutput output;
  lock.lockResult = ORVEX_LOCK_FAILED;
  CHECK(OutlastsCancellation([&] { const ORVEX_ScopeLock guard(&lock); }));
  lock.lockResult = 0;
  lock.unlockResult = ORVEX_UNLOCK_FAILED;
  CHECK(OutlastsCancellation([&] { const ORVEX_ScopeLock guard(&lock); }));
  CHECK(output.Take() == "[LOCK] lock failed: 0\n[LOCK] unlock failed: 0\n");
}

TEST_CASE("a wait without a predicate is refused with 3 before anything is locked") {
  Waiting waiting;
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  callbacks.predicate = nullptr;
  bool waited = false;
  unsigned int result = 0;
  int locks = -1;
  {
    FailingPThread counting;
    result = waiting.condition.Wait(waited, callbacks);
    locks = counting.locks;
  }
  CHECK(result == 3);
  CHECK_FALSE(waited);
  CHECK(locks == 0);
}

TEST_CASE("a wait without an argument for the predicate is refused with 3") {
  Waiting waiting;
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  callbacks.predicateArg = nullptr;
  bool waited = false;
  CHECK(waiting.condition.Wait(waited, callbacks) == 3);
  CHECK(waiting.predicateCalls == 0);
}

TEST_CASE("a wait whose predicate is false at once neither sleeps nor calls back") {
  Waiting waiting;
  waiting.open = true;
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  for (const bool before : {false, true}) {
    bool waited = before;
    CHECK(waiting.condition.Wait(waited, callbacks) == 0);
    CHECK(waited == before);
  }
  CHECK(waiting.sleeps == 0);
  CHECK(waiting.wakeUps == 0);
}

TEST_CASE("a waiter sleeps until its predicate turns false and the condition is signalled") {
  for (const bool toAll : {false, true}) {
    CAPTURE(toAll);
    Waiting waiting;
    CondWaitCallbacks_t callbacks = waiting.Callbacks();
    bool waited = false;
    unsigned int result = 99;
    std::thread waiter([&] { result = waiting.condition.Wait(waited, callbacks); });
    waiting.asleep.Wait();
    {
      const ORVEX_ScopeLock guard(&waiting.condition);
      waiting.open = true;
    }
    CHECK((toAll ? waiting.condition.SignalAll() : waiting.condition.Signal()) == 0);
    waiter.join();
    CHECK(result == 0);
    CHECK(waited);
    CHECK(waiting.sleeps == waiting.wakeUps);
    CHECK(waiting.predicateCalls == waiting.sleeps + 1);
  }
}

TEST_CASE("a waiter without pre- and post-wait callbacks looks again after each wake-up") {
  Waiting waiting;
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  callbacks.preWait = nullptr;
  callbacks.postWait = nullptr;
  callbacks.predicate = Waiting::WantsThreeSleeps;
  bool waited = false;
  unsigned int result = 99;
  {
    FailingPThread failing;  // Every sleep ends at once, a spurious wake-up.
    failing.waitError = 22;
    result = waiting.condition.Wait(waited, callbacks);
  }
  CHECK(result == 0);
  CHECK(waited);
  CHECK(waiting.predicateCalls == 4);
}

TEST_CASE("a wait leaves the last error of its lock alone") {
  Waiting waiting;
  waiting.open = true;
  {
    FailingPThread failing;
    failing.lockError = 35;
    waiting.condition.Lock();
  }
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  bool waited = false;
  waiting.condition.Wait(waited, callbacks);
  CHECK(waiting.condition.GetLastErrorCode() == 35);
}

TEST_CASE("a wait that cannot lock still evaluates its predicate") {
  Waiting waiting;
  waiting.open = true;
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  bool waited = false;
  unsigned int result = 99;
  int unlocks = -1;
  {
    FailingPThread failing;
    failing.lockError = 22;
    result = waiting.condition.Wait(waited, callbacks);
    unlocks = failing.unlocks;
  }
  CHECK(result == 0);
  CHECK(waiting.predicateCalls == 1);
  CHECK_FALSE(waited);
  CHECK(unlocks == 1);
}

TEST_CASE("a wait that cannot lock goes on for as long as its predicate is true") {
  Waiting waiting;
  CondWaitCallbacks_t callbacks = waiting.ThreeSleeps();
  bool waited = false;
  unsigned int result = 99;
  {
    FailingPThread failing;
    failing.lockError = 22;
    result = waiting.condition.Wait(waited, callbacks);
  }
  CHECK(result == 0);
  CHECK(waited);
  CHECK(waiting.predicateCalls == 4);
  CHECK(waiting.sleeps == 3);
  CHECK(waiting.wakeUps == 3);
}

TEST_CASE("a waiter that cannot sleep releases the mutex between its checks") {
  Waiting waiting;
  CondWaitCallbacks_t callbacks = waiting.Callbacks();
  bool waited = false;
  unsigned int result = 99;
  int wrongUnlocks = -1;
  std::thread waiter([&] {
    FailingPThread failing;
    failing.waitError = 22;
    result = waiting.condition.Wait(waited, callbacks);
    wrongUnlocks = failing.wrongUnlocks;
  });
  waiting.asleep.Wait();
  {
    const ORVEX_ScopeLock guard(&waiting.condition);
    waiting.open = true;
  }
  waiter.join();
  CHECK(result == 0);
  CHECK(waited);
  CHECK(wrongUnlocks == 0);
}

TEST_CASE("a waiter that can neither sleep nor relock its mutex still checks again") {
  Waiting waiting;
  CondWaitCallbacks_t callbacks = waiting.ThreeSleeps();
  bool waited = false;
  int locks = 0;
  int unlocks = 0;
  int wrongUnlocks = -1;
  unsigned int code = 9;
  {
    FailingPThread failing;
    failing.waitError = EINVAL;
    failing.lockError = EINVAL;
    failing.firstFailing = 2;  // The wait's own lock is the first.
    failing.waits = 1;         // The first sleep counts as the second.
    code = waiting.condition.Wait(waited, callbacks);
    locks = failing.locks;
    unlocks = failing.unlocks;
    wrongUnlocks = failing.wrongUnlocks;
  }
  CHECK(code == 0);
  CHECK(waited);
  CHECK(waiting.predicateCalls == 4);
  CHECK(waiting.wakeUps == 3);
  // One for the wait and one after each pause.
  CHECK(locks == 4);
  CHECK(unlocks == 4);
  CHECK(wrongUnlocks == 0);
  CHECK(waiting.condition.Lock() == 0);
  CHECK(waiting.condition.Unlock() == 0);
}

TEST_CASE("a waiter that is cancelled while asleep releases the mutex") {
  Waiting waiting;
  pthread_t sleeper;
  const auto sleep = [](void* arg) -> void* {
    auto& self = *static_cast<Waiting*>(arg);
    CondWaitCallbacks_t callbacks = self.Callbacks();
    bool waited = false;
    self.condition.Wait(waited, callbacks);
    return nullptr;
  };
  REQUIRE(pthread_create(&sleeper, nullptr, sleep, &waiting) == 0);
  waiting.asleep.Wait();
  pthread_cancel(sleeper);
  pthread_join(sleeper, nullptr);
  CHECK(waiting.condition.Lock() == 0);
  CHECK(waiting.condition.Unlock() == 0);
}

TEST_CASE("a waiter that is cancelled while others hold its mutex does not release it") {
  struct Cancelled {
    ORVEX_PThread_CondLock condition;
    int locks = 0;
    int unlocks = 0;
    int wrongUnlocks = -1;
  } cancelled;
  pthread_t waiter;
  const auto wait = [](void* arg) -> void* {
    auto& self = *static_cast<Cancelled*>(arg);
    struct Counted : FailingPThread {
      explicit Counted(Cancelled& its) : told(its) {}
      ~Counted() {
        told.locks = locks;
        told.unlocks = unlocks;
        told.wrongUnlocks = wrongUnlocks;
      }
      Cancelled& told;
    } failing(self);
    failing.waitError = EINVAL;
    CondWaitCallbacks_t callbacks{[](void*) { return true; },
                                  [](void*) { pthread_cancel(pthread_self()); },
                                  nullptr,
                                  &self,
                                  nullptr,
                                  nullptr};
    bool waited = false;
    self.condition.Wait(waited, callbacks);
    return nullptr;
  };
  REQUIRE(pthread_create(&waiter, nullptr, wait, &cancelled) == 0);
  pthread_join(waiter, nullptr);
  CHECK(cancelled.locks == 1);
  CHECK(cancelled.unlocks == 1);
  CHECK(cancelled.wrongUnlocks == 0);
}

TEST_CASE("a condition lock is a condition first and a lock second") {
  ORVEX_PThread_CondLock condition;
  CHECK(static_cast<void*>(static_cast<ORVEX_CondVar*>(&condition)) ==
        static_cast<void*>(&condition));
  ORVEX_Lock& asLock = condition;
  CHECK(asLock.Lock() == 0);
  CHECK(asLock.Unlock() == 0);
}

TEST_CASE("the callbacks of a wait are six pointers") {
  CHECK(sizeof(CondWaitCallbacks_t) == 6 * sizeof(void*));
  CHECK(std::is_standard_layout_v<CondWaitCallbacks_t>);
}
