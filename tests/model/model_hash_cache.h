// The model of the cache of digests, signers and other per-file metadata.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "model/model_cache.h"
#include "model/model_log.h"
#include "orvexeng.h"

struct ModelHashNode {
  void Merge(const metadata_input_s& in, const metadata_output_s& out);
  void CopyTo(metadata_output_s& out, const ModelLog& log) const;
  void Dump(const ModelLog& log) const;
  NodeState State() const;

  int entry = 0;
  uint32_t queryFlags = 0;
  uint32_t fileOperation = 0;
  uint32_t invOperation = 0;
  uint64_t recordTime = 0;
  std::string path;
  uint64_t size = 0;
  uint64_t mtime = 0;
  uint32_t signerCount = 0;
  std::vector<char> signers;
  std::string digest16 = std::string(16, '\0');
  std::string digest20 = std::string(20, '\0');
  std::string digest32 = std::string(32, '\0');
  std::string auxDigest20 = std::string(20, '\0');
  uint64_t deviceID = 0;
  uint64_t fileID = 0;
  bool feedback = false;
};

// In the order of their line in the log.
struct ModelHashCounters {
  int64_t query = 0;
  int64_t miss = 0;
  int64_t hit = 0;
  int64_t partialHit = 0;
  int64_t outOfDate = 0;
  int64_t wipeOuts = 0;
  int64_t updateSuccess = 0;
  int64_t updateFailure = 0;
  int64_t hostCalls = 0;
  int64_t waits = 0;
};

class ModelHashCache {
 public:
  explicit ModelHashCache(const ModelLog& log) : log_(log) {}

  void Init();
  void Deinit();
  int Query(metadata_input_s* in, metadata_output_s* out, void* ctx);
  void UpdateMetadata(metadata_input_s* in, metadata_output_s* out);
  void Flush();
  void SetCapacity(unsigned int capacity);
  void Register(orvex_query_cb callback);
  void Dump() const;
  void DumpMetrics() const;
  void Look(CacheState& state) const;

  ModelHashCounters counters;
  int threads = 0;
  bool setActive = false;
  std::set<std::string> calculating;

 private:
  enum class Lookup { kMiss, kHit, kPartialHit, kOutOfDate };

  Lookup LookUp(metadata_input_s* in, metadata_output_s* out);
  int Calculate(const std::string& path, metadata_input_s* in, metadata_output_s* out, void* ctx);
  int Update(metadata_input_s* in, metadata_output_s* out);
  void MoveToFront(ModelHashNode* node);
  void Insert(const ModelKey& key, std::unique_ptr<ModelHashNode> node);
  void Wipe();

  const ModelLog& log_;
  ModelCache<ModelHashNode> cache_;
};

// A count incremented here and decremented on every way out.
class ModelCount {
 public:
  explicit ModelCount(int& count) : count_(count) { ++count_; }
  ~ModelCount() { --count_; }
  ModelCount(const ModelCount&) = delete;
  ModelCount& operator=(const ModelCount&) = delete;

 private:
  int& count_;
};

// The effective capacity for a requested one.
inline unsigned int CapacityOf(unsigned int wanted) {
  return wanted >= 1 && wanted <= ORVEX_MAX_CAPACITY ? wanted : ORVEX_MAX_CAPACITY;
}

constexpr char kModelCacheFile[] = "orvex_lru_cache";

void LogKey(const ModelLog& log, const ModelKey& key);
void LogRegistration(const ModelLog& log);
