// Threads that take turns in every possible order.
#include "harness/every_schedule.h"

#include <errno.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "harness/real_function.h"

namespace {

// The thread that belongs to a schedule, and which of its threads it is.
thread_local EverySchedule* schedule = nullptr;
thread_local size_t self = 0;

constexpr size_t kNobody = ~size_t{0};

void Take(sem_t* turn) {
  while (sem_wait(turn) != 0) {
    // A signal came in between.
  }
}

}  // namespace

EverySchedule::EverySchedule(int preemptions, std::vector<Body> bodies)
    : preemptions_(preemptions) {
  // One thread runs at a time: a turn is handed over several times faster on one
  // processor than from one to another.
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &here);
  sched_setaffinity(0, sizeof here, &here);
  sem_init(&ended_, 0, 0);
  for (Body& body : bodies) {
    Thread& thread = threads_.emplace_back();
    sem_init(&thread.turn, 0, 0);
    thread.body = std::move(body);
  }
  for (size_t i = 0; i < threads_.size(); ++i) {
    threads_[i].thread = std::thread([this, i] { Live(i); });
  }
}

EverySchedule::~EverySchedule() {
  stopping_ = true;
  for (Thread& thread : threads_) {
    sem_post(&thread.turn);
    thread.thread.join();
    sem_destroy(&thread.turn);
  }
  sem_destroy(&ended_);
}

bool EverySchedule::RunNext() {
  if (count_ != 0) {
    // The last decision that still has another choice; after it everything starts over.
    while (!decisions_.empty() && decisions_.back().taken + 1 == decisions_.back().options) {
      decisions_.pop_back();
    }
    if (decisions_.empty()) return false;
    ++decisions_.back().taken;
  }
  position_ = 0;
  preempted_ = 0;
  calls_.clear();
  owners_.clear();
  std::vector<size_t> all;
  for (size_t i = 0; i < threads_.size(); ++i) {
    threads_[i].state = State::kReady;
    threads_[i].outOfPatience = false;
    all.push_back(i);
  }
  sem_post(&threads_[Choose(all)].turn);
  Take(&ended_);
  ++count_;
  return true;
}

std::string EverySchedule::Description() const {
  std::string text;
  for (const auto& [thread, call] : calls_) text += std::to_string(thread) + " " + call + ", ";
  return text;
}

EverySchedule* EverySchedule::OfThisThread() { return schedule; }

void EverySchedule::Lock(pthread_mutex_t* mutex) {
  Thread& me = threads_[self];
  me.state = State::kLocking;
  me.mutex = mutex;
  me.outOfPatience = false;
  Step("lock");
  *OwnerOf(mutex) = self;
}

void EverySchedule::Unlock(pthread_mutex_t* mutex) {
  Step("unlock");
  if (*OwnerOf(mutex) != self) GiveUp("unlocks what it does not hold");
  *OwnerOf(mutex) = kNobody;
}

void EverySchedule::Wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  Step("wait");
  if (*OwnerOf(mutex) != self) GiveUp("waits without the mutex");
  *OwnerOf(mutex) = kNobody;
  Thread& me = threads_[self];
  me.state = State::kAsleep;
  me.condition = condition;
  me.mutex = mutex;
  Step("sleep");
  *OwnerOf(mutex) = self;
}

void EverySchedule::Wake(pthread_cond_t* condition, bool all) {
  Step(all ? "broadcast" : "signal");
  for (Thread& thread : threads_) {
    if (thread.state != State::kAsleep || thread.condition != condition) continue;
    thread.state = State::kLocking;
    if (!all) return;
  }
}

void EverySchedule::Pause() {
  if (threads_[self].outOfPatience) return;
  threads_[self].state = State::kPausing;
  Step("pause");
}

void EverySchedule::Live(size_t number) {
  self = number;
  for (;;) {
    Take(&threads_[self].turn);
    if (stopping_) return;
    schedule = this;
    threads_[self].body();
    schedule = nullptr;
    threads_[self].state = State::kDone;
    Yield();
  }
}

