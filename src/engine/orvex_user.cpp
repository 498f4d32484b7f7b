// The exported functions. They hold no logic: each passes its arguments to the one
// operation that answers it.
#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "engine/orvex_engine.h"
#include "orvexeng.h"
#include "support/orvex_log.h"
#include "support/orvex_profiling.h"

namespace {

ORVEX_ENGINE& Engine() { return *ORVEX_Singleton<ORVEX_ENGINE>::GetInstance(); }

}  // namespace

int orvex_init(metadata_query_fptrs_s* fptrs) { return Engine().Init(fptrs); }

int orvex_deinit(void) { return Engine().Deinit(); }

int orvex_get_status(void) { return Engine().GetStatus(); }

int orvex_query(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  return Engine().Query(in, out, ctx);
}

int orvex_get_metrics(orvex_metrics_s* metrics, unsigned int size, unsigned int* outSize) {
  return Engine().GetMetrics(metrics, size, outSize);
}

void orvex_dump_metrics(void) { Engine().DumpMetrics(); }

int orvex_reset_metrics(void) { return Engine().ResetMetrics(); }

int orvex_update_metadata(metadata_input_s* in, metadata_output_s* out) {
  HashCache().UpdateMetaData(in, out);
  return ORVEX_OK;
}

void orvex_dump_cache(void) {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, "orvex_user", ">>> DumpCache");
  HashCache().DumpCache();
  TypeCache().DumpCache();
}

int orvex_flush_cache(int cacheType) {
  switch (cacheType) {
    case ORVEX_HASH_CACHE:
      return HashCache().FlushCache();
    case ORVEX_FILE_TYPE_CACHE:
      return TypeCache().FlushCache();
    default:
      return ORVEX_INVALID_PARAMETER;
  }
}

int orvex_set_cache_capacity(int cacheType, int capacity) {
  switch (cacheType) {
    case ORVEX_HASH_CACHE:
      HashCache().SetCapacity(static_cast<unsigned int>(capacity));
      return ORVEX_OK;
    case ORVEX_FILE_TYPE_CACHE:
      TypeCache().SetCapacity(static_cast<unsigned int>(capacity));
      return ORVEX_OK;
    default:
      return ORVEX_INVALID_PARAMETER;
  }
}

int orvex_register_log_cb(orvex_log_cb callback) {
  return ORVEX_LOGGER::GetInstance()->RegisterLogCallback(callback) == ORVEX_OK
             ? ORVEX_OK
             : ORVEX_INVALID_PARAMETER;
}

int orvex_profiling_set_enable(bool enable) {
  ORVEX_StoreRelaxed(ORVEX_Profiling::EnableProfiling, enable);
  return ORVEX_OK;
}

int orvex_profiling_get_enable(bool* enable) {
  *enable = ORVEX_LoadRelaxed(ORVEX_Profiling::EnableProfiling);
  return ORVEX_OK;
}

int orvex_db_init(void) { return ORVEX_DATABASE_UNAVAILABLE; }

int orvex_db_set_enable(bool /*enable*/) { return ORVEX_DATABASE_UNAVAILABLE; }

int orvex_db_get_enable(bool* /*enable*/) { return ORVEX_DATABASE_UNAVAILABLE; }

int orvex_db_get_status(int* /*status*/) { return ORVEX_DATABASE_UNAVAILABLE; }
