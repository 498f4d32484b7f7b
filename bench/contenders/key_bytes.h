// The five identity fields concatenated, for caches whose keys are bytes.
#pragma once

#include <cstring>

#include "orvexeng.h"

namespace cost {

// Path, then the numbers. On the stack: such a cache copies what it keeps.
class KeyBytes {
 public:
  explicit KeyBytes(const metadata_input_s& in) {
    const size_t length = strnlen(in.path, kLongestPath);
    char* end = static_cast<char*>(std::memcpy(bytes_, in.path, length)) + length;
    for (const uint64_t number : {in.size, in.mtime, in.deviceID, in.fileID}) {
      std::memcpy(end, &number, sizeof number);
      end += sizeof number;
    }
    size_ = static_cast<size_t>(end - bytes_);
  }

  const char* Bytes() const { return bytes_; }
  size_t Size() const { return size_; }

 private:
  static constexpr size_t kLongestPath = 4096;

  char bytes_[kLongestPath + 4 * sizeof(uint64_t)];
  size_t size_;
};

}  // namespace cost
