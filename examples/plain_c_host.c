// A C host that frees signers without a C++ compiler or linker.
#include <dlfcn.h>
#include <orvexeng.h>
#include <stdio.h>

static void FreeSigners(metadata_output_s* out) {
  void (*arrayDelete)(void*) = NULL;
  *(void**)&arrayDelete = dlsym(dlopen(NULL, RTLD_LAZY), "_ZdaPv");  // operator delete[](void*)
  if (arrayDelete != NULL) arrayDelete(out->signers);
  out->signers = NULL;
}

static int NoAnswer(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  (void)in, (void)out, (void)ctx;
  return -1;
}

int main(void) {
  metadata_query_fptrs_s callbacks = {NoAnswer, NoAnswer};
  if (orvex_init(&callbacks) != ORVEX_OK) return 1;
  metadata_input_s in = {.path = "/bin/true", .size = 43872, .mtime = 1663661352};
  in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
  in.queryFlags = QUERY_SIGNERS;

  // The host keeps ownership of what it pushes: any memory will do.
  static char name[ORVEX_SIGNER_SLOT] = "Example Builds";
  metadata_output_s known = {.queryFlags = QUERY_SIGNERS, .signerCount = 1, .signers = name};
  orvex_update_metadata(&in, &known);

  metadata_output_s out = {0};  // What a query stores comes from new[].
  int code = orvex_query(&in, &out, NULL);
  if (code != ORVEX_OK || (out.queryFlags & QUERY_SIGNERS) == 0) return 1;
  printf("%u signer: %s\n", (unsigned)out.signerCount, out.signers);
  FreeSigners(&out);
  return orvex_deinit();
}
