// The cache of digests, signers and other per-file metadata.
#pragma once

#include "cache/orvex_lru_cache_key.h"
#include "cache/orvex_lru_cache_node.h"
#include "cache/orvex_lru_cache_t.h"
#include "orvexeng.h"

// The counters of the hash cache. Each lookup counts in Query and in one of the
// next four.
struct ORVEX_API LRUCacheMetrics_s {
  alignas(8) long long Query = 0;
  alignas(8) long long Miss = 0;
  alignas(8) long long Hit = 0;         // every requested part was there
  alignas(8) long long PartialHit = 0;  // some requested part was not
  alignas(8) long long OutOfDate = 0;   // the file's modification time has changed
  alignas(8) long long WipeOuts = 0;    // nodes evicted for capacity
  alignas(8) long long numOfCacheUpdateMetaDataSuccess = 0;
  alignas(8) long long numOfCacheUpdateMetaDataFailure = 0;
  alignas(8) long long numOfHelpFuncCalled = 0;         // calls of the host, whatever came of them
  alignas(8) long long numOfWaitInHashCalculation = 0;  // queries that slept at all
};

// Tells a full hit from a partial hit, an out-of-date entry and a miss, and merges
// new parts into the nodes it holds.
class ORVEX_API LRUCache : public LRUCacheT<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s> {
 public:
  LRUCache();

  int UpdateMetaData(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  int UpdateCache(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  void LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node, LRU_OPERATION operation) override
      ORVEX_REQUIRES(lock);
  int QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  void LRUCacheNodeWipe() override ORVEX_REQUIRES(lock);

  virtual ~LRUCache();

  // Takes the node over and returns 0. Otherwise it stays the caller's:
  // ORVEX_INVALID_PARAMETER when it is null, ORVEX_ALREADY_CACHED when there is
  // one under an equivalent key, ORVEX_NO_MEMORY.
  int InsertCacheNode(LRUCacheKey& key, LRUCacheNode* node) ORVEX_EXCLUDES(lock);
};

extern template class LRUCacheT<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
