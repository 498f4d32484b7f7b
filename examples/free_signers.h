// For C hosts: frees and makes signer arrays, which the engine allocates as C++ does.
// Compile free_signers.cpp with a C++ compiler and link it into the host.
#ifndef FREE_SIGNERS_H
#define FREE_SIGNERS_H

#include <orvexeng.h>

#ifdef __cplusplus
extern "C" {
#endif

// Frees the record's signer array and leaves it without signers. *out must have been
// zeroed before its first use.
void free_signers(metadata_output_s* out);

// For a callback: replaces the record's signers by count zeroed slots and sets
// QUERY_SIGNERS. Returns the slots, or NULL if out of memory: the record is then left
// without signers. A count of 0 says that the file has none; it returns NULL too.
char* new_signers(metadata_output_s* out, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif  // FREE_SIGNERS_H
