// The regular files below some paths.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "inventory/inventory.h"

namespace orvexscan {

struct WalkRules {
  bool followLinks = false;
  bool oneFileSystem = false;  // do not enter directories on which another one is mounted
  bool pseudo = false;         // enter pseudo file systems
  std::vector<std::string> exclude = {};  // patterns, as of fnmatch
  uint64_t maxSize = UINT64_MAX;          // larger files are passed over, and noted
  // Called with each directory before what it holds is read.
  std::function<void(const std::string& directory)> entering = {};
};

// Adds every regular file at or below paths to *inventory: the paths in the order
// given, what a directory holds in the order of the bytes of its names.
//
// Links, devices, pipes and sockets inside a directory are passed over; one that is
// itself among paths is a failure, as is whatever cannot be read. So is a directory of a
// pseudo file system that is not to be entered; those that are mounted below are told in
// a note.
void Walk(const std::vector<std::string>& paths, const WalkRules& rules, Inventory* inventory);

}  // namespace orvexscan
