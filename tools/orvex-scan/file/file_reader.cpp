#include "file/file_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "file/file_failure.h"
#include "file/pseudo_file_system.h"

namespace orvexscan {

FileReader::FileReader(const std::string& path, const Identity& expected, bool followLinks)
    : descriptor_(OpenToRead(path, followLinks)), opened_(expected) {
  if (IdentityOf(descriptor(), expected.mode) != expected) {
    throw FileFailure(FailureReason::kChanged, "changed before it was read");
  }
}

uint64_t FileReader::ReadAll(std::vector<unsigned char>* buffer, const Sink& sink) {
  posix_fadvise(descriptor(), 0, 0, POSIX_FADV_SEQUENTIAL);
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
        pread(descriptor(), bytes + done, count - done, static_cast<off_t>(offset + done));
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
  if (IdentityOf(descriptor(), opened_.mode) != opened_) {
    throw FileFailure(FailureReason::kChanged, "changed while it was read");
  }
}

bool FileReader::HasTrueSize() {
  if (IsOnPseudoFileSystem(descriptor())) return false;
  unsigned char byte = 0;
  return size() != 0 || ReadAt(0, &byte, 1) == 0;
}

bool FileReader::HasWriter() const {
  // Released at once: whoever opens the file for writing must not wait for us.
  if (fcntl(descriptor(), F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
  fcntl(descriptor(), F_SETLEASE, F_UNLCK);
  return false;
}

}  // namespace orvexscan
