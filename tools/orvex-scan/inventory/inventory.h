// The files of a scan: which there are, in which order they are asked about, and what
// is known of each.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "content/answer.h"
#include "file/file_failure.h"

namespace orvexscan {

// Why there was no answer in the last pass; pass 0 is the gathering of files.
struct Failure {
  int pass;
  FailureReason reason;
  std::string detail;
};

struct FileRecord {
  explicit FileRecord(const std::string& ofPath) : path(ofPath) {}

  std::string path;
  uint32_t visits = 0;  // in each pass
  std::optional<Answer> answer;
  std::optional<Failure> failure;
  CertificateFindings certificates;

  // Whether a pass has reached it.
  bool WasAsked() const { return answer.has_value() || failure.has_value(); }
  bool IsForgotten() const { return visits == 0 && !WasAsked(); }
};

// Gathered first, then asked about from several threads, then reported.
//
// Threads: the gathering and the reporting use one thread. Between them no file is added or
// removed, and the Store functions may be called from any number of threads at once.
// Locking: lock_ guards what is stored in the records, never their paths.
class Inventory {
 public:
  // Adds a visit of path at the end of the order; a path may be visited more than once. size is
  // what the gathering saw.
  void AddVisit(const std::string& path, uint64_t size = 0);
  // Adds a file that cannot be visited at all.
  void AddFailure(const std::string& path, const FileFailure& failure);
  // Adds a note about the gathering as a whole.
  void AddNote(const std::string& note) { notes_.push_back(note); }

  size_t visitCount() const { return visits_.size(); }
  size_t RecordOfVisit(size_t visit) const { return visits_[visit]; }
  // The record of a path that is visited or has failed; nothing if there is none.
  std::optional<size_t> Find(const std::string& path) const;
  const std::string& PathOf(size_t record) const { return records_[record].path; }

  // Adds a path that turned up after the gathering; returns its record, new or old.
  size_t Add(const std::string& path);
  // The file is gone and no longer part of the report.
  void Forget(size_t record);
  // An answer replaces a failure and vice versa: the latest is reported. The findings of an earlier
  // answer stay unless there are new ones.
  void StoreAnswer(size_t record, Answer answer, std::optional<CertificateFindings> findings);
  void StoreFailure(size_t record, int pass, const FileFailure& failure);

  const std::vector<FileRecord>& records() const { return records_; }
  const std::vector<std::string>& notes() const { return notes_; }
  // How many files are visited, without those that could not even be gathered.
  size_t FileCount() const;
  size_t FailureCount() const;
  // What one pass over all visits is expected to read or to save.
  uint64_t visitBytes() const { return visitBytes_; }

 private:
  size_t RecordOf(const std::string& path);

  std::vector<FileRecord> records_;
  uint64_t visitBytes_ = 0;
  std::vector<size_t> visits_;  // each an index into records_
  std::map<std::string, size_t> byPath_;
  std::vector<std::string> notes_;
  std::mutex lock_;
};

}  // namespace orvexscan
