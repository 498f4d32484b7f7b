// How many calls of hosts are inside.
#pragma once

#include <cstddef>

#include "support/orvex_atomic.h"
#include "support/orvex_local.h"

// Counts calls in and out, and waits for those inside. Each thread counts in one of several
// cells, so that calls of different threads seldom touch one cache line.
//
// Threads: any number at once. A call counts in before it asks whether what it wants to use
// is stopped; who stops says so before it drains.
class ORVEX_LOCAL ORVEX_CallsInFlight {
 public:
  // Counts a call in, and out again whichever way its scope ends.
  class Scope {
   public:
    explicit Scope(ORVEX_CallsInFlight& calls) : cell_(calls.CellOfThread()) {
      ORVEX_atomic_increment_32(&cell_);
    }
    ~Scope() { ORVEX_atomic_decrement_32(&cell_); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    int volatile& cell_;
  };

  // Below zero once calls that were inside at SetToZero have left.
  int Sum() const;
  void SetToZero();
  // Polls the sum until it is zero, ten times 100 ms apart at most, and then goes on
  // regardless: a host that stops the library must not hang on its own stuck callback. Logs
  // each step at WARNING, beginning with what, as coming from that line of function in
  // sourceFile. A signal may cut a pause short.
  void Drain(const char* what, unsigned int line, const char* function,
             const char* sourceFile) const;

 private:
  static constexpr size_t kCells = 64;
  struct alignas(kCacheLineBytes) Cell {
    mutable int volatile count = 0;
  };

  int volatile& CellOfThread();

  Cell cells_[kCells];
};
