// The textbook's cache over absl::flat_hash_map and its own hash function.
#pragma once

#include <absl/container/flat_hash_map.h>

#include "contenders/list_cache.h"

namespace cost {

template <class Key, class Value>
using AbslIndex = absl::flat_hash_map<Key, Value>;

class Absl : public ListCache<AbslIndex> {
 public:
  static constexpr const char* kName = "absl";
  using ListCache::ListCache;
};

}  // namespace cost
