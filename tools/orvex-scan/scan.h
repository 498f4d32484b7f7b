// Asks the engine about every file, as often as wanted.
#pragma once

#include <cstdint>
#include <vector>

#include "inventory.h"
#include "options.h"
#include "orvexeng.h"
#include "progress.h"

namespace orvexscan {

// One pass over all visits.
struct PassReport {
  int number = 0;
  uint64_t visits = 0;
  uint64_t failed = 0;
  uint64_t unsettled = 0;    ///< answered, but not kept: the file was too young
  uint64_t bytesHashed = 0;  ///< read for the digests
  uint64_t bytesSaved = 0;   ///< not read, as the digests came from the cache
  double wallSeconds = 0;
  double hashSeconds = 0;    ///< summed over the workers
  double savedSeconds = 0;   ///< what hashing bytesSaved would have taken, at the rate measured
  orvex_metrics_s engine{};  ///< what the engine counted in this pass
};

/// Runs all passes over *inventory, which receives what is found, and returns one report
/// for each. Starts the engine and stops it again.
///
/// Throws std::runtime_error when the engine, libmagic or OpenSSL cannot be started.
std::vector<PassReport> Scan(const Options& options, Inventory* inventory, Progress* progress);

}  // namespace orvexscan
