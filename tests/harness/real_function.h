// The system's function behind one that a test stands in for.
#pragma once

#include <dlfcn.h>

#include "harness/sanitizers.h"

// The next definition of this name after the test program's own.
template <typename Function>
Function* RealFunction(const char* name) {
  void* real = nullptr;
#if !ORVEXENG_CHECKS_THREADS
  // Conditions have two versions, and without a word the older one is handed out.
  // A race detector's own functions have none, and must not be passed by.
  real = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
#endif
  if (real == nullptr) real = dlsym(RTLD_NEXT, name);
  return reinterpret_cast<Function*>(real);
}
