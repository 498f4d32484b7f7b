#include "watch/directory_watches.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace orvexscan {
namespace {

// A writer is done when it closes the file. IN_CREATE comes too early for a file, but is all there
// is for a directory or a new hard link.
constexpr uint32_t kWanted = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB |
                             IN_CREATE | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

constexpr int kFull = -1;
constexpr int kNothingThere = -2;

constexpr size_t kEventBytes = 16 << 10;

int OpenInotify() {
  const int descriptor = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (descriptor < 0 && errno == EMFILE) {
    throw std::runtime_error("too many watchers already; see fs.inotify.max_user_instances");
  }
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
  return descriptor;
}

bool IsDirectory(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_directory(path, ignored);
}

bool IsLink(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_symlink(path, ignored);
}

// A newly created file has one name, and its writer will close it. A file with other names, or a
// symbolic link, is complete.
bool IsComplete(const std::string& path) {
  std::error_code error;
  return IsLink(path) || (std::filesystem::hard_link_count(path, error) > 1 && !error);
}

}  // namespace

std::string PathIn(const std::string& directory, const std::string& name) {
  return directory + (!directory.empty() && directory.back() == '/' ? "" : "/") + name;
}

DirectoryWatches::DirectoryWatches(bool followLinks)
    : followLinks_(followLinks), descriptor_(OpenInotify()) {}

DirectoryWatches::~DirectoryWatches() { close(descriptor_); }

bool DirectoryWatches::AddDirectory(const std::string& directory) {
  const int number = Add(directory, followLinks_ ? 0 : IN_DONT_FOLLOW);
  // Gone again or unreadable: the walk reports the latter.
  if (number < 0) return number != kFull;
  const auto known = directories_.find(directory);
  if (known != directories_.end() && known->second != number) RemoveDirectory(known);
  directories_[directory] = number;
  watches_[number].directories.insert(directory);
  return true;
}

bool DirectoryWatches::AddName(const std::string& directory, const std::string& name,
                               const std::string& path) {
  const int number = Add(directory, 0);
  if (number >= 0) watches_[number].pathsOfName[name].insert(path);
  return number != kFull;
}

void DirectoryWatches::RemoveTree(const std::string& directory) {
  const auto itself = directories_.find(directory);
  if (itself != directories_.end()) RemoveDirectory(itself);
  const std::string prefix = PathIn(directory, "");
  for (auto below = directories_.lower_bound(prefix);
       below != directories_.end() && below->first.compare(0, prefix.size(), prefix) == 0;) {
    RemoveDirectory(below++);
  }
}

std::vector<Hint> DirectoryWatches::Read() {
  alignas(inotify_event) std::array<char, kEventBytes> buffer;
  const ssize_t length = read(descriptor_, buffer.data(), buffer.size());
  if (length < 0 && errno != EAGAIN && errno != EINTR) {
    throw std::system_error(errno, std::generic_category(), "inotify");
  }
  std::vector<Hint> hints;
  for (ssize_t at = 0; at < length;) {
    inotify_event event;
    std::memcpy(&event, &buffer[static_cast<size_t>(at)], sizeof event);
    const char* const name = &buffer[static_cast<size_t>(at)] + sizeof event;
    // Padded with zero bytes; no name if it is about the directory itself.
    AddHints(event.wd, event.mask, event.len == 0 ? "" : name, &hints);
    at += static_cast<ssize_t>(sizeof event + event.len);
  }
  return hints;
}

// Returns inotify's number, kFull or kNothingThere.
int DirectoryWatches::Add(const std::string& directory, unsigned int flags) {
  const int number = inotify_add_watch(descriptor_, directory.c_str(), kWanted | flags);
  if (number >= 0) return number;
  return errno == ENOSPC ? kFull : kNothingThere;
}

void DirectoryWatches::RemoveDirectory(std::map<std::string, int>::iterator directory) {
  const auto watch = watches_.find(directory->second);
  watch->second.directories.erase(directory->first);
  directories_.erase(directory);
  if (!watch->second.directories.empty() || !watch->second.pathsOfName.empty()) return;
  // Fails if the directory is gone, which does no harm.
  inotify_rm_watch(descriptor_, watch->first);
  watches_.erase(watch);
}

void DirectoryWatches::AddHints(int number, unsigned int what, const std::string& name,
                                std::vector<Hint>* hints) {
  if ((what & IN_Q_OVERFLOW) != 0) hints->push_back({Hint::Kind::kLost, ""});
  const auto watch = watches_.find(number);
  if (watch == watches_.end()) return;
  if (name.empty()) {
    AddHintsOfItself(watch, what, hints);
    return;
  }
  for (const std::string& directory : watch->second.directories) {
    AddHintsOfEntry(PathIn(directory, name), what, hints);
  }
  const auto named = watch->second.pathsOfName.find(name);
  if (named == watch->second.pathsOfName.end()) return;
  for (const std::string& path : named->second) {
    if ((what & IN_CREATE) == 0 || IsComplete(path)) hints->push_back({Hint::Kind::kFile, path});
  }
}

void DirectoryWatches::AddHintsOfItself(Watches::iterator watch, unsigned int what,
                                        std::vector<Hint>* hints) {
  const bool ended = (what & IN_IGNORED) != 0;
  if (!ended && (what & IN_MOVE_SELF) == 0) return;
  for (const std::string& directory : watch->second.directories) {
    const bool another = IsDirectory(directory);
    // A moved one may already be watched under its new path.
    if (ended || !another) hints->push_back({Hint::Kind::kDirectoryWent, directory});
    if (ended && another) hints->push_back({Hint::Kind::kDirectoryCame, directory});
    if (ended) directories_.erase(directory);
  }
  if (ended) watches_.erase(watch);
}

void DirectoryWatches::AddHintsOfEntry(const std::string& path, unsigned int what,
                                       std::vector<Hint>* hints) const {
  const bool came = (what & (IN_CREATE | IN_MOVED_TO)) != 0;
  const bool directory = (what & IN_ISDIR) != 0;
  if ((directory && (what & (IN_DELETE | IN_MOVED_FROM)) != 0) ||
      (!directory && directories_.count(path) != 0)) {
    hints->push_back({Hint::Kind::kDirectoryWent, path});
  }
  if (came && (directory || (followLinks_ && IsDirectory(path)))) {
    hints->push_back({Hint::Kind::kDirectoryCame, path});
  } else if (!directory && ((what & IN_CREATE) == 0 || IsComplete(path))) {
    hints->push_back({Hint::Kind::kFile, path});
  }
}

}  // namespace orvexscan
