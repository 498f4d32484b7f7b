// How many calls of hosts are inside.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"

// Counts calls into the engine and into its hash cache, and waits for those inside. Each
// thread counts in one of several cells, so that calls of different threads seldom touch one
// cache line; both counts share a cell, so that one addition counts a call into both.
//
// Threads: any number at once. A call counts in before it asks whether what it wants to use
// is stopped; who stops says so before it drains.
// Invariant: a cell holds the lower count and 65,536 times the upper one. Either may be
// negative.
class ORVEX_LOCAL ORVEX_CallsInFlight {
 public:
  enum Count : int {
    kOfEngine = 1,
    kOfCache = 0x10000,
    kOfBoth = kOfEngine + kOfCache,
    kOutOfCache = -kOfCache,  // for a step outside
  };

  // Counts a call in, and out again whichever way its scope ends.
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

  // Below zero once calls that were inside at SetToZero have left.
  int Sum(Count count) const;
  void SetToZero(Count count);
  // Polls the sum until it is zero, ten times 100 ms apart at most, and then goes on
  // regardless: a host that stops the library must not hang on its own stuck callback. Logs
  // each step at WARNING, beginning with what, as coming from that line of function in
  // sourceFile. A signal may cut a pause short.
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
  // Threads' own addresses differ in their middle bits.
  int volatile& CellOfThread() {
    const auto thread = reinterpret_cast<uintptr_t>(__builtin_thread_pointer());
    return cells_[(static_cast<uint32_t>(thread >> 4) * 0x9E3779B9U) >> 26].counts;
  }

  Cell cells_[kCells];
};
