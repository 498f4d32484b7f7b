// What a host can do with an engine, so that two of them can run one story.
#pragma once

#include <string>

#include "model/cache_state.h"
#include "orvexeng.h"

// The eighteen functions, the switches a host may set directly, and a look inside.
class EngineInterface {
 public:
  virtual ~EngineInterface() = default;

  virtual int Init(metadata_query_fptrs_s* fptrs) = 0;
  virtual int Deinit() = 0;
  virtual int GetStatus() = 0;
  virtual int Query(metadata_input_s* in, metadata_output_s* out, void* ctx) = 0;
  virtual int GetMetrics(orvex_metrics_s* metrics, unsigned int size, unsigned int* outSize) = 0;
  virtual void DumpMetrics() = 0;
  virtual int ResetMetrics() = 0;
  virtual int UpdateMetadata(metadata_input_s* in, metadata_output_s* out) = 0;
  virtual void DumpCache() = 0;
  virtual int FlushCache(int cacheType) = 0;
  virtual int SetCacheCapacity(int cacheType, int capacity) = 0;
  virtual int RegisterLogCallback(orvex_log_cb callback) = 0;
  virtual int ProfilingSetEnable(bool enable) = 0;
  virtual int ProfilingGetEnable(bool* enable) = 0;
  virtual int DbInit() = 0;
  virtual int DbSetEnable(bool enable) = 0;
  virtual int DbGetEnable(bool* enable) = 0;
  virtual int DbGetStatus(int* status) = 0;

  virtual void SetLogEnable(bool enable) = 0;
  virtual void SetLogLevel(int level) = 0;
  virtual void SetConfigFilePath(const std::string& path) = 0;

  // Borrows from the caches: good until the next call of anything else.
  virtual void Look(EngineState& state) = 0;
  virtual void LookAtCalls(CallState& state) = 0;
};
