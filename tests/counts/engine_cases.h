// Queries other than plain hits.
#pragma once

#include <string>
#include <vector>

#include "counts/engine.h"
#include "counts/keys.h"

namespace cost {

struct EngineCase {
  const char* name;
  uint32_t queryFlags;
  uint32_t invOperation;
  bool known;  // whether the cache holds the files asked for
};

constexpr EngineCase kEngineCases[] = {
    {"file-type-hit", QUERY_FILE_TYPE, INV_KEEP_IN_CACHE, true},
    {"both-hit", QUERY_FILE_TYPE | QUERY_SIZE, INV_KEEP_IN_CACHE, true},
    {"cache-only-miss", kPartsWanted, INV_CACHE_ONLY, false},
    {"three-signers-hit", kPartsWanted | QUERY_SIGNERS, INV_KEEP_IN_CACHE, true},
};

// An engine whose caches are full of entries with signers and file types, and the
// queries of one case.
class EngineInCase {
 public:
  explicit EngineInCase(const EngineCase& asked);
  ~EngineInCase() { delete[] out_.signers; }
  EngineInCase(const EngineInCase&) = delete;
  EngineInCase& operator=(const EngineInCase&) = delete;

  void Query(size_t number) {
    out_.queryFlags = 0;
    engine_.Query(queries_[number], out_);
  }

  // Whether the last query was answered.
  bool Answered() const { return out_.resultReady == 1 || out_.queryFlags == QUERY_FILE_TYPE; }

 private:
  Engine engine_;
  std::vector<std::string> paths_;
  std::vector<metadata_input_s> queries_;
  metadata_output_s out_{};
};

}  // namespace cost
