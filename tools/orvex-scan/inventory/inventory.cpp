#include "inventory/inventory.h"

#include <algorithm>
#include <utility>

namespace orvexscan {

void Inventory::AddVisit(const std::string& path) {
  const size_t record = RecordOf(path);
  ++records_[record].visits;
  visits_.push_back(record);
}

void Inventory::AddFailure(const std::string& path, const FileFailure& failure) {
  records_[RecordOf(path)].failure = Failure{0, failure.reason(), failure.what()};
}

std::optional<size_t> Inventory::Find(const std::string& path) const {
  const auto entry = byPath_.find(path);
  if (entry == byPath_.end()) return std::nullopt;
  return entry->second;
}

void Inventory::StoreAnswer(size_t record, Answer answer) {
  const std::lock_guard<std::mutex> guard(lock_);
  records_[record].answer = std::move(answer);
}

void Inventory::StoreFailure(size_t record, int pass, const FileFailure& failure) {
  const std::lock_guard<std::mutex> guard(lock_);
  records_[record].failure = Failure{pass, failure.reason(), failure.what()};
}

void Inventory::StoreCertificateFaults(size_t record, std::vector<std::string> faults) {
  const std::lock_guard<std::mutex> guard(lock_);
  records_[record].certificateFaults = std::move(faults);
}

size_t Inventory::FileCount() const {
  return static_cast<size_t>(
      std::count_if(records_.begin(), records_.end(),
                    [](const FileRecord& record) { return record.visits != 0; }));
}

size_t Inventory::RecordOf(const std::string& path) {
  const auto [entry, isNew] = byPath_.emplace(path, records_.size());
  if (isNew) records_.emplace_back(path);
  return entry->second;
}

}  // namespace orvexscan
