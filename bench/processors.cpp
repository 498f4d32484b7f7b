#include "processors.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>

namespace cost {
namespace {

TwoProcessors FindProcessors() {
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
    throw std::runtime_error("bench: sched_getaffinity");
  TwoProcessors found{-1, -1};
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (!CPU_ISSET(static_cast<size_t>(processor), &allowed)) continue;
    if (found.first < 0) found.first = processor;
    found.second = processor;
  }
  return found;
}

}  // namespace

const TwoProcessors& Processors() {
  static const TwoProcessors found = FindProcessors();
  return found;
}

Pinned::Pinned(int processor) {
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(static_cast<size_t>(processor), &only);
  if (sched_getaffinity(0, sizeof before_, &before_) != 0 ||
      sched_setaffinity(0, sizeof only, &only) != 0) {
    throw std::runtime_error("bench: sched_setaffinity");
  }
}

Pinned::~Pinned() { sched_setaffinity(0, sizeof before_, &before_); }

TickClock::TickClock() {
  using Clock = std::chrono::steady_clock;
  std::array<uint64_t, 1001> costs{};
  for (uint64_t& cost : costs) {
    const uint64_t begin = Now();
    cost = Now() - begin;
  }
  std::nth_element(costs.begin(), costs.begin() + costs.size() / 2, costs.end());
  cost_ = costs[costs.size() / 2];

  const auto begin = Clock::now();
  const uint64_t ticksBegin = Now();
  while (Clock::now() - begin < std::chrono::milliseconds(20)) {
  }
  const std::chrono::duration<double, std::nano> passed = Clock::now() - begin;
  nsPerTick_ = passed.count() / static_cast<double>(Now() - ticksBegin);
}

}  // namespace cost
