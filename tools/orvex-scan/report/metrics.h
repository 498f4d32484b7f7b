// The figures of a run for a monitoring system.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ask/pass_report.h"

namespace orvexscan {

// One value of a metric. Both label texts are empty for a metric of one value.
struct Sample {
  std::string label;
  std::string labelValue;
  nlohmann::json value;  // a number
};

struct Metric {
  std::string name;
  std::string help;
  std::string type;  // "counter" or "gauge"
  std::vector<Sample> samples;
};

// All counters, summed over all passes. files is the number of files; walkFailures more could not
// even be gathered.
std::vector<Metric> MetricsOf(const std::vector<PassReport>& passes, size_t files,
                              size_t walkFailures);

// The text exposition format, version 0.0.4.
std::string PrometheusText(const std::vector<Metric>& metrics);

// One object with a key for each metric: its number, or an object with a number for each
// value of its label.
std::string JsonText(const std::vector<Metric>& metrics);

}  // namespace orvexscan
