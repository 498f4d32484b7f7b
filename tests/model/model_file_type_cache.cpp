// The model of the cache of file types.
#include "model/model_file_type_cache.h"

#include "model/model_hash_cache.h"

namespace {

using Number = unsigned long long;

// How a null text prints.
const char* Printable(const char* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

void ModelTypeNode::Merge(const metadata_input_s& in, const metadata_output_s& out) {
  path = in.path != nullptr ? in.path : "";
  if (in.mtime != 0) {
    mtime = in.mtime;
    queryFlag |= QUERY_MTIME;
  }
  if ((out.queryFlags & QUERY_FILE_TYPE) != 0) {
    major = out.major;
    minor = out.minor;
    queryFlag |= QUERY_FILE_TYPE;
  }
}

void ModelTypeNode::CopyTo(metadata_output_s& out) const {
  if ((queryFlag & QUERY_MTIME) != 0) out.modificationTime = mtime;
  if ((queryFlag & QUERY_FILE_TYPE) != 0) {
    out.major = static_cast<int32_t>(major);
    out.minor = static_cast<int32_t>(minor);
  }
  out.queryFlags |= queryFlag;
}

void ModelTypeNode::Dump(const ModelLog& log) const {
  // The conversions do not follow the arguments, which are 64 bits wide but for
  // the last: where arguments lie one after another, %d takes half of one.
  const bool halves = sizeof(void*) == 4;
  log(kInfo, "Dump", kModelCacheFile,
      "Node: path=%s major=%d, minor=%d, mtime=%llu, queryFlag=%llu", path.c_str(),
      static_cast<int32_t>(major), static_cast<int32_t>(halves ? major >> 32 : minor),
      halves ? static_cast<Number>(minor) : Number{mtime},
      halves ? Number{mtime} : Number{queryFlag});
}

NodeState ModelTypeNode::State() const {
  NodeState state;
  state.hasEntry = entry != 0;
  state.queryFlags = queryFlag;
  state.path = path;
  state.major = major;
  state.minor = minor;
  state.mtime = mtime;
  return state;
}

void ModelFileTypeCache::Init() { cache_.active = true; }

void ModelFileTypeCache::Deinit() {
  cache_.active = false;
  Flush();
  counters = {};
}

int ModelFileTypeCache::Query(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  if (!cache_.active) return ORVEX_CACHE_NOT_INITIALISED;
  if (out == nullptr || in == nullptr) return ORVEX_INVALID_PARAMETER;
  const Lookup lookup = LookUp(in, out);
  log_(kDebug, "Query", kModelCacheFile, "FileTypeCache::Query [%s] result=%d", Printable(in->path),
       int{lookup});
  if (lookup == kHit) {
    out->resultReady = 1;
    return ORVEX_OK;
  }
  out->resultReady = 0;
  int code = 0;
  bool keep = false;
  {
    // Counted after the line, and also when the host throws.
    struct CountCall {
      int64_t& calls;
      ~CountCall() { ++calls; }
    } const countCall{counters.hostCalls};
    code = cache_.callback(in, out, ctx);
    keep = (in->invOperation & INV_KEEP_IN_CACHE) != 0;
    log_(kDebug, "Query", kModelCacheFile, "Get file type result [%d]. Keep in cache [%d]", code,
         keep ? 1 : 0);
  }
  if (code != 0) return code;
  out->resultReady = 1;
  if (keep) Update(in, out);
  return ORVEX_OK;
}

ModelFileTypeCache::Lookup ModelFileTypeCache::LookUp(metadata_input_s* in,
                                                      metadata_output_s* out) {
  const char* const path = Printable(in->path);
  ModelTypeNode* const node = cache_.Find(ModelKey(*in));
  if (node == nullptr) {
    ++counters.miss;
    log_(kDebug, "QueryLRUCache", kModelCacheFile, "Cache query: cache miss, %s", path);
    return kMiss;
  }
  if (in->mtime != 0 && in->mtime != node->mtime) {
    ++counters.outOfDate;
    log_(kWarning, "QueryLRUCache", kModelCacheFile,
         "Cache query: cache out-of-date, (%llu/%llu) %s", Number{in->mtime}, Number{node->mtime},
         path);
    return kOutOfDate;
  }
  ++counters.hit;
  log_(kDebug, "QueryLRUCache", kModelCacheFile, "Cache query: cache hits, %s", path);
  node->CopyTo(*out);
  MoveToFront(node);
  return kHit;
}

void ModelFileTypeCache::Update(metadata_input_s* in, metadata_output_s* out) {
  const ModelKey key(*in);
  if (ModelTypeNode* const node = cache_.Find(key)) {
    node->Merge(*in, *out);
    MoveToFront(node);
    return;
  }
  auto node = std::make_unique<ModelTypeNode>();
  node->Merge(*in, *out);
  const std::string path = node->path;
  cache_.Insert(key, std::move(node));
  log_(kDebug, "LRUCacheNodeUpdate", kModelCacheFile, "Insert new cache node: path=%s",
       path.c_str());
  Wipe();
}

void ModelFileTypeCache::MoveToFront(ModelTypeNode* node) {
  cache_.MoveToFront(node);
  log_(kDebug, "LRUCacheNodeUpdate", kModelCacheFile, "Cache node updated: path=%s",
       node->path.c_str());
}

void ModelFileTypeCache::Wipe() {
  while (cache_.nodes.size() > cache_.capacity) {
    log_(kDebug, "LRUCacheNodeWipe", kModelCacheFile,
         "Reach max cache capacity, start to remove oldest one");
    cache_.nodes.back()->Dump(log_);
    cache_.RemoveOldest();
    ++counters.wipeOuts;
  }
}

void ModelFileTypeCache::Flush() { cache_.Clear(); }

void ModelFileTypeCache::SetCapacity(unsigned int capacity) {
  cache_.capacity = CapacityOf(capacity);
  log_(kInfo, "SetCapacity", kModelCacheFile, "Set max cache capacity to %u", cache_.capacity);
  Wipe();
}

void ModelFileTypeCache::Register(orvex_query_cb callback) {
  cache_.callback = callback;
  LogRegistration(log_);
}

void ModelFileTypeCache::Dump() const {
  log_(kDebug, "DumpCache", kModelCacheFile, "Cache capacity = %u", cache_.capacity);
  const auto keys = cache_.KeysInOrder();
  log_(kDebug, "DumpCacheMap", kModelCacheFile, "CacheMap.size=%u",
       static_cast<unsigned int>(keys.size()));
  for (const ModelKey* key : keys) LogKey(log_, *key);
  log_(kDebug, "DumpCacheNodeList", kModelCacheFile, "CacheNodeList.size=%u",
       static_cast<unsigned int>(cache_.nodes.size()));
  for (const auto& node : cache_.nodes) node->Dump(log_);
}

void ModelFileTypeCache::DumpMetrics() const {
  using intmax = intmax_t;
  log_(kDebug, "DumpMetrics", kModelCacheFile,
       "File type cache Metrics: Hit=%jd, Miss=%jd, Out-of-date=%jd, WipeOuts=%jd, "
       "numOfHelpFuncCalled=%jd",
       intmax{counters.hit}, intmax{counters.miss}, intmax{counters.outOfDate},
       intmax{counters.wipeOuts}, intmax{counters.hostCalls});
}

void ModelFileTypeCache::Look(CacheState& state) const {
  state.active = cache_.active;
  state.capacity = cache_.capacity;
  state.nodes.clear();
  for (const auto& node : cache_.nodes) state.nodes.push_back(node->State());
  state.keys.clear();
  for (const ModelKey* key : cache_.KeysInOrder()) state.keys.push_back(key->State());
}
