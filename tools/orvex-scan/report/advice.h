// What a run's own figures say could be done better.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ask/pass_report.h"
#include "options.h"

namespace orvexscan {

/// One sentence a line, without a newline at the end; empty when all is well.
std::string Advice(const Options& options, size_t files, const std::vector<PassReport>& passes);

}  // namespace orvexscan
