// Instants as people and programs read them.
#pragma once

#include <chrono>
#include <string>

namespace orvexscan {

// The instant in UTC, to the millisecond: "2026-11-21T13:32:28.123Z".
std::string UtcText(std::chrono::system_clock::time_point time);

}  // namespace orvexscan
