// Generated snapshots. Each is also tried with a valid checksum, so that its content is parsed;
// what was parsed must survive a round trip.
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
  // What every snapshot begins with, so that the fuzzer need not discover it.
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
