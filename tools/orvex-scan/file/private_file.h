// Files that one run of the tool leaves for later ones, whole or not at all.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace orvexscan {

// The content of a file that nobody but this user can have written; nothing when there
// is none of that name.
//
// Throws std::runtime_error, whose text is what is wrong with the file, when it is no
// regular file, another user's, writable by others, unreadable or of more than most bytes.
std::optional<std::string> ReadPrivateFile(const std::string& path, size_t most);

enum class Access {
  kOwnerAlone,  // to read and to write
  kAsUsual      // as the file that is there, or as any new one
};

// Puts content in place of the file at path. Whoever reads path while it is written, or after a
// crash, finds all of the old or all of the new.
//
// Throws std::system_error, and leaves what was there. Anything but a regular file is
// not replaced.
void ReplaceFile(const std::string& path, const std::string& content, Access access);

// Throws what ReplaceFile would throw by now, so that hours of work are not lost to a
// wrong name.
void CheckReplaceable(const std::string& path);

}  // namespace orvexscan
