// Threads of a test wait here until another one opens it.
#pragma once

#include <condition_variable>
#include <mutex>

// Opens once and stays open. Threads: any.
class Latch {
 public:
  void Open() {
    {
      const std::lock_guard guard(lock_);
      open_ = true;
    }
    opened_.notify_all();
  }

  void Wait() {
    std::unique_lock guard(lock_);
    opened_.wait(guard, [this] { return open_; });
  }

 private:
  std::mutex lock_;
  std::condition_variable opened_;
  bool open_ = false;
};
