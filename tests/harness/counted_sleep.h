// A usleep that returns at once and records its arguments.
#pragma once

#include <atomic>
#include <functional>

// Stands in for usleep of the whole program while it lives.
class CountedSleep {
 public:
  CountedSleep();
  ~CountedSleep();
  CountedSleep(const CountedSleep&) = delete;
  CountedSleep& operator=(const CountedSleep&) = delete;

  std::atomic<int> sleeps{0};
  std::atomic<unsigned int> microseconds{0};  // in all
  std::function<void()> onSleep;
  // Whether each sleep ends as a signal would end it.
  bool interrupted = false;
};
