// Whether a file has been left alone long enough for its times to identify its content.
#pragma once

#include <chrono>

#include "file/identity.h"

namespace orvexscan {

// Two writes within one tick of the clock that stamps files leave the same times. An answer about a
// file stamped that recently must therefore not be kept: the next write might not change the file's
// identity.
//
// Threads: immutable; any number at once.
class Settling {
 public:
  using Instant = std::chrono::nanoseconds;  // since 1970
  using Clock = Instant (*)();

  // With a time of 0 or less every file is settled. Tests pass another clock.
  explicit Settling(std::chrono::nanoseconds time, Clock clock = Realtime)
      : time_(time), clock_(clock) {}

  // Whether any file can be unsettled.
  bool Judges() const { return time_ > std::chrono::nanoseconds::zero(); }

  // The instant to judge by. Take it before reading the file: any later write stamps the file with
  // that instant or a later one, give or take a tick of the clock.
  Instant Now() const { return clock_(); }

  // Whether both the file's mtime and its ctime lie at least the settling time before now. A time
  // in the future does not. Correct for times up to 2262.
  bool IsSettled(const Identity& identity, Instant now) const;

 private:
  static Instant Realtime();

  const std::chrono::nanoseconds time_;
  const Clock clock_;
};

}  // namespace orvexscan
