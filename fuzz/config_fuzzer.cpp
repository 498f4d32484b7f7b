// Generated configuration files, checked against the model's parser.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "model/config_duel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const auto difference = FindConfigDifference({reinterpret_cast<const char*>(bytes), size});
  if (difference) {
    std::fputs(difference->c_str(), stderr);
    std::abort();
  }
  return 0;
}
