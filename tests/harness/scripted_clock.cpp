// A clock that shows the time a test wants, and counts its readings.
#include "harness/scripted_clock.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace {

ScriptedClock* current = nullptr;

timespec Next(std::deque<timespec>& readings) {
  if (readings.empty()) return {};
  const timespec next = readings.front();
  readings.pop_front();
  return next;
}

}  // namespace

ScriptedClock::ScriptedClock() { current = this; }

ScriptedClock::~ScriptedClock() { current = nullptr; }

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (current == nullptr) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  const bool isMonotonic = clock == CLOCK_MONOTONIC;
  ++(isMonotonic ? current->monotonicReadings : current->realTimeReadings);
  const int reading = current->monotonicReadings + current->realTimeReadings;
  if (current->broken || reading == current->failingReading) return -1;
  *now = Next(isMonotonic ? current->monotonic : current->realTime);
  return 0;
}
