// Executions that have not been asked about yet.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

#include "exec/exec_events.h"

namespace orvexscan {

// Holds only a few, since each is an open file; the kernel queues the rest.
//
// Threads: any number at once.
// Locking: lock_ guards the rest.
class ExecQueue {
 public:
  // Waits while the queue is full. Does nothing once it is closed.
  void Push(Execution execution);
  // Waits for the oldest and returns it; nothing once the queue is closed and empty.
  std::optional<Execution> Take();
  // Accepts no more.
  void Close();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Execution> executions_;
  bool closed_ = false;
};

}  // namespace orvexscan
