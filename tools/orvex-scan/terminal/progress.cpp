#include "terminal/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace orvexscan {
namespace {

constexpr std::chrono::milliseconds kBetweenDrawings(100);
constexpr size_t kBarWidth = 20;

// Queried each time: the window may shrink. 80 if the terminal does not say.
size_t Columns() {
  struct winsize size {};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

}  // namespace

Progress::Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void Progress::StartPass(int pass, int passes, uint64_t files, uint64_t bytes) {
  pass_ = pass;
  passes_ = passes;
  files_ = files;
  bytes_ = bytes;
  done_ = 0;
  read_ = 0;
  saved_ = 0;
  start_ = Clock::now();
  drawn_ = start_ - kBetweenDrawings;
}

void Progress::AddBytes(uint64_t bytes) {
  read_.fetch_add(bytes, std::memory_order_relaxed);
  // Only a large file is worth a redraw before Step.
  if (shown_ && Clock::now() - start_ >= kBetweenDrawings) Draw();
}

void Progress::Step(uint64_t saved) {
  done_.fetch_add(1, std::memory_order_relaxed);
  saved_.fetch_add(saved, std::memory_order_relaxed);
  Draw();
}

void Progress::EndPass() {
  if (shown_) std::fputs("\r\x1b[K", stderr);
}

void Progress::Draw() {
  if (!shown_) return;
  const std::unique_lock<std::mutex> guard(lock_, std::try_to_lock);
  if (!guard.owns_lock() || Clock::now() - drawn_ < kBetweenDrawings) return;
  drawn_ = Clock::now();
  DrawNow();
}

void Progress::DrawNow() {
  const uint64_t done = done_.load(std::memory_order_relaxed);
  const auto read = static_cast<double>(read_.load(std::memory_order_relaxed));
  const auto saved = static_cast<double>(saved_.load(std::memory_order_relaxed));
  // Files may grow or shrink while they are read.
  const double share =
      std::min(1.0, bytes_ != 0 ? (read + saved) / static_cast<double>(bytes_)
                                : static_cast<double>(done) / static_cast<double>(files_));
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  std::string bar(static_cast<size_t>(share * kBarWidth), '#');
  bar.resize(kBarWidth, '.');
  const std::string left =
      share > 0 ? fmt::format(", {:.0f} s left", seconds / share - seconds) : "";
  const std::string line =
      fmt::format("pass {}/{} [{}] {:3.0f}% {}/{} files {:.0f} MiB/s{}", pass_, passes_, bar,
                  share * 100, done, files_, read / (1 << 20) / seconds, left);
  std::fputs(("\r" + FitLine(line, Columns()) + "\x1b[K").c_str(), stderr);
}

std::string FitLine(const std::string& line, size_t columns) {
  // The last column is left free: some terminals wrap when it is filled.
  return line.substr(0, columns > 0 ? columns - 1 : 0);
}

}  // namespace orvexscan
