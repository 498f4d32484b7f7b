// The identity of a file in both caches.
#include "cache/orvex_lru_cache_key.h"

#include <functional>

#include "cache/orvex_lru_cache_text.h"
#include "support/orvex_log.h"

namespace {

// Multiplicative hashing (Knuth, The Art of Computer Programming, volume 3, 6.4), each
// field by an odd factor of its own, so that the products need not wait for each
// other. The factors are the fractions of square roots of primes: 3, 5, 7, 11 and 13.
constexpr uint64_t kSizeFactor = 0xBB67AE8584CAA73B;
constexpr uint64_t kMtimeFactor = 0x3C6EF372FE94F82B;
constexpr uint64_t kDeviceFactor = 0xA54FF53A5F1D36F1;
constexpr uint64_t kFileFactor = 0x510E527FADE682D1;
constexpr uint64_t kPathFactor = 0x9B05688C2B3E6C1F;

// For a key and for what borrows its path: an insertion into a full cache compares a
// dozen keys, and need not make views of them first.
template <typename Key>
bool Less(const Key& left, const Key& right) {
  if ((left.flags & KEY_PATH) != 0) {
    if (const int order = left.path.compare(right.path); order != 0) return order < 0;
  }
  if ((left.flags & KEY_SIZE) != 0 && left.size != right.size) return left.size < right.size;
  if ((left.flags & KEY_MTIME) != 0 && left.mtime != right.mtime) return left.mtime < right.mtime;
  if ((left.flags & KEY_DEVICE_ID) != 0 && left.deviceID != right.deviceID) {
    return left.deviceID < right.deviceID;
  }
  return (left.flags & KEY_FILE_ID) != 0 && left.fileID < right.fileID;
}

}  // namespace

LRUCacheKey::LRUCacheKey() = default;

LRUCacheKey::LRUCacheKey(metadata_input_s& in)
    : flags(in.fileOperation),
      name(TextOrEmpty(in.name)),
      path(TextOrEmpty(in.path)),
      size(in.size),
      mtime(in.mtime),
      deviceID(in.deviceID),
      fileID(in.fileID) {}

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

bool LRUCacheKey::operator<(const LRUCacheKey& right) const { return Less(*this, right); }

bool LRUCacheKey::operator==(const LRUCacheKey& other) {
  return path == other.path && size == other.size && mtime == other.mtime &&
         deviceID == other.deviceID && fileID == other.fileID;
}

void LRUCacheKey::Dump() const {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, kLRUCacheSourceFile,
                    "Key: flags=0x%08x, path=%s, size=%llu, mtime=%llu, deviceID=%llu, fileID=%llu",
                    flags, path.c_str(), PrintableNumber(size), PrintableNumber(mtime),
                    PrintableNumber(deviceID), PrintableNumber(fileID));
}

LRUCacheKeyView::LRUCacheKeyView(const metadata_input_s& in)
    : flags(in.fileOperation),
      path(TextOrEmpty(in.path)),
      size(in.size),
      mtime(in.mtime),
      deviceID(in.deviceID),
      fileID(in.fileID) {}

uint32_t LRUCacheKeyView::Hash(bool alsoPath) const {
  uint64_t hash = 0;
  if ((flags & KEY_SIZE) != 0) hash += size * kSizeFactor;
  if ((flags & KEY_MTIME) != 0) hash += mtime * kMtimeFactor;
  if ((flags & KEY_DEVICE_ID) != 0) hash += deviceID * kDeviceFactor;
  if ((flags & KEY_FILE_ID) != 0) hash += fileID * kFileFactor;
  const bool numbersSuffice = !alsoPath && (flags & KEY_FILE_ID) != 0 && fileID != 0;
  if (!numbersSuffice && (flags & KEY_PATH) != 0) {
    hash += std::hash<std::string_view>()(path) * kPathFactor;
  }
  return static_cast<uint32_t>(hash >> 32);
}

bool operator<(const LRUCacheKeyView& left, const LRUCacheKeyView& right) {
  return Less(left, right);
}
