// A usleep that returns at once and records its arguments.
#include "harness/counted_sleep.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

namespace {
CountedSleep* current = nullptr;
}

CountedSleep::CountedSleep() { current = this; }

CountedSleep::~CountedSleep() { current = nullptr; }

extern "C" int usleep(useconds_t microseconds) {
  if (current == nullptr) {
    timespec pause{};
    pause.tv_nsec = static_cast<long>(microseconds) * 1000;  // The library pauses less than 1 s.
    return nanosleep(&pause, nullptr);
  }
  ++current->sleeps;
  current->microseconds += microseconds;
  if (current->onSleep) current->onSleep();
  if (!current->interrupted) return 0;
  errno = EINTR;
  return -1;
}
