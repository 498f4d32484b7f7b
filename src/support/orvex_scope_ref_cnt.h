// A count of the calls in flight, held for the length of a scope.
#pragma once

#include "support/orvex_atomic.h"

// Increments a counter and decrements it again, however the scope ends. For hosts: the library
// itself does not use it.
//
// Ownership: the cell stays its owner's and must outlive the scope.
class ORVEX_API ORVEX_ScopeRefCnt {
 public:
  explicit ORVEX_ScopeRefCnt(int volatile* cell) : ORVEX_ScopeRefCnt(cell, 32) {}
  explicit ORVEX_ScopeRefCnt(long long volatile* cell) : ORVEX_ScopeRefCnt(cell, 64) {}
  // bits is the width of the cell, 32 or 64. With any other width it counts nothing.
  ORVEX_ScopeRefCnt(void volatile* cell, int bits);
  ~ORVEX_ScopeRefCnt();
  ORVEX_ScopeRefCnt(const ORVEX_ScopeRefCnt&) = delete;
  ORVEX_ScopeRefCnt& operator=(const ORVEX_ScopeRefCnt&) = delete;

 private:
  void volatile* counter_;
  int width_;
};
