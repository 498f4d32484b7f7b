// Asks the engine about every file, as often as wanted.
#pragma once

#include <vector>

#include "ask/pass_report.h"
#include "inventory/inventory.h"
#include "options.h"
#include "terminal/progress.h"

namespace orvexscan {

/// Runs all passes over *inventory, which receives what is found, and returns one report
/// for each. The engine must be running.
///
/// Throws std::runtime_error when libmagic or OpenSSL cannot be started.
std::vector<PassReport> Scan(const Options& options, Inventory* inventory, Progress* progress);

}  // namespace orvexscan
