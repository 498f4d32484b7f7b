// When the caches are too small for what is asked of them.
#pragma once

#include <cstddef>
#include <string>

#include "options.h"

namespace orvexscan {

/// Says why later passes cannot be answered from the caches; empty when they can.
std::string CapacityAdvice(const Options& options, size_t files);

}  // namespace orvexscan
