// Files that one run of the tool leaves for the next.
#pragma once

#include <optional>
#include <string>

namespace orvexscan {

/// The content of a file that nobody but this user can have written; nothing when there
/// is none of that name.
///
/// Throws std::runtime_error, whose text is what is wrong with the file, when it is no
/// regular file, another user's, writable by others or unreadable.
std::optional<std::string> ReadPrivateFile(const std::string& path);

/// Puts content in place of the file at path, for this user alone to read and write.
/// Whoever reads path meanwhile, or after a crash, finds all of the old or all of the new.
///
/// Throws std::system_error, and leaves what was there. Anything but a regular file is
/// not replaced.
void ReplacePrivateFile(const std::string& path, const std::string& content);

}  // namespace orvexscan
