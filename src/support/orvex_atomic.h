// Atomic operations on plain counters and flags.
#pragma once

#include <cstddef>

#include "orvexeng.h"

// Cells that different threads write are aligned to this, to prevent false sharing.
constexpr size_t kCacheLineBytes = 64;

// The counters of the library are plain cells, so that records and classes keep their layout.
// Access them only through these functions.
//
// Each is one sequentially consistent read-modify-write and returns the value
// that the cell held before, increments and decrements included. Overflow wraps.
// A 64-bit cell should lie at an address divisible by 8: a locked operation that
// straddles two cache lines is hundreds of times slower, and 32-bit x86 aligns
// long long to 4 only.
ORVEX_API int ORVEX_atomic_add_32(int volatile* cell, int delta);
ORVEX_API int ORVEX_atomic_read_32(int volatile* cell);
ORVEX_API int ORVEX_atomic_increment_32(int volatile* cell);
ORVEX_API int ORVEX_atomic_decrement_32(int volatile* cell);
ORVEX_API long long ORVEX_atomic_add_64(long long volatile* cell, long long delta);
ORVEX_API long long ORVEX_atomic_read_64(long long volatile* cell);
ORVEX_API long long ORVEX_atomic_increment_64(long long volatile* cell);
ORVEX_API long long ORVEX_atomic_decrement_64(long long volatile* cell);

// Reads a flag, pointer or number that another thread may be writing. Relaxed:
// readers want a recent value, not an order with other memory.
template <typename T>
T ORVEX_LoadRelaxed(const T& cell) {
  T value;
  __atomic_load(&cell, &value, __ATOMIC_RELAXED);
  return value;
}

// Writes such a cell. A store, never a read-modify-write.
template <typename T>
void ORVEX_StoreRelaxed(T volatile& cell, T value) {
  __atomic_store(&cell, &value, __ATOMIC_RELAXED);
}

// Acquire load: what the writer did before its release store is visible.
template <typename T>
T ORVEX_LoadAcquire(const T& cell) {
  T value;
  __atomic_load(&cell, &value, __ATOMIC_ACQUIRE);
  return value;
}

template <typename T>
void ORVEX_StoreRelease(T volatile& cell, T value) {
  __atomic_store(&cell, &value, __ATOMIC_RELEASE);
}

// A counter whose alignment the compiler knows: without it clang has no untorn
// store for it on 32-bit x86. An alias declaration would lose the attribute there.
typedef long long ORVEX_AlignedCounter __attribute__((aligned(8)));

// Sets such a counter to zero. A store, never a read-modify-write; relaxed like
// the above.
inline void ORVEX_ZeroCounter(long long* cell) {
  ORVEX_AlignedCounter* counter = cell;
  __atomic_store_n(counter, 0, __ATOMIC_RELAXED);
}

// Counts at the end of its scope, even if the host throws.
struct ORVEX_CountAtEnd {
  long long volatile* counter;
  ~ORVEX_CountAtEnd() { ORVEX_atomic_increment_64(counter); }
};
