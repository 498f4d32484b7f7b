// Asks the engine about every file, as often as wanted.
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
  // Told of each file that was read or failed, as soon as that is known. May be empty; is
  // called by any number of threads at once.
  std::function<void(const FileRecord&)> onFile;
  int threads;  // at most: fewer, and a note, if the system grants no more
  int passes;
};

// Runs all passes over *inventory, which receives what is found, and returns one report
// for each.
//
// Throws std::runtime_error when libmagic or OpenSSL cannot be started.
std::vector<PassReport> Scan(orvexeng::engine* engine, const ScanningRules& rules,
                             Inventory* inventory, Progress* progress);

}  // namespace orvexscan
