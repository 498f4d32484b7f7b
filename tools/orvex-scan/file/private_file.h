// Files that one run of the tool leaves for later ones, whole or not at all.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace orvexscan {

// The content of a file that nobody but this user can have written; nothing if there is no such
// file.
//
// Throws std::runtime_error, whose text says what is wrong, if the file is not regular, belongs to
// another user, is writable by others, unreadable or larger than most bytes.
std::optional<std::string> ReadPrivateFile(const std::string& path, size_t most);

enum class Access {
  kOwnerAlone,  // may read and write it
  kAsUsual      // like the existing file, or like any new one
};

// Replaces the file at path atomically: readers find all of the old content or all of the new, even
// after a crash.
//
// Throws std::system_error and leaves the old file. Only regular files are replaced.
void ReplaceFile(const std::string& path, const std::string& content, Access access);

// Throws what ReplaceFile would throw now, so that hours of work are not lost to a wrong name.
void CheckReplaceable(const std::string& path);

}  // namespace orvexscan
