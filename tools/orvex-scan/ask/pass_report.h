// What is measured during a pass.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "ask/asker.h"
#include "orvexeng.h"

namespace orvexscan {

// One pass over all visits, or the watching that follows.
struct PassReport {
  int number = 0;         // from 1
  bool watching = false;  // a visit is a look at a file that may have changed
  uint64_t visits = 0;
  uint64_t failed = 0;
  uint64_t unsettled = 0;     // answered, but not kept: the file was too young
  uint64_t fromSnapshot = 0;  // answered from an earlier scan's snapshot
  uint64_t bytesHashed = 0;   // read for the digests
  uint64_t bytesSaved = 0;    // not read: the digests came from the cache
  double wallSeconds = 0;
  double hashSeconds = 0;  // summed over the workers
  // The parts of hashing, and finding types, summed over the workers.
  double readingSeconds = 0;
  double digestSeconds = 0;
  double typeSeconds = 0;
  double signerSeconds = 0;
  double savedSeconds = 0;   // hashing bytesSaved at the measured rate
  orvex_metrics_s engine{};  // what the engine counted in this pass
};

// Measures from construction on, which resets the engine's counters.
//
// Threads: one.
class PassMeasurement {
 public:
  PassMeasurement();

  // Adds one asker's tally.
  void Add(const Tally& tally);
  // Adds the pass to *passes, which give the hashing rate so far. Throws std::runtime_error if the
  // engine does not return its counters.
  void Finish(std::vector<PassReport>* passes);

 private:
  PassReport report_;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace orvexscan
