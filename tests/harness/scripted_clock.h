// A clock that shows the time a test wants, and counts its readings.
#pragma once

#include <time.h>

#include <deque>

// Stands in for clock_gettime of the whole program while it lives.
//
// Threads: one.
class ScriptedClock {
 public:
  ScriptedClock();
  ~ScriptedClock();
  ScriptedClock(const ScriptedClock&) = delete;
  ScriptedClock& operator=(const ScriptedClock&) = delete;

  // What the next readings return, in order; zero when none is left.
  std::deque<timespec> monotonic;
  std::deque<timespec> realTime;
  int monotonicReadings = 0;
  int realTimeReadings = 0;
  // A clock that cannot be read returns -1 and sets nothing.
  bool broken = false;
  // The one reading that fails of both clocks together, counted from 1; 0 for none.
  int failingReading = 0;
};