void EverySchedule::Step(const char* call) {
  calls_.emplace_back(self, call);
  Yield();
  threads_[self].state = State::kReady;
}

void EverySchedule::Yield() {
  Thread& me = threads_[self];
  std::vector<size_t> options;
  for (size_t i = 0; i < threads_.size(); ++i) {
    if (i != self && CanGoOn(threads_[i])) options.push_back(i);
  }
  const bool mayBePreempted = preempted_ < preemptions_;
  size_t next = self;
  if (me.state == State::kPausing) {
    // Last, so that a pause lets the others run first.
    const bool alone = options.empty();
    if (alone || mayBePreempted) options.push_back(self);
    next = Choose(options);
    if (next == self && !alone) {
      me.outOfPatience = true;
      ++preempted_;
    }
  } else if (CanGoOn(me)) {
    options.insert(options.begin(), self);
    if (mayBePreempted) next = Choose(options);
    if (next != self) ++preempted_;
  } else if (!options.empty()) {
    next = Choose(options);
  } else {
    for (const Thread& thread : threads_) {
      if (thread.state != State::kDone) GiveUp("and the others have ended or wait for ever");
    }
    sem_post(&ended_);
    return;
  }
  if (next == self) return;
  // A thread that has ended takes its next turn in Live.
  const bool done = me.state == State::kDone;
  sem_post(&threads_[next].turn);
  if (!done) Take(&me.turn);
}

size_t EverySchedule::Choose(const std::vector<size_t>& options) {
  if (options.size() == 1) return options[0];
  if (position_ == decisions_.size()) {
    decisions_.push_back({0, options.size()});
  } else if (decisions_[position_].options != options.size()) {
    GiveUp("did not do again what it did before");
  }
  return options[decisions_[position_++].taken];
}

bool EverySchedule::CanGoOn(const Thread& thread) const {
  switch (thread.state) {
    case State::kReady:
    case State::kPausing:
      return true;
    case State::kLocking:
      return std::none_of(owners_.begin(), owners_.end(), [&thread](const auto& owner) {
        return owner.first == thread.mutex && owner.second != kNobody;
      });
    case State::kAsleep:
    case State::kDone:
      break;
  }
  return false;
}

size_t* EverySchedule::OwnerOf(pthread_mutex_t* mutex) {
  for (auto& [held, owner] : owners_) {
    if (held == mutex) return &owner;
  }
  return &owners_.emplace_back(mutex, kNobody).second;
}

void EverySchedule::GiveUp(const char* what) const {
  std::fprintf(stderr, "schedule %ld: thread %zu %s\n%s\n", count_, self, what,
               Description().c_str());
  _Exit(EXIT_FAILURE);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_lock");
  if (schedule == nullptr) return real(mutex);
  schedule->Lock(mutex);
  return 0;
}

// A trylock may fail at any time.
extern "C" int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_trylock");
  return schedule != nullptr ? EBUSY : real(mutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static auto* const real = RealFunction<int(pthread_mutex_t*)>("pthread_mutex_unlock");
  if (schedule == nullptr) return real(mutex);
  schedule->Unlock(mutex);
  return 0;
}

extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static auto* const real =
      RealFunction<int(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
  if (schedule == nullptr) return real(condition, mutex);
  schedule->Wait(condition, mutex);
  return 0;
}

extern "C" int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  static auto* const real = RealFunction<int(pthread_cond_t*)>("pthread_cond_signal");
  if (schedule == nullptr) return real(condition);
  schedule->Wake(condition, false);
  return 0;
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static auto* const real = RealFunction<int(pthread_cond_t*)>("pthread_cond_broadcast");
  if (schedule == nullptr) return real(condition);
  schedule->Wake(condition, true);
  return 0;
}

extern "C" int usleep(useconds_t microseconds) {
  if (schedule != nullptr) {
    schedule->Pause();
    return 0;
  }
  timespec pause{};
  pause.tv_nsec = static_cast<long>(microseconds) * 1000;  // The library pauses less than 1 s.
  return nanosleep(&pause, nullptr);
}
