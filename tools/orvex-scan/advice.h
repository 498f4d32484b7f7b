// What a run's own figures say could be done better.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "options.h"
#include "pass_report.h"

namespace orvexscan {

/// One sentence a line, without a newline at the end; empty when all is well.
std::string Advice(const Options& options, size_t files, const std::vector<PassReport>& passes);

}  // namespace orvexscan
