// The cache of digests, signers and other per-file metadata: update, lifecycle, counters.
// Lookup and query are in orvex_lru_cache_query.cpp.
#include "cache/orvex_lru_cache.h"

#include <cstdint>
#include <exception>
#include <typeinfo>

#include "support/orvex_profiling.h"

template class LRUCacheT<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
template class ORVEX_Singleton<LRUCache>;

LRUCache::LRUCache() { LRUCache::ResetMetrics(); }

LRUCache::~LRUCache() = default;

int LRUCache::InitLRUCache() {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile, "Init LRUCache successfully");
  {
    const ORVEX_MutexGuard guard(&calHashSet.condLock);
    calHashSet.active = true;
  }
  const ORVEX_MutexGuard guard(&lock);
  isFinal_ = typeid(*this) == typeid(LRUCache);
  ORVEX_StoreRelaxed(active, true);
  calls_.SetToZero(ORVEX_CallsInFlight::kOfCache);
  return ORVEX_OK;
}

int LRUCache::DeinitLRUCache() {
  {
    const ORVEX_MutexGuard guard(&lock);
    ZeroMetrics();
    ORVEX_StoreRelaxed(active, false);
  }
  {
    const ORVEX_MutexGuard guard(&calHashSet.condLock);
    calHashSet.active = false;
    calHashSet.Clear();
  }
  // Sleeping queries leave now, so that the drain need not wait for them.
  calHashSet.condLock.SignalAll();
  calls_.Drain(ORVEX_CallsInFlight::kOfCache, "Deinit LRUCache", __LINE__, __func__,
               kLRUCacheSourceFile);

  if (const int code = FlushCache(); code != ORVEX_OK) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, __func__, kLRUCacheSourceFile,
                      "Deinit LRUCache flush cache failed: rc=%d", code);
    return code;
  }
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile, "Deinit LRUCache successfully");
  return ORVEX_OK;
}

int LRUCache::UpdateMetaData(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const int code = UpdateCache(metaIn, metaOut);
  const ORVEX_MutexGuard guard(&lock);
  ORVEX_atomic_increment_64(code == ORVEX_OK ? &metrics.numOfCacheUpdateMetaDataSuccess
                                             : &metrics.numOfCacheUpdateMetaDataFailure);
  return code;
}

int LRUCache::UpdateCache(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const ORVEX_ProfilingScope profiling("LRUCache::UpdateCache");
  return LRUCacheT::UpdateCache(metaIn, metaOut);
}

int LRUCache::FlushCache() {
  const ORVEX_ProfilingScope profiling("LRUCache::FlushCache");
  return LRUCacheT::FlushCache();
}

int LRUCache::ResetMetrics() {
  const ORVEX_CallsInFlight::Scope inFlight(calls_, ORVEX_CallsInFlight::kOfCache);
  return LRUCacheT::ResetMetrics();
}

int LRUCache::GetMetrics(LRUCacheMetrics_s& out) const {
  const ORVEX_CallsInFlight::Scope inFlight(calls_, ORVEX_CallsInFlight::kOfCache);
  const long long silentHits = ORVEX_atomic_read_64(&metrics.silentHits);
  ReadMetrics(out);
  out.Query += silentHits;
  out.Hit += silentHits;
  return ORVEX_OK;
}

void LRUCache::DumpMetrics() const {
  LRUCacheMetrics_s now;
  GetMetrics(now);
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                    "Cache Metrics: Query=%jd, Miss=%jd, Hit=%jd, PartialHit=%jd, Out-of-date=%jd, "
                    "WipeOuts=%jd, numOfCacheUpdateMetaDataSuccess=%jd, "
                    "numOfCacheUpdateMetaDataFailure=%jd, numOfHelpFuncCalled=%jd, "
                    "numOfWaitInHashCalculation=%jd",
                    intmax_t{now.Query}, intmax_t{now.Miss}, intmax_t{now.Hit},
                    intmax_t{now.PartialHit}, intmax_t{now.OutOfDate}, intmax_t{now.WipeOuts},
                    intmax_t{now.numOfCacheUpdateMetaDataSuccess},
                    intmax_t{now.numOfCacheUpdateMetaDataFailure},
                    intmax_t{now.numOfHelpFuncCalled}, intmax_t{now.numOfWaitInHashCalculation});
}

void LRUCache::LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node, LRU_OPERATION operation) {
  const ORVEX_ProfilingScope profiling("LRUCache::LRUCacheNodeUpdate");
  LRUCacheT::LRUCacheNodeUpdate(key, node, operation);
}

void LRUCache::LRUCacheNodeWipe() {
  const ORVEX_ProfilingScope profiling("LRUCache::LRUCacheNodeWipe");
  EvictBeyondCapacity();
}

int LRUCache::InsertCacheNode(LRUCacheKey& key, LRUCacheNode* node) {
  if (node == nullptr) return ORVEX_INVALID_PARAMETER;
  const ORVEX_MutexGuard guard(&lock);
  try {
    if (entries_.Find(key) != 0) return ORVEX_ALREADY_CACHED;
    LRUCacheNodeUpdate(key, node, LRU_INSERT);
  } catch (const std::exception&) {
    return ORVEX_NO_MEMORY;
  }
  LRUCacheNodeWipe();
  return ORVEX_OK;
}
