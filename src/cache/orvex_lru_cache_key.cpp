// The identity of a file in both caches.
#include "cache/orvex_lru_cache_key.h"

LRUCacheKey::LRUCacheKey() = default;

LRUCacheKey::LRUCacheKey(metadata_input_s& in) { Read(in); }

LRUCacheKey::LRUCacheKey(const LRUCacheKey& other) = default;

LRUCacheKey::~LRUCacheKey() = default;

LRUCacheKey& LRUCacheKey::operator=(const LRUCacheKey& other) {
  path = other.path;
  size = other.size;
  mtime = other.mtime;
  deviceID = other.deviceID;
  fileID = other.fileID;
  flags = other.flags;
  return *this;
}

void LRUCacheKey::Read(const metadata_input_s& in) {
  flags = in.fileOperation;
  name = TextOrEmpty(in.name);
  path = TextOrEmpty(in.path);
  size = in.size;
  mtime = in.mtime;
  deviceID = in.deviceID;
  fileID = in.fileID;
}

bool LRUCacheKey::operator<(const LRUCacheKey& right) const {
  return LRUCacheKeyView(*this) < LRUCacheKeyView(right);
}

bool LRUCacheKey::operator==(const LRUCacheKey& other) {
  return path == other.path && size == other.size && mtime == other.mtime &&
         deviceID == other.deviceID && fileID == other.fileID;
}

void LRUCacheKey::Dump() const { LRUCacheKeyView(*this).Dump(); }
