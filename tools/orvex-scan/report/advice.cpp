#include "report/advice.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace orvexscan {
namespace {

// What the rules judge by. Later passes would be like the last one.
struct Facts {
  const Setting& setting;
  size_t files;
  size_t capacity;
  const std::vector<PassReport>& passes;
  const PassReport& last;
};

int64_t Sum(const Facts& facts, int64_t orvex_metrics_s::*counter) {
  int64_t sum = 0;
  for (const PassReport& pass : facts.passes) sum += pass.engine.*counter;
  return sum;
}

std::string WalkLessAtOnce(const Facts& facts) {
  if (facts.setting.processes || facts.files <= facts.capacity) return {};
  std::string advice = fmt::format(
      "{} files are walked in order, but a cache keeps {} entries: each file is evicted before "
      "its turn comes round, so a second pass cannot hit. Walk at most {} files at a time",
      facts.files, facts.capacity, ORVEX_MAX_CAPACITY);
  if (facts.capacity < ORVEX_MAX_CAPACITY) {
    advice += fmt::format(", with --capacity {} or more",
                          std::min<size_t>(facts.files, ORVEX_MAX_CAPACITY));
  }
  return advice + ".";
}

std::string ExpectEvictions(const Facts& facts) {
  if (!facts.setting.processes || facts.files <= facts.capacity) return {};
  return fmt::format(
      "{} files are mapped, but a cache keeps {} entries: files that few processes map are "
      "evicted before they are asked about again.",
      facts.files, facts.capacity);
}

// What an unbounded cache would have answered in the last pass.
uint64_t PossibleHits(const Facts& facts) {
  return facts.last.number > 1 ? facts.last.visits : facts.last.visits - facts.files;
}

std::string RaiseCapacity(const Facts& facts) {
  const auto hits = static_cast<uint64_t>(facts.last.engine.cacheHit);
  const bool roomLacked = facts.last.engine.cacheWipeOuts > 0 && hits < PossibleHits(facts);
  // A walk in order gains nothing until all of it fits, which the rule for walks says.
  const bool alreadySaid = !facts.setting.processes && facts.files > facts.capacity;
  if (!roomLacked || alreadySaid || facts.capacity >= ORVEX_MAX_CAPACITY) return {};
  const size_t wanted = std::max(facts.files, 2 * facts.capacity);
  return fmt::format(
      "Pass {} hit {} times where {} were possible, and evicted {} entries: try --capacity {}.",
      facts.last.number, hits, PossibleHits(facts), facts.last.engine.cacheWipeOuts,
      std::min<size_t>(wanted, ORVEX_MAX_CAPACITY));
}

std::string SeeCoalescingPay(const Facts& facts) {
  const int64_t waits = Sum(facts, &orvex_metrics_s::cacheWaitInHashCalculation);
  if (waits == 0) return {};
  return fmt::format(
      "Queries that waited for another thread to calculate the same file instead of calculating "
      "it too: {}. Coalescing pays here.",
      waits);
}

std::string SeeCoalescingCostNothing(const Facts& facts) {
  // Only then could two threads have met at one file.
  const bool possible = facts.setting.threads > 1 && facts.last.visits > facts.files;
  if (!possible || Sum(facts, &orvex_metrics_s::cacheWaitInHashCalculation) != 0) return {};
  return fmt::format(
      "No query had to wait, though {} threads asked about some files more than once: coalescing "
      "cost nothing here.",
      facts.setting.threads);
}

std::string ExpectChanges(const Facts& facts) {
  if (facts.last.number < 2 || Sum(facts, &orvex_metrics_s::cacheWipeOuts) != 0) return {};
  // A file's times are part of the key: a changed file is a miss. Nothing was evicted, so the other
  // misses are failures and answers that could not be kept.
  const orvex_metrics_s& engine = facts.last.engine;
  const uint64_t unsettled = facts.passes[facts.passes.size() - 2].unsettled;
  const int64_t changed = engine.cacheMiss + engine.cacheOutOfDate -
                          static_cast<int64_t>(facts.last.failed + unsettled);
  if (10 * changed <= engine.cacheQuery) return {};
  return fmt::format(
      "{} of {} answers were out of date in pass {}: so many files change between two passes "
      "that the caches can save no more.",
      changed, engine.cacheQuery, facts.last.number);
}

}  // namespace

std::string Advice(const Setting& setting, size_t files, const std::vector<PassReport>& passes) {
  const Facts facts{setting, files, static_cast<size_t>(setting.capacity), passes, passes.back()};
  std::string advice;
  for (const auto rule : {WalkLessAtOnce, ExpectEvictions, RaiseCapacity, SeeCoalescingPay,
                          SeeCoalescingCostNothing, ExpectChanges}) {
    const std::string sentence = rule(facts);
    if (!sentence.empty()) advice += (advice.empty() ? "" : "\n") + sentence;
  }
  return advice;
}

}  // namespace orvexscan
