// Asks twice about one file: 0 when the second answer came from the cache.
#include <orvexeng.h>
#include <string.h>

static int calculations;

static int Digest(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  (void)in, (void)ctx;
  ++calculations;
  memset(out->digest32, 7, sizeof out->digest32);
  out->queryFlags |= QUERY_DIGEST32;
  return 0;
}

int main(void) {
  metadata_query_fptrs_s callbacks = {Digest, Digest};
  int asked = 0;
  if (orvex_init(&callbacks) != ORVEX_OK) return 1;
  for (; asked < 2; ++asked) {
    metadata_input_s in;
    metadata_output_s out;
    memset(&in, 0, sizeof in);
    memset(&out, 0, sizeof out);
    in.path = "/bin/true";
    in.fileOperation = KEY_PATH;
    in.invOperation = INV_KEEP_IN_CACHE;
    in.queryFlags = QUERY_DIGEST32;
    if (orvex_query(&in, &out, 0) != ORVEX_OK || out.digest32[31] != 7) return 2;
  }
  if (calculations != 1) return 3;
  return orvex_deinit();
}
