// A count of the calls in flight, held for the length of a scope.
#include "support/orvex_scope_ref_cnt.h"

ORVEX_ScopeRefCnt::ORVEX_ScopeRefCnt(void volatile* cell, int bits) : counter(cell), width(bits) {
  if (width == 32) {
    ORVEX_atomic_increment_32(static_cast<int volatile*>(counter));
  } else if (width == 64) {
    ORVEX_atomic_increment_64(static_cast<long long volatile*>(counter));
  }
}

ORVEX_ScopeRefCnt::~ORVEX_ScopeRefCnt() {
  if (width == 32) {
    ORVEX_atomic_decrement_32(static_cast<int volatile*>(counter));
  } else if (width == 64) {
    ORVEX_atomic_decrement_64(static_cast<long long volatile*>(counter));
  }
}
