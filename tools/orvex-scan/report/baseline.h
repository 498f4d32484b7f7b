// What has changed since an earlier run.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "inventory/inventory.h"
#include "snapshot/snapshot.h"

namespace orvexscan {

// A file's earlier state.
struct BaselineFile {
  std::string digest;  // the longest, in hexadecimal digits
  int64_t mtimeNs = 0;
  uint64_t permissions = 0;
  uint64_t owner = 0;
  uint64_t group = 0;
  uint64_t links = 0;
};

using Baseline = std::map<std::string, BaselineFile>;

// Reads a snapshot or a JSON report. Throws std::exception, whose text says what is wrong.
Baseline ReadBaseline(const std::string& path, const SnapshotRules& rules);

struct Difference {
  // "new", "changed", "gone", "moved" (the content of a file that is gone, under this
  // path) or "metadata" (the same content with another time, owner, mode or link count)
  std::string change;
  std::string path;
  std::string from;  // the old path of a moved file
};

// In the order of the paths. Files of the baseline count as gone only if they are at or
// below one of roots, or if there are no roots; those that cannot be read are left to
// the list of failures.
std::vector<Difference> Compare(const Baseline& baseline, const Inventory& inventory,
                                const std::vector<std::string>& roots);

}  // namespace orvexscan
