// What was last told of each file, and what a new look at it adds.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "file/file_failure.h"
#include "file/identity.h"
#include "inventory/inventory.h"

namespace orvexscan {

enum class ChangeKind { kNone, kNew, kChanged, kSame, kGone, kFailed };

// What has become of a file since it was last told of.
struct Change {
  ChangeKind kind = ChangeKind::kNone;
  std::string before;  // its digest in short, or "-"
  std::string after;   // likewise, or why it has no answer
};

// The files that have an answer, as they were last told of.
//
// Threads: one at a time.
class KnownFiles {
 public:
  // Begins with what the passes have found.
  explicit KnownFiles(const Inventory& inventory);

  // The file has this answer. That is no change if the file is in the very state that
  // was told of, and kSame if it is in another one with the same content.
  Change Learn(const std::string& path, const Answer& answer);
  // The file has no answer. It is gone if it was known and no regular file is there any
  // more. One that is being written or replaced has not changed yet: an event tells when
  // that is done.
  Change Learn(const std::string& path, const FileFailure& failure);

  // The known files whose path starts like that: "" for all.
  std::vector<std::string> StartingWith(const std::string& prefix) const;

 private:
  struct State {
    Identity identity;
    std::string digest;
  };
  std::map<std::string, State> files_;
};

}  // namespace orvexscan
