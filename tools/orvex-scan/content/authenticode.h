// Whether a signature in a PE file matches that file.
#pragma once

#include <string>
#include <vector>

#include "file/file_reader.h"

namespace orvexscan {

// The digest of the file according to its signature.
struct SignedDigest {
  int algorithm = 0;  // OpenSSL's number of it; 0 if unknown
  std::vector<unsigned char> digest;
};

// The parts of a PE file that no signature in it can cover.
struct PeLayout {
  uint64_t checksumAt = 0;   // four bytes
  uint64_t directoryAt = 0;  // eight bytes: where the table is
  uint64_t tableAt = 0;
  uint64_t tableSize = 0;
};

// Says nothing about trust: anyone can make a certificate with any names.
enum class SignatureMatch {
  kNoSignature,
  kUnchecked,    // there is one, but nothing in it we can check
  kMatches,      // all cover this content
  kDoesNotMatch  // one covers other content
};

// "matches", "does not match" or "unchecked"; empty for kNoSignature.
const char* NameOf(SignatureMatch match);

// Reads the file once for each algorithm. Throws FileFailure when a read fails.
SignatureMatch MatchSignatures(FileReader* file, const PeLayout& layout,
                               const std::vector<SignedDigest>& signatures);

}  // namespace orvexscan
