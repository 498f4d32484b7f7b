// File systems whose files are made up as they are read.
#pragma once

#include <string>

namespace orvexscan {

// Whether the open file, or the one that path leads to, is on such a file system, as
// those in /proc and /sys are. Their sizes and times tell nothing about their content,
// and some of them never end.
bool IsOnPseudoFileSystem(int descriptor);
bool IsOnPseudoFileSystem(const std::string& path);

}  // namespace orvexscan
