// A thread with a pending cancellation.
#pragma once

#include <pthread.h>

#include <functional>
#include <utility>

// Runs the action on a new thread whose cancellation has already been requested. False
// if the thread ended before the action did.
inline bool OutlastsCancellation(std::function<void()> action) {
  struct Cancelled {
    std::function<void()> action;
    bool outlasted;
  } cancelled{std::move(action), false};
  pthread_t thread;
  const auto run = [](void* arg) -> void* {
    auto& self = *static_cast<Cancelled*>(arg);
    pthread_cancel(pthread_self());
    self.action();
    self.outlasted = true;
    return nullptr;
  };
  if (pthread_create(&thread, nullptr, run, &cancelled) != 0) return false;
  pthread_join(thread, nullptr);
  return cancelled.outlasted;
}
