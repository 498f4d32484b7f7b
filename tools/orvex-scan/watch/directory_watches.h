// The directories watched for changes.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace orvexscan {

// Where to look because something has happened there. The look finds out what it was: it may have
// happened again since.
struct Hint {
  enum class Kind {
    kFile,           // a file has been written, replaced, touched or removed
    kDirectoryCame,  // a directory has appeared that is not watched yet
    kDirectoryWent,  // a directory is gone or has been replaced
    kLost            // hints have been lost: anything may have changed
  };
  Kind kind;
  std::string path;
};

// The path of name in directory, which may end in a slash.
std::string PathIn(const std::string& directory, const std::string& name);

// Directories watched through inotify, by the paths that led to them. One directory may have
// several: through links, or because a file in it was named by itself.
//
// Ownership: owns the inotify instance.
// Threads: one at a time.
class DirectoryWatches {
 public:
  // Throws std::runtime_error if the system grants no instance.
  explicit DirectoryWatches(bool followLinks);
  ~DirectoryWatches();
  DirectoryWatches(const DirectoryWatches&) = delete;
  DirectoryWatches& operator=(const DirectoryWatches&) = delete;

  // Gives hints about everything directly in the directory from now on. Returns false when no more
  // directories can be watched.
  bool AddDirectory(const std::string& directory);
  // Gives hints about path when something happens to that name in the directory. Returns false when
  // no more directories can be watched.
  bool AddName(const std::string& directory, const std::string& name, const std::string& path);
  // Gives no more hints about the directory and those below it.
  void RemoveTree(const std::string& directory);

  // The pending hints, without waiting.
  std::vector<Hint> Read();

  size_t count() const { return watches_.size(); }
  // Readable when there are hints. Still owned by this object.
  int descriptor() const { return descriptor_; }

 private:
  struct Watch {
    std::set<std::string> directories;
    std::map<std::string, std::set<std::string>> pathsOfName;
  };
  using Watches = std::map<int, Watch>;  // by inotify's number
  int Add(const std::string& directory, unsigned int flags);
  void RemoveDirectory(std::map<std::string, int>::iterator directory);
  void AddHints(int number, unsigned int what, const std::string& name, std::vector<Hint>* hints);
  void AddHintsOfItself(Watches::iterator watch, unsigned int what, std::vector<Hint>* hints);
  void AddHintsOfEntry(const std::string& path, unsigned int what, std::vector<Hint>* hints) const;

  const bool followLinks_;
  const int descriptor_;
  Watches watches_;
  std::map<std::string, int> directories_;  // to inotify's number
};

}  // namespace orvexscan
