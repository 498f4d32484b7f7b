// The cache of digests, signers and other per-file metadata: lookup and update.
#include "cache/orvex_lru_cache.h"

#include <cstdint>
#include <exception>
#include <memory>

#include "support/orvex_profiling.h"

template class LRUCacheT<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;

LRUCache::LRUCache() = default;

LRUCache::~LRUCache() = default;

int LRUCache::UpdateMetaData(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const int code = UpdateCache(metaIn, metaOut);
  const ORVEX_ScopeLock guard(&lock);
  ORVEX_atomic_increment_64(code == ORVEX_OK ? &metrics.numOfCacheUpdateMetaDataSuccess
                                             : &metrics.numOfCacheUpdateMetaDataFailure);
  return code;
}

int LRUCache::UpdateCache(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const ORVEX_Profiling profiling("LRUCache::UpdateCache");
  return LRUCacheT::UpdateCache(metaIn, metaOut);
}

void LRUCache::LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node, LRU_OPERATION operation) {
  const ORVEX_Profiling profiling("LRUCache::LRUCacheNodeUpdate");
  LRUCacheT::LRUCacheNodeUpdate(key, node, operation);
}

int LRUCache::QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const ORVEX_Profiling profiling("LRUCache::QueryLRUCache");
  const ORVEX_ScopeLock guard(&lock);
  ORVEX_atomic_increment_64(&metrics.Query);
  LRUCacheNode* const node = Find(LRUCacheKeyView(*metaIn));
  if (node == nullptr) {
    ORVEX_atomic_increment_64(&metrics.Miss);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kLRUCacheSourceFile, "Cache query: cache miss, %s",
                      metaIn->path);
    return LRU_MISS;
  }
  if (metaIn->mtime != 0 && metaIn->mtime != node->mtime) {
    ORVEX_atomic_increment_64(&metrics.OutOfDate);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, kLRUCacheSourceFile,
                      "Cache query: cache out-of-date, (%llu/%llu) %s",
                      PrintableNumber(metaIn->mtime), PrintableNumber(node->mtime), metaIn->path);
    return LRU_OUT_OF_DATE;
  }
  // Signers that could not be copied leave their bit clear, and the comparison
  // sees that.
  node->GetDataFromCacheNode(*metaOut);
  const bool complete = (metaIn->queryFlags & ~metaOut->queryFlags) == 0;
  if (complete) {
    ORVEX_atomic_increment_64(&metrics.Hit);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kLRUCacheSourceFile, "Cache query: cache hits, %s",
                      metaIn->path);
  } else {
    ORVEX_atomic_increment_64(&metrics.PartialHit);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kLRUCacheSourceFile, "Cache query: cache partial hits, %s",
                      metaIn->path);
  }
  MoveToFront(node);
  return complete ? LRU_HIT : LRU_PARTIAL_HIT;
}

void LRUCache::LRUCacheNodeWipe() {
  const ORVEX_Profiling profiling("LRUCache::LRUCacheNodeWipe");
  while (IsBeyondCapacity()) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kLRUCacheSourceFile,
                      "Reach max cache capacity, start to remove oldest one");
    EvictOldest();
    ORVEX_atomic_increment_64(&metrics.WipeOuts);
  }
}

int LRUCache::InsertCacheNode(LRUCacheKey& key, LRUCacheNode* node) {
  if (node == nullptr) return ORVEX_INVALID_PARAMETER;
  const ORVEX_ScopeLock guard(&lock);
  if (Find(key) != nullptr) return ORVEX_ALREADY_CACHED;
  try {
    LRUCacheNodeUpdate(key, node, LRU_INSERT);
  } catch (const std::exception&) {
    return ORVEX_NO_MEMORY;
  }
  LRUCacheNodeWipe();
  return ORVEX_OK;
}
