// File systems whose files are generated as they are read.
#pragma once

#include <string>

namespace orvexscan {

// Whether the open file, or the one that path leads to, is on such a file system, as in /proc and
// /sys. Sizes and times there say nothing about the content, and some files never end.
bool IsOnPseudoFileSystem(int descriptor);
bool IsOnPseudoFileSystem(const std::string& path);

}  // namespace orvexscan
