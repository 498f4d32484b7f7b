// The cache of file types.
#include "cache/orvex_lru_cache_file_type.h"

#include <exception>

#include "support/orvex_log.h"

template class LRUCacheT<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>;
template class ORVEX_Singleton<FileTypeCache>;

FileTypeCacheNode::FileTypeCacheNode() = default;

FileTypeCacheNode::FileTypeCacheNode(metadata_input_s& in, metadata_output_s& out)
    : path(TextOrEmpty(in.path)) {
  SetDataToCacheNode(in, out);
}

FileTypeCacheNode& FileTypeCacheNode::operator=(FileTypeCacheNode& other) {
  path = other.path;
  if ((other.queryFlag & QUERY_FILE_TYPE) != 0) {
    queryFlag |= QUERY_FILE_TYPE;
    major = other.major;
    minor = other.minor;
  }
  return *this;
}

void FileTypeCacheNode::SetDataToCacheNode(metadata_input_s& in, metadata_output_s& out) {
  // First, because only this can fail. An equal text is left in
  // place: a key may share it.
  if (path != TextOrEmpty(in.path)) path = TextOrEmpty(in.path);
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

unsigned int FileTypeCacheNode::GetDataFromCacheNode(metadata_output_s& out) {
  if ((queryFlag & QUERY_MTIME) != 0) {
    out.queryFlags |= QUERY_MTIME;
    out.modificationTime = mtime;
  }
  if ((queryFlag & QUERY_FILE_TYPE) != 0) {
    out.queryFlags |= QUERY_FILE_TYPE;
    out.major = static_cast<int32_t>(major);
    out.minor = static_cast<int32_t>(minor);
  }
  return ORVEX_OK;
}

void FileTypeCacheNode::Dump() const {
  // Log readers rely on this line as it is. Its conversions are
  // narrower than the numbers, so on 32 bits the values after the
  // path do not match their labels. The last argument takes one
  // argument slot on either target.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kLRUCacheSourceFile,
                    "Node: path=%s major=%d, minor=%d, mtime=%llu, queryFlag=%llu", path.c_str(),
                    major, minor, mtime, static_cast<unsigned long>(queryFlag));
#pragma GCC diagnostic pop
}

FileTypeCache::FileTypeCache() { isFinal_ = true; }

FileTypeCache::FileTypeCache(unsigned int newCapacity) : FileTypeCache() {
  SetCapacity(newCapacity);
}

int FileTypeCache::Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) {
  // Before the records: a stopped cache returns 8 whatever it is passed.
  if (!IsActive()) return ORVEX_CACHE_NOT_INITIALISED;
  if (metaOut == nullptr || metaIn == nullptr) return ORVEX_INVALID_PARAMETER;

  const int lookup = QueryLRUCache(metaIn, metaOut);
  if (lookup == LRU_NO_MEMORY) {
    metaOut->resultReady = 0;
    return ORVEX_NO_MEMORY;
  }
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                    "FileTypeCache::Query [%s] result=%d", metaIn->path, lookup);
  if (lookup == LRU_HIT) {
    metaOut->resultReady = 1;
    return ORVEX_OK;
  }
  if (lookup != LRU_MISS && lookup != LRU_OUT_OF_DATE) return ORVEX_OK;

  return AskHostAndKeep(metaIn, metaOut, ctx);
}

int FileTypeCache::AskHostAndKeep(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) {
  metaOut->resultReady = 0;
  int code;
  bool keep;
  {
    const ORVEX_CountAtEnd count{&metrics.numOfHelpFuncCalled};
    code = AskHost(metaIn, metaOut, ctx);
    // Checked only now: the callback may have cleared the bit.
    keep = (metaIn->invOperation & INV_KEEP_IN_CACHE) != 0;
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, "Query", kLRUCacheSourceFile,
                      "Get file type result [%d]. Keep in cache [%d]", code, keep);
  }
  if (code != ORVEX_OK) return code;
  metaOut->resultReady = 1;
  return keep ? UpdateCache(metaIn, metaOut) : ORVEX_OK;
}

int FileTypeCache::GetMetrics(FileTypeCacheMetrics_s& out) const {
  ReadMetrics(out);
  return ORVEX_OK;
}

void FileTypeCache::DumpMetrics() const {
  FileTypeCacheMetrics_s now;
  GetMetrics(now);
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                    "File type cache Metrics: Hit=%jd, Miss=%jd, Out-of-date=%jd, WipeOuts=%jd, "
                    "numOfHelpFuncCalled=%jd",
                    intmax_t{now.Hit}, intmax_t{now.Miss}, intmax_t{now.OutOfDate},
                    intmax_t{now.WipeOuts}, intmax_t{now.numOfHelpFuncCalled});
}

int FileTypeCache::QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut) {
  const uint32_t hash = HashOf(*metaIn);
  const ORVEX_MutexGuard guard(&lock);
  const bool observed = IsObserved();
  LRUCacheSlot slot = 0;
  try {
    if (observed) key_.Read(*metaIn);
    slot = entries_.Find(*metaIn, hash);
  } catch (const std::exception&) {
    return LRU_NO_MEMORY;
  }
  FileTypeCacheNode* const node = slot != 0 ? NodeIn(slot) : nullptr;
  if (node == nullptr || (metaIn->mtime != 0 && metaIn->mtime != node->mtime)) {
    return MissOrOutOfDate(node, *metaIn);
  }
  ORVEX_atomic_increment_64(&metrics.Hit);
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile, "Cache query: cache hits, %s",
                    metaIn->path);
  node->GetDataFromCacheNode(*metaOut);
  Use(slot, observed);
  return LRU_HIT;
}

void FileTypeCache::LRUCacheNodeWipe() { EvictBeyondCapacity(); }
