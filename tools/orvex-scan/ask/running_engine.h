// The engine, started and stopped again.
#pragma once

namespace orvexscan {

// The engine, running while this lives: at most one at a time, and longer than whatever
// asks it.
//
// Threads: one; others may ask the engine meanwhile.
class RunningEngine {
 public:
  /// Each cache keeps capacity entries. Throws std::runtime_error if the engine refuses.
  explicit RunningEngine(int capacity);
  ~RunningEngine();
  RunningEngine(const RunningEngine&) = delete;
  RunningEngine& operator=(const RunningEngine&) = delete;
};

}  // namespace orvexscan
