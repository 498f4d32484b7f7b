#include "terminal/utc_time.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace orvexscan {

std::string UtcText(std::chrono::system_clock::time_point time) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  return fmt::format("{:%FT%T}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(time)),
                     milliseconds);
}

}  // namespace orvexscan
