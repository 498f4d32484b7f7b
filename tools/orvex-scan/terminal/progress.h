// A line that shows how far a pass has come.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace orvexscan {

// Draws on standard error, and only when that is a terminal.
//
// Threads: Step and AddBytes from any number at once, the rest from one.
// Locking: lock_ guards the drawing; a thread that finds it taken does not wait.
class Progress {
 public:
  // Shows nothing unless wanted is set and standard error is a terminal.
  explicit Progress(bool wanted);

  void StartPass(int pass, int passes, uint64_t files, uint64_t bytes);
  // Counts bytes as read.
  void AddBytes(uint64_t bytes);
  // Counts one more file as done, and saved as bytes that need not be read.
  void Step(uint64_t saved);
  // Wipes the line.
  void EndPass();

 private:
  using Clock = std::chrono::steady_clock;
  void DrawNow();
  void Draw();

  const bool shown_;
  int pass_ = 0;
  int passes_ = 0;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
  Clock::time_point start_;
  // Relaxed: the line wants recent numbers, not an order with other memory.
  std::atomic<uint64_t> done_{0};
  std::atomic<uint64_t> read_{0};
  std::atomic<uint64_t> saved_{0};
  std::mutex lock_;
  Clock::time_point drawn_;
};

// Cuts the line to fit the terminal: the next one could not wipe a wrapped line.
std::string FitLine(const std::string& line, size_t columns);

}  // namespace orvexscan
