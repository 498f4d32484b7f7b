// Generated stories, sixteen bytes per step, checked against the model.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "model/duel.h"
#include "model/operation.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const Operations story = OperationsFrom(bytes, size);
  if (const auto difference = FindDifference(story)) {
    std::fprintf(stderr, "at operation %zu\n%s\nthe story, for tests/model/corpus:\n%s",
                 difference->operation, difference->text.c_str(), HexOf(story).c_str());
    std::abort();
  }
  return 0;
}
