// The engine as its contract describes it, with nothing in it for speed.
#include "model/model_engine.h"

#include <algorithm>
#include <cstring>

#include "model/drain.h"

namespace {

constexpr char kEngineFile[] = "orvex_engine";
constexpr char kSettingsSourceFile[] = "orvex_config";

unsigned int LowBits(const void* pointer) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

}  // namespace

int ModelEngine::Init(metadata_query_fptrs_s* fptrs) {
  if (inited_) {
    log_(kError, "Init", kEngineFile,
         "Kelda Inventory Engine init failed: already been initialized");
    return ORVEX_INITIALISED;
  }
  if (fptrs == nullptr || fptrs->fileTypeQueryCallback == nullptr ||
      fptrs->metaQueryCallback == nullptr) {
    log_(kError, "Init", kEngineFile,
         "Kelda Inventory Engine register query callback failed: invalid parameter");
    return ORVEX_INVALID_CALLBACKS;
  }
  log_(kInfo, "Init", kEngineFile, "Kelda Inventory Engine is initializing, version=%s",
       "1.1.1035");
  Configure();
  hash_.Init();
  fileType_.Init();
  hash_.Register(fptrs->metaQueryCallback);
  fileType_.Register(fptrs->fileTypeQueryCallback);
  inited_ = true;
  threads_ = 0;
  log_(kInfo, "Init", kEngineFile, "Kelda Inventory Engine init successfully");
  return ORVEX_OK;
}

void ModelEngine::Configure() {
  const std::optional<std::string> content = ContentOf(configFilePath_);
  if (!content) {
    log_(kError, "ReadConfig", kSettingsSourceFile, "Open config file %s failed",
         configFilePath_.c_str());
    return;
  }
  config_.Read(*content);
  const char* const setConfig = "SetConfig";
  if (const auto value = config_.Bool("LogEnable")) {
    log_.enable = *value;
    log_(kInfo, setConfig, kSettingsSourceFile, "Set config LogEnable to %d", *value ? 1 : 0);
  }
  if (const auto value = config_.Integer("LogLevel")) {
    log_.level = static_cast<int>(*value);
    log_(kInfo, setConfig, kSettingsSourceFile, "Set config LogLevel to %u", *value);
  }
  if (const auto value = config_.Bool("DatabaseEnable")) {
    log_(kInfo, setConfig, kSettingsSourceFile, "Set config DatabaseEnable to %d", *value ? 1 : 0);
  }
  if (const auto value = config_.Bool("ProfilingEnable")) {
    log_.profiling = *value;
    log_(kInfo, setConfig, kSettingsSourceFile, "Set config ProfilingEnable to %d", *value ? 1 : 0);
  }
  if (const auto value = config_.Integer("CacheCapacity")) {
    hash_.SetCapacity(*value);
    log_(kInfo, setConfig, kSettingsSourceFile, "Set config CacheCapacity to %u", *value);
  }
}

int ModelEngine::Deinit() {
  if (!inited_) {
    log_(kError, "Deinit", kEngineFile,
         "Kelda Inventory Engine deinit failed: Engine is not inited");
    return ORVEX_NOT_INITIALISED;
  }
  inited_ = false;
  hash_.Deinit();
  fileType_.Deinit();
  Drain(log_, threads_, {"Deinit", kEngineFile, "Kelda Inventory Engine deinit"});
  log_(kWarning, "Deinit", kEngineFile, "Kelda Inventory Engine deinit successfully");
  return ORVEX_OK;
}

int ModelEngine::GetStatus() { return inited_ ? ORVEX_INITIALISED : ORVEX_NOT_INITIALISED; }

int ModelEngine::Query(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  const ModelCount count(threads_);
  const ModelScope scope(log_, "ORVEX_ENGINE::Query");
  if (!inited_) return ORVEX_NOT_INITIALISED;
  if (out == nullptr || in == nullptr) {
    log_(kError, "Query", kEngineFile, "Invalid parameter: metaIn=0x%08x, metaOut=0x%08x",
         LowBits(in), LowBits(out));
    return ORVEX_INVALID_PARAMETER;
  }
  return AskCaches(in, out, ctx);
}

int ModelEngine::AskCaches(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  int code = ORVEX_OK;
  if ((in->queryFlags & QUERY_FILE_TYPE) != 0) {
    code = fileType_.Query(in, out, ctx);
    if (code != 0) log_(kError, "Query", kEngineFile, "Error query file type cache %d", code);
  }
  if ((in->queryFlags & ~uint32_t{QUERY_FILE_TYPE}) == 0) return code;
  const int hashCode = hash_.Query(in, out, ctx);
  if (hashCode == 0) return code;
  log_(kError, "Query", kEngineFile, "Error query hash cache %d", code);
  return code != 0 ? code : hashCode;
}

