// Timed scopes.
#include "support/orvex_profiling.h"

#include <utility>

#include "support/orvex_log.h"

namespace {

constexpr long kNanosecondsPerSecond = 1000000000;

timespec Elapsed(const timespec& start, const timespec& stop) {
  timespec elapsed{};
  elapsed.tv_sec = stop.tv_sec - start.tv_sec;
  elapsed.tv_nsec = stop.tv_nsec - start.tv_nsec;
  if (elapsed.tv_nsec < 0) {
    elapsed.tv_nsec += kNanosecondsPerSecond;
    elapsed.tv_sec -= 1;
  }
  return elapsed;
}

void Print(const char* name, const timespec& elapsed) {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, "PrintProfilingResult", "orvex_profiling",
                    "[PROFILING] %s used %ld (s) and %ld (ns)", name,
                    static_cast<long>(elapsed.tv_sec), elapsed.tv_nsec);
}

}  // namespace

bool ORVEX_Profiling::EnableProfiling = false;

ORVEX_Profiling::ORVEX_Profiling() : ORVEX_Profiling("Default") {}

ORVEX_Profiling::ORVEX_Profiling(std::string scopeName) : name_(std::move(scopeName)) {
  if (ORVEX_LoadRelaxed(EnableProfiling)) StartProfiling();
}

ORVEX_Profiling::~ORVEX_Profiling() {
  if (!ORVEX_LoadRelaxed(EnableProfiling)) return;
  StopProfiling();
  elapsedTime_ = Elapsed(startTime_, stopTime_);
  PrintProfilingResult();
}

void ORVEX_Profiling::StartProfiling() { clock_gettime(CLOCK_MONOTONIC, &startTime_); }

void ORVEX_Profiling::StopProfiling() { clock_gettime(CLOCK_MONOTONIC, &stopTime_); }

void ORVEX_Profiling::PrintProfilingResult() { Print(name_.c_str(), elapsedTime_); }

void ORVEX_ProfilingScope::Report() const {
  timespec stop{};
  clock_gettime(CLOCK_MONOTONIC, &stop);
  Print(name_, Elapsed(startTime_, stop));
}
