// Who signed: the names in a PKCS#7 signature.
#pragma once

#include <string>
#include <vector>

#include "content/authenticode.h"
#include "orvexeng.h"

namespace orvexscan {

// The longest name that leaves room for the NUL in its slot.
constexpr size_t kMostNameBytes = ORVEX_SIGNER_SLOT - 1;

// The most signers looked at in one file; more of them are a fault of the file.
constexpr size_t kMostSigners = 256;

struct SignerNames {
  std::vector<std::string> names;   // common names as UTF-8, kMostNameBytes at most
  std::vector<std::string> faults;  // one sentence each; empty when all is well
  size_t lookedAt = 0;              // signers, with or without a name
  // What each signature covers, nested ones included.
  std::vector<SignedDigest> digests;
};

// Adds the signers of one signature in DER to *found: the common name of each signer, not of the
// authorities above it, then those of the signatures nested in it (attribute
// 1.3.6.1.4.1.311.2.4.1). A signer without a common name is named by its whole subject. The names
// are unverified: whoever makes a certificate chooses them.
void AddSigners(const std::vector<unsigned char>& signature, SignerNames* found);

}  // namespace orvexscan
