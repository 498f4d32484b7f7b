// Snapshots that a fuzzer makes up. Each also comes with the checksum that lets its inside
// be read, and what is read must come out as it went in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

#include "snapshot/snapshot.h"

using namespace orvexscan;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const SnapshotRules rules{};
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  // What every snapshot begins with, so that the fuzzer need not find it out.
  const std::string empty = Snapshot(rules).Text();
  const std::string beginning = empty.substr(0, empty.rfind("sha256 "));
  for (const std::string& content :
       {text, WithChecksum(text), WithChecksum(beginning + text + "\n")}) {
    Snapshot snapshot(rules);
    try {
      snapshot.Parse(content);
    } catch (const std::exception&) {
      continue;
    }
    const std::string once = snapshot.Text();
    Snapshot again(rules);
    again.Parse(once);
    if (again.Text() != once) std::abort();
  }
  return 0;
}
