// The model of the cache of file types.
#pragma once

#include <cstdint>
#include <string>

#include "model/model_cache.h"
#include "model/model_log.h"
#include "orvexeng.h"

struct ModelTypeNode {
  void Merge(const metadata_input_s& in, const metadata_output_s& out);
  void CopyTo(metadata_output_s& out) const;
  void Dump(const ModelLog& log) const;
  NodeState State() const;

  int entry = 0;
  uint32_t queryFlag = 0;
  std::string path;
  int64_t major = 0;
  int64_t minor = 0;
  uint64_t mtime = 0;
};

struct ModelTypeCounters {
  int64_t hit = 0;
  int64_t miss = 0;
  int64_t outOfDate = 0;
  int64_t wipeOuts = 0;
  int64_t hostCalls = 0;
};

class ModelFileTypeCache {
 public:
  explicit ModelFileTypeCache(const ModelLog& log) : log_(log) {}

  void Init();
  void Deinit();
  int Query(metadata_input_s* in, metadata_output_s* out, void* ctx);
  void Flush();
  void SetCapacity(unsigned int capacity);
  void Register(orvex_query_cb callback);
  void Dump() const;
  void DumpMetrics() const;
  void Look(CacheState& state) const;

  ModelTypeCounters counters;

 private:
  enum Lookup : int { kMiss = 1, kHit = 2, kOutOfDate = 4 };

  Lookup LookUp(metadata_input_s* in, metadata_output_s* out);
  void Update(metadata_input_s* in, metadata_output_s* out);
  void MoveToFront(ModelTypeNode* node);
  void Wipe();

  const ModelLog& log_;
  ModelCache<ModelTypeNode> cache_;
};
