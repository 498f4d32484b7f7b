// Boost.MultiIndex: one container that is a sequence and a hash index at once.
#pragma once

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>
#include <mutex>
#include <string>

#include "counts/host.h"
#include "identity.h"

namespace cost {

// Exact recency order, like the textbook, and leaves out what textbook.h lists.
// One node holds the links of both indexes.
class Boost {
 public:
  static constexpr const char* kName = "boost";
  static constexpr bool kExact = true;

  explicit Boost(size_t capacity) : capacity_(capacity) {}

  void Query(metadata_input_s& in, metadata_output_s& out) {
    const Identity id(in);
    if (Find(id, out)) return;
    if (AnswerHash(&in, &out, nullptr) == 0) Insert(id, out);
  }

 private:
  struct Entry {
    Entry(const Identity& identity, const metadata_output_s& answered)
        : path(identity.path), id(identity, path), answer(answered) {}
    // The container builds an entry outside and then moves it into its node.
    Entry(Entry&& other) noexcept
        : path(std::move(other.path)), id(other.id, path), answer(other.answer) {}

    std::string path;
    Identity id;
    metadata_output_s answer;
  };
  using Entries = boost::multi_index_container<
      Entry, boost::multi_index::indexed_by<
                 boost::multi_index::sequenced<>,
                 boost::multi_index::hashed_unique<
                     boost::multi_index::member<Entry, Identity, &Entry::id>, StandardHash>>>;

  bool Find(const Identity& id, metadata_output_s& out) {
    const std::lock_guard guard(lock_);
    const auto& index = entries_.get<1>();
    const auto found = index.find(id);
    if (found == index.end()) return false;
    entries_.relocate(entries_.begin(), entries_.project<0>(found));
    out = found->answer;
    return true;
  }

  void Insert(const Identity& id, const metadata_output_s& answer) {
    const std::lock_guard guard(lock_);
    entries_.emplace_front(id, answer);
    if (entries_.size() > capacity_) entries_.pop_back();
  }

  const size_t capacity_;
  std::mutex lock_;
  Entries entries_;
};

}  // namespace cost
