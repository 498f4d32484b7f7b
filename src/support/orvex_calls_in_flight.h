// The number of calls in flight.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"

// Counts the calls inside the engine and inside its hash cache, and waits for them to leave. The
// counts are spread over several cells, so that threads seldom share a cache line. A cell holds
// both counts, so that one addition counts a call into both.
//
// Threads: any number at once. A call counts itself in before it checks whether the engine or cache
// is active; a stop clears that flag before it drains.
// Invariant: a cell holds the engine's count plus 65,536 times the cache's. Either may be negative.
class ORVEX_LOCAL ORVEX_CallsInFlight {
 public:
  enum Count : int {
    kOfEngine = 1,
    kOfCache = 0x10000,
    kOfBoth = kOfEngine + kOfCache,
    kOutOfCache = -kOfCache,  // for a step outside the cache
  };

  // Counts a call in, and out again however its scope ends.
  class Scope {
   public:
    Scope(ORVEX_CallsInFlight& calls, Count count) : cell_(calls.CellOfThread()), count_(count) {
      ORVEX_atomic_add_32(&cell_, count_);
    }
    ~Scope() { ORVEX_atomic_add_32(&cell_, -count_); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    int volatile& cell_;
    const Count count_;
  };

  // Negative once calls that were inside during SetToZero have left.
  int Sum(Count count) const;
  void SetToZero(Count count);
  // Polls the sum until it is zero, at most ten times, 100 ms apart, then returns regardless: a
  // host that stops the library must not hang on its own stuck callback. Logs each step at WARNING,
  // prefixed with what and attributed to line, function and sourceFile. A signal may cut a pause
  // short.
  void Drain(Count count, const char* what, unsigned int line, const char* function,
             const char* sourceFile) const;

 private:
  static constexpr size_t kCells = 64;
  struct alignas(kCacheLineBytes) Cell {
    mutable int volatile counts = 0;
  };

  static int Of(Count count, int counts) {
    const int lower = static_cast<int16_t>(counts);
    return count == kOfEngine ? lower : (counts - lower) / kOfCache;
  }
  // Thread pointers differ in their middle bits.
  int volatile& CellOfThread() {
    const auto thread = reinterpret_cast<uintptr_t>(__builtin_thread_pointer());
    return cells_[(static_cast<uint32_t>(thread >> 4) * 0x9E3779B9U) >> 26].counts;
  }

  Cell cells_[kCells];
};
