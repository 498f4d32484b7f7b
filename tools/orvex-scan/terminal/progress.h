// A line that shows how far a pass has come.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

namespace orvexscan {

// Draws on standard error, and only when that is a terminal.
//
// Threads: Step from any number at once, the rest from one.
// Locking: lock_ guards the drawing; a thread that finds it taken does not wait.
class Progress {
 public:
  /// Shows nothing at all unless wanted is set and standard error is a terminal.
  explicit Progress(bool wanted);

  void StartPass(int pass, int passes, uint64_t total);
  /// One file more is done, bytes of it read.
  void Step(uint64_t bytes);
  /// Wipes the line.
  void EndPass();

 private:
  using Clock = std::chrono::steady_clock;
  void Draw();

  const bool shown_;
  int pass_ = 0;
  int passes_ = 0;
  uint64_t total_ = 0;
  Clock::time_point start_;
  // Relaxed: the line wants recent numbers, not an order with other memory.
  std::atomic<uint64_t> done_{0};
  std::atomic<uint64_t> bytes_{0};
  std::mutex lock_;
  Clock::time_point drawn_;
};

}  // namespace orvexscan
