// What the files of the caches share when they read and log the host's records.
#pragma once

#include <cstdint>

// The source-file name that every message of the two caches carries.
inline constexpr char kLRUCacheSourceFile[] = "orvex_lru_cache";

inline const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

// uint64_t is unsigned long on one target and unsigned long long on the other;
// a format string needs one of them.
inline unsigned long long PrintableNumber(uint64_t number) { return number; }
