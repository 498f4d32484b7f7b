// One object of a class per process.
#pragma once

#include <new>

#include "orvexeng.h"
#include "support/orvex_annotations.h"
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
  // Destroyed after the object, since it is built before.
  struct Successor {
    ~Successor() { new (GetInstance()) T(); }
  };

  static T* Build();
  static T Built();

  // The fast path of every call but the first.
  ORVEX_LOCAL static inline T* known_ = nullptr;
};

template <typename T>
T* ORVEX_Singleton<T>::GetInstance() {
  T* const known = ORVEX_LoadAcquire(known_);
  return known != nullptr ? known : Build();
}

template <typename T>
__attribute__((noinline)) T* ORVEX_Singleton<T>::Build() {
  static T instance = Built();
  ORVEX_StoreRelease(known_, &instance);
  return &instance;
}

template <typename T>
T ORVEX_Singleton<T>::Built() {
  static const Successor successor;
  return T();
}