int ModelEngine::GetMetrics(orvex_metrics_s* metrics, unsigned int size, unsigned int* outSize) {
  const ModelCount count(threads_);
  const ModelScope scope(log_, "ORVEX_ENGINE::GetMetrics");
  if (!inited_) return ORVEX_NOT_INITIALISED;
  if (size == 0) {
    log_(kError, "GetMetrics", kEngineFile, "Invalid metrics data size = %d", 0);
    return ORVEX_INVALID_PARAMETER;
  }
  orvex_metrics_s all{};
  std::strcpy(all.version, "1.1.1035");
  all.cacheQuery = hash_.counters.query;
  all.cacheMiss = hash_.counters.miss;
  all.cacheHit = hash_.counters.hit;
  all.cachePartialHit = hash_.counters.partialHit;
  all.cacheOutOfDate = hash_.counters.outOfDate;
  all.cacheWipeOuts = hash_.counters.wipeOuts;
  all.fileTypeHit = fileType_.counters.hit;
  all.fileTypeMiss = fileType_.counters.miss;
  all.fileTypeOutOfDate = fileType_.counters.outOfDate;
  all.fileTypeWipeOuts = fileType_.counters.wipeOuts;
  all.fileTypeHelpFuncCalled = fileType_.counters.hostCalls;
  all.cacheUpdateMetaDataSuccess = hash_.counters.updateSuccess;
  all.cacheUpdateMetaDataFailure = hash_.counters.updateFailure;
  all.cacheHelpFuncCalled = hash_.counters.hostCalls;
  all.cacheWaitInHashCalculation = hash_.counters.waits;
  if (metrics == nullptr) {
    log_(kError, "GetMetrics", kEngineFile, "Memory copy metrics operation failed");
    return ORVEX_COPY_FAILED;
  }
  *outSize = std::min(size, 192U);
  std::memcpy(static_cast<void*>(metrics), &all, *outSize);
  return ORVEX_OK;
}

void ModelEngine::DumpMetrics() {
  hash_.DumpMetrics();
  fileType_.DumpMetrics();
}

int ModelEngine::ResetMetrics() {
  if (!inited_) return ORVEX_NOT_INITIALISED;
  hash_.counters = {};
  fileType_.counters = {};
  return ORVEX_OK;
}

int ModelEngine::UpdateMetadata(metadata_input_s* in, metadata_output_s* out) {
  hash_.UpdateMetadata(in, out);
  return ORVEX_OK;
}

void ModelEngine::DumpCache() {
  log_(kDebug, "orvex_dump_cache", "orvex_user", ">>> DumpCache");
  hash_.Dump();
  fileType_.Dump();
}

int ModelEngine::FlushCache(int cacheType) {
  if (cacheType == ORVEX_HASH_CACHE) {
    hash_.Flush();
  } else if (cacheType == ORVEX_FILE_TYPE_CACHE) {
    fileType_.Flush();
  } else {
    return ORVEX_INVALID_PARAMETER;
  }
  return ORVEX_OK;
}

int ModelEngine::SetCacheCapacity(int cacheType, int capacity) {
  const unsigned int wanted = capacity < 0 ? 0 : static_cast<unsigned int>(capacity);
  if (cacheType == ORVEX_HASH_CACHE) {
    hash_.SetCapacity(wanted);
  } else if (cacheType == ORVEX_FILE_TYPE_CACHE) {
    fileType_.SetCapacity(wanted);
  } else {
    return ORVEX_INVALID_PARAMETER;
  }
  return ORVEX_OK;
}

int ModelEngine::RegisterLogCallback(orvex_log_cb callback) {
  if (callback == nullptr) return ORVEX_INVALID_PARAMETER;
  log_.callback = callback;
  return ORVEX_OK;
}

int ModelEngine::ProfilingSetEnable(bool enable) {
  log_.profiling = enable;
  return ORVEX_OK;
}

int ModelEngine::ProfilingGetEnable(bool* enable) {
  *enable = log_.profiling;
  return ORVEX_OK;
}

void ModelEngine::Look(EngineState& state) {
  state.logEnable = log_.enable;
  state.logLevel = log_.level;
  state.profiling = log_.profiling;
  hash_.Look(state.hash);
  fileType_.Look(state.fileType);
  const ModelHashCounters& h = hash_.counters;
  const ModelTypeCounters& t = fileType_.counters;
  state.counters = {h.query,    h.miss,          h.hit,           h.partialHit, h.outOfDate,
                    h.wipeOuts, h.updateSuccess, h.updateFailure, h.hostCalls,  h.waits,
                    t.hit,      t.miss,          t.outOfDate,     t.wipeOuts,   t.hostCalls};
  LookAtCalls(state.calls);
}

void ModelEngine::LookAtCalls(CallState& state) {
  state.threads = hash_.threads;
  state.setActive = hash_.setActive;
  state.pathsBeingCalculated.assign(hash_.calculating.begin(), hash_.calculating.end());
}
