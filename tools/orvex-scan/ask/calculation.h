// Computes what the caches cannot answer: the host's side of one query.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "content/digests.h"
#include "content/file_type.h"
#include "file/file_failure.h"
#include "file/file_reader.h"
#include "file/identity.h"
#include "file/settling.h"
#include "orvexeng.hpp"
#include "snapshot/snapshot.h"

namespace orvexscan {

// What a worker needs to calculate, kept from file to file.
struct Tools {
  explicit Tools(const DigestChoice& choice = kUsualDigests);

  FileTypeReader fileType;
  Digests digests;
  std::vector<unsigned char> buffer;
};

// Where the calculation time goes.
struct PartTimes {
  std::chrono::nanoseconds reading{0};
  std::chrono::nanoseconds digests{0};
  std::chrono::nanoseconds type{0};
  std::chrono::nanoseconds signers{0};
};

// How files are read.
struct ReadingRules {
  bool followLinks;
  Settling settling;
  IdentityMode identity = IdentityMode::kCtime;
  WantedParts parts = {};
  std::function<void(uint64_t bytes)> onRead = nullptr;  // called for each piece; may be empty
  const Snapshot* snapshot = nullptr;  // earlier answers, tried before a file is read
  std::chrono::seconds timeLimit = std::chrono::hours(1);  // for the content of one file
};

// One query's calculation.
//
// Ownership: borrows the tools, which no other calculation may use at the same time, and the rules.
// Keeps the file open from the first callback on, so that type and digests come from one file.
// Threads: one at a time; the engine calls back on the thread that asks.
class Calculation {
 public:
  // For a query about the file that identity describes. source is a /proc link to that file if it
  // is already open, and empty if the query's path leads to it.
  Calculation(Tools* tools, const Identity& identity, const ReadingRules& rules,
              const std::string& source = "")
      : tools_(tools), identity_(identity), rules_(rules), source_(source) {}

  // The callables that compute what the caches lack.
  orvexeng::callbacks Callbacks();

  // Why a callback failed; nothing if none did.
  const std::optional<FileFailure>& failure() const { return failure_; }
  // Whether the whole file was read for its digests, because nothing cached could serve.
  bool hashed() const { return hashed_; }
  // Whether an earlier scan's answer was used instead.
  bool fromSnapshot() const { return fromSnapshot_; }
  // False if the answer must not be kept: the file was too young, may be open for writing, or has a
  // size that is not its content's.
  bool settled() const { return settled_; }
  uint64_t bytesHashed() const { return bytesHashed_; }
  std::chrono::nanoseconds hashTime() const { return hashTime_; }
  const PartTimes& partTimes() const { return partTimes_; }
  // Empty unless the file was hashed or its answer came from the snapshot.
  const CertificateFindings& certificates() const { return certificates_; }

 private:
  using Step = void (Calculation::*)(const metadata_input_s&, orvexeng::answer*);
  int Attempt(Step step, metadata_input_s* in, orvexeng::answer* out);

  void Hash(const metadata_input_s& in, orvexeng::answer* out);
  const SnapshotEntry* FindInSnapshot(const metadata_input_s& in) const;
  std::vector<std::string> FindSigners();
  void FindFileType(const metadata_input_s& in, orvexeng::answer* out);
  FileType ReadFileType(const metadata_input_s& in);
  FileReader& Open(const metadata_input_s& in);

  Tools* const tools_;
  const Identity identity_;
  const ReadingRules& rules_;
  const std::string source_;
  std::optional<FileReader> file_;
  std::optional<FileFailure> failure_;
  bool settled_ = true;
  bool hashed_ = false;
  bool fromSnapshot_ = false;
  uint64_t bytesHashed_ = 0;
  std::chrono::nanoseconds hashTime_{0};
  PartTimes partTimes_;
  CertificateFindings certificates_;
};

}  // namespace orvexscan
