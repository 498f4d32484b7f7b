// The wall clock in nanoseconds, and conversions between units of time.
#pragma once

#include "orvexeng.h"

// Nanoseconds since 1970-01-01 00:00:00 UTC on the real-time clock. That clock
// jumps when the system time is set: differences are wall-clock differences.
ORVEX_API unsigned long long ORVEXTimeGetTimeStampNS() noexcept;

// Unsigned 64-bit arithmetic: divisions truncate, multiplications wrap. For hosts: the
// library itself converts no time.
ORVEX_API unsigned long long ORVEXTimeNsToSec(unsigned long long ns) noexcept;
ORVEX_API unsigned long long ORVEXTimeNsToMs(unsigned long long ns) noexcept;
ORVEX_API unsigned long long ORVEXTimeNsToUs(unsigned long long ns) noexcept;
ORVEX_API unsigned long long ORVEXTimeSecToMs(unsigned long long sec) noexcept;
ORVEX_API unsigned long long ORVEXTimeSecToUs(unsigned long long sec) noexcept;
ORVEX_API unsigned long long ORVEXTimeSecToNs(unsigned long long sec) noexcept;
ORVEX_API unsigned long long ORVEXTimeMsToSec(unsigned long long ms) noexcept;
ORVEX_API unsigned long long ORVEXTimeMsToUs(unsigned long long ms) noexcept;
ORVEX_API unsigned long long ORVEXTimeMsToNs(unsigned long long ms) noexcept;
ORVEX_API unsigned long long ORVEXTimeUsToSec(unsigned long long us) noexcept;
ORVEX_API unsigned long long ORVEXTimeUsToMs(unsigned long long us) noexcept;
ORVEX_API unsigned long long ORVEXTimeUsToNs(unsigned long long us) noexcept;
