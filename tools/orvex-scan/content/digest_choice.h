// Which digests of a file are wanted.
#pragma once

#include <openssl/obj_mac.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "orvexeng.h"

namespace orvexscan {

// The engine's record has one place for a digest of each of these lengths.
constexpr size_t kDigestPlaces = 3;
constexpr std::array<size_t, kDigestPlaces> kDigestBytes = {16, 20, 32};
constexpr std::array<uint32_t, kDigestPlaces> kDigestParts = {QUERY_DIGEST16, QUERY_DIGEST20,
                                                              QUERY_DIGEST32};
constexpr uint32_t kAllDigestParts = QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32;

// OpenSSL's number of the algorithm for each place; NID_undef where none is wanted.
using DigestChoice = std::array<int, kDigestPlaces>;
constexpr DigestChoice kUsualDigests = {NID_md5, NID_sha1, NID_sha256};

// The algorithm's name in small letters, such as "sha256", whichever of its names was given.
std::string NameOfDigest(int algorithm);
// The names of those chosen, shortest digest first.
std::vector<std::string> NamesOf(const DigestChoice& choice);
// The parts of an answer that hold them, QUERY_DIGEST*.
uint32_t PartsOf(const DigestChoice& choice);

// The digests with these comma-separated names. Throws std::invalid_argument, whose text says which
// one has no place.
DigestChoice DigestsNamed(const std::string& names);

}  // namespace orvexscan
