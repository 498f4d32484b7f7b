// What earlier scans found out, kept in a file for later ones to answer from.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "content/answer.h"
#include "inventory/inventory.h"

namespace orvexscan {

// What the answers in a snapshot depend on besides the files.
struct SnapshotRules {
  IdentityMode identity = IdentityMode::kCtime;
  int settleSeconds = 0;
  WantedParts parts = {};
};

// A snapshot of more is not read, and not written.
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

  // Takes over the answers in the file at path; none when there is no such file.
  //
  // Throws std::exception, whose text is what is wrong with the file: ReadPrivateFile
  // refuses it, Parse does, or another version of the tool or of its libraries wrote it,
  // or a scan that knew files by other means trusted younger ones or wanted other parts.
  void Read(const std::string& path);
  // The same for the content of such a file, which may hold anything.
  void Parse(const std::string& content);

  // The answer about the file of that path and in that state; null if there is none.
  const SnapshotEntry* Find(const std::string& path, const Identity& identity) const;

  const std::map<std::string, SnapshotEntry>& entries() const { return entries_; }

  // Takes over what a scan found out, settled answers alone. Answers about other files
  // stay if those files are what they were.
  void Update(const Inventory& inventory);
  // Replaces the file at path. Throws std::system_error.
  void Write(const std::string& path) const;
  // The content of the file to write.
  std::string Text() const;

 private:
  const SnapshotRules rules_;
  std::map<std::string, SnapshotEntry> entries_;
};

// The text, which must end a line, with the line that makes it a whole snapshot.
std::string WithChecksum(const std::string& text);

}  // namespace orvexscan
