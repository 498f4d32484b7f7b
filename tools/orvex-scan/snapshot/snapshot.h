// What one scan found out, kept in a file for the next one to start with.
#pragma once

#include <string>
#include <vector>

#include "inventory/inventory.h"
#include "options.h"

namespace orvexscan {

// One file's answer and what it was about.
struct SnapshotEntry {
  std::string path;
  Answer answer;
  std::vector<std::string> certificateFaults;
};

/// The answers in options.snapshot, in the order of the scan that wrote them; none when
/// there is no such file.
///
/// Throws std::exception, whose text is what is wrong with the file: ReadPrivateFile
/// refuses it, it is malformed, or it was written by a scan that knew files by other
/// means or trusted younger ones than this one does.
std::vector<SnapshotEntry> ReadSnapshot(const Options& options);

/// Writes the answers that could be kept to options.snapshot, those asked about first
/// when there are more than a cache keeps. Throws std::system_error.
void WriteSnapshot(const Options& options, const Inventory& inventory);

}  // namespace orvexscan
