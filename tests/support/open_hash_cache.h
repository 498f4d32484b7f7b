// A hash cache of a test's own, whose inside the test may look at.
#pragma once

#include <string>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "support/records.h"

// Empties itself at the end, as the engine would have it do.
class OpenHashCache : public LRUCache {
 public:
  using LRUCache::CacheMap;
  using LRUCache::CacheNodeList;
  using LRUCache::capacity;
  using LRUCache::metrics;

  ~OpenHashCache() override { FlushCache(); }

  // The paths from the most to the least recently used.
  std::vector<std::string> Paths() const {
    std::vector<std::string> paths;
    for (const LRUCacheNode* node : CacheNodeList) paths.push_back(node->path);
    return paths;
  }

  // Stores an answer and returns the code.
  int Store(metadata_input_s in, metadata_output_s& out) { return UpdateCache(&in, &out); }
  // Stores every digest, filled with 1, under InputFor of the path.
  int Store(const char* path) {
    Answer out;
    GiveDigests(out, kAllDigests, 1);
    return Store(InputFor(path), out);
  }
  int Look(metadata_input_s in, metadata_output_s& out) { return QueryLRUCache(&in, &out); }

  int Query(metadata_input_s*, metadata_output_s*, void*) override { return 0; }
  int GetMetrics(LRUCacheMetrics_s&) const override { return 0; }
  void DumpMetrics() const override {}
};

using Paths = std::vector<std::string>;
