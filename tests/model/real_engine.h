// The library itself, as one of the engines of a comparison.
#pragma once

#include "model/engine_interface.h"

// Each one starts with the library as it is right after loading: the objects of
// the process are destroyed and built anew.
//
// Threads: one, and one object at a time.
class RealEngine final : public EngineInterface {
 public:
  RealEngine();
  ~RealEngine() override;

  int Init(metadata_query_fptrs_s* fptrs) override;
  int Deinit() override;
  int GetStatus() override;
  int Query(metadata_input_s* in, metadata_output_s* out, void* ctx) override;
  int GetMetrics(orvex_metrics_s* metrics, unsigned int size, unsigned int* outSize) override;
  void DumpMetrics() override;
  int ResetMetrics() override;
  int UpdateMetadata(metadata_input_s* in, metadata_output_s* out) override;
  void DumpCache() override;
  int FlushCache(int cacheType) override;
  int SetCacheCapacity(int cacheType, int capacity) override;
  int RegisterLogCallback(orvex_log_cb callback) override;
  int ProfilingSetEnable(bool enable) override;
  int ProfilingGetEnable(bool* enable) override;
  int DbInit() override;
  int DbSetEnable(bool enable) override;
  int DbGetEnable(bool* enable) override;
  int DbGetStatus(int* status) override;

  void SetLogEnable(bool enable) override;
  void SetLogLevel(int level) override;
  void SetConfigFilePath(const std::string& path) override;
  void Look(EngineState& state) override;
  void LookAtCalls(CallState& state) override;
};
