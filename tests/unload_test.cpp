// The library loaded, used and unloaded by a host that does not link it.
#include <dlfcn.h>
#include <doctest/doctest.h>

#include <fstream>
#include <string>

#include "harness/sanitizers.h"
#include "orvexeng.h"

namespace {

bool IsMapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("liborvexeng") != std::string::npos) return true;
  }
  return false;
}

// The library for the length of a scope.
class Loaded {
 public:
  Loaded() : handle(dlopen(ORVEXENG_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {}
  ~Loaded() {
    if (handle != nullptr) dlclose(handle);
  }
  Loaded(const Loaded&) = delete;
  Loaded& operator=(const Loaded&) = delete;

  template <typename Function>
  Function* Find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle, name));
  }

  void* handle;
};

int Answer(metadata_input_s*, metadata_output_s* out, void*) {
  out->queryFlags |= QUERY_DIGEST32;
  return 0;
}

// Starts the engine and asks it once; the number of misses it has seen.
int64_t UseOnce(const Loaded& library) {
  metadata_query_fptrs_s callbacks{Answer, Answer};
  REQUIRE(library.Find<decltype(orvex_init)>("orvex_init")(&callbacks) == 0);
  metadata_input_s in{};
  in.path = "/a";
  in.fileOperation = KEY_PATH;
  in.invOperation = INV_KEEP_IN_CACHE;
  in.queryFlags = QUERY_DIGEST32;
  metadata_output_s out{};
  REQUIRE(library.Find<decltype(orvex_query)>("orvex_query")(&in, &out, nullptr) == 0);
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  REQUIRE(library.Find<decltype(orvex_get_metrics)>("orvex_get_metrics")(&metrics, sizeof metrics,
                                                                         &size) == 0);
  return metrics.cacheMiss;
}

}  // namespace

TEST_CASE("a library that was used and stopped is gone after the last close") {
  for (int i = 0; i < 3; ++i) {
    {
      const Loaded library;
      REQUIRE(library.handle != nullptr);
      CHECK(UseOnce(library) == 1);
      CHECK(library.Find<decltype(orvex_deinit)>("orvex_deinit")() == 0);
      CHECK(IsMapped());
    }
    CHECK_FALSE(IsMapped());
  }
}

// Entries of an engine that nobody stopped are never freed, which a leak checker
// rightly reports.
constexpr bool kLeaksAreReported = ORVEXENG_CHECKS_MEMORY;

TEST_CASE("a library that was closed without a stop is gone too and starts afresh" *
          doctest::skip(kLeaksAreReported)) {
  for (int i = 0; i < 3; ++i) {
    {
      const Loaded library;
      REQUIRE(library.handle != nullptr);
      CHECK(library.Find<decltype(orvex_get_status)>("orvex_get_status")() == 100);
      CHECK(UseOnce(library) == 1);
    }
    CHECK_FALSE(IsMapped());
  }
}
