// The identity of a file in both caches.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "orvexeng.h"

// Which file an entry is about, and which of its fields tell it from others.
//
// Invariant: the order is a strict weak one only among keys of one mask.
class ORVEX_API LRUCacheKey {
 public:
  LRUCacheKey();
  explicit LRUCacheKey(metadata_input_s& in);
  LRUCacheKey(const LRUCacheKey& other);
  virtual ~LRUCacheKey();
  // Leaves the name as it is.
  LRUCacheKey& operator=(const LRUCacheKey& other);

  // Orders by the fields that the left key's mask selects; the right one's never
  // matters. Path bytes are unsigned.
  bool operator<(const LRUCacheKey& right) const;
  // Compares path and numbers, whatever either mask says.
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

// A key that borrows its path: looking up needs no memory, and so cannot fail.
//
// Ownership: valid while the record or key it was made from is.
struct LRUCacheKeyView {
  explicit LRUCacheKeyView(const metadata_input_s& in);
  // Implicit, so that a lookup compares views with stored keys. Inline, so that a
  // comparison reads no more of a key than it compares.
  LRUCacheKeyView(const LRUCacheKey& key)
      : flags(key.flags),
        path(key.path),
        size(key.size),
        mtime(key.mtime),
        deviceID(key.deviceID),
        fileID(key.fileID) {}

  // The mask bits that select a field.
  uint32_t Fields() const { return flags & kAllFields; }
  // Whether the selected fields equal the other's; for keys of the same fields.
  bool Equals(const LRUCacheKey& other) const;
  // Equal for equal keys; its upper bits are the better ones. Of the numbers alone
  // where they tell files apart: they cost a tenth of a path.
  uint32_t Hash(bool alsoPath) const;

  static constexpr uint32_t kAllFields =
      KEY_PATH | KEY_SIZE | KEY_MTIME | KEY_DEVICE_ID | KEY_FILE_ID;

  uint32_t flags;
  std::string_view path;
  uint64_t size;
  uint64_t mtime;
  uint64_t deviceID;
  uint64_t fileID;
};

bool operator<(const LRUCacheKeyView& left, const LRUCacheKeyView& right);

inline bool LRUCacheKeyView::Equals(const LRUCacheKey& other) const {
  const auto differs = [this](uint32_t field, uint64_t left, uint64_t right) {
    return (flags & field) != 0 && left != right;
  };
  return !differs(KEY_FILE_ID, fileID, other.fileID) && !differs(KEY_SIZE, size, other.size) &&
         !differs(KEY_MTIME, mtime, other.mtime) &&
         !differs(KEY_DEVICE_ID, deviceID, other.deviceID) &&
         ((flags & KEY_PATH) == 0 || path == other.path);
}
