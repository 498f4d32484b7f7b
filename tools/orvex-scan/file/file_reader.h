// Reads one open file and never mistakes a changed one for the one asked about.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "file/descriptor.h"
#include "file/identity.h"

namespace orvexscan {

// Ownership: closes its descriptor.
// Threads: one at a time.
class FileReader {
 public:
  // Opens path and checks that it is the very file that expected describes. Throws FileFailure
  // otherwise.
  FileReader(const std::string& path, const Identity& expected, bool followLinks);

  // Hands the whole content to sink, piece by piece, through buffer, and returns
  // the number of bytes. Throws FileFailure when a read fails.
  using Sink = std::function<void(const unsigned char* bytes, size_t count)>;
  uint64_t ReadAll(std::vector<unsigned char>* buffer, const Sink& sink);

  // Reads up to count bytes at offset; fewer only at the end of the file.
  size_t ReadAt(uint64_t offset, unsigned char* bytes, size_t count);

  // Throws FileFailure if the file has changed since it was opened; ctime is compared in every
  // mode. If it returns and the file is settled, all that was read before is one state of it.
  void CheckUnchanged() const;

  // Whether the size and times of the file reflect its content.
  bool HasTrueSize();
  // Whether somebody has the file open for writing, or mapped. Many stores through a mapping update
  // a file's times only once. Also false where the system cannot tell: for files of other users
  // without CAP_LEASE, and on file systems without leases.
  bool HasWriter() const;

  uint64_t size() const { return opened_.size; }
  int descriptor() const { return descriptor_.get(); }

 private:
  const Descriptor descriptor_;
  const Identity opened_;
};

}  // namespace orvexscan
