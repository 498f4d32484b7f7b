// The one object behind the exported functions.
#include "engine/orvex_engine.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "support/orvex_config.h"
#include "support/orvex_log.h"
#include "support/orvex_profiling.h"

template class ORVEX_Singleton<ORVEX_ENGINE>;

namespace {

constexpr char kEngineSourceFile[] = "orvex_engine";

// False when memory runs out. A file that cannot be opened is no failure.
bool Configure() {
  ORVEX_Config* const config = ORVEX_Singleton<ORVEX_Config>::GetInstance();
  try {
    if (config->ReadConfig(ORVEX_Config::ConfigFilePath) != ORVEX_OK) return true;
  } catch (const std::exception&) {
    return false;
  }
  config->SetConfig();
  return true;
}

// Set when the engine is destroyed, never cleared: later calls find one that cannot start.
bool isOver = false;

// Built and destroyed together with the process's engine.
struct EndOfEngine {
  ~EndOfEngine() {
    ORVEX_StoreRelaxed(isOver, true);
    // The host's log callback may rely on objects that are already destroyed.
    ORVEX_StoreRelaxed(ORVEX_LOG_BASE::LogEnable, false);
  }
};

// Enough to tell pointers apart in a log line.
unsigned int Low32Bits(const void* pointer) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

// Logs the code so far, on purpose: if only the hash cache fails, this prints 0.
void LogHashFailure(int codeSoFar) {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, "Query", kEngineSourceFile, "Error query hash cache %d",
                    codeSoFar);
}

}  // namespace

ORVEX_ENGINE::ORVEX_ENGINE() : hashCache_(HashCache()) {
  // Everything the engine uses is built before it and destroyed after it, so that a running engine
  // always has its caches.
  TypeCache();
  ORVEX_Singleton<ORVEX_Config>::GetInstance();
  ORVEX_LOGGER::GetInstance();
  static const EndOfEngine end;
}

ORVEX_ENGINE::~ORVEX_ENGINE() = default;

int ORVEX_ENGINE::Init(metadata_query_fptrs_s* fptrs) {
  if (ORVEX_LoadRelaxed(isOver)) return ORVEX_NOT_INITIALISED;
  PassLock();
  if (ORVEX_LoadRelaxed(inited)) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Kelda Inventory Engine init failed: already been initialized");
    return ORVEX_INITIALISED;
  }
  if (fptrs == nullptr || fptrs->fileTypeQueryCallback == nullptr ||
      fptrs->metaQueryCallback == nullptr) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Kelda Inventory Engine register query callback failed: invalid parameter");
    return ORVEX_INVALID_CALLBACKS;
  }
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kEngineSourceFile,
                    "Kelda Inventory Engine is initializing, version=%s", ORVEX_VERSION);
  if (!Configure()) return ORVEX_NO_MEMORY;

  if (const int code = hashCache_.InitLRUCache(); code != ORVEX_OK) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Kelda Inventory Engine init failed: cache init failed, rc=%d", code);
    return code;
  }
  if (const int code = TypeCache().InitLRUCache(); code != ORVEX_OK) {
    hashCache_.DeinitLRUCache();
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Kelda Inventory Engine init failed: file type cache init failed, rc=%d",
                      code);
    return code;
  }
  hashCache_.RegisterMetaQueryCallback(fptrs->metaQueryCallback);
  TypeCache().RegisterMetaQueryCallback(fptrs->fileTypeQueryCallback);
  ORVEX_StoreRelaxed(inited, true);
  // Calls made too early, or still inside since an earlier stop, are not counted.
  hashCache_.Calls().SetToZero(ORVEX_CallsInFlight::kOfEngine);
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kEngineSourceFile,
                    "Kelda Inventory Engine init successfully");
  return ORVEX_OK;
}

