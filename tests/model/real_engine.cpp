// The library itself, as one of the engines of a comparison.
#include "model/real_engine.h"

#include <cstring>
#include <new>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "engine/orvex_engine.h"
#include "harness/opened_caches.h"
#include "support/orvex_config.h"
#include "support/orvex_log.h"
#include "support/orvex_profiling.h"

namespace {

template <typename T>
void BuildAnew(T* object) {
  object->~T();
  new (object) T();
}

void Restart() {
  ORVEX_LOG_BASE::LogEnable = false;
  ORVEX_Profiling::EnableProfiling = false;
  ORVEX_Singleton<LRUCache>::GetInstance()->FlushCache();
  ORVEX_Singleton<FileTypeCache>::GetInstance()->FlushCache();
  BuildAnew(ORVEX_Singleton<ORVEX_ENGINE>::GetInstance());
  BuildAnew(ORVEX_Singleton<LRUCache>::GetInstance());
  BuildAnew(ORVEX_Singleton<FileTypeCache>::GetInstance());
  BuildAnew(ORVEX_Singleton<ORVEX_Config>::GetInstance());
  BuildAnew(ORVEX_LOGGER::GetInstance());
  ORVEX_LOG_BASE::LogEnable = true;
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;
  ORVEX_Config::ConfigFilePath = "orvexeng.ini";
}

template <typename Bytes>
std::string_view View(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes), sizeof bytes};
}

NodeState StateOf(const LRUCacheNode& node) {
  NodeState state;
  state.queryFlags = node.queryFlags;
  state.fileOperation = node.fileOperation;
  state.invOperation = node.invOperation;
  state.recordTime = node.recordTime;
  state.path = node.path;
  state.size = node.size;
  state.mtime = node.mtime;
  state.signerCount = node.signerCount;
  if (node.signers != nullptr) {
    state.signers = {node.signers.get(), size_t{node.signerCount} * ORVEX_SIGNER_SLOT};
  }
  state.digest16 = View(node.digest16);
  state.digest20 = View(node.digest20);
  state.digest32 = View(node.digest32);
  state.auxDigest20 = View(node.auxDigest20);
  state.deviceID = node.deviceID;
  state.fileID = node.fileID;
  state.feedback = node.feedback;
  return state;
}

NodeState StateOf(const FileTypeCacheNode& node) {
  NodeState state;
  state.queryFlags = node.queryFlag;
  state.path = node.path;
  state.major = node.major;
  state.minor = node.minor;
  state.mtime = node.mtime;
  return state;
}

template <typename Key, typename Node, typename Metrics>
void LookInto(LRUCacheT<Key, Node, Metrics>& cache, CacheState& state) {
  using Opened = OpenedCache<Key, Node, Metrics>;
  const auto& entries = Opened::Entries(cache);
  state.active = Opened::IsActive(cache);
  state.capacity = Opened::Capacity(cache);
  state.nodes.clear();
  for (const Node* node : NodesIn<Node>(entries)) {
    state.nodes.push_back(StateOf(*node));
    state.nodes.back().hasEntry = entries.HasEntry(node->mapEntry);
  }
  state.keys.clear();
  for (const LRUCacheSlot slot : entries.InOrderOfKeys()) {
    const LRUCacheKeyView key = entries.KeyIn(slot);
    state.keys.push_back({key.flags, key.path, key.size, key.mtime, key.deviceID, key.fileID});
  }
}

}  // namespace

RealEngine::RealEngine() { Restart(); }

RealEngine::~RealEngine() { Restart(); }

int RealEngine::Init(metadata_query_fptrs_s* fptrs) { return orvex_init(fptrs); }

int RealEngine::Deinit() { return orvex_deinit(); }

int RealEngine::GetStatus() { return orvex_get_status(); }

int RealEngine::Query(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  return orvex_query(in, out, ctx);
}

int RealEngine::GetMetrics(orvex_metrics_s* metrics, unsigned int size, unsigned int* outSize) {
  return orvex_get_metrics(metrics, size, outSize);
}

void RealEngine::DumpMetrics() { orvex_dump_metrics(); }

int RealEngine::ResetMetrics() { return orvex_reset_metrics(); }

int RealEngine::UpdateMetadata(metadata_input_s* in, metadata_output_s* out) {
  return orvex_update_metadata(in, out);
}

void RealEngine::DumpCache() { orvex_dump_cache(); }

int RealEngine::FlushCache(int cacheType) { return orvex_flush_cache(cacheType); }

int RealEngine::SetCacheCapacity(int cacheType, int capacity) {
  return orvex_set_cache_capacity(cacheType, capacity);
}

int RealEngine::RegisterLogCallback(orvex_log_cb callback) {
  return orvex_register_log_cb(callback);
}

int RealEngine::ProfilingSetEnable(bool enable) { return orvex_profiling_set_enable(enable); }

int RealEngine::ProfilingGetEnable(bool* enable) { return orvex_profiling_get_enable(enable); }

int RealEngine::DbInit() { return orvex_db_init(); }

int RealEngine::DbSetEnable(bool enable) { return orvex_db_set_enable(enable); }

int RealEngine::DbGetEnable(bool* enable) { return orvex_db_get_enable(enable); }

int RealEngine::DbGetStatus(int* status) { return orvex_db_get_status(status); }

void RealEngine::SetLogEnable(bool enable) { ORVEX_LOG_BASE::LogEnable = enable; }

void RealEngine::SetLogLevel(int level) {
  ORVEX_LOG_BASE::LogLevel = static_cast<ORVEX_LOG>(level);
}

void RealEngine::SetConfigFilePath(const std::string& path) { ORVEX_Config::ConfigFilePath = path; }

void RealEngine::Look(EngineState& state) {
  state.logEnable = ORVEX_LOG_BASE::LogEnable;
  state.logLevel = ORVEX_LOG_BASE::LogLevel;
  state.profiling = ORVEX_Profiling::EnableProfiling;
  LRUCache& hash = HashCache();
  LookInto(hash, state.hash);
  LookInto(TypeCache(), state.fileType);
  LRUCacheMetrics_s hashCounters;
  FileTypeCacheMetrics_s typeCounters;
  hash.GetMetrics(hashCounters);
  TypeCache().GetMetrics(typeCounters);
  static_assert(sizeof hashCounters + sizeof typeCounters == sizeof state.counters);
  std::memcpy(state.counters.data(), &hashCounters, sizeof hashCounters);
  std::memcpy(state.counters.data() + 10, &typeCounters, sizeof typeCounters);
  LookAtCalls(state.calls);
  state.broken = BrokenInvariant(hash, true);
  if (state.broken.empty()) state.broken = BrokenInvariant(TypeCache(), true);
}

void RealEngine::LookAtCalls(CallState& state) {
  LRUCache& hash = HashCache();
  const ORVEX_Set& set = OpenedHashCache::Set(hash);
  state.threads = OpenedHashCache::ThreadsInside(hash);
  state.setActive = set.active;
  state.pathsBeingCalculated.assign(set.paths.begin(), set.paths.end());
}
