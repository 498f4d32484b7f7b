// The identity of a file in both caches.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include "cache/orvex_lru_cache_text.h"
#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_log.h"

// Identifies a cached file. The mask in flags selects the fields that count.
//
// Invariant: operator< is a strict weak order only among keys with the same mask.
class ORVEX_API LRUCacheKey {
 public:
  LRUCacheKey();
  explicit LRUCacheKey(metadata_input_s& in);
  // Reads the key from the record. If it throws std::bad_alloc, the key
  // is only partly overwritten.
  ORVEX_LOCAL void Read(const metadata_input_s& in);
  LRUCacheKey(const LRUCacheKey& other);
  virtual ~LRUCacheKey();
  // Does not copy the name. For hosts, like the comparisons and Dump.
  LRUCacheKey& operator=(const LRUCacheKey& other);

  // Compares the fields selected by the left key's mask; the right one's is ignored. Path bytes
  // compare as unsigned.
  bool operator<(const LRUCacheKey& right) const;
  // Compares path and numbers, regardless of both masks.
  bool operator==(const LRUCacheKey& other);

  // Logs the key at DEBUG.
  void Dump() const;

  uint32_t flags = 0;  // KEY_*
  std::string name;    // kept for the host; never compared, never printed
  std::string path;
  uint64_t size = 0;
  uint64_t mtime = 0;
  uint64_t deviceID = 0;
  uint64_t fileID = 0;
};

// A key that borrows its path: building one for a lookup needs no memory and cannot fail. Cached
// keys are views too; most share the text of their nodes.
//
// Ownership: valid while the record or key it was made from is.
struct ORVEX_LOCAL LRUCacheKeyView {
  LRUCacheKeyView(uint32_t itsFlags, const char* itsPath, uint64_t itsSize, uint64_t itsMtime,
                  uint64_t itsDeviceID, uint64_t itsFileID)
      : flags(itsFlags),
        path(itsPath),
        size(itsSize),
        mtime(itsMtime),
        deviceID(itsDeviceID),
        fileID(itsFileID) {}
  explicit LRUCacheKeyView(const metadata_input_s& in)
      : flags(in.fileOperation),
        path(TextOrEmpty(in.path)),
        size(in.size),
        mtime(in.mtime),
        deviceID(in.deviceID),
        fileID(in.fileID) {}
  // Implicit: a key can be passed wherever a view is expected.
  LRUCacheKeyView(const LRUCacheKey& key)
      : flags(key.flags),
        path(key.path.c_str()),
        size(key.size),
        mtime(key.mtime),
        deviceID(key.deviceID),
        fileID(key.fileID) {}

  // Logs the key at DEBUG.
  void Dump() const;

  uint32_t flags;
  const char* path;  // never null
  uint64_t size;
  uint64_t mtime;
  uint64_t deviceID;
  uint64_t fileID;
};

// The functions below take views and records alike, so that a hit copies no record.

inline uint32_t MaskOf(const LRUCacheKeyView& key) { return key.flags; }
inline uint32_t MaskOf(const metadata_input_s& in) { return in.fileOperation; }

// The mask bits that select a field.
constexpr uint32_t kKeyFields = KEY_PATH | KEY_SIZE | KEY_MTIME | KEY_DEVICE_ID | KEY_FILE_ID;
template <typename AnyKey>
uint32_t FieldsOf(const AnyKey& key) {
  return MaskOf(key) & kKeyFields;
}

template <typename AnyKey, typename Numbers>
__attribute__((noinline)) bool AreEqualWhereSelected(const AnyKey& left, const Numbers& right,
                                                     const char* path) {
  const uint32_t mask = MaskOf(left);
  return ((mask & KEY_FILE_ID) == 0 || left.fileID == right.fileID) &&
         ((mask & KEY_SIZE) == 0 || left.size == right.size) &&
         ((mask & KEY_MTIME) == 0 || left.mtime == right.mtime) &&
         ((mask & KEY_DEVICE_ID) == 0 || left.deviceID == right.deviceID) &&
         ((mask & KEY_PATH) == 0 || std::strcmp(TextOrEmpty(left.path), path) == 0);
}

