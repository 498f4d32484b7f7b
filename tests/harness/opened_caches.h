// The internal invariants of a cache, checked from outside.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "harness/nodes.h"

// Exposes protected members. Never instantiated: it only names them.
template <typename Key, typename Node, typename Metrics>
struct OpenedCache : LRUCacheT<Key, Node, Metrics> {
  using Cache = LRUCacheT<Key, Node, Metrics>;
  static auto& Entries(Cache& cache) { return cache.*(&OpenedCache::entries_); }
  static Node* Find(Cache& cache, const Key& key) {
    auto& entries = Entries(cache);
    return static_cast<Node*>(entries.NodeIn(entries.Find(LRUCacheKeyView(key))));
  }
  static auto& Lock(Cache& cache) { return cache.*(&OpenedCache::lock); }
  static bool IsActive(Cache& cache) { return cache.*(&OpenedCache::active); }
  static auto& Capacity(Cache& cache) { return cache.*(&OpenedCache::capacity); }
  static auto& Counters(Cache& cache) { return cache.*(&OpenedCache::metrics); }
};

using OpenedHash = OpenedCache<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
using OpenedFileType = OpenedCache<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>;

struct OpenedHashCache : LRUCache {
  static auto& Set(LRUCache& cache) { return cache.*(&OpenedHashCache::calHashSet); }
  static int ThreadsInside(LRUCache& cache) {
    return (cache.*(&OpenedHashCache::calls_)).Sum(ORVEX_CallsInFlight::kOfCache);
  }
};

// Which invariant is violated, or "" if none is. With mixedMasks nodes may share an
// entry or have none, as keys of different masks make them.
template <typename Key, typename Node, typename Metrics>
std::string BrokenInvariant(LRUCacheT<Key, Node, Metrics>& cache, bool mixedMasks = false) {
  using Opened = OpenedCache<Key, Node, Metrics>;
  const ORVEX_ScopeLock guard(&Opened::Lock(cache));
  auto& entries = Opened::Entries(cache);
  auto nodes = NodesIn<Node>(entries);
  if (nodes.size() != entries.Size()) return "another number of nodes than is told";
  if (nodes.size() > Opened::Capacity(cache)) return "more nodes than the capacity";
  std::sort(nodes.begin(), nodes.end(), std::less<>());
  if (!nodes.empty() && nodes.front() == nullptr) return "a null node";
  if (std::adjacent_find(nodes.begin(), nodes.end()) != nodes.end()) return "a node twice";
  size_t keys = 0;
  for (const LRUCacheSlot slot : entries.InOrderOfKeys()) {
    ++keys;
    if (mixedMasks) continue;
    if (entries.Find(entries.KeyIn(slot)) != slot) return "a key that leads to another slot";
    if (!entries.HasEntry(slot)) return "a slot that forgot its entry";
    if (static_cast<const Node*>(entries.NodeIn(slot))->mapEntry != slot) return "a node elsewhere";
  }
  if (keys != entries.EntryCount()) return "another number of keys than is told";
  if (keys > nodes.size()) return "more keys than nodes";
  if (!mixedMasks && keys != nodes.size()) return "a node without an entry of its own";
  return "";
}

// The same of both caches of the process while no thread is inside: no path is
// being calculated and nobody is counted either.
inline std::string BrokenInvariantOfIdleCaches(bool mixedMasks = false) {
  if (const std::string broken = BrokenInvariant(HashCache(), mixedMasks); !broken.empty()) {
    return "hash cache: " + broken;
  }
  if (const std::string broken = BrokenInvariant(TypeCache(), mixedMasks); !broken.empty()) {
    return "file type cache: " + broken;
  }
  ORVEX_Set& set = OpenedHashCache::Set(HashCache());
  const ORVEX_ScopeLock guard(&set.condLock);
  if (!set.paths.empty()) return "still being calculated: " + *set.paths.begin();
  const int inside = OpenedHashCache::ThreadsInside(HashCache());
  if (inside != 0) return "threads inside the idle hash cache: " + std::to_string(inside);
  return "";
}
