#include "file/private_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "file/descriptor.h"

namespace orvexscan {
namespace {

std::runtime_error Unreadable(int error) {
  return std::runtime_error("it cannot be read: " + std::generic_category().message(error));
}

void CheckPrivate(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) throw Unreadable(errno);
  if (!S_ISREG(status.st_mode)) throw std::runtime_error("it is not a regular file");
  if (status.st_uid != geteuid()) throw std::runtime_error("it belongs to another user");
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error("others may write to it");
  }
}

std::string ReadToEnd(int descriptor, size_t most) {
  std::string content;
  char piece[1 << 16];
  for (;;) {
    const ssize_t got = read(descriptor, piece, sizeof piece);
    if (got == 0) return content;
    if (got > 0 && static_cast<size_t>(got) > most - content.size()) {
      throw std::runtime_error("it is too large");
    }
    if (got > 0) {
      content.append(piece, static_cast<size_t>(got));
    } else if (errno != EINTR) {
      throw Unreadable(errno);
    }
  }
}

void Require(bool done, const std::string& path) {
  if (!done) throw std::system_error(errno, std::generic_category(), path + " cannot be written");
}

void WriteOut(int descriptor, const std::string& content, const std::string& path) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t put = write(descriptor, content.data() + done, content.size() - done);
    Require(put >= 0 || errno == EINTR, path);
    if (put > 0) done += static_cast<size_t>(put);
  }
  Require(fsync(descriptor) == 0, path);
}

// The new name is on disk only once its directory is.
void SyncDirectoryOf(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  const Descriptor directory(
      open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Require(directory.get() >= 0 && fsync(directory.get()) == 0, path);
}

// It can only be read by setting it. No other thread creates files at this point.
mode_t Umask() {
  const mode_t mask = umask(0);
  umask(mask);
  return mask;
}

// A file next to the one at path, removed unless it replaces that one.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& path) : path_(path), name_(path + ".XXXXXX") {
    struct stat old {};
    if (lstat(path.c_str(), &old) == 0 && !S_ISREG(old.st_mode)) {
      errno = EINVAL;  // root could replace a device by a file
      Require(false, path);
    }
    number_ = mkostemp(name_.data(), O_CLOEXEC);
    Require(number_ >= 0, path);
  }
  ~TemporaryFile() {
    close(number_);
    if (!published_) unlink(name_.c_str());
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  void Publish() {
    Require(rename(name_.c_str(), path_.c_str()) == 0, path_);
    published_ = true;
  }
  int descriptor() const { return number_; }

 private:
  const std::string path_;
  std::string name_;
  int number_ = -1;
  bool published_ = false;
};

}  // namespace

std::optional<std::string> ReadPrivateFile(const std::string& path, size_t most) {
  // No link: another user could choose its target. Non-blocking: a pipe would block.
  const Descriptor file(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
  if (file.get() < 0 && errno == ENOENT) return std::nullopt;
  if (file.get() < 0) throw Unreadable(errno);
  CheckPrivate(file.get());
  return ReadToEnd(file.get(), most);
}

void ReplaceFile(const std::string& path, const std::string& content, Access access) {
  mode_t mode = S_IRUSR | S_IWUSR;
  struct stat old {};
  const bool exists = lstat(path.c_str(), &old) == 0;
  if (access == Access::kAsUsual) mode = exists ? old.st_mode & 07777 : 0666 & ~Umask();
  TemporaryFile temporary(path);
  Require(fchmod(temporary.descriptor(), mode) == 0, path);
  WriteOut(temporary.descriptor(), content, path);
  temporary.Publish();
  SyncDirectoryOf(path);
}

void CheckReplaceable(const std::string& path) { const TemporaryFile temporary(path); }

}  // namespace orvexscan
