// Everything the tool reports about a file's content.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "content/authenticode.h"
#include "content/file_type_table.h"
#include "file/identity.h"

namespace orvexscan {

// What is wanted besides the digests.
struct WantedParts {
  bool type = true;
  bool signers = true;
};

// What the engine answered about a file.
struct Answer {
  Identity identity;
  bool settled = true;  // kept in the caches, as the file was old enough for that
  std::array<uint8_t, 16> md5{};
  std::array<uint8_t, 20> sha1{};
  std::array<uint8_t, 32> sha256{};
  WantedParts parts;                 // which of the following two were asked for
  std::vector<std::string> signers;  // unverified names
  FileType type;
};

// What else was found out about a file's certificate table. The engine keeps none of it:
// it is told whenever a file is read.
struct CertificateFindings {
  std::vector<std::string> faults;
  SignatureMatch signature = SignatureMatch::kNoSignature;
};

}  // namespace orvexscan
