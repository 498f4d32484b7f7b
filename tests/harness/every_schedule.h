// Threads that take turns in every possible order.
#pragma once

#include <semaphore.h>

#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>

// Runs a handful of threads again and again, each time interleaved differently, until
// every interleaving with at most that many preemptions has run. A preemption makes a
// thread yield although it could have continued.
//
// One thread runs at a time. It yields in calls of the system's thread functions,
// for which this class stands in: pthread_mutex_lock, _unlock,
// pthread_cond_wait, _signal, _broadcast and usleep. A pause lets the others run, or,
// as one preemption, lasts until what the thread pauses for is given up: every
// further pause ends at once until it locks something.
//
// A thread that would wait for ever ends the program with a message about what it
// waits for, since nothing can get it out of the library. So does unlocking a mutex
// that the thread does not hold.
//
// Locking: only threads of the schedule are controlled; their mutexes are never locked
// in the system, and must be free when a schedule begins, as they are when it has ended.
// What the threads do must depend on nothing but the schedule.
class EverySchedule {
 public:
  using Body = std::function<void()>;

  EverySchedule(int preemptions, std::vector<Body> bodies);
  ~EverySchedule();
  EverySchedule(const EverySchedule&) = delete;
  EverySchedule& operator=(const EverySchedule&) = delete;

  // Runs the next schedule to its end. False when there is none left.
  bool RunNext();
  // How many have run.
  long Count() const { return count_; }
  // The last one, call by call: "0 lock, 1 lock, 1 unlock, ...".
  std::string Description() const;

  // For the calls that this class stands in for. Null unless the calling thread
  // belongs to a schedule.
  static EverySchedule* OfThisThread();
  void Lock(pthread_mutex_t* mutex);
  void Unlock(pthread_mutex_t* mutex);
  void Wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
  void Wake(pthread_cond_t* condition, bool all);
  void Pause();

 private:
  enum class State { kReady, kLocking, kAsleep, kPausing, kDone };
  struct Thread {
    Body body;
    std::thread thread;
    sem_t turn;
    State state = State::kDone;
    pthread_mutex_t* mutex = nullptr;     // that it locks, or gave back to sleep
    pthread_cond_t* condition = nullptr;  // that it sleeps on
    bool outOfPatience = false;
  };
  // A point at which more than one thread could go on.
  struct Decision {
    size_t taken;
    size_t options;
  };

  void Live(size_t self);
  // Before a call: this thread, or another, continues.
  void Step(const char* call);
  // Hands over to the chosen thread, and returns when it is this one.
  void Yield();
  size_t Choose(const std::vector<size_t>& options);
  bool CanGoOn(const Thread& thread) const;
  size_t* OwnerOf(pthread_mutex_t* mutex);
  [[noreturn]] void GiveUp(const char* what) const;

  const int preemptions_;
  std::deque<Thread> threads_;
  sem_t ended_;
  bool stopping_ = false;

  // Touched by the one thread that runs.
  std::vector<Decision> decisions_;
  size_t position_ = 0;
  int preempted_ = 0;
  long count_ = 0;
  std::vector<std::pair<pthread_mutex_t*, size_t>> owners_;
  std::vector<std::pair<size_t, const char*>> calls_;
};
