// What is measured while files are asked about.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "ask/asker.h"
#include "orvexeng.h"

namespace orvexscan {

// One pass over all visits, or the time of watching after them.
struct PassReport {
  int number = 0;         // from 1
  bool watching = false;  // a visit is a look at a file that may have changed
  uint64_t visits = 0;
  uint64_t failed = 0;
  uint64_t unsettled = 0;     // answered, but not kept: the file was too young
  uint64_t fromSnapshot = 0;  // answered with what an earlier scan found out
  uint64_t bytesHashed = 0;   // read for the digests
  uint64_t bytesSaved = 0;    // not read, as the digests came from the cache
  double wallSeconds = 0;
  double hashSeconds = 0;  // summed over the workers
  // Of it, and of finding types, summed over the workers.
  double readingSeconds = 0;
  double digestSeconds = 0;
  double typeSeconds = 0;
  double signerSeconds = 0;
  double savedSeconds = 0;   // what hashing bytesSaved would have taken, at the rate measured
  orvex_metrics_s engine{};  // what the engine counted in this pass
};

// Measures from its construction on, the engine's counters from zero.
//
// Threads: one.
class PassMeasurement {
 public:
  PassMeasurement();

  // Adds what one of those who asked counted.
  void Add(const Tally& tally);
  // Adds the pass to *passes, which gave the rate of hashing so far. Throws
  // std::runtime_error when the engine does not tell its counters.
  void Finish(std::vector<PassReport>* passes);

 private:
  PassReport report_;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace orvexscan
