// LevelDB's cache: sixteen shards, each with a mutex, a hash table and two lists.
#pragma once

#include <leveldb/cache.h>

#include <memory>

#include "contenders/key_bytes.h"
#include "counts/host.h"

namespace cost {

// Recency per shard: it evicts roughly the oldest, and a shard may be full while
// others are not. A hit reads the record without a lock, through a refcounted
// handle. Leaves out what textbook.h lists.
class LevelDb {
 public:
  static constexpr const char* kName = "leveldb";
  static constexpr bool kExact = false;

  explicit LevelDb(size_t capacity) : cache_(leveldb::NewLRUCache(capacity)) {}

  void Query(metadata_input_s& in, metadata_output_s& out) {
    const KeyBytes bytes(in);
    const leveldb::Slice key(bytes.Bytes(), bytes.Size());
    if (leveldb::Cache::Handle* const found = cache_->Lookup(key)) {
      out = *static_cast<const metadata_output_s*>(cache_->Value(found));
      cache_->Release(found);
      return;
    }
    if (AnswerHash(&in, &out, nullptr) != 0) return;
    cache_->Release(cache_->Insert(key, new metadata_output_s(out), 1, Delete));
  }

 private:
  static void Delete(const leveldb::Slice&, void* answer) {
    delete static_cast<metadata_output_s*>(answer);
  }

  const std::unique_ptr<leveldb::Cache> cache_;
};

}  // namespace cost
