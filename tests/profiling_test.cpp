// Timed scopes.
#include <doctest/doctest.h>

#include <string>

#include "harness/recorded_log.h"
#include "harness/scripted_clock.h"
#include "support/orvex_profiling.h"

namespace {

std::string ResultOf(const char* name, long seconds, long nanoseconds) {
  return Lines({"INFO PrintProfilingResult orvex_profiling: [PROFILING] " + std::string(name) +
                " used " + std::to_string(seconds) + " (s) and " + std::to_string(nanoseconds) +
                " (ns)"});
}

}  // namespace

TEST_CASE("profiling is off unless somebody switches it on") {
  CHECK_FALSE(ORVEX_Profiling::EnableProfiling);
}

TEST_CASE("with profiling off nothing is logged and no clock is read") {
  RecordedLog log;
  ScriptedClock clock;
  { const ORVEX_Profiling scope("scope"); }
  { const ORVEX_Profiling scope(std::string("scope")); }
  { const ORVEX_Profiling scope; }
  CHECK(log.TakeTranscript() == "");
  CHECK(clock.monotonicReadings == 0);
  CHECK(clock.realTimeReadings == 0);
}

TEST_CASE("a scope of 1.5 seconds prints 1 second and 500000000 nanoseconds") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  clock.monotonic = {{10, 100000000}, {11, 600000000}};
  { const ORVEX_Profiling scope("scope"); }
  CHECK(log.TakeTranscript() == ResultOf("scope", 1, 500000000));
}

TEST_CASE("elapsed nanoseconds below zero borrow a second") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  clock.monotonic = {{0, 900000000}, {2, 100000000}};
  { const ORVEX_Profiling scope("scope"); }
  CHECK(log.TakeTranscript() == ResultOf("scope", 1, 200000000));
}

TEST_CASE("a scope reads the monotonic clock twice and no other") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  { const ORVEX_Profiling scope("scope"); }
  CHECK(clock.monotonicReadings == 2);
  CHECK(clock.realTimeReadings == 0);
}

TEST_CASE("a scope without a name is called Default") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  { const ORVEX_Profiling scope; }
  CHECK(log.TakeTranscript() == ResultOf("Default", 0, 0));
}

TEST_CASE("a scope keeps a copy of a name that it was given as a string") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  {
    std::string name = "a name of more characters than a string holds without memory";
    const ORVEX_Profiling scope(name);
    name = "changed";
  }
  CHECK(log.TakeTranscript() ==
        ResultOf("a name of more characters than a string holds without memory", 0, 0));
}

TEST_CASE("with a level below INFO the result is dropped though the time was taken") {
  RecordedLog log(ORVEX_LOG_WARNING);
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  { const ORVEX_Profiling scope("scope"); }
  CHECK(log.TakeTranscript() == "");
  CHECK(clock.monotonicReadings == 2);
}

TEST_CASE("a scope that ends with profiling off reports nothing") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  {
    const ORVEX_Profiling scope("scope");
    ORVEX_Profiling::EnableProfiling = false;
  }
  CHECK(log.TakeTranscript() == "");
  CHECK(clock.monotonicReadings == 1);
}

TEST_CASE("a scope that began with profiling off counts from the clock's zero") {
  RecordedLog log;
  ScriptedClock clock;
  clock.monotonic = {{3, 4}};
  {
    const ORVEX_Profiling scope("scope");
    ORVEX_Profiling::EnableProfiling = true;
  }
  CHECK(log.TakeTranscript() == ResultOf("scope", 3, 4));
}

TEST_CASE("a scope reports when it ends by an exception") {
  RecordedLog log;
  ORVEX_Profiling::EnableProfiling = true;
  ScriptedClock clock;
  try {
    const ORVEX_Profiling scope("scope");
    throw 1;
  } catch (int) {
  }
  CHECK(log.TakeTranscript() == ResultOf("scope", 0, 0));
}

TEST_CASE("a scope can be started, stopped and printed by hand") {
  RecordedLog log;
  ScriptedClock clock;
  ORVEX_Profiling scope("scope");
  scope.StartProfiling();
  scope.StopProfiling();
  scope.PrintProfilingResult();
  CHECK(clock.monotonicReadings == 2);
  CHECK(log.TakeTranscript() == ResultOf("scope", 0, 0));
}
