// The cache of digests, signers and other per-file metadata.
#pragma once

#include <string>

#include "cache/orvex_lru_cache_node.h"
#include "cache/orvex_lru_cache_t.h"
#include "cache/orvex_set.h"
#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_calls_in_flight.h"
#include "support/orvex_singleton.h"

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
  alignas(8) long long numOfHelpFuncCalled = 0;         // host calls, successful or not
  alignas(8) long long numOfWaitInHashCalculation = 0;  // queries that slept
};

// Answers hash queries from the cache or from the host, and lets one thread ask
// the host about a path while the others wait for it.
//
// State         active  set active  entered by                 queries
// constructed   false   false       first GetInstance          8
// running       true    true        InitLRUCache               served
// stopped       false   false       DeinitLRUCache             8; sleepers leave with 8
//
// Locking: the cache lock (see LRUCacheT) and the condition lock of calHashSet
// are never held together, and neither is while the host computes.
class ORVEX_API LRUCache : public LRUCacheT<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s> {
 public:
  LRUCache();

  int InitLRUCache() override ORVEX_EXCLUDES(lock);
  // Waits up to a second for the threads inside, then flushes regardless.
  int DeinitLRUCache() override ORVEX_EXCLUDES(lock);
  int UpdateMetaData(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  int UpdateCache(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  int FlushCache() override ORVEX_EXCLUDES(lock);
  int ResetMetrics() override ORVEX_EXCLUDES(lock);
  // Throws std::logic_error for a null path, and what the host's callback throws.
  int Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) override
      ORVEX_EXCLUDES(lock);
  int GetMetrics(LRUCacheMetrics_s& out) const override;
  void DumpMetrics() const override;
  void LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node, LRU_OPERATION operation) override
      ORVEX_REQUIRES(lock);
  int QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  void LRUCacheNodeWipe() override ORVEX_REQUIRES(lock);

  virtual ~LRUCache();

  using LRUCacheT::IsObserved;
  // The part of a query that neither logs nor waits for a path. Returns an LRU_LOOKUP. A hit
  // completes the query without running any host code.
  ORVEX_LOCAL int LookUpQuietly(const metadata_input_s* metaIn, metadata_output_s* metaOut)
      ORVEX_EXCLUDES(lock);
  // The query, or the rest of it after a lookup. The caller of either is already counted in.
  ORVEX_LOCAL int QueryStepByStep(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx,
                                  int lookup) ORVEX_EXCLUDES(lock);
  ORVEX_LOCAL ORVEX_CallsInFlight& Calls() { return calls_; }

  // For hosts: the library itself does not use it. Takes ownership of the node and returns 0. On
  // failure the node stays the caller's: ORVEX_INVALID_PARAMETER if it is null,
  // ORVEX_ALREADY_CACHED if an equivalent key is cached, ORVEX_NO_MEMORY.
  int InsertCacheNode(LRUCacheKey& key, LRUCacheNode* node) ORVEX_EXCLUDES(lock);

 protected:
  alignas(kCacheLineBytes) ORVEX_Set calHashSet;
  // Threads inside Query, GetMetrics or ResetMetrics, zeroed under the cache lock at each start
  // even if some are inside; and threads inside the engine.
  mutable ORVEX_CallsInFlight calls_;

 private:
  // Without kObserved a hit logs nothing, so nobody can observe when it is counted.
  template <bool kObserved>
  ORVEX_LOCAL LRU_LOOKUP LookUp(const metadata_input_s& in, metadata_output_s& out, uint32_t hash)
      ORVEX_REQUIRES(lock);
  // Sleeps while another thread calculates the path, and counts the wait.
  ORVEX_LOCAL void WaitUntilFree(const std::string& path);
  ORVEX_LOCAL int Calculate(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx,
                            KeptText& path) ORVEX_EXCLUDES(lock);
};

extern template class LRUCacheT<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
extern template class ORVEX_Singleton<LRUCache>;

// The process's hash cache.
inline LRUCache& HashCache() { return *ORVEX_Singleton<LRUCache>::GetInstance(); }
