// The library loaded, used and unloaded a thousand times in one process.
#include <dirent.h>
#include <dlfcn.h>
#include <doctest/doctest.h>
#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "harness/failing_new.h"
#include "harness/sanitizers.h"
#include "orvexeng.h"

// Defined only by a leak checker, which must not report what is left on purpose.
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace {

constexpr int kCycles = 1000;

struct Mappings {
  int all = 0;
  int ofLibrary = 0;
};

Mappings MappedNow() {
  Mappings mapped;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    // Not anonymous memory: the heap grows in its own steps.
    if (line.find('/') == std::string::npos) continue;
    ++mapped.all;
    if (line.find("liborvexeng") != std::string::npos) ++mapped.ofLibrary;
  }
  return mapped;
}

int OpenFiles() {
  int files = 0;
  DIR* const directory = opendir("/proc/self/fd");
  while (readdir(directory) != nullptr) ++files;
  closedir(directory);
  return files;
}

size_t BytesInUse() { return ORVEXENG_CHECKS_MEMORY ? 0 : mallinfo2().uordblks; }

int Answer(metadata_input_s*, metadata_output_s* out, void*) {
  out->queryFlags |= QUERY_DIGEST32 | QUERY_FILE_TYPE;
  return 0;
}

void DropMessage(unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {}

// One life of the library; what went wrong, or "".
std::string Cycle(bool stops) {
  void* const library = dlopen(ORVEXENG_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return dlerror();
  const auto call = [library](const char* name) { return dlsym(library, name); };
  const auto registerLog =
      reinterpret_cast<decltype(&orvex_register_log_cb)>(call("orvex_register_log_cb"));
  const auto init = reinterpret_cast<decltype(&orvex_init)>(call("orvex_init"));
  const auto query = reinterpret_cast<decltype(&orvex_query)>(call("orvex_query"));
  const auto deinit = reinterpret_cast<decltype(&orvex_deinit)>(call("orvex_deinit"));

  std::string wrong;
  registerLog(DropMessage);
  metadata_query_fptrs_s callbacks{Answer, Answer};
  if (init(&callbacks) != 0) wrong = "it did not start afresh";
  metadata_input_s in{};
  in.path = "/a";
  in.fileOperation = KEY_PATH;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_DIGEST32 | QUERY_FILE_TYPE;
  metadata_output_s out{};
  if (query(&in, &out, nullptr) != 0 || out.resultReady != 1) wrong = "it did not answer";
  if (stops && deinit() != 0) wrong = "it did not stop";
  if (MappedNow().ofLibrary == 0) wrong = "it was never there";
  dlclose(library);
  if (MappedNow().ofLibrary != 0) wrong = "it is still there";
  return wrong;
}

// Cycles, and returns how many objects each left behind.
long Left(bool stops) {
  REQUIRE(Cycle(stops) == "");  // What the C library sets up once.
  const Mappings mappedBefore = MappedNow();
  const int filesBefore = OpenFiles();
  const long liveBefore = LiveAllocations();
  std::string wrong;
  for (int i = 0; i < kCycles && wrong.empty(); ++i) wrong = Cycle(stops);
  const long left = LiveAllocations() - liveBefore;
  CHECK(wrong == "");
  CHECK(MappedNow().all == mappedBefore.all);
  CHECK(OpenFiles() == filesBefore);
  std::printf("%d cycles %s a stop: %ld objects left\n", kCycles, stops ? "with" : "without", left);
  return left;
}

}  // namespace

TEST_CASE("a thousand loads with a stop leave nothing in the process" *
          doctest::test_suite("slow")) {
  REQUIRE(Cycle(true) == "");
  const size_t before = BytesInUse();
  CHECK(Left(true) == 0);
  // The loader's own bookkeeping rounds up, once and not a thousand times.
  CHECK(BytesInUse() < before + kCycles * 16);
}

TEST_CASE("a thousand loads without a stop leave nothing of entries with short paths" *
          doctest::test_suite("slow")) {
  if (__lsan_disable != nullptr) __lsan_disable();
  const long left = Left(false);
  if (__lsan_enable != nullptr) __lsan_enable();
  // Longer paths and signers would leak: nobody destroys the nodes.
  CHECK(left == 0);
}
