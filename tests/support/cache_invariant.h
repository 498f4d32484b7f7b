// Whether the list and the map of a cache fit together.
#pragma once

#include <list>
#include <string>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"

// Opens the protected members of any cache of these types, the process's own too.
template <typename Key, typename Node, typename Metrics>
class CacheInside : public LRUCacheT<Key, Node, Metrics> {
 public:
  using Cache = LRUCacheT<Key, Node, Metrics>;
  using List = std::list<Node*>;
  using Map = LRUCacheMap<Key, Node>;

  static const List& ListOf(const Cache& cache) { return cache.*(&CacheInside::CacheNodeList); }
  static const Map& MapOf(const Cache& cache) { return cache.*(&CacheInside::CacheMap); }
  static bool IsActive(const Cache& cache) { return cache.*(&CacheInside::active); }
  static unsigned int CapacityOf(const Cache& cache) { return cache.*(&CacheInside::capacity); }
};

using HashCacheInside = CacheInside<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
using FileTypeCacheInside = CacheInside<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>;

// The hash cache's own members beside those of the template.
class HashCacheThreads : public LRUCache {
 public:
  static const ORVEX_Set& SetOf(const LRUCache& cache) {
    return cache.*(&HashCacheThreads::calHashSet);
  }
  static int CountOf(const LRUCache& cache) { return cache.*(&HashCacheThreads::activeThreads); }
};

// Empty when all is well, otherwise what is not. Keys of different masks may leave
// nodes that share an entry or have none.
//
// Threads: while no other one changes the cache.
template <typename Inside>
std::string BrokenInvariant(const typename Inside::Cache& cache) {
  const auto& list = Inside::ListOf(cache);
  const auto& map = Inside::MapOf(cache);
  if (list.size() > Inside::CapacityOf(cache)) return "more nodes than the capacity";
  size_t owners = 0;
  for (auto position = list.begin(); position != list.end(); ++position) {
    if (*position == nullptr) return "a null node in the list";
    const auto entry = (*position)->mapEntry;
    if (entry != map.end() && entry->second == position) ++owners;
  }
  if (owners != map.size()) return "not each entry of the map has one node";
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    if ((*entry->second)->mapEntry != entry) return "an entry whose node knows another";
  }
  return {};
}
