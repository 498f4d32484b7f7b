// The promise that the inside of a cache keeps, checked from outside.
#pragma once

#include <string>

#include "cache/orvex_caches.h"

// Opens what subclasses may see. Never made: it only names the members.
template <typename Key, typename Node, typename Metrics>
struct OpenedCache : LRUCacheT<Key, Node, Metrics> {
  using Cache = LRUCacheT<Key, Node, Metrics>;
  static auto& List(Cache& cache) { return cache.*(&OpenedCache::CacheNodeList); }
  static auto& Map(Cache& cache) { return cache.*(&OpenedCache::CacheMap); }
  static auto& Lock(Cache& cache) { return cache.*(&OpenedCache::lock); }
  static bool IsActive(Cache& cache) { return cache.*(&OpenedCache::active); }
  static auto& Capacity(Cache& cache) { return cache.*(&OpenedCache::capacity); }
  static auto& Counters(Cache& cache) { return cache.*(&OpenedCache::metrics); }
};

struct OpenedHashCache : LRUCache {
  static auto& Set(LRUCache& cache) { return cache.*(&OpenedHashCache::calHashSet); }
  static auto& ThreadsInside(LRUCache& cache) { return cache.*(&OpenedHashCache::activeThreads); }
};

// What of the promise does not hold, or "" when all of it does. With mixedMasks
// nodes may share an entry or have none, as keys of different masks make them.
template <typename Key, typename Node, typename Metrics>
std::string BrokenInvariant(LRUCacheT<Key, Node, Metrics>& cache, bool mixedMasks = false) {
  using Opened = OpenedCache<Key, Node, Metrics>;
  const ORVEX_ScopeLock guard(&Opened::Lock(cache));
  auto& list = Opened::List(cache);
  auto& map = Opened::Map(cache);
  if (list.size() > Opened::Capacity(cache)) return "more nodes than the capacity";
  if (!mixedMasks && map.size() != list.size()) return "a node without an entry of its own";
  const auto isEntry = [&map](auto wanted) {
    for (auto entry = map.begin(); entry != map.end(); ++entry) {
      if (entry == wanted) return true;
    }
    return false;
  };
  size_t owners = 0;
  for (auto position = list.begin(); position != list.end(); ++position) {
    if (*position == nullptr) return "a null node in the list";
    const auto entry = (*position)->mapEntry;
    if (entry == map.end()) continue;
    if (entry->second == position) {
      ++owners;
    } else if (!isEntry(entry)) {
      return "a node whose entry is not in the map: " + (*position)->path;
    }
  }
  // No entry designates two places, so that as many owners as entries are one for each.
  if (owners != map.size()) return "an entry that designates none of its node's places";
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    if ((*entry->second)->mapEntry == entry) continue;
    return "a node that forgot its entry: " + entry->first.path;
  }
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
  const int inside = ORVEX_atomic_read_32(&OpenedHashCache::ThreadsInside(HashCache()));
  if (inside != 0) return "threads inside the idle hash cache: " + std::to_string(inside);
  return "";
}
