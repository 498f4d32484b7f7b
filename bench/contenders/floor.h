// The least any cache must do that hashes its key and copies its answer.
#pragma once

#include <mutex>
#include <vector>

#include "counts/host.h"
#include "identity.h"

namespace cost {

// Not a cache: hashes the fields, takes the lock and copies whatever record the
// hash points at. Compares nothing and keeps no order.
template <class Lock>
class Floor {
 public:
  static constexpr bool kExact = true;

  explicit Floor(size_t capacity) : mask_(capacity - 1), answers_(capacity) {
    for (metadata_output_s& answer : answers_) answer.queryFlags = 1;
  }

  void Query(metadata_input_s& in, metadata_output_s& out) {
    const size_t hash = StandardHash()(Identity(in));
    const std::lock_guard guard(lock_);
    out = answers_[hash & mask_];
  }

 private:
  const size_t mask_;  // capacity is a power of two
  Lock lock_;
  std::vector<metadata_output_s> answers_;
};

struct NoLock {
  void lock() {}
  void unlock() {}
};

class FloorWithoutLock : public Floor<NoLock> {
 public:
  static constexpr const char* kName = "floor";
  using Floor::Floor;
};

class FloorWithLock : public Floor<std::mutex> {
 public:
  static constexpr const char* kName = "floor-lock";
  using Floor::Floor;
};

}  // namespace cost
