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
  uint64_t maxSize = UINT64_MAX;          // larger files are skipped and noted
  // Called with each directory before its entries are read.
  std::function<void(const std::string& directory)> entering = {};
};

// Adds every regular file at or below paths to *inventory: the paths in the order given, the
// entries of a directory in the byte order of their names.
//
// Links, devices, pipes and sockets inside a directory are skipped; one that is itself in paths is
// a failure, as is whatever cannot be read. So is a pseudo file system that must not be entered;
// those mounted further down are only noted.
void Walk(const std::vector<std::string>& paths, const WalkRules& rules, Inventory* inventory);

}  // namespace orvexscan
