// The model of the cache of digests, signers and other per-file metadata.
#include "model/model_hash_cache.h"

#include <exception>
#include <stdexcept>

#include "model/drain.h"

namespace {

using Number = unsigned long long;

}  // namespace

void LogKey(const ModelLog& log, const ModelKey& key) {
  log(kDebug, "Dump", kModelCacheFile,
      "Key: flags=0x%08x, path=%s, size=%llu, mtime=%llu, deviceID=%llu, fileID=%llu", key.flags,
      key.path.c_str(), Number{key.numbers[0]}, Number{key.numbers[1]}, Number{key.numbers[2]},
      Number{key.numbers[3]});
}

void LogRegistration(const ModelLog& log) {
  log(kDebug, "RegisterMetaQueryCallback", kModelCacheFile,
      "Kelda Inventory Engine register query callback successfully");
}

void ModelHashCache::Init() {
  log_(kDebug, "InitLRUCache", kModelCacheFile, "Init LRUCache successfully");
  setActive = true;
  cache_.active = true;
  threads = 0;
}

void ModelHashCache::Deinit() {
  counters = {};
  cache_.active = false;
  setActive = false;
  calculating.clear();
  Drain(log_, threads, {"DeinitLRUCache", kModelCacheFile, "Deinit LRUCache"});
  Flush();
  log_(kDebug, "DeinitLRUCache", kModelCacheFile, "Deinit LRUCache successfully");
}

int ModelHashCache::Query(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  const ModelCount count(threads);
  const ModelScope scope(log_, "LRUCache::Query");
  if (!cache_.active) return ORVEX_CACHE_NOT_INITIALISED;
  if (in == nullptr || out == nullptr) return ORVEX_INVALID_PARAMETER;
  if (in->path == nullptr) throw std::logic_error("no path");
  const std::string path = in->path;
  const bool cacheOnly = (in->invOperation & INV_CACHE_ONLY) != 0;
  // One thread alone would wait for itself.
  if (!cacheOnly && setActive && calculating.count(path) != 0) std::terminate();
  log_(kDebug, "Query", kModelCacheFile, "Free to calculate file hash: %s", path.c_str());
  if (LookUp(in, out) == Lookup::kHit) {
    out->resultReady = 1;
    return ORVEX_OK;
  }
  out->resultReady = 0;
  if ((in->invOperation & INV_CACHE_ONLY) != 0) return ORVEX_OK;
  return Calculate(path, in, out, ctx);
}

int ModelHashCache::Calculate(const std::string& path, metadata_input_s* in, metadata_output_s* out,
                              void* ctx) {
  const auto say = [&](ModelLevel level, const char* what) {
    log_(level, "Query", kModelCacheFile, "[CalHashSet] %s: %s", what, path.c_str());
  };
  const bool inserted = setActive && calculating.insert(path).second;
  say(kDebug, inserted ? "Insert CalHashSet succeed" : "Insert CalHashSet failed");
  const auto leave = [&] {
    if (inserted) {
      const bool erased = setActive && calculating.erase(path) != 0;
      say(kDebug, erased ? "Erase CalHashSet succeed" : "Erase CalHashSet failed");
    } else {
      say(kDebug, "Erase CalHashSet skipped");
    }
    say(kInfo, "File hash calculation is done, broadcast signal");
  };
  int code = 0;
  try {
    {
      const ModelScope scope(log_, "LRUCache::MetaQueryCallback");
      log_(kDebug, "Query", kModelCacheFile, "Calling query callback for file %s", path.c_str());
      // Counted when the call is over, whatever its result.
      struct CountCall {
        int64_t& calls;
        ~CountCall() { ++calls; }
      } const countCall{counters.hostCalls};
      code = cache_.callback(in, out, ctx);
    }
    if (code == 0) {
      out->resultReady = 1;
      if ((in->invOperation & INV_KEEP_IN_CACHE) != 0) code = Update(in, out);
    }
  } catch (...) {
    leave();
    throw;
  }
  leave();
  return code;
}

ModelHashCache::Lookup ModelHashCache::LookUp(metadata_input_s* in, metadata_output_s* out) {
  const ModelScope scope(log_, "LRUCache::QueryLRUCache");
  ++counters.query;
  ModelHashNode* const node = cache_.Find(ModelKey(*in));
  if (node == nullptr) {
    ++counters.miss;
    log_(kDebug, "QueryLRUCache", kModelCacheFile, "Cache query: cache miss, %s", in->path);
    return Lookup::kMiss;
  }
  if (in->mtime != 0 && in->mtime != node->mtime) {
    ++counters.outOfDate;
    log_(kWarning, "QueryLRUCache", kModelCacheFile,
         "Cache query: cache out-of-date, (%llu/%llu) %s", Number{in->mtime}, Number{node->mtime},
         in->path);
    return Lookup::kOutOfDate;
  }
  node->CopyTo(*out, log_);
  const bool full = (in->queryFlags & ~out->queryFlags) == 0;
  ++(full ? counters.hit : counters.partialHit);
  log_(kDebug, "QueryLRUCache", kModelCacheFile,
       full ? "Cache query: cache hits, %s" : "Cache query: cache partial hits, %s", in->path);
  MoveToFront(node);
  return full ? Lookup::kHit : Lookup::kPartialHit;
}

