// The wall clock and conversions between units of time.
#include <doctest/doctest.h>

#include "harness/scripted_clock.h"
#include "support/orvex_time.h"

TEST_CASE("conversions to a coarser unit truncate") {
  CHECK(ORVEXTimeNsToSec(999999999) == 0);
  CHECK(ORVEXTimeNsToSec(1999999999) == 1);
  CHECK(ORVEXTimeNsToMs(1999999) == 1);
  CHECK(ORVEXTimeNsToUs(1999) == 1);
  CHECK(ORVEXTimeMsToSec(1999) == 1);
  CHECK(ORVEXTimeUsToSec(1999999) == 1);
  CHECK(ORVEXTimeUsToMs(1999) == 1);
}

TEST_CASE("conversions to a coarser unit divide unsigned numbers") {
  constexpr unsigned long long kLargest = 18446744073709551615u;
  CHECK(ORVEXTimeNsToSec(kLargest) == 18446744073);
  CHECK(ORVEXTimeNsToMs(kLargest) == 18446744073709);
  CHECK(ORVEXTimeNsToUs(kLargest) == 18446744073709551);
  CHECK(ORVEXTimeMsToSec(kLargest) == 18446744073709551);
  CHECK(ORVEXTimeUsToSec(kLargest) == 18446744073709);
  CHECK(ORVEXTimeUsToMs(kLargest) == 18446744073709551);
}

TEST_CASE("conversions to a finer unit multiply") {
  CHECK(ORVEXTimeSecToMs(3) == 3000);
  CHECK(ORVEXTimeSecToUs(3) == 3000000);
  CHECK(ORVEXTimeSecToNs(3) == 3000000000);
  CHECK(ORVEXTimeMsToUs(3) == 3000);
  CHECK(ORVEXTimeMsToNs(3) == 3000000);
  CHECK(ORVEXTimeUsToNs(3) == 3000);
}

TEST_CASE("conversions to a finer unit wrap beyond 64 bits") {
  CHECK(ORVEXTimeSecToNs(18446744073) == 18446744073000000000u);
  CHECK(ORVEXTimeSecToNs(18446744074) == 290448384);
}

TEST_CASE("a timestamp is the wall clock in nanoseconds since 1970") {
  ScriptedClock clock;
  clock.realTime = {{1700000000, 123456789}};
  CHECK(ORVEXTimeGetTimeStampNS() == 1700000000123456789);
  CHECK(clock.realTimeReadings == 1);
  CHECK(clock.monotonicReadings == 0);
}

TEST_CASE("a timestamp beyond 32 bits of nanoseconds is not cut") {
  ScriptedClock clock;
  clock.realTime = {{2147483647, 999999999}};
  CHECK(ORVEXTimeGetTimeStampNS() == 2147483647999999999);
}

TEST_CASE("a clock that cannot be read gives the timestamp 0") {
  ScriptedClock clock;
  clock.broken = true;
  CHECK(ORVEXTimeGetTimeStampNS() == 0);
}
