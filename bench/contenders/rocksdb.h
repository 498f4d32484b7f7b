// RocksDB's caches: LRU in one shard and in sixteen, and its clock cache.
#pragma once

#include <rocksdb/cache.h>

#include <memory>

#include "contenders/key_bytes.h"
#include "counts/host.h"
#include "identity.h"

namespace cost {

// Recency order is exact in one shard, and per shard in more. Leaves out what
// textbook.h lists.
template <int ShardBits>
class RocksDbLru {
 public:
  static constexpr const char* kName = ShardBits == 0 ? "rocksdb-lru-1" : "rocksdb-lru-16";
  static constexpr bool kExact = ShardBits == 0;

  // Entries are charged one each, all at the same priority.
  explicit RocksDbLru(size_t capacity)
      : cache_(rocksdb::NewLRUCache(capacity, ShardBits, false, 0, nullptr, false,
                                    rocksdb::kDontChargeCacheMetadata)) {}

  void Query(metadata_input_s& in, metadata_output_s& out) {
    const KeyBytes bytes(in);
    const rocksdb::Slice key(bytes.Bytes(), bytes.Size());
    if (rocksdb::Cache::Handle* const found = cache_->Lookup(key)) {
      out = *static_cast<const metadata_output_s*>(cache_->Value(found));
      cache_->Release(found);
      return;
    }
    if (AnswerHash(&in, &out, nullptr) != 0) return;
    cache_->Insert(key, new metadata_output_s(out), 1, Delete).PermitUncheckedError();
  }

 private:
  static void Delete(const rocksdb::Slice&, void* answer) {
    delete static_cast<metadata_output_s*>(answer);
  }

  const std::shared_ptr<rocksdb::Cache> cache_;
};

// The clock cache takes keys of sixteen bytes only: a digest of the fields finds
// the entry, whose own key is then compared. No recency order, only a few chances
// for each entry, and no lock on a hit.
class RocksDbClock {
 public:
  static constexpr const char* kName = "rocksdb-clock";
  static constexpr bool kExact = false;

  explicit RocksDbClock(size_t capacity)
      : cache_(rocksdb::HyperClockCacheOptions(capacity, 1, 0, false, nullptr,
                                               rocksdb::kDontChargeCacheMetadata)
                   .MakeSharedCache()) {}

  void Query(metadata_input_s& in, metadata_output_s& out) {
    const Identity id(in);
    const size_t hash = StandardHash()(id);
    uint64_t digest[2] = {hash * 0x9E3779B97F4A7C15U, id.fileID ^ id.mtime};
    const rocksdb::Slice key(reinterpret_cast<const char*>(digest), sizeof digest);
    if (rocksdb::Cache::Handle* const found = cache_->Lookup(key)) {
      const Entry* const entry = static_cast<const Entry*>(cache_->Value(found));
      const bool same = entry->id == id;
      if (same) out = entry->answer;
      cache_->Release(found);
      if (same) return;
    }
    if (AnswerHash(&in, &out, nullptr) != 0) return;
    cache_->Insert(key, new Entry(id, out), 1, Delete).PermitUncheckedError();
  }

 private:
  struct Entry {
    Entry(const Identity& identity, const metadata_output_s& answered)
        : path(identity.path), id(identity, path), answer(answered) {}

    std::string path;
    Identity id;
    metadata_output_s answer;
  };

  static void Delete(const rocksdb::Slice&, void* entry) { delete static_cast<Entry*>(entry); }

  const std::shared_ptr<rocksdb::Cache> cache_;
};

}  // namespace cost
