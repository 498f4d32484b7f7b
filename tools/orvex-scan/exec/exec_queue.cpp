#include "exec/exec_queue.h"

#include <utility>

namespace orvexscan {
namespace {

constexpr size_t kMostWaiting = 256;

}  // namespace

void ExecQueue::Push(Execution execution) {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] { return closed_ || executions_.size() < kMostWaiting; });
  if (closed_) return;
  executions_.push_back(std::move(execution));
  changed_.notify_all();
}

std::optional<Execution> ExecQueue::Take() {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] { return closed_ || !executions_.empty(); });
  if (executions_.empty()) return std::nullopt;
  Execution oldest = std::move(executions_.front());
  executions_.pop_front();
  changed_.notify_all();
  return oldest;
}

void ExecQueue::Close() {
  const std::lock_guard<std::mutex> guard(lock_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace orvexscan
