// How long the harnesses of the tests run.
#pragma once

#include <cstdlib>

// True with ORVEXENG_DEEP in the environment: the form for a night, not for every
// change. Run the program itself then, since ctest ends a test after a minute.
inline bool IsDeepForm() { return std::getenv("ORVEXENG_DEEP") != nullptr; }

template <typename Amount>
Amount InDeepForm(Amount deep, Amount everyChange) {
  return IsDeepForm() ? deep : everyChange;
}