int ORVEX_ENGINE::Deinit() {
  PassLock();
  if (!ORVEX_LoadRelaxed(inited)) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Kelda Inventory Engine deinit failed: Engine is not inited");
    return ORVEX_NOT_INITIALISED;
  }
  ORVEX_StoreRelaxed(inited, false);
  // Before the drain: threads sleeping in a cache leave only once it stops.
  hashCache_.DeinitLRUCache();
  TypeCache().DeinitLRUCache();
  hashCache_.Calls().Drain(ORVEX_CallsInFlight::kOfEngine, "Kelda Inventory Engine deinit",
                           __LINE__, __func__, kEngineSourceFile);
  ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, __func__, kEngineSourceFile,
                    "Kelda Inventory Engine deinit successfully");
  return ORVEX_OK;
}

bool ORVEX_ENGINE::IsInit() const {
  PassLock();
  return ORVEX_LoadRelaxed(inited);
}

int ORVEX_ENGINE::GetStatus() {
  const ORVEX_CallsInFlight::Scope inFlight(hashCache_.Calls(), ORVEX_CallsInFlight::kOfEngine);
  return IsInit() ? ORVEX_INITIALISED : ORVEX_NOT_INITIALISED;
}

// Flattened: a hit runs in this one function, from the cache's lookup to the last counter.
__attribute__((flatten)) int ORVEX_ENGINE::Query(metadata_input_s* metaIn,
                                                 metadata_output_s* metaOut, void* ctx) {
  // A query for the hash cache alone is counted into engine and cache at once, unless the host can
  // observe each step and so the two counts. A stopped engine reads no record.
  if (ORVEX_LoadRelaxed(inited) && metaIn != nullptr && metaOut != nullptr &&
      (metaIn->queryFlags & QUERY_FILE_TYPE) == 0 && metaIn->queryFlags != 0 &&
      !LRUCache::IsObserved()) {
    const ORVEX_CallsInFlight::Scope inFlight(hashCache_.Calls(), ORVEX_CallsInFlight::kOfBoth);
    // inited need not be read again: a stop since then stops the cache, too, which checks itself.
    const int lookup = hashCache_.LookUpQuietly(metaIn, metaOut);
    if (lookup == LRU_HIT) return ORVEX_OK;
    if (lookup != LRU_NOT_YET) return FinishHashQuery(metaIn, metaOut, ctx, lookup);
  }
  return QueryStepByStep(metaIn, metaOut, ctx);
}

__attribute__((noinline)) int ORVEX_ENGINE::FinishHashQuery(metadata_input_s* metaIn,
                                                            metadata_output_s* metaOut, void* ctx,
                                                            int lookup) {
  const ORVEX_ProfilingScope profiling("ORVEX_ENGINE::Query");
  const int code = hashCache_.QueryStepByStep(metaIn, metaOut, ctx, lookup);
  if (code != ORVEX_OK) {
    const ORVEX_CallsInFlight::Scope outside(hashCache_.Calls(), ORVEX_CallsInFlight::kOutOfCache);
    LogHashFailure(ORVEX_OK);
  }
  return code;
}

__attribute__((noinline)) int ORVEX_ENGINE::QueryStepByStep(metadata_input_s* metaIn,
                                                            metadata_output_s* metaOut, void* ctx) {
  const ORVEX_CallsInFlight::Scope inFlight(hashCache_.Calls(), ORVEX_CallsInFlight::kOfEngine);
  const ORVEX_ProfilingScope profiling("ORVEX_ENGINE::Query");
  if (!ORVEX_LoadRelaxed(inited)) return ORVEX_NOT_INITIALISED;
  if (metaOut == nullptr || metaIn == nullptr) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, "Query", kEngineSourceFile,
                      "Invalid parameter: metaIn=0x%08x, metaOut=0x%08x", Low32Bits(metaIn),
                      Low32Bits(metaOut));
    return ORVEX_INVALID_PARAMETER;
  }
  int code = ORVEX_OK;
  if ((metaIn->queryFlags & QUERY_FILE_TYPE) != 0) {
    code = TypeCache().Query(metaIn, metaOut, ctx);
    if (code != ORVEX_OK) {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, "Query", kEngineSourceFile,
                        "Error query file type cache %d", code);
    }
  }
  // Read again: the host's callback may have changed what is wanted.
  if ((metaIn->queryFlags & ~uint32_t{QUERY_FILE_TYPE}) != 0) {
    const int hashCode = hashCache_.Query(metaIn, metaOut, ctx);
    if (hashCode != ORVEX_OK) {
      LogHashFailure(code);
      if (code == ORVEX_OK) code = hashCode;
    }
  }
  return code;
}

