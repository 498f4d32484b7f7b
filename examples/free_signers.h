/*
 * For C hosts: frees the signer arrays of the engine, which C++ allocated. Copy this
 * file and free_signers.cpp into the host and compile the latter with its C++ compiler.
 */
#ifndef FREE_SIGNERS_H
#define FREE_SIGNERS_H

#include <orvexeng.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Frees the record's signer array and leaves it without signers. *out must have been
 * zeroed before its first use. */
void free_signers(metadata_output_s* out);

/* For a callback: frees the record's array, stores a zeroed one of count slots and sets
 * QUERY_SIGNERS. Returns the slots, or NULL without memory, and then the record is left
 * without signers. A count of 0 says that the file has none, and returns NULL too. */
char* new_signers(metadata_output_s* out, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif /* FREE_SIGNERS_H */
