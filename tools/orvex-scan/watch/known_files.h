// What was last reported for each file, and what a new look at it adds.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "file/file_failure.h"
#include "file/identity.h"
#include "inventory/inventory.h"

namespace orvexscan {

enum class ChangeKind { kNone, kNew, kChanged, kSame, kGone, kFailed };

// How a file has changed since it was last reported.
struct Change {
  ChangeKind kind = ChangeKind::kNone;
  std::string before;  // its digest in short, or "-"
  std::string after;   // likewise, or why it has no answer
};

// The files that have an answer, as last reported.
//
// Threads: one at a time.
class KnownFiles {
 public:
  // Starts with the results of the passes.
  explicit KnownFiles(const Inventory& inventory);

  // The file has this answer. kNone if its state is the very one last reported, kSame if only its
  // content is the same.
  Change Learn(const std::string& path, const Answer& answer);
  // The file has no answer. It is gone if it was known and no regular file is there any more. One
  // that is being written or replaced has not changed yet: an event follows when that is done.
  Change Learn(const std::string& path, const FileFailure& failure);

  // The known files whose path starts with prefix: "" for all.
  std::vector<std::string> StartingWith(const std::string& prefix) const;

 private:
  struct State {
    Identity identity;
    std::string digest;
  };
  std::map<std::string, State> files_;
};

}  // namespace orvexscan