int ModelHashCache::Update(metadata_input_s* in, metadata_output_s* out) {
  const ModelScope scope(log_, "LRUCache::UpdateCache");
  if (out == nullptr || in == nullptr) return ORVEX_INVALID_PARAMETER;
  const ModelKey key(*in);
  if (ModelHashNode* const node = cache_.Find(key)) {
    node->Merge(*in, *out);
    MoveToFront(node);
    return ORVEX_OK;
  }
  auto node = std::make_unique<ModelHashNode>();
  node->Merge(*in, *out);
  Insert(key, std::move(node));
  Wipe();
  return ORVEX_OK;
}

void ModelHashCache::UpdateMetadata(metadata_input_s* in, metadata_output_s* out) {
  ++(Update(in, out) == ORVEX_OK ? counters.updateSuccess : counters.updateFailure);
}

void ModelHashCache::MoveToFront(ModelHashNode* node) {
  const ModelScope scope(log_, "LRUCache::LRUCacheNodeUpdate");
  cache_.MoveToFront(node);
  log_(kDebug, "LRUCacheNodeUpdate", kModelCacheFile, "Cache node updated: path=%s",
       node->path.c_str());
}

void ModelHashCache::Insert(const ModelKey& key, std::unique_ptr<ModelHashNode> node) {
  const ModelScope scope(log_, "LRUCache::LRUCacheNodeUpdate");
  const std::string path = node->path;
  cache_.Insert(key, std::move(node));
  log_(kDebug, "LRUCacheNodeUpdate", kModelCacheFile, "Insert new cache node: path=%s",
       path.c_str());
}

void ModelHashCache::Wipe() {
  const ModelScope scope(log_, "LRUCache::LRUCacheNodeWipe");
  while (cache_.nodes.size() > cache_.capacity) {
    log_(kDebug, "LRUCacheNodeWipe", kModelCacheFile,
         "Reach max cache capacity, start to remove oldest one");
    cache_.nodes.back()->Dump(log_);
    cache_.RemoveOldest();
    ++counters.wipeOuts;
  }
}

void ModelHashCache::Flush() {
  const ModelScope scope(log_, "LRUCache::FlushCache");
  cache_.Clear();
}

void ModelHashCache::SetCapacity(unsigned int capacity) {
  cache_.capacity = CapacityOf(capacity);
  log_(kInfo, "SetCapacity", kModelCacheFile, "Set max cache capacity to %u", cache_.capacity);
  Wipe();
}

void ModelHashCache::Register(orvex_query_cb callback) {
  cache_.callback = callback;
  LogRegistration(log_);
}

void ModelHashCache::Dump() const {
  log_(kDebug, "DumpCache", kModelCacheFile, "Cache capacity = %u", cache_.capacity);
  const auto keys = cache_.KeysInOrder();
  log_(kDebug, "DumpCacheMap", kModelCacheFile, "CacheMap.size=%u",
       static_cast<unsigned int>(keys.size()));
  for (const ModelKey* key : keys) LogKey(log_, *key);
  log_(kDebug, "DumpCacheNodeList", kModelCacheFile, "CacheNodeList.size=%u",
       static_cast<unsigned int>(cache_.nodes.size()));
  for (const auto& node : cache_.nodes) node->Dump(log_);
}

void ModelHashCache::DumpMetrics() const {
  using intmax = intmax_t;
  const ModelHashCounters& c = counters;
  log_(kDebug, "DumpMetrics", kModelCacheFile,
       "Cache Metrics: Query=%jd, Miss=%jd, Hit=%jd, PartialHit=%jd, Out-of-date=%jd, "
       "WipeOuts=%jd, numOfCacheUpdateMetaDataSuccess=%jd, numOfCacheUpdateMetaDataFailure=%jd, "
       "numOfHelpFuncCalled=%jd, numOfWaitInHashCalculation=%jd",
       intmax{c.query}, intmax{c.miss}, intmax{c.hit}, intmax{c.partialHit}, intmax{c.outOfDate},
       intmax{c.wipeOuts}, intmax{c.updateSuccess}, intmax{c.updateFailure}, intmax{c.hostCalls},
       intmax{c.waits});
}

void ModelHashCache::Look(CacheState& state) const {
  state.active = cache_.active;
  state.capacity = cache_.capacity;
  state.nodes.clear();
  for (const auto& node : cache_.nodes) state.nodes.push_back(node->State());
  state.keys.clear();
  for (const ModelKey* key : cache_.KeysInOrder()) state.keys.push_back(key->State());
}
