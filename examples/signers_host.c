// A C host with signers. free_signers.cpp is compiled as C++ and linked to it.
#include <orvexeng.h>
#include <stdio.h>

#include "free_signers.h"

static int Signers(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  (void)in, (void)ctx;
  char* slots = new_signers(out, 1);
  if (slots == NULL) return -1;
  snprintf(slots, ORVEX_SIGNER_SLOT, "%s", "Example Builds");
  return 0;
}

int main(void) {
  metadata_query_fptrs_s callbacks = {Signers, Signers};
  if (orvex_init(&callbacks) != ORVEX_OK) return 1;
  metadata_input_s in = {.path = "/bin/true", .size = 43872, .mtime = 1663661352};
  in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_SIGNERS;
  for (int i = 0; i < 2; ++i) {
    metadata_output_s out = {0};
    if (orvex_query(&in, &out, NULL) != ORVEX_OK) return 1;
    if ((out.queryFlags & QUERY_SIGNERS) == 0) return 1;
    printf("%u signer(s): %s\n", (unsigned)out.signerCount, out.signers);
    free_signers(&out);
  }
  return orvex_deinit();
}
