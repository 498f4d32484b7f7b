// The records of a query, as tests fill and read them.
#include "harness/records.h"

#include <algorithm>
#include <cstring>

metadata_input_s InputFor(const char* path) {
  metadata_input_s in{};
  in.path = path;
  in.size = 1000;
  in.mtime = 5;
  in.deviceID = 1;
  in.fileID = 2;
  in.fileOperation = kAllKeyBits;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_SIZE | kAllDigests;
  return in;
}

void GiveDigests(metadata_output_s& out, uint32_t parts, int byte) {
  if ((parts & QUERY_DIGEST16) != 0) std::memset(out.digest16, byte, sizeof out.digest16);
  if ((parts & QUERY_DIGEST20) != 0) std::memset(out.digest20, byte, sizeof out.digest20);
  if ((parts & QUERY_DIGEST32) != 0) std::memset(out.digest32, byte, sizeof out.digest32);
  if ((parts & QUERY_AUX_DIGEST20) != 0) std::memset(out.auxDigest20, byte, sizeof out.auxDigest20);
  out.queryFlags |= parts;
}

void GiveSigners(metadata_output_s& out, std::initializer_list<std::string> names) {
  delete[] out.signers;
  out.signers = new char[names.size() * ORVEX_SIGNER_SLOT]();
  out.signerCount = static_cast<uint32_t>(names.size());
  out.queryFlags |= QUERY_SIGNERS;
  char* slot = out.signers;
  for (const std::string& name : names) {
    std::memcpy(slot, name.c_str(), std::min<size_t>(name.size() + 1, ORVEX_SIGNER_SLOT));
    slot += ORVEX_SIGNER_SLOT;
  }
}

Names SignersIn(const metadata_output_s& out) {
  Names names;
  for (uint32_t i = 0; i < out.signerCount; ++i) {
    names.emplace_back(out.signers + size_t{i} * ORVEX_SIGNER_SLOT);
  }
  return names;
}
