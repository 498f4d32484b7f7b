// For C hosts: frees and makes the engine's signer arrays.
#include "free_signers.h"

#include <cstddef>
#include <new>

void free_signers(metadata_output_s* out) {
  delete[] out->signers;
  out->signers = nullptr;
  out->signerCount = 0;
  out->queryFlags &= ~uint32_t{QUERY_SIGNERS};
}

char* new_signers(metadata_output_s* out, uint32_t count) {
  free_signers(out);
  if (count != 0) {
    // On 32 bits the size in bytes could overflow.
    if (std::size_t{count} > std::size_t{PTRDIFF_MAX} / ORVEX_SIGNER_SLOT) return nullptr;
    out->signers = new (std::nothrow) char[std::size_t{count} * ORVEX_SIGNER_SLOT]();
    if (out->signers == nullptr) return nullptr;
  }
  out->signerCount = count;
  out->queryFlags |= QUERY_SIGNERS;
  return out->signers;
}
