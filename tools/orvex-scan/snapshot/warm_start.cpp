#include "snapshot/warm_start.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <vector>

#include "file/file_failure.h"
#include "snapshot/snapshot.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

bool StillHolds(const SnapshotEntry& entry, const Options& options) {
  try {
    return IdentityOf(entry.path, options.followLinks, options.identity) == entry.answer.identity;
  } catch (const FileFailure&) {
    return false;
  }
}

void PushHashes(const SnapshotEntry& entry) {
  const Answer& answer = entry.answer;
  metadata_input_s in = QueryFor(entry.path, answer.identity);
  in.queryFlags &= ~static_cast<uint32_t>(QUERY_FILE_TYPE);
  orvexeng::answer out;
  out.set_signers({answer.signers.begin(), answer.signers.end()});
  out.add(in.queryFlags);
  out.size = in.size;
  out.modificationTime = in.mtime;
  std::copy(answer.md5.begin(), answer.md5.end(), out.digest16);
  std::copy(answer.sha1.begin(), answer.sha1.end(), out.digest20);
  std::copy(answer.sha256.begin(), answer.sha256.end(), out.digest32);
  orvex_update_metadata(&in, &out);
}

// There is no pushing into the file type cache: it is asked, and given the answer.
void PushFileType(orvexeng::engine* engine, const SnapshotEntry& entry) {
  metadata_input_s in = QueryFor(entry.path, entry.answer.identity);
  in.queryFlags = QUERY_FILE_TYPE;
  const auto known = [&entry](metadata_input_s&, orvexeng::answer& out) {
    out.major = entry.answer.type.major;
    out.minor = entry.answer.type.minor;
    out.add(QUERY_FILE_TYPE);
    return 0;
  };
  orvexeng::answer out;
  static_cast<void>(engine->query(in, out, {nullptr, known}));
}

std::vector<SnapshotEntry> EntriesThatHold(const std::vector<SnapshotEntry>& entries,
                                           const Options& options, Inventory* inventory) {
  std::vector<SnapshotEntry> holding;
  for (const SnapshotEntry& entry : entries) {
    if (holding.size() == static_cast<size_t>(options.capacity)) break;
    const std::optional<size_t> record = inventory->Find(entry.path);
    if (!record || !StillHolds(entry, options)) continue;
    // They are told when a file is hashed, which this one will not be.
    inventory->StoreCertificateFaults(*record, entry.certificateFaults);
    holding.push_back(entry);
  }
  return holding;
}

}  // namespace

void WarmStart(orvexeng::engine* engine, const Options& options, Inventory* inventory) {
  try {
    const std::vector<SnapshotEntry> entries = ReadSnapshot(options);
    const std::vector<SnapshotEntry> holding = EntriesThatHold(entries, options, inventory);
    // Backwards: what is asked about last is the first to make room for a new file. The
    // other way round each new file would take the place of the very next one.
    std::for_each(holding.rbegin(), holding.rend(), [engine](const SnapshotEntry& entry) {
      PushHashes(entry);
      PushFileType(engine, entry);
    });
    if (!entries.empty()) {
      inventory->AddNote(fmt::format("{} of {} answers in the snapshot still hold", holding.size(),
                                     entries.size()));
    }
  } catch (const std::exception& failure) {
    inventory->AddNote(fmt::format("The snapshot {} is ignored: {}", Printable(options.snapshot),
                                   Printable(failure.what())));
  }
}

}  // namespace orvexscan
