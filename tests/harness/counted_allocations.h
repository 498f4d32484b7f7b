// What this thread allocates.
#pragma once

#include <cstddef>

// Calls of malloc and its relatives, those behind operator new included, and of
// free and its relatives with something to free. Counted since the thread began.
struct Allocations {
  size_t made = 0;
  size_t freed = 0;
  // Bytes allocated less bytes freed, as rounded by the system's allocator.
  size_t bytesHeld = 0;

  friend Allocations operator-(const Allocations& a, const Allocations& b) {
    return {a.made - b.made, a.freed - b.freed, a.bytesHeld - b.bytesHeld};
  }
};

// Stands in for the allocation functions of the program, all of its libraries
// included, wherever its source file is linked in (with exported symbols).
Allocations AllocationsOfThisThread();
