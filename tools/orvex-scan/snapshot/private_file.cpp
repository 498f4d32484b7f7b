#include "snapshot/private_file.h"

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
  if (!S_ISREG(status.st_mode)) throw std::runtime_error("it is no regular file");
  if (status.st_uid != geteuid()) throw std::runtime_error("it belongs to another user");
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw std::runtime_error("others may write to it");
  }
}

std::string ReadToEnd(int descriptor) {
  std::string content;
  char piece[1 << 16];
  for (;;) {
    const ssize_t got = read(descriptor, piece, sizeof piece);
    if (got == 0) return content;
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

// The new name is on the disk only once its directory is.
void SyncDirectoryOf(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  const Descriptor directory(
      open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Require(directory.get() >= 0 && fsync(directory.get()) == 0, path);
}

}  // namespace

std::optional<std::string> ReadPrivateFile(const std::string& path) {
  // No link: it could lead to what another user chose. Not blocking: a pipe would.
  const Descriptor file(
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
  if (file.get() < 0 && errno == ENOENT) return std::nullopt;
  if (file.get() < 0) throw Unreadable(errno);
  CheckPrivate(file.get());
  return ReadToEnd(file.get());
}

void ReplacePrivateFile(const std::string& path, const std::string& content) {
  struct stat old {};
  if (lstat(path.c_str(), &old) == 0 && !S_ISREG(old.st_mode)) {
    errno = EINVAL;  // the superuser could put a file in place of a device
    Require(false, path);
  }
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  Require(file.get() >= 0, path);
  try {
    WriteOut(file.get(), content, path);
    Require(rename(temporary.c_str(), path.c_str()) == 0, path);
  } catch (...) {
    unlink(temporary.c_str());
    throw;
  }
  SyncDirectoryOf(path);
}

}  // namespace orvexscan
