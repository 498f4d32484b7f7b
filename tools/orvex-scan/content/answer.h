// Everything the tool reports about a file's content.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "content/authenticode.h"
#include "content/digest_choice.h"
#include "content/file_type_table.h"
#include "file/identity.h"

namespace orvexscan {

// What is wanted of a file; at least one digest.
struct WantedParts {
  bool type = true;
  bool signers = true;
  DigestChoice digests = kUsualDigests;
};

// What the engine answered about a file.
struct Answer {
  Identity identity;
  bool settled = true;  // kept in the caches: the file was old enough
  WantedParts parts;    // which of the following were asked for
  std::array<uint8_t, 16> digest16{};
  std::array<uint8_t, 20> digest20{};
  std::array<uint8_t, 32> digest32{};
  std::vector<std::string> signers;  // unverified names
  FileType type;
};

struct NamedDigest {
  std::string name;    // of the algorithm, such as "sha256"
  std::string digits;  // hexadecimal
};

// The digests that were asked for, shortest first.
std::vector<NamedDigest> DigestsOf(const Answer& answer);
// The one to compare contents by if one is enough.
NamedDigest LongestDigestOf(const Answer& answer);

// What else was found about a file's certificate table. The engine does not keep it: it is reported
// whenever a file is read.
struct CertificateFindings {
  std::vector<std::string> faults;
  SignatureMatch signature = SignatureMatch::kNoSignature;
};

}  // namespace orvexscan
