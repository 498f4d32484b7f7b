// What the caches' source files share for reading and logging the host's records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "support/orvex_annotations.h"

// The source file name in every message of both caches.
inline constexpr char kLRUCacheSourceFile[] = "orvex_lru_cache";

inline const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

// A copy of a host's text, made before that may change or go away. Short ones need no memory.
class ORVEX_LOCAL KeptText {
 public:
  // Copies the first text it is given and ignores later ones. Throws std::bad_alloc.
  void Keep(const char* text) {
    if (kept_ != nullptr) return;
    const size_t bytes = std::strlen(text) + 1;
    if (bytes > sizeof short_) long_.reset(new char[bytes]);
    kept_ = static_cast<const char*>(std::memcpy(long_ ? long_.get() : short_, text, bytes));
    length_ = bytes - 1;
  }
  // Null before Keep.
  const char* c_str() const { return kept_; }
  std::string_view View() const { return {kept_, length_}; }

 private:
  const char* kept_ = nullptr;
  size_t length_ = 0;
  std::unique_ptr<char[]> long_;
  char short_[256];
};

// uint64_t is unsigned long on one target and unsigned long long on the other;
// a format string needs one of them.
inline unsigned long long PrintableNumber(uint64_t number) { return number; }
