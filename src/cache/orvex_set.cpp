// The paths whose hash metadata is being calculated right now.
#include "cache/orvex_set.h"

#include "support/orvex_log.h"

namespace {
constexpr char kSetSourceFile[] = "orvex_set";
}

ORVEX_Set::ORVEX_Set() = default;

ORVEX_Set::~ORVEX_Set() = default;

bool ORVEX_Set::PredicateFunc(void* arg) {
  if (arg == nullptr) return false;
  const auto& [set, path] = *static_cast<PathInSet*>(arg);
  set->condLock.AssertHeld();
  return set->active && set->paths.find(*path) != set->paths.end();
}

bool ORVEX_Set::Insert(std::string_view path, size_t stripe) {
  const auto next = paths.lower_bound(path);
  if (next != paths.end() && *next == path) return false;
  if (spare_.empty()) {
    paths.emplace_hint(next, path);
  } else {
    spare_.value() = path;
    paths.insert(next, std::move(spare_));
  }
  ORVEX_StoreRelease(stripes_[stripe], stripes_[stripe] + 1);
  ORVEX_StoreRelease(pathCount_, paths.size());
  return true;
}

bool ORVEX_Set::Erase(std::string_view path, size_t stripe) {
  const auto found = paths.find(path);
  if (found == paths.end()) return false;
  spare_ = paths.extract(found);
  ORVEX_StoreRelease(stripes_[stripe], stripes_[stripe] - 1);
  ORVEX_StoreRelease(pathCount_, paths.size());
  return true;
}

void ORVEX_Set::Clear() {
  paths.clear();
  spare_ = {};
  for (unsigned int& stripe : stripes_) ORVEX_StoreRelease(stripe, 0U);
  ORVEX_StoreRelease(pathCount_, paths.size());
}

void ORVEX_Set::PreWaitLogFunc(void* arg) {
  if (arg == nullptr) return;
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSetSourceFile,
                    "[CalHashSet] File hash is calculating, wait for signal: %s",
                    static_cast<const std::string*>(arg)->c_str());
}

void ORVEX_Set::PostWaitLogFunc(void* arg) {
  if (arg == nullptr) return;
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kSetSourceFile,
                    "[CalHashSet] File hash is calculating, signaled: %s",
                    static_cast<const std::string*>(arg)->c_str());
}
