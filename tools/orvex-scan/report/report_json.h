// The report for programs.
#pragma once

#include <string>
#include <vector>

#include "ask/scan.h"
#include "inventory/inventory.h"
#include "options.h"

namespace orvexscan {

/// Everything as one JSON object, keys in a fixed order:
///
///   tool, engine   their versions
///   options        what the command line asked for
///   notes, advice  sentences
///   passes         one object for each: what the tool counted, what the engine counted
///   files          one object for each file: path, visits, and
///                  answer      size, mtimeNs, device, inode, md5, sha1, sha256, signers,
///                              type {major, minor, name}; null if there was none
///                  failure     pass, reason, detail of the last one; only if there was one
///                  certificateFaults  only if there are some
///
/// A path that is no UTF-8 has its bytes in pathHex besides, and replacement characters
/// in path.
std::string JsonReport(const Options& options, const std::vector<PassReport>& passes,
                       const Inventory& inventory, const std::string& advice);

}  // namespace orvexscan
