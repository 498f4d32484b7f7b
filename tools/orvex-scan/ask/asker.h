// Asks the engine about one file after another.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ask/calculation.h"
#include "inventory/inventory.h"
#include "orvexeng.hpp"

namespace orvexscan {

// The counts of one asker.
struct Tally {
  uint64_t visits = 0;
  uint64_t failed = 0;
  uint64_t unsettled = 0;
  uint64_t fromSnapshot = 0;
  uint64_t bytesHashed = 0;
  uint64_t bytesSaved = 0;
  std::chrono::nanoseconds hashTime{0};
  PartTimes parts;
};

// What the engine replied.
struct Reply {
  Answer answer;
  // Nothing if the answer was cached.
  std::optional<CertificateFindings> certificates;
  bool read = false;  // the whole file, for its digests: neither cache nor snapshot could serve
};

// Asks a running engine and keeps a tally.
//
// Ownership: borrows the engine.
// Threads: one at a time; each worker has its own.
class Asker {
 public:
  // Throws std::runtime_error when libmagic or OpenSSL cannot be started.
  Asker(orvexeng::engine* engine, const ReadingRules& rules);

  // Throws FileFailure if the file has no answer, and counts that too.
  Reply Ask(const std::string& path);
  // The same for an open file, whatever its path leads to now.
  Reply Ask(const std::string& path, int descriptor);

  // What was counted since the last call.
  Tally TakeTally();
  uint64_t bytesSaved() const { return tally_.bytesSaved; }

 private:
  Reply Query(const std::string& path, const Identity& identity, const std::string& source);
  void Count(const Calculation& calculation, const Identity& identity);

  orvexeng::engine* const engine_;
  const ReadingRules rules_;
  Tools tools_;
  Tally tally_;
};

}  // namespace orvexscan
