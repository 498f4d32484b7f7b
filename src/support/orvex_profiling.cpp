// Timed scopes.
#include "support/orvex_profiling.h"

#include <utility>

#include "support/orvex_log.h"

namespace {
constexpr long kNanosecondsPerSecond = 1000000000;
}

bool ORVEX_Profiling::EnableProfiling = false;

ORVEX_Profiling::ORVEX_Profiling() : ORVEX_Profiling("Default") {}

ORVEX_Profiling::ORVEX_Profiling(std::string scopeName) : name(std::move(scopeName)) {
  if (ORVEX_LoadRelaxed(EnableProfiling)) StartProfiling();
}

ORVEX_Profiling::ORVEX_Profiling(const char* scopeName) : borrowedName(scopeName) {
  if (ORVEX_LoadRelaxed(EnableProfiling)) StartProfiling();
}

ORVEX_Profiling::~ORVEX_Profiling() {
  if (!ORVEX_LoadRelaxed(EnableProfiling)) return;
  StopProfiling();
  elapsedTime.tv_sec = stopTime.tv_sec - startTime.tv_sec;
  elapsedTime.tv_nsec = stopTime.tv_nsec - startTime.tv_nsec;
  if (elapsedTime.tv_nsec < 0) {
    elapsedTime.tv_nsec += kNanosecondsPerSecond;
    elapsedTime.tv_sec -= 1;
  }
  PrintProfilingResult();
}

void ORVEX_Profiling::StartProfiling() { clock_gettime(CLOCK_MONOTONIC, &startTime); }

void ORVEX_Profiling::StopProfiling() { clock_gettime(CLOCK_MONOTONIC, &stopTime); }

void ORVEX_Profiling::PrintProfilingResult() {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, "orvex_profiling", "[PROFILING] %s used %ld (s) and %ld (ns)",
                    borrowedName != nullptr ? borrowedName : name.c_str(),
                    static_cast<long>(elapsedTime.tv_sec), elapsedTime.tv_nsec);
}
