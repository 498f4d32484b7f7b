// Advice drawn from a run's own figures.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ask/pass_report.h"

namespace orvexscan {

// What the figures were measured with.
struct Setting {
  bool processes = false;
  int threads = 1;
  int capacity = ORVEX_MAX_CAPACITY;
};

// One sentence per line, without a newline at the end; empty when all is well.
std::string Advice(const Setting& setting, size_t files, const std::vector<PassReport>& passes);

}  // namespace orvexscan
