// A run of the engine in which everything happens once.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "harness/engine_under_test.h"

using Steps = std::vector<std::string>;

// Starts the engine, asks both caches everything they distinguish - miss, hit,
// partial hit, out of date, kept or not, evicting, cache-only, failing host -
// calls every other exported function, and stops. On one thread and without a
// lock of its own, so that a test can make the n-th call of anything fail.
class WholeLife {
 public:
  WholeLife();

  // The result of each step: "name=code", or "name=thrown" for an exception of a
  // callback; for a query followed by resultReady and the bits of the answer, at
  // the end the counters.
  Steps Tell();

  // Called by either callback in place of an answer when it is set.
  std::function<void()> onHostCall;
  // Called after each step with its name.
  std::function<void(const char*)> afterStep;

 private:
  void Step(const char* name, const std::function<int()>& call);
  void Ask(const char* name, const metadata_input_s& in);

  Host host_;
  Steps steps_;
};
