// The smallest host: it makes up a digest from the path and queries twice.
#include <orvexeng.h>
#include <stdio.h>
#include <string.h>

static int Digest(metadata_input_s* in, metadata_output_s* out, void* calls) {
  ++*(int*)calls;
  memset(out->digest32, (int)strlen(in->path), sizeof out->digest32);
  out->queryFlags |= QUERY_DIGEST32;
  return 0;
}

static int FileType(metadata_input_s* in, metadata_output_s* out, void* calls) {
  (void)in, (void)out, (void)calls;
  return -1;  // No file types here.
}

int main(void) {
  metadata_query_fptrs_s callbacks = {Digest, FileType};
  if (orvex_init(&callbacks) != ORVEX_OK) return 1;
  for (int i = 0, calls = 0; i < 2; ++i) {
    metadata_input_s in = {.path = "/bin/true", .size = 43872, .mtime = 1663661352};
    in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
    in.invOperation = INV_KEEP_IN_CACHE;  // Without it nothing is cached.
    in.queryFlags = QUERY_DIGEST32;
    metadata_output_s out = {0};
    if (orvex_query(&in, &out, &calls) != ORVEX_OK) return 1;
    if ((out.queryFlags & QUERY_DIGEST32) == 0) return 1;
    printf("digest %02x..., computed %d time(s)\n", out.digest32[0], calls);
  }
  return orvex_deinit();
}
