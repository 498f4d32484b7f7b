// Which processors a benchmark of two threads runs on, and a clock for single queries.
#pragma once

#include <sched.h>
#include <x86intrin.h>

#include <cstdint>

namespace cost {

// The first and the last that this process may use, far apart where several share a core.
// One and the same where there is only one.
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

// The processor's own counter, which runs at one speed. Reading it takes a fraction of a hit;
// the system's clock would take about as long as one.
class TickClock {
 public:
  // Measures speed and cost of the counter, for some milliseconds.
  TickClock();

  // Waits for the instructions before it.
  static uint64_t Now() {
    unsigned processor = 0;
    return __rdtscp(&processor);
  }

  // What lay between two calls of Now, without what the clock itself takes.
  double Ns(uint64_t ticks) const {
    return ticks > cost_ ? static_cast<double>(ticks - cost_) * nsPerTick_ : 0;
  }

 private:
  uint64_t cost_;
  double nsPerTick_;
};

}  // namespace cost
