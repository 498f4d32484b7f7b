// Times what a host pays before its first answer: loading the library, starting the
// engine, one query.
//
// usage: orvex-startup LIBRARY TIMES
//
// Prints nanoseconds, one line per run, each in a fresh process. The first run finds
// the library in the page cache at best.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "orvexeng.h"

namespace {

int Answer(metadata_input_s*, metadata_output_s* out, void*) {
  out->queryFlags |= QUERY_SIZE;
  return 0;
}

void IgnoreMessage(unsigned int, unsigned int, const char*, const char*, const char*,
                   unsigned int) {}

template <class Function>
Function* Find(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

// Returns false when something is missing.
bool PrintOneStart(const char* path) {
  const auto start = std::chrono::steady_clock::now();
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return false;
  auto* const registerLog = Find<decltype(orvex_register_log_cb)>(library, "orvex_register_log_cb");
  auto* const init = Find<decltype(orvex_init)>(library, "orvex_init");
  auto* const query = Find<decltype(orvex_query)>(library, "orvex_query");
  if (registerLog == nullptr || init == nullptr || query == nullptr) return false;
  metadata_query_fptrs_s callbacks = {Answer, Answer};
  metadata_input_s in{};
  in.path = "/bin/true";
  in.fileOperation = KEY_PATH;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_SIZE;
  metadata_output_s out{};
  registerLog(IgnoreMessage);
  if (init(&callbacks) != 0 || query(&in, &out, nullptr) != 0 || out.resultReady != 1) return false;
  const std::chrono::nanoseconds taken = std::chrono::steady_clock::now() - start;
  std::printf("%lld\n", static_cast<long long>(taken.count()));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  for (int left = std::atoi(argv[2]); left > 0; --left) {
    const pid_t child = fork();
    if (child == 0) return PrintOneStart(argv[1]) ? 0 : 1;
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return 1;
  }
  return 0;
}
