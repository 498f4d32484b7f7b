// The cache of file types.
#pragma once

#include <cstdint>
#include <string>

#include "cache/orvex_lru_cache_t.h"
#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_singleton.h"

// The type of one file, as the host gave it.
//
// Ownership: belongs to the cache that holds it.
// Locking: none of its own; a cached node is accessed under the cache's lock.
class ORVEX_API FileTypeCacheNode {
 public:
  FileTypeCacheNode();
  // Throws std::bad_alloc, like SetDataToCacheNode.
  FileTypeCacheNode(metadata_input_s& in, metadata_output_s& out);
  FileTypeCacheNode(const FileTypeCacheNode&) = delete;
  // For hosts: the library itself assigns no node.
  // Takes over path and file type; mtime and the place in the cache stay.
  FileTypeCacheNode& operator=(FileTypeCacheNode& other);

  // Merges an answer. Changes nothing if it throws std::bad_alloc.
  void SetDataToCacheNode(metadata_input_s& in, metadata_output_s& out);
  // Copies the parts held into out and adds their bits. Always 0.
  unsigned int GetDataFromCacheNode(metadata_output_s& out);

  // Logs the node at INFO.
  void Dump() const;

  // The number of the node's slot in its cache; meaningless outside.
  LRUCacheSlot mapEntry = 0;
  uint32_t queryFlag = 0;  // QUERY_MTIME, QUERY_FILE_TYPE: which parts are held
  std::string path;
  int64_t major = 0;
  int64_t minor = 0;
  uint64_t mtime = 0;
};

// The counters of the file type cache. Each lookup counts in one of the first
// three.
struct ORVEX_API FileTypeCacheMetrics_s {
  alignas(8) long long Hit = 0;
  alignas(8) long long Miss = 0;
  alignas(8) long long OutOfDate = 0;            // the file's modification time has changed
  alignas(8) long long WipeOuts = 0;             // nodes evicted for capacity
  alignas(8) long long numOfHelpFuncCalled = 0;  // host calls, successful or not
};

// Answers file type queries from the cache or from the host. Threads that miss on a file
// concurrently all ask the host; the last answer is kept.
class ORVEX_API FileTypeCache final
    : public LRUCacheT<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s> {
 public:
  FileTypeCache();
  explicit FileTypeCache(unsigned int newCapacity);

  // Throws what the host's callback throws.
  int Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx) override
      ORVEX_EXCLUDES(lock);
  int GetMetrics(FileTypeCacheMetrics_s& out) const override;
  void DumpMetrics() const override;
  int QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut) override
      ORVEX_EXCLUDES(lock);
  void LRUCacheNodeWipe() override ORVEX_REQUIRES(lock);

 private:
  ORVEX_LOCAL int AskHostAndKeep(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx)
      ORVEX_EXCLUDES(lock);
};

extern template class LRUCacheT<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>;
extern template class ORVEX_Singleton<FileTypeCache>;

// The process's file type cache, as its base class, so that calls are virtual like those of the
// hash cache.
inline LRUCacheT<LRUCacheKey, FileTypeCacheNode, FileTypeCacheMetrics_s>& TypeCache() {
  return *ORVEX_Singleton<FileTypeCache>::GetInstance();
}
