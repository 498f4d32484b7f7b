// A separate hash cache whose internals are open to the test.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "harness/nodes.h"
#include "harness/records.h"

// Its host is onHash. Empties itself at the end, as the engine would have it do.
class OpenHashCache : public LRUCache {
 public:
  using LRUCache::active;
  using LRUCache::calHashSet;
  using LRUCache::capacity;
  using LRUCache::entries_;
  using LRUCache::lock;
  using LRUCache::metrics;

  OpenHashCache() { RegisterMetaQueryCallback(CallHost); }
  ~OpenHashCache() override { FlushCache(); }

  LRUCacheMetrics_s Counters() const {
    LRUCacheMetrics_s now;
    GetMetrics(now);
    return now;
  }
  int ThreadsInside() const { return calls_.Sum(ORVEX_CallsInFlight::kOfCache); }
  // The paths from the most to the least recently used.
  Paths PathsInOrder() const {
    Paths paths;
    for (const LRUCacheNode* node : NodesIn<LRUCacheNode>(entries_)) paths.push_back(node->path);
    return paths;
  }

  LRUCacheNode* Find(const LRUCacheKey& key) {
    return static_cast<LRUCacheNode*>(entries_.NodeIn(entries_.Find(LRUCacheKeyView(key))));
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
  int Ask(metadata_input_s in, metadata_output_s& out) { return Query(&in, &out, this); }
  int Ask(const char* path) {
    Answer out;
    return Ask(InputFor(path), out);
  }

  std::function<int(metadata_input_s&, metadata_output_s&)> onHash = [](metadata_input_s&,
                                                                        metadata_output_s& out) {
    GiveDigests(out, kAllDigests, 1);
    return 0;
  };

 private:
  static int CallHost(metadata_input_s* in, metadata_output_s* out, void* ctx) {
    return static_cast<OpenHashCache*>(ctx)->onHash(*in, *out);
  }
};
