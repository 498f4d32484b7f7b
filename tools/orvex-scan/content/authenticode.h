// Whether a signature in a PE file is about that file.
#pragma once

#include <string>
#include <vector>

#include "file/file_reader.h"

namespace orvexscan {

// What a signature says the digest of its file is.
struct SignedDigest {
  int algorithm = 0;  // OpenSSL's number of it; 0 if there is none we know
  std::vector<unsigned char> digest;
};

// Where the parts of a PE file are that no signature in it can cover.
struct PeLayout {
  uint64_t checksumAt = 0;   // four bytes
  uint64_t directoryAt = 0;  // eight bytes: where the table is
  uint64_t tableAt = 0;
  uint64_t tableSize = 0;
};

// Trust is another matter: whoever makes a certificate chooses its names.
enum class SignatureMatch {
  kNoSignature,
  kUnchecked,    // there is one that says nothing we can check
  kMatches,      // all are about this content
  kDoesNotMatch  // one is about another content
};

// "matches", "does not match" or "unchecked"; empty for kNoSignature.
const char* NameOf(SignatureMatch match);

// Reads the file once for each algorithm. Throws FileFailure when a read fails.
SignatureMatch MatchSignatures(FileReader* file, const PeLayout& layout,
                               const std::vector<SignedDigest>& signatures);

}  // namespace orvexscan
