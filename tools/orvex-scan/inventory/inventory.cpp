#include "inventory/inventory.h"

#include <algorithm>
#include <utility>

namespace orvexscan {

void Inventory::AddVisit(const std::string& path, uint64_t size) {
  visitBytes_ += size;
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

size_t Inventory::Add(const std::string& path) {
  const size_t record = RecordOf(path);
  if (records_[record].visits == 0) records_[record].visits = 1;
  return record;
}

void Inventory::Forget(size_t record) {
  FileRecord& forgotten = records_[record];
  forgotten.visits = 0;
  forgotten.answer.reset();
  forgotten.failure.reset();
  forgotten.certificates = {};
}

void Inventory::StoreAnswer(size_t record, Answer answer,
                            std::optional<CertificateFindings> findings) {
  const std::lock_guard<std::mutex> guard(lock_);
  FileRecord& stored = records_[record];
  stored.failure.reset();
  stored.answer = std::move(answer);
  if (findings) stored.certificates = std::move(*findings);
}

void Inventory::StoreFailure(size_t record, int pass, const FileFailure& failure) {
  const std::lock_guard<std::mutex> guard(lock_);
  FileRecord& stored = records_[record];
  stored.failure = Failure{pass, failure.reason(), failure.what()};
  stored.answer.reset();
  stored.certificates = {};
}

size_t Inventory::FileCount() const {
  return static_cast<size_t>(
      std::count_if(records_.begin(), records_.end(),
                    [](const FileRecord& record) { return record.visits != 0; }));
}

size_t Inventory::FailureCount() const {
  return static_cast<size_t>(
      std::count_if(records_.begin(), records_.end(),
                    [](const FileRecord& record) { return record.failure.has_value(); }));
}

size_t Inventory::RecordOf(const std::string& path) {
  const auto [entry, isNew] = byPath_.emplace(path, records_.size());
  if (isNew) records_.emplace_back(path);
  return entry->second;
}

}  // namespace orvexscan
