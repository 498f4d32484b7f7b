// Timed scopes.
#include "support/orvex_profiling.h"

#include <utility>

#include "support/orvex_log.h"

namespace {
constexpr long kNanosecondsPerSecond = 1000000000;
}

bool ORVEX_Profiling::EnableProfiling = false;

ORVEX_Profiling::ORVEX_Profiling() : ORVEX_Profiling("Default") {}

ORVEX_Profiling::ORVEX_Profiling(std::string scopeName) : name_(std::move(scopeName)) {
  if (ORVEX_LoadRelaxed(EnableProfiling)) StartProfiling();
}

ORVEX_Profiling::ORVEX_Profiling(const char* scopeName) : borrowedName_(scopeName) {
  if (ORVEX_LoadRelaxed(EnableProfiling)) StartProfiling();
}

ORVEX_Profiling::~ORVEX_Profiling() {
  if (!ORVEX_LoadRelaxed(EnableProfiling)) return;
  StopProfiling();
  elapsedTime_.tv_sec = stopTime_.tv_sec - startTime_.tv_sec;
  elapsedTime_.tv_nsec = stopTime_.tv_nsec - startTime_.tv_nsec;
  if (elapsedTime_.tv_nsec < 0) {
    elapsedTime_.tv_nsec += kNanosecondsPerSecond;
    elapsedTime_.tv_sec -= 1;
  }
  PrintProfilingResult();
}

void ORVEX_Profiling::StartProfiling() { clock_gettime(CLOCK_MONOTONIC, &startTime_); }

void ORVEX_Profiling::StopProfiling() { clock_gettime(CLOCK_MONOTONIC, &stopTime_); }

void ORVEX_Profiling::PrintProfilingResult() {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, "orvex_profiling", "[PROFILING] %s used %ld (s) and %ld (ns)",
                    borrowedName_ != nullptr ? borrowedName_ : name_.c_str(),
                    static_cast<long>(elapsedTime_.tv_sec), elapsedTime_.tv_nsec);
}
