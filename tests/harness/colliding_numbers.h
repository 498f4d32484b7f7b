// Numbers that hash as a test wants: knowing the factors, one can make files collide.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr uint64_t kFactorOfSizes = 0xBB67AE8584CAA73B;
inline constexpr uint64_t kFactorOfMtimes = 0x3C6EF372FE94F82B;
inline constexpr uint64_t kFactorOfDevices = 0xA54FF53A5F1D36F1;
inline constexpr uint64_t kFactorOfFiles = 0x510E527FADE682D1;

// The which-th of the numbers that, hashed by the factor and added to the rest, give the hash.
// With 32-bit registers each half of a number has its half of the factor.
inline uint64_t NumberToHash(uint64_t factor, uint32_t hash, uint64_t which, uint64_t rest = 0) {
  uint64_t inverse = factor;
  for (int i = 0; i < 5; ++i) inverse *= 2 - factor * inverse;  // Newton's method
  if (sizeof(size_t) == 8) return inverse * ((uint64_t{hash} << 32) + which - rest);
  const uint64_t ofUpper = which * (factor >> 32);
  return which << 32 | static_cast<uint32_t>(inverse * (hash - ofUpper - rest));
}
