// The naive cache: a vector in recency order, searched from one end to the other.
#include "model/model_cache.h"

ModelKey::ModelKey(const metadata_input_s& in)
    : flags(in.fileOperation),
      path(in.path != nullptr ? in.path : ""),
      numbers{in.size, in.mtime, in.deviceID, in.fileID} {}

KeyState ModelKey::State() const {
  return {flags, path, numbers[0], numbers[1], numbers[2], numbers[3]};
}

bool ComesFirst(const ModelKey& left, const ModelKey& right) {
  if ((left.flags & KEY_PATH) != 0) {
    const int order = left.path.compare(right.path);  // as unsigned bytes
    if (order != 0) return order < 0;
  }
  for (int i = 0; i < 4; ++i) {
    const bool counts = (left.flags & (2U << i)) != 0;
    if (counts && left.numbers[i] != right.numbers[i]) return left.numbers[i] < right.numbers[i];
  }
  return false;
}

bool SameFile(uint32_t mask, const ModelKey& left, const ModelKey& right) {
  return ((mask & KEY_SIZE) == 0 || left.numbers[0] == right.numbers[0]) &&
         ((mask & KEY_MTIME) == 0 || left.numbers[1] == right.numbers[1]) &&
         ((mask & KEY_DEVICE_ID) == 0 || left.numbers[2] == right.numbers[2]) &&
         ((mask & KEY_FILE_ID) == 0 || left.numbers[3] == right.numbers[3]) &&
         ((mask & KEY_PATH) == 0 || left.path == right.path);
}