int ORVEX_ENGINE::GetMetrics(orvex_metrics_s& metrics, unsigned int size,
                             unsigned int& outSize) const {
  return GetMetrics(&metrics, size, &outSize);
}

int ORVEX_ENGINE::GetMetrics(orvex_metrics_s* metrics, unsigned int size,
                             unsigned int* outSize) const {
  const ORVEX_CallsInFlight::Scope inFlight(hashCache_.Calls(), ORVEX_CallsInFlight::kOfEngine);
  const ORVEX_ProfilingScope profiling("ORVEX_ENGINE::GetMetrics");
  if (!IsInit()) return ORVEX_NOT_INITIALISED;
  if (size == 0) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Invalid metrics data size = %d", 0);
    return ORVEX_INVALID_PARAMETER;
  }
  LRUCacheMetrics_s hash;
  if (const int code = hashCache_.GetMetrics(hash); code != ORVEX_OK) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Get cache metrics failed: rc=%d", code);
    return code;
  }
  FileTypeCacheMetrics_s fileType;
  if (const int code = TypeCache().GetMetrics(fileType); code != ORVEX_OK) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Get file type cache metrics failed: rc=%d", code);
    return code;
  }
  if (metrics == nullptr) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kEngineSourceFile,
                      "Memory copy metrics operation failed");
    return ORVEX_COPY_FAILED;
  }
  alignas(8) orvex_metrics_s all{};
  std::memcpy(all.version, ORVEX_VERSION, sizeof ORVEX_VERSION);
  all.cacheQuery = hash.Query;
  all.cacheMiss = hash.Miss;
  all.cacheHit = hash.Hit;
  all.cachePartialHit = hash.PartialHit;
  all.cacheOutOfDate = hash.OutOfDate;
  all.cacheWipeOuts = hash.WipeOuts;
  all.fileTypeHit = fileType.Hit;
  all.fileTypeMiss = fileType.Miss;
  all.fileTypeOutOfDate = fileType.OutOfDate;
  all.fileTypeWipeOuts = fileType.WipeOuts;
  all.fileTypeHelpFuncCalled = fileType.numOfHelpFuncCalled;
  all.cacheUpdateMetaDataSuccess = hash.numOfCacheUpdateMetaDataSuccess;
  all.cacheUpdateMetaDataFailure = hash.numOfCacheUpdateMetaDataFailure;
  all.cacheHelpFuncCalled = hash.numOfHelpFuncCalled;
  all.cacheWaitInHashCalculation = hash.numOfWaitInHashCalculation;
  const unsigned int bytes = std::min(size, static_cast<unsigned int>(sizeof all));
  std::memcpy(metrics, &all, bytes);
  *outSize = bytes;
  return ORVEX_OK;
}

void ORVEX_ENGINE::DumpMetrics() const {
  hashCache_.DumpMetrics();
  TypeCache().DumpMetrics();
}

int ORVEX_ENGINE::ResetMetrics() {
  const ORVEX_CallsInFlight::Scope inFlight(hashCache_.Calls(), ORVEX_CallsInFlight::kOfEngine);
  if (!IsInit()) return ORVEX_NOT_INITIALISED;
  hashCache_.ResetMetrics();
  TypeCache().ResetMetrics();
  return ORVEX_OK;
}

void ORVEX_ENGINE::PassLock() const { const ORVEX_MutexGuard guard(&lock); }
