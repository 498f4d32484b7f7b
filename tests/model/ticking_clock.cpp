// A platform for one thread: clocks that tick when they are read, a usleep that
// does not sleep. Both leave traces.
#include "model/ticking_clock.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

TickingClock* currentClock = nullptr;

// Not a whole second, so that elapsed times need the borrow.
constexpr uint64_t kMonotonicTickNs = 700000001;

timespec TimespecOf(uint64_t ns) {
  timespec time{};
  time.tv_sec = static_cast<time_t>(ns / 1000000000);
  time.tv_nsec = static_cast<long>(ns % 1000000000);
  return time;
}

}  // namespace

TickingClock::~TickingClock() {
  if (currentClock == this) currentClock = nullptr;
}

void TickingClock::MakeCurrent() { currentClock = this; }

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (currentClock != nullptr && clock == CLOCK_REALTIME) {
    *now = TimespecOf(++currentClock->realTimeNs);
    return 0;
  }
  if (currentClock != nullptr && clock == CLOCK_MONOTONIC) {
    ++currentClock->monotonicReadings;
    *now = TimespecOf(currentClock->monotonicNs += kMonotonicTickNs);
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}

extern "C" int usleep(useconds_t microseconds) {
  if (currentClock != nullptr) {
    ++currentClock->sleeps;
    currentClock->sleptUs += microseconds;
    return 0;
  }
  timespec pause = TimespecOf(uint64_t{microseconds} * 1000);
  return nanosleep(&pause, nullptr);
}
