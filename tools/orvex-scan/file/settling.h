// When a file has been left alone for long enough that its times tell its content.
#pragma once

#include <chrono>

#include "file/identity.h"

namespace orvexscan {

// Two writes within one tick of the clock that stamps files leave the same times behind.
// An answer about a file whose last stamp is that young must therefore not be kept: the
// next write could leave the file's identity as it is.
//
// Threads: constant; any number at once.
class Settling {
 public:
  using Instant = std::chrono::nanoseconds;  // since 1970
  using Clock = Instant (*)();

  // A time of 0 or less takes every file as settled. clock is another one in tests.
  explicit Settling(std::chrono::nanoseconds time, Clock clock = Realtime)
      : time_(time), clock_(clock) {}

  // Whether any file can be unsettled.
  bool Judges() const { return time_ > std::chrono::nanoseconds::zero(); }

  // The instant to judge by. To be taken before the file is read: any later write
  // stamps the file at that instant or after it, but for the clock's tick.
  Instant Now() const { return clock_(); }

  // Whether both the file's mtime and its ctime lie at least the settling time before
  // now. A time in the future does not. Times up to 2262 are judged right.
  bool IsSettled(const Identity& identity, Instant now) const;

 private:
  static Instant Realtime();

  const std::chrono::nanoseconds time_;
  const Clock clock_;
};

}  // namespace orvexscan