// Whether the selected fields are equal. Both keys select the same ones, nearly always all. The
// right one's path is stored apart from its numbers.
template <typename AnyKey, typename Numbers>
bool AreEqual(const AnyKey& left, const Numbers& right, const char* path) {
  if (FieldsOf(left) != kKeyFields) return AreEqualWhereSelected(left, right, path);
  return ((left.fileID ^ right.fileID) | (left.size ^ right.size) | (left.mtime ^ right.mtime) |
          (left.deviceID ^ right.deviceID)) == 0 &&
         std::strcmp(TextOrEmpty(left.path), path) == 0;
}

// A number's share of a hash, whose upper 32 bits are used. 32-bit targets multiply the halves
// separately: a 64-bit product would cost half as much again.
inline size_t HashOfNumber(uint64_t number, uint64_t factor) {
  if (sizeof(size_t) == sizeof number) return static_cast<size_t>(number * factor);
  return static_cast<uint32_t>(number) * static_cast<uint32_t>(factor) +
         static_cast<uint32_t>(number >> 32) * static_cast<uint32_t>(factor >> 32);
}

// The upper 32 bits of a sum of such shares.
inline uint32_t HashOfSum(size_t sum) {
  return static_cast<uint32_t>(sum >> (8 * sizeof sum - 32));
}

template <typename AnyKey>
__attribute__((noinline)) uint32_t HashOfPath(const AnyKey& key) {
  return HashOfSum(
      HashOfNumber(std::hash<std::string_view>()(TextOrEmpty(key.path)), 0x9B05688C2B3E6C1F));
}

// Equal keys hash equally; use the high bits. Skips the path when the file number is known:
// hashing it costs ten times as much.
//
// Multiplicative hashing (Knuth, The Art of Computer Programming, volume 3, 6.4), each field with
// its own factor, so that the multiplications run in parallel. The factors are the fractions of
// square roots of primes (3, 5, 7, 11 and 13), made odd.
template <typename AnyKey>
uint32_t HashOf(const AnyKey& key) {
  const uint32_t mask = MaskOf(key);
  size_t hash = 0;
  if ((mask & KEY_SIZE) != 0) hash += HashOfNumber(key.size, 0xBB67AE8584CAA73B);
  if ((mask & KEY_MTIME) != 0) hash += HashOfNumber(key.mtime, 0x3C6EF372FE94F82B);
  if ((mask & KEY_DEVICE_ID) != 0) hash += HashOfNumber(key.deviceID, 0xA54FF53A5F1D36F1);
  if ((mask & KEY_FILE_ID) != 0) hash += HashOfNumber(key.fileID, 0x510E527FADE682D1);
  if ((mask & KEY_PATH) != 0 && ((mask & KEY_FILE_ID) == 0 || key.fileID == 0)) {
    return HashOfSum(hash) + HashOfPath(key);
  }
  return HashOfSum(hash);
}

inline void LRUCacheKeyView::Dump() const {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                    "Key: flags=0x%08x, path=%s, size=%llu, mtime=%llu, deviceID=%llu, fileID=%llu",
                    flags, path, PrintableNumber(size), PrintableNumber(mtime),
                    PrintableNumber(deviceID), PrintableNumber(fileID));
}

// Compares the fields selected by the left key's mask.
inline bool operator<(const LRUCacheKeyView& left, const LRUCacheKeyView& right) {
  if ((left.flags & KEY_PATH) != 0) {
    if (const int order = std::strcmp(left.path, right.path); order != 0) return order < 0;
  }
  if ((left.flags & KEY_SIZE) != 0 && left.size != right.size) return left.size < right.size;
  if ((left.flags & KEY_MTIME) != 0 && left.mtime != right.mtime) return left.mtime < right.mtime;
  if ((left.flags & KEY_DEVICE_ID) != 0 && left.deviceID != right.deviceID) {
    return left.deviceID < right.deviceID;
  }
  return (left.flags & KEY_FILE_ID) != 0 && left.fileID < right.fileID;
}
