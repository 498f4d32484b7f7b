#include "terminal/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace orvexscan {
namespace {

constexpr std::chrono::milliseconds kBetweenDrawings(100);
constexpr size_t kBarWidth = 20;  // the whole line fits into 80 columns

}  // namespace

Progress::Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void Progress::StartPass(int pass, int passes, uint64_t total) {
  pass_ = pass;
  passes_ = passes;
  total_ = total;
  done_ = 0;
  bytes_ = 0;
  start_ = Clock::now();
  drawn_ = start_ - kBetweenDrawings;
}

void Progress::Step(uint64_t bytes) {
  done_.fetch_add(1, std::memory_order_relaxed);
  bytes_.fetch_add(bytes, std::memory_order_relaxed);
  if (!shown_) return;
  const std::unique_lock<std::mutex> guard(lock_, std::try_to_lock);
  if (!guard.owns_lock() || Clock::now() - drawn_ < kBetweenDrawings) return;
  drawn_ = Clock::now();
  Draw();
}

void Progress::EndPass() {
  if (shown_) std::fputs("\r\x1b[K", stderr);
}

void Progress::Draw() {
  const uint64_t done = done_.load(std::memory_order_relaxed);
  const double share = static_cast<double>(done) / static_cast<double>(total_);
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  const double mebibytes = static_cast<double>(bytes_.load(std::memory_order_relaxed)) / (1 << 20);
  std::string bar(static_cast<size_t>(share * kBarWidth), '#');
  bar.resize(kBarWidth, '.');
  const std::string line = fmt::format(
      "\rpass {}/{} [{}] {:3.0f}% {}/{} files {:.0f} MiB/s, {:.0f} s left\x1b[K", pass_, passes_,
      bar, share * 100, done, total_, mebibytes / seconds, seconds / share - seconds);
  std::fputs(line.c_str(), stderr);
}

}  // namespace orvexscan
