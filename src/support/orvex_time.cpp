// The wall clock in nanoseconds, and conversions between units of time.
#include "support/orvex_time.h"

#include <time.h>

unsigned long long ORVEXTimeGetTimeStampNS() noexcept {
  // Zero first: a clock that cannot be read gives 0, not stack contents.
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<unsigned long long>(static_cast<long long>(now.tv_sec) * 1000000000 +
                                         now.tv_nsec);
}

unsigned long long ORVEXTimeNsToSec(unsigned long long ns) noexcept { return ns / 1000000000; }

unsigned long long ORVEXTimeNsToMs(unsigned long long ns) noexcept { return ns / 1000000; }

unsigned long long ORVEXTimeNsToUs(unsigned long long ns) noexcept { return ns / 1000; }

unsigned long long ORVEXTimeSecToMs(unsigned long long sec) noexcept { return sec * 1000; }

unsigned long long ORVEXTimeSecToUs(unsigned long long sec) noexcept { return sec * 1000000; }

unsigned long long ORVEXTimeSecToNs(unsigned long long sec) noexcept { return sec * 1000000000; }

unsigned long long ORVEXTimeMsToSec(unsigned long long ms) noexcept { return ms / 1000; }

unsigned long long ORVEXTimeMsToUs(unsigned long long ms) noexcept { return ms * 1000; }

unsigned long long ORVEXTimeMsToNs(unsigned long long ms) noexcept { return ms * 1000000; }

unsigned long long ORVEXTimeUsToSec(unsigned long long us) noexcept { return us / 1000000; }

unsigned long long ORVEXTimeUsToMs(unsigned long long us) noexcept { return us / 1000; }

unsigned long long ORVEXTimeUsToNs(unsigned long long us) noexcept { return us * 1000; }
