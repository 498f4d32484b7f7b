// absl::flat_hash_map over entries that carry their own links.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "counts/host.h"
#include "identity.h"

namespace cost {

// Like the textbook, and leaves out what textbook.h lists. Hashes before it takes the
// lock; a hit allocates nothing. An insertion into a full cache overwrites the oldest
// entry and allocates only for a longer path.
class Absl {
 public:
  static constexpr const char* kName = "absl";
  static constexpr bool kExact = true;

  explicit Absl(size_t capacity) : capacity_(capacity) { index_.reserve(capacity + 1); }
  ~Absl() {
    while (ring_.next != &ring_) delete Unlink(ring_.next);
  }
  Absl(const Absl&) = delete;
  Absl& operator=(const Absl&) = delete;

  void Query(metadata_input_s& in, metadata_output_s& out) {
    const Identity id(in);
    if (Find(id, out)) return;
    if (AnswerHash(&in, &out, nullptr) == 0) Insert(id, out);
  }

 private:
  struct Links {
    Links* previous;
    Links* next;
  };
  struct Entry : Links {
    explicit Entry(const Identity& identity) : Links(), id(identity) {}

    std::string path;
    Identity id;
    metadata_output_s answer;
  };

  static Entry* Unlink(Links* links) {
    links->previous->next = links->next;
    links->next->previous = links->previous;
    return static_cast<Entry*>(links);
  }

  void LinkFirst(Links* links) {
    links->previous = &ring_;
    links->next = ring_.next;
    links->next->previous = links;
    ring_.next = links;
  }

  bool Find(const Identity& id, metadata_output_s& out) {
    const size_t hash = index_.hash_function()(id);
    const std::lock_guard guard(lock_);
    const auto found = index_.find(id, hash);
    if (found == index_.end()) return false;
    Entry* const entry = found->second;
    LinkFirst(Unlink(entry));
    out = entry->answer;
    return true;
  }

  void Insert(const Identity& id, const metadata_output_s& answer) {
    const std::lock_guard guard(lock_);
    if (spare_ == nullptr) spare_ = std::make_unique<Entry>(id);
    bool inserted = false;
    index_.lazy_emplace(id, [&](const auto& construct) {
      spare_->path = id.path;
      spare_->id = Identity(id, spare_->path);
      construct(spare_->id, spare_.get());
      inserted = true;
    });
    if (!inserted) return;
    spare_->answer = answer;
    LinkFirst(spare_.release());
    if (index_.size() <= capacity_) return;
    spare_.reset(Unlink(ring_.previous));
    index_.erase(spare_->id);
  }

  const size_t capacity_;
  std::mutex lock_;
  Links ring_{&ring_, &ring_};    // next is the most recent, previous the oldest
  std::unique_ptr<Entry> spare_;  // what the next insertion writes over
  absl::flat_hash_map<Identity, Entry*> index_;
};

}  // namespace cost
