// The answers of earlier scans, kept in a file for later ones.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "content/answer.h"
#include "inventory/inventory.h"

namespace orvexscan {

// What the answers in a snapshot depend on, apart from the files.
struct SnapshotRules {
  IdentityMode identity = IdentityMode::kCtime;
  int settleSeconds = 0;
  WantedParts parts = {};
};

// A larger snapshot is neither read nor written.
constexpr size_t kMostSnapshotFiles = 250000;
constexpr size_t kMostSnapshotBytes = 128 << 20;

// One file's answer, settled when it was found.
struct SnapshotEntry {
  Answer answer;
  CertificateFindings certificates;
};

// The answers by path.
//
// Threads: any number at once while it is only read.
class Snapshot {
 public:
  explicit Snapshot(const SnapshotRules& rules) : rules_(rules) {}

  // Loads the answers from the file at path; none if there is no such file.
  //
  // Throws std::exception, whose text says what is wrong with the file: ReadPrivateFile or Parse
  // refuses it, or it was written by another version of the tool or its libraries, or by a scan
  // with another identity mode, a shorter settling time or other parts.
  void Read(const std::string& path);
  // The same for the content of such a file, which may hold anything.
  void Parse(const std::string& content);

  // The answer about the file of that path and in that state; null if there is none.
  const SnapshotEntry* Find(const std::string& path, const Identity& identity) const;

  const std::map<std::string, SnapshotEntry>& entries() const { return entries_; }

  // Takes over the settled answers of a scan. Answers about other files stay if those files are
  // unchanged.
  void Update(const Inventory& inventory);
  // Replaces the file at path. Throws std::system_error.
  void Write(const std::string& path) const;
  // The content of the file to write.
  std::string Text() const;

 private:
  const SnapshotRules rules_;
  std::map<std::string, SnapshotEntry> entries_;
};

// The text, which must end in a newline, with its checksum line appended.
std::string WithChecksum(const std::string& text);

}  // namespace orvexscan
