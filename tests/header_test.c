// The public header as a C host sees it: it compiles alone, and its constants and
// records are what they were when the host was built.
#include "orvexeng.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

#define EXPECT(what, actual, expected)                                        \
  do {                                                                        \
    if ((long)(actual) != (long)(expected)) {                                 \
      printf("%s is %ld, not %ld\n", what, (long)(actual), (long)(expected)); \
      ++failures;                                                             \
    }                                                                         \
  } while (0)

int main(void) {
  const int is32 = sizeof(void*) == 4;
  EXPECT("sizeof(metadata_input_s)", sizeof(metadata_input_s), is32 ? 64 : 80);
  EXPECT("sizeof(metadata_output_s)", sizeof(metadata_output_s), is32 ? 156 : 168);
  EXPECT("sizeof(metadata_query_fptrs_s)", sizeof(metadata_query_fptrs_s), is32 ? 8 : 16);
  EXPECT("sizeof(orvex_metrics_s)", sizeof(orvex_metrics_s), 192);
  EXPECT("offset of path", offsetof(metadata_input_s, path), is32 ? 12 : 16);
  EXPECT("offset of queryFlags", offsetof(metadata_input_s, queryFlags), is32 ? 60 : 72);
  EXPECT("offset of signers", offsetof(metadata_output_s, signers), is32 ? 136 : 144);
  EXPECT("offset of resultReady", offsetof(metadata_output_s, resultReady), is32 ? 152 : 164);
  EXPECT("offset of cacheHelpFuncCalled", offsetof(orvex_metrics_s, cacheHelpFuncCalled), 176);

  EXPECT("QUERY_SIZE", QUERY_SIZE, 0x001);
  EXPECT("QUERY_DIGEST20", QUERY_DIGEST20, 0x002);
  EXPECT("QUERY_DIGEST32", QUERY_DIGEST32, 0x004);
  EXPECT("QUERY_DIGEST16", QUERY_DIGEST16, 0x008);
  EXPECT("QUERY_SIGNERS", QUERY_SIGNERS, 0x010);
  EXPECT("QUERY_AUX_DIGEST20", QUERY_AUX_DIGEST20, 0x020);
  EXPECT("QUERY_FEEDBACK", QUERY_FEEDBACK, 0x040);
  EXPECT("QUERY_MTIME", QUERY_MTIME, 0x080);
  EXPECT("QUERY_FILE_TYPE", QUERY_FILE_TYPE, 0x100);
  EXPECT("KEY_PATH", KEY_PATH, 0x01);
  EXPECT("KEY_SIZE", KEY_SIZE, 0x02);
  EXPECT("KEY_MTIME", KEY_MTIME, 0x04);
  EXPECT("KEY_DEVICE_ID", KEY_DEVICE_ID, 0x08);
  EXPECT("KEY_FILE_ID", KEY_FILE_ID, 0x10);
  EXPECT("INV_KEEP_IN_CACHE", INV_KEEP_IN_CACHE, 0x01);
  EXPECT("INV_CACHE_ONLY", INV_CACHE_ONLY, 0x04);
  EXPECT("ORVEX_OK", ORVEX_OK, 0);
  EXPECT("ORVEX_COPY_FAILED", ORVEX_COPY_FAILED, 1);
  EXPECT("ORVEX_NO_MEMORY", ORVEX_NO_MEMORY, 2);
  EXPECT("ORVEX_INVALID_PARAMETER", ORVEX_INVALID_PARAMETER, 3);
  EXPECT("ORVEX_CACHE_NOT_INITIALISED", ORVEX_CACHE_NOT_INITIALISED, 8);
  EXPECT("ORVEX_NOT_INITIALISED", ORVEX_NOT_INITIALISED, 100);
  EXPECT("ORVEX_INITIALISED", ORVEX_INITIALISED, 101);
  EXPECT("ORVEX_INVALID_CALLBACKS", ORVEX_INVALID_CALLBACKS, 102);
  EXPECT("ORVEX_ALREADY_CACHED", ORVEX_ALREADY_CACHED, 201);
  EXPECT("ORVEX_DATABASE_UNAVAILABLE", ORVEX_DATABASE_UNAVAILABLE, 312);
  EXPECT("length of ORVEX_VERSION", strlen(ORVEX_VERSION), 8);
  return failures != 0;
}
