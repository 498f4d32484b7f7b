// Timed scopes.
#pragma once

#include <time.h>

#include <string>

#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"

// Logs how long the scope it stands in took, at INFO, when profiling is on. For hosts: the library
// itself uses only its switch.
//
// Either end checks the switch by itself: only a scope that lies entirely within an "on" period
// reports a meaningful time. With profiling off it reads no clock and costs a flag test at each
// end, besides keeping the name.
// Threads: an object belongs to one thread.
class ORVEX_API ORVEX_Profiling {
 public:
  ORVEX_Profiling();
  // Keeps a copy of the name.
  explicit ORVEX_Profiling(std::string scopeName);
  virtual ~ORVEX_Profiling();
  ORVEX_Profiling(const ORVEX_Profiling&) = delete;
  ORVEX_Profiling& operator=(const ORVEX_Profiling&) = delete;

  void StartProfiling();
  void StopProfiling();
  void PrintProfilingResult();

  // The host may set it directly, or through orvex_profiling_set_enable.
  static bool EnableProfiling;

 private:
  // Zero until set, so that a scope which began while profiling was off prints a wrong time rather
  // than stack contents.
  timespec startTime_{};  // CLOCK_MONOTONIC, like stopTime_
  timespec stopTime_{};
  timespec elapsedTime_{};
  std::string name_;
};

// The same for the library's own scopes, which every query enters: it keeps only a pointer to its
// name, never fails, and tests the flag inline.
class ORVEX_LOCAL ORVEX_ProfilingScope {
 public:
  // The name must outlive the scope.
  explicit ORVEX_ProfilingScope(const char* name) : name_(name) {
    if (IsOn()) clock_gettime(CLOCK_MONOTONIC, &startTime_);
  }
  ~ORVEX_ProfilingScope() {
    if (IsOn()) Report();
  }
  ORVEX_ProfilingScope(const ORVEX_ProfilingScope&) = delete;
  ORVEX_ProfilingScope& operator=(const ORVEX_ProfilingScope&) = delete;

  static bool IsOn() { return ORVEX_LoadRelaxed(ORVEX_Profiling::EnableProfiling); }

 private:
  __attribute__((noinline)) void Report() const;

  const char* name_;
  timespec startTime_{};
};
