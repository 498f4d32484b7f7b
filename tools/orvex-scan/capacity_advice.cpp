#include "capacity_advice.h"

#include <fmt/format.h>

#include <algorithm>

namespace orvexscan {

std::string CapacityAdvice(const Options& options, size_t files) {
  const auto capacity = static_cast<size_t>(options.capacity);
  if (files <= capacity) return {};
  if (options.processes) {
    return fmt::format(
        "{} files are mapped, but a cache keeps {} entries: files that few processes map are "
        "evicted before they are asked about again.",
        files, capacity);
  }
  std::string advice = fmt::format(
      "{} files are walked in order, but a cache keeps {} entries: each file is evicted before "
      "its turn comes round, so a second pass cannot hit. Walk at most {} files at a time",
      files, capacity, ORVEX_MAX_CAPACITY);
  if (capacity < ORVEX_MAX_CAPACITY) {
    advice +=
        fmt::format(", with --capacity {} or more", std::min<size_t>(files, ORVEX_MAX_CAPACITY));
  }
  return advice + ".";
}

}  // namespace orvexscan
