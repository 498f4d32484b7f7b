// The promise that the inside of a cache keeps, checked from outside.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

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

using OpenedHash = OpenedCache<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
using OpenedFileType = OpenedCache<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>;

struct OpenedHashCache : LRUCache {
  static auto& Set(LRUCache& cache) { return cache.*(&OpenedHashCache::calHashSet); }
  static auto& ThreadsInside(LRUCache& cache) { return cache.*(&OpenedHashCache::activeThreads); }
};

// In order, for std::binary_search.
template <typename Container>
std::vector<const void*> AddressesIn(const Container& container) {
  std::vector<const void*> addresses;
  for (const auto& element : container) addresses.push_back(&element);
  std::sort(addresses.begin(), addresses.end(), std::less<>());
  return addresses;
}

// What of the promise does not hold, or "" when all of it does. With mixedMasks
// nodes may share an entry or have none, as keys of different masks make them.
template <typename Key, typename Node, typename Metrics>
std::string BrokenInvariant(LRUCacheT<Key, Node, Metrics>& cache, bool mixedMasks = false) {
  using Opened = OpenedCache<Key, Node, Metrics>;
  const ORVEX_ScopeLock guard(&Opened::Lock(cache));
  auto& list = Opened::List(cache);
  auto& map = Opened::Map(cache);
  // Nothing that may be gone is looked into before it is found to be there.
  const auto isAmong = [](const std::vector<const void*>& addresses, const void* wanted) {
    return std::binary_search(addresses.begin(), addresses.end(), wanted, std::less<>());
  };
  const auto places = AddressesIn(list);
  const auto entries = AddressesIn(map);
  if (list.size() > Opened::Capacity(cache)) return "more nodes than the capacity";
  std::vector<const void*> nodes(list.begin(), list.end());
  std::sort(nodes.begin(), nodes.end(), std::less<>());
  if (isAmong(nodes, nullptr)) return "a null node in the list";
  if (std::adjacent_find(nodes.begin(), nodes.end()) != nodes.end()) return "a node twice";
  for (auto position = list.begin(); position != list.end(); ++position) {
    const auto entry = (*position)->mapEntry;
    if (entry == map.end()) {
      if (mixedMasks) continue;
      return "a node without an entry: " + (*position)->path;
    }
    if (!isAmong(entries, &*entry)) return "an entry that is gone, of " + (*position)->path;
    if (entry->second != position && !mixedMasks) return "a foreign entry: " + (*position)->path;
  }
  for (auto entry = map.begin(); entry != map.end(); ++entry) {
    const std::string& path = entry->first.path;
    if (!isAmong(places, &*entry->second)) return "an entry that designates no node: " + path;
    if ((*entry->second)->mapEntry != entry) return "a node that forgot its entry: " + path;
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
