// The cache of the textbooks: std::mutex, std::unordered_map, std::list.
#pragma once

#include <unordered_map>

#include "contenders/list_cache.h"

namespace cost {

template <class Key, class Value>
using StandardIndex = std::unordered_map<Key, Value, StandardHash>;

class Textbook : public ListCache<StandardIndex> {
 public:
  static constexpr const char* kName = "textbook";
  using ListCache::ListCache;
};

}  // namespace cost
