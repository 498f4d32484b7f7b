// A platform for one thread: clocks that tick when they are read, a usleep that
// does not sleep. Both leave traces.
#pragma once

#include <cstdint>

// Stands in for clock_gettime and usleep of the whole program while it is
// current. Each engine of a comparison has one of its own, so that both read the
// same times if they read them equally often.
//
// Threads: one.
class TickingClock {
 public:
  ~TickingClock();

  void MakeCurrent();

  uint64_t realTimeNs = 1700000000U * uint64_t{1000000000};
  uint64_t monotonicNs = 0;
  uint32_t monotonicReadings = 0;
  uint32_t sleeps = 0;
  uint32_t sleptUs = 0;
};
