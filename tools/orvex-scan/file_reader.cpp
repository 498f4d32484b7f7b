#include "file_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "file_failure.h"

namespace orvexscan {
namespace {

int Open(const std::string& path, bool followLinks) {
  // Not blocking and no terminal: by now the name may lead to a pipe or a line.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (followLinks ? 0 : O_NOFOLLOW);
  const int descriptor = open(path.c_str(), flags);
  if (descriptor < 0 && errno == ELOOP && !followLinks) {
    throw FileFailure(FailureReason::kChanged, "has become a symbolic link");
  }
  if (descriptor < 0) throw FileFailure::OfSystem(errno, "open");
  return descriptor;
}

}  // namespace

FileReader::FileReader(const std::string& path, const Identity& expected, bool followLinks)
    : descriptor_(Open(path, followLinks)), opened_(expected) {
  try {
    if (IdentityOf(descriptor_) != expected) {
      throw FileFailure(FailureReason::kChanged, "changed before it was read");
    }
  } catch (...) {
    close(descriptor_);
    throw;
  }
}

FileReader::~FileReader() { close(descriptor_); }

uint64_t FileReader::ReadAll(std::vector<unsigned char>* buffer, const Sink& sink) {
  posix_fadvise(descriptor_, 0, 0, POSIX_FADV_SEQUENTIAL);
  uint64_t offset = 0;
  for (;;) {
    const size_t count = ReadAt(offset, buffer->data(), buffer->size());
    sink(buffer->data(), count);
    offset += count;
    if (count < buffer->size()) return offset;
  }
}

size_t FileReader::ReadAt(uint64_t offset, unsigned char* bytes, size_t count) {
  size_t done = 0;
  while (done < count) {
    const ssize_t got =
        pread(descriptor_, bytes + done, count - done, static_cast<off_t>(offset + done));
    if (got == 0) break;
    if (got > 0) {
      done += static_cast<size_t>(got);
    } else if (errno != EINTR) {
      throw FileFailure::OfSystem(errno, "read");
    }
  }
  return done;
}

void FileReader::CheckUnchanged() const {
  if (IdentityOf(descriptor_) != opened_) {
    throw FileFailure(FailureReason::kChanged, "changed while it was read");
  }
}

}  // namespace orvexscan
