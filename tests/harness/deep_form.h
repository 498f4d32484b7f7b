// How long the long-running tests run.
#pragma once

#include <cstdlib>

// True with ORVEXENG_DEEP in the environment: for a nightly run, not for every change.
// Run the program directly then: ctest ends a test after a minute.
inline bool IsDeepForm() { return std::getenv("ORVEXENG_DEEP") != nullptr; }

template <typename Amount>
Amount InDeepForm(Amount deep, Amount everyChange) {
  return IsDeepForm() ? deep : everyChange;
}
