// A host that takes over the log and escapes what a path may hold.
#include <orvexeng.h>
#include <stdio.h>

static void Log(unsigned int level, unsigned int line, const char* function, const char* file,
                const char* message, unsigned int length) {
  static const char* const kNames[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG"};
  char text[512];
  (void)line, (void)length;
  snprintf(text, sizeof text, "%s", message);
  for (char* c = text; *c != '\0'; ++c) {
    if ((unsigned char)*c < ' ') *c = '?';
  }
  printf("%s %s: %s: %s\n", level < 5 ? kNames[level] : "?", file, function, text);
}

static int Digest(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  (void)in, (void)ctx;
  out->queryFlags |= QUERY_DIGEST32;
  return 0;
}

static int FileType(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  (void)in, (void)out, (void)ctx;
  return -1;
}

int main(void) {
  orvex_register_log_cb(Log);  // Before anything else, or the first lines go to standard output.
  metadata_query_fptrs_s callbacks = {Digest, FileType};
  if (orvex_init(&callbacks) != ORVEX_OK) return 1;
  metadata_input_s in = {.path = "/tmp/two\nlines", .size = 1, .mtime = 1};
  in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_DIGEST32;
  metadata_output_s out = {0};
  if (orvex_query(&in, &out, NULL) != ORVEX_OK) return 1;
  return orvex_deinit();
}
