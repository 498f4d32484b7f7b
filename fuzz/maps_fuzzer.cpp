// Generated lines of a maps file: programs choose the names in them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "inventory/process_maps.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string line(reinterpret_cast<const char*>(bytes), size);
  const orvexscan::MappedFile file = orvexscan::ParseMapsLine(line);
  if (file.names.size() > 2) std::abort();
  for (const std::string& name : file.names) {
    if (name.empty() || name[0] != '/' || name.size() > size) std::abort();
  }
  return 0;
}
