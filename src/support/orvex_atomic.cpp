// Atomic operations on plain counters and flags.
#include "support/orvex_atomic.h"

int ORVEX_atomic_add_32(int volatile* cell, int delta) { return __sync_fetch_and_add(cell, delta); }

int ORVEX_atomic_read_32(int volatile* cell) { return ORVEX_atomic_add_32(cell, 0); }

int ORVEX_atomic_increment_32(int volatile* cell) { return ORVEX_atomic_add_32(cell, 1); }

int ORVEX_atomic_decrement_32(int volatile* cell) { return ORVEX_atomic_add_32(cell, -1); }

// The __sync form and not __atomic: for a cell of 4-byte alignment, as 32-bit
// x86 gives a long long, clang turns the latter into a call of a library that
// nothing else here needs. Both compile to the locked 8-byte compare-exchange.
long long ORVEX_atomic_add_64(long long volatile* cell, long long delta) {
  return __sync_fetch_and_add(cell, delta);
}

// An addition of 0 and not a load: a 64-bit load can be torn on 32-bit x86.
long long ORVEX_atomic_read_64(long long volatile* cell) { return ORVEX_atomic_add_64(cell, 0); }

long long ORVEX_atomic_increment_64(long long volatile* cell) {
  return ORVEX_atomic_add_64(cell, 1);
}

long long ORVEX_atomic_decrement_64(long long volatile* cell) {
  return ORVEX_atomic_add_64(cell, -1);
}
