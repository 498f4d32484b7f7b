// The one object behind the exported functions.
#pragma once

#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"
#include "support/orvex_lock.h"
#include "support/orvex_singleton.h"

class LRUCache;

// Starts and stops the two caches, routes queries to them and gathers their
// counters.
//
// State             inited  entered by                       Query
// not initialised   false   construction, Deinit             100
// initialised       true    Init                             served
// over              false   destruction of the singleton     100, also from Init
//
// Ownership: none; the caches are separate singletons.
// Threads: any number at once; Init and Deinit one at a time.
// Locking: lock orders nothing: Init, Deinit and IsInit take it and release it at once. inited is
// relaxed; what protects a running query from Deinit is the count of calls in flight.
class ORVEX_API ORVEX_ENGINE {
 public:
  ORVEX_ENGINE();
  virtual ~ORVEX_ENGINE();
  ORVEX_ENGINE(const ORVEX_ENGINE&) = delete;
  ORVEX_ENGINE& operator=(const ORVEX_ENGINE&) = delete;

  // See the exported functions of the same names.
  int Init(metadata_query_fptrs_s* fptrs) ORVEX_EXCLUDES(lock);
  int Deinit() ORVEX_EXCLUDES(lock);
  bool IsInit() const ORVEX_EXCLUDES(lock);
  int GetStatus() ORVEX_EXCLUDES(lock);
  int Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx);
  int GetMetrics(orvex_metrics_s& metrics, unsigned int size, unsigned int& outSize) const
      ORVEX_EXCLUDES(lock);
  // Accepts null metrics (code 1). outSize must not be null.
  ORVEX_LOCAL int GetMetrics(orvex_metrics_s* metrics, unsigned int size,
                             unsigned int* outSize) const ORVEX_EXCLUDES(lock);
  void DumpMetrics() const;
  int ResetMetrics() ORVEX_EXCLUDES(lock);

 private:
  ORVEX_LOCAL int QueryStepByStep(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx);
  // Finishes a query whose lookup in the hash cache was no hit.
  ORVEX_LOCAL int FinishHashQuery(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx,
                                  int lookup);
  ORVEX_LOCAL void PassLock() const ORVEX_EXCLUDES(lock);

  mutable ORVEX_PThread_Lock lock;
  alignas(kCacheLineBytes) bool inited = false;
  // Kept here so that a hit need not call GetInstance. Its calls in flight also count threads
  // inside the engine's Query, GetMetrics, ResetMetrics or GetStatus.
  LRUCache& hashCache_;
};

extern template class ORVEX_Singleton<ORVEX_ENGINE>;
