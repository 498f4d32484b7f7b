// Which processors a benchmark of two threads runs on, and a clock for single queries.
#pragma once

#include <sched.h>
#include <x86intrin.h>

#include <cstdint>

namespace cost {

// The first and last that this process may use, far apart in case some share a core.
// The same one if there is only one.
struct TwoProcessors {
  int first;
  int second;
};
const TwoProcessors& Processors();

// Keeps the calling thread on one processor while it lives.
class Pinned {
 public:
  explicit Pinned(int processor);
  ~Pinned();
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

 private:
  cpu_set_t before_;
};

// The time-stamp counter, which runs at constant speed. Reading it takes a fraction of a hit;
// the system's clock takes about as long as one.
class TickClock {
 public:
  // Measures the counter's speed and cost for some milliseconds.
  TickClock();

  // Waits for earlier instructions.
  static uint64_t Now() {
    unsigned processor = 0;
    return __rdtscp(&processor);
  }

  // The time between two calls of Now, less the cost of the clock.
  double Ns(uint64_t ticks) const {
    return ticks > cost_ ? static_cast<double>(ticks - cost_) * nsPerTick_ : 0;
  }

 private:
  uint64_t cost_;
  double nsPerTick_;
};

}  // namespace cost
