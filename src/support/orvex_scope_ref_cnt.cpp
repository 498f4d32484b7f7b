// A count of the calls in flight, held for the length of a scope.
#include "support/orvex_scope_ref_cnt.h"

ORVEX_ScopeRefCnt::ORVEX_ScopeRefCnt(void volatile* cell, int bits) : counter_(cell), width_(bits) {
  if (width_ == 32) {
    ORVEX_atomic_increment_32(static_cast<int volatile*>(counter_));
  } else if (width_ == 64) {
    ORVEX_atomic_increment_64(static_cast<long long volatile*>(counter_));
  }
}

ORVEX_ScopeRefCnt::~ORVEX_ScopeRefCnt() {
  if (width_ == 32) {
    ORVEX_atomic_decrement_32(static_cast<int volatile*>(counter_));
  } else if (width_ == 64) {
    ORVEX_atomic_decrement_64(static_cast<long long volatile*>(counter_));
  }
}
