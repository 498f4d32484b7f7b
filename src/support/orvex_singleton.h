// One object of a class per process.
#pragma once

#include <cstdlib>
#include <new>

#include "orvexeng.h"
#include "support/orvex_atomic.h"

// Threads: concurrent first calls build the object once.
// Ownership: built on first use, destroyed at process exit or when the library
// is unloaded, in the reverse order of construction. A new object, which is never
// destroyed, then takes its place: a host's exit handlers and the destructors of
// its globals may still call in.
//
// The classes of the library declare their instantiation extern, so that a host
// which includes their headers gets the library's object and not its own.
template <typename T>
class ORVEX_API ORVEX_Singleton {
 public:
  static T* GetInstance();

 private:
  static T Built();
};

template <typename T>
T* ORVEX_Singleton<T>::GetInstance() {
  // The gaps in T that fill up a cache line count on T beginning one.
  alignas(kCacheLineBytes) static T instance = Built();
  return &instance;
}

// Registered before the object is built, and so called after it is destroyed.
template <typename T>
T ORVEX_Singleton<T>::Built() {
  static_cast<void>(std::atexit([] { new (GetInstance()) T(); }));
  return T();
}
