// Asks the engine about every file, in one or more passes.
#pragma once

#include <functional>
#include <vector>

#include "ask/pass_report.h"
#include "inventory/inventory.h"
#include "orvexeng.hpp"
#include "terminal/progress.h"

namespace orvexscan {

struct ScanningRules {
  ReadingRules reading;
  // Called for each file as soon as it has been read or has failed, from any number of threads at
  // once. May be empty.
  std::function<void(const FileRecord&)> onFile;
  int threads;  // at most: fewer, and a note, if the system grants no more
  int passes;
};

// Runs all passes over *inventory, which receives the results, and returns one report for each.
//
// Throws std::runtime_error if libmagic or OpenSSL cannot be started.
std::vector<PassReport> Scan(orvexeng::engine* engine, const ScanningRules& rules,
                             Inventory* inventory, Progress* progress);

}  // namespace orvexscan
