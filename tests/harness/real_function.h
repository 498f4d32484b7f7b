// The system function behind one that a test replaces.
#pragma once

#include <dlfcn.h>

#include "harness/sanitizers.h"

// The next definition of this name after the test program's own.
template <typename Function>
Function* RealFunction(const char* name) {
  void* real = nullptr;
#if !ORVEXENG_CHECKS_THREADS
  // Condition functions have two versions; plain dlsym returns the older one. A race
  // detector's own functions have none, and must not be bypassed.
  real = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
#endif
  if (real == nullptr) real = dlsym(RTLD_NEXT, name);
  return reinterpret_cast<Function*>(real);
}
