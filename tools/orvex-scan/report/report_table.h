// The report for people.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ask/scan.h"
#include "inventory/inventory.h"
#include "report/baseline.h"

namespace orvexscan {

// Prints one column for each pass, then the files without an answer and those with a malformed
// certificate table, each with its reason, and the advice if there is any. All text from outside is
// made printable first.
void PrintReport(const std::vector<PassReport>& passes, const Inventory& inventory,
                 const std::string& advice, const std::vector<Difference>& differences,
                 std::FILE* to);

}  // namespace orvexscan
