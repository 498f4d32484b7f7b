// A door that threads of a test wait at until another one opens it.
#pragma once

#include <condition_variable>
#include <mutex>

// Opens once and stays open. Threads: any.
class Latch {
 public:
  void Open() {
    {
      const std::lock_guard guard(lock);
      open = true;
    }
    opened.notify_all();
  }

  void Wait() {
    std::unique_lock guard(lock);
    opened.wait(guard, [this] { return open; });
  }

 private:
  std::mutex lock;
  std::condition_variable opened;
  bool open = false;
};
