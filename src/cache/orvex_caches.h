// The two caches of the process.
#pragma once

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"

inline LRUCache& HashCache() { return *ORVEX_Singleton<LRUCache>::GetInstance(); }

// As its base class, so that its operations are called through the virtual table
// like those of the hash cache.
inline LRUCacheT<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>& TypeCache() {
  return *ORVEX_Singleton<FileTypeCache>::GetInstance();
}
