// The certificate table of a PE file: where Windows programs and boot loaders carry
// their signatures.
#pragma once

#include <string>
#include <vector>

#include "content/authenticode.h"
#include "file/file_reader.h"

namespace orvexscan {

// What the table holds. A file of any other format has neither.
struct PeCertificates {
  // The PKCS#7 signature of each entry that holds one, as DER, in file order.
  std::vector<std::vector<unsigned char>> signatures;
  // What is wrong with the table, one sentence each; empty when all is well. Entries before the
  // fault are still returned.
  std::vector<std::string> faults;
  PeLayout layout;
};

// Reads the table of an open file. Nothing in the file is trusted: every offset and length is
// checked against what is there, and memory use is bounded. Throws FileFailure when a read fails.
PeCertificates ReadPeCertificates(FileReader* file);

}  // namespace orvexscan
