#include "watch/known_files.h"

#include "terminal/printable.h"

namespace orvexscan {
namespace {

constexpr size_t kShownDigits = 12;

std::string Short(const std::string& digest) { return digest.substr(0, kShownDigits); }

}  // namespace

KnownFiles::KnownFiles(const Inventory& inventory) {
  for (const FileRecord& record : inventory.records()) {
    if (record.answer) {
      files_[record.path] = State{record.answer->identity, LongestDigestOf(*record.answer).digits};
    }
  }
}

Change KnownFiles::Learn(const std::string& path, const Answer& answer) {
  const State now{answer.identity, LongestDigestOf(answer).digits};
  const auto [entry, isNew] = files_.emplace(path, now);
  if (isNew) return {ChangeKind::kNew, "-", Short(now.digest)};
  const State before = entry->second;
  entry->second = now;
  if (before.digest != now.digest) {
    return {ChangeKind::kChanged, Short(before.digest), Short(now.digest)};
  }
  const ChangeKind kind = before.identity == now.identity ? ChangeKind::kNone : ChangeKind::kSame;
  return {kind, Short(before.digest), Short(now.digest)};
}

Change KnownFiles::Learn(const std::string& path, const FileFailure& failure) {
  const FailureReason reason = failure.reason();
  if (reason == FailureReason::kChanged) return {};
  const auto known = files_.find(path);
  const std::string before = known == files_.end() ? "-" : Short(known->second.digest);
  if (reason == FailureReason::kVanished || reason == FailureReason::kNotRegular) {
    if (known == files_.end()) return {};
    files_.erase(known);
    return {ChangeKind::kGone, before, "-"};
  }
  return {ChangeKind::kFailed, before, Printable(failure.what())};
}

std::vector<std::string> KnownFiles::StartingWith(const std::string& prefix) const {
  std::vector<std::string> paths;
  for (auto file = files_.lower_bound(prefix);
       file != files_.end() && file->first.compare(0, prefix.size(), prefix) == 0; ++file) {
    paths.push_back(file->first);
  }
  return paths;
}

}  // namespace orvexscan
