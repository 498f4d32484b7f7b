// The engine as its contract describes it, with nothing in it for speed.
#pragma once

#include <string>

#include "model/engine_interface.h"
#include "model/model_config.h"
#include "model/model_file_type_cache.h"
#include "model/model_hash_cache.h"
#include "model/model_log.h"

// Threads: one; nobody ever waits.
class ModelEngine final : public EngineInterface {
 public:
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
  int DbInit() override { return ORVEX_DATABASE_UNAVAILABLE; }
  int DbSetEnable(bool /*enable*/) override { return ORVEX_DATABASE_UNAVAILABLE; }
  int DbGetEnable(bool* /*enable*/) override { return ORVEX_DATABASE_UNAVAILABLE; }
  int DbGetStatus(int* /*status*/) override { return ORVEX_DATABASE_UNAVAILABLE; }

  void SetLogEnable(bool enable) override { log_.enable = enable; }
  void SetLogLevel(int level) override { log_.level = level; }
  void SetConfigFilePath(const std::string& path) override { configFilePath_ = path; }
  void Look(EngineState& state) override;
  void LookAtCalls(CallState& state) override;
  const ModelConfig& Config() const { return config_; }

 private:
  void Configure();
  int AskCaches(metadata_input_s* in, metadata_output_s* out, void* ctx);

  ModelLog log_;
  ModelConfig config_;
  std::string configFilePath_ = "orvexeng.ini";
  ModelHashCache hash_{log_};
  ModelFileTypeCache fileType_{log_};
  bool inited_ = false;
  int threads_ = 0;
};
