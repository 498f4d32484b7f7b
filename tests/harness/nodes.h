// The nodes of a cache, by their class.
#pragma once

#include <vector>

#include "cache/orvex_lru_cache_entries.h"

// From the most to the least recently used. Call with the cache lock or without other threads.
template <typename Node>
std::vector<const Node*> NodesIn(const LRUCacheEntries& entries) {
  std::vector<const Node*> nodes;
  for (LRUCacheSlot slot = entries.After(0); slot != 0; slot = entries.After(slot)) {
    nodes.push_back(static_cast<const Node*>(entries.NodeIn(slot)));
  }
  return nodes;
}
