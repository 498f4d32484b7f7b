// The report for programs.
#pragma once

#include <string>
#include <vector>

#include "ask/scan.h"
#include "inventory/inventory.h"
#include "options.h"
#include "report/baseline.h"

namespace orvexscan {

// Everything as one JSON object, as docs/orvex-scan.schema.json and the manual describe
// it. Keys have a fixed order.
std::string JsonReport(const Options& options, const std::vector<PassReport>& passes,
                       const Inventory& inventory, const std::string& advice,
                       const std::vector<Difference>& differences);

// One file of that report on a single line.
std::string FileJsonLine(const FileRecord& record);

}  // namespace orvexscan
