// Generated PE files and PKCS#7 signatures.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "content/authenticode.h"
#include "content/faults.h"
#include "content/pe_certificates.h"
#include "content/signer_names.h"
#include "file/descriptor.h"
#include "file/file_reader.h"

using namespace orvexscan;

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

void Check(const SignerNames& found) {
  Require(found.names.size() <= kMostSigners && found.lookedAt <= kMostSigners);
  Require(found.faults.size() <= kMostFaults + 1);
  for (const std::string& name : found.names) Require(name.size() <= kMostNameBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const Descriptor memory(memfd_create("file", MFD_CLOEXEC));
  Require(write(memory.get(), bytes, size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
  FileReader file(path, IdentityOf(path, true), true);
  const PeCertificates certificates = ReadPeCertificates(&file);
  Require(certificates.faults.size() <= kMostFaults + 1);
  SignerNames signers;
  for (const auto& signature : certificates.signatures) AddSigners(signature, &signers);
  Check(signers);
  MatchSignatures(&file, certificates.layout, signers.digests);

  SignerNames ofAll;
  AddSigners(std::vector<unsigned char>(bytes, bytes + size), &ofAll);
  Check(ofAll);
  return 0;
}
