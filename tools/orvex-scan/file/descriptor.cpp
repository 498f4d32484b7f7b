#include "file/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "file/file_failure.h"

namespace orvexscan {

Descriptor::~Descriptor() {
  if (number_ >= 0) close(number_);
}

Descriptor OpenToRead(const std::string& path, bool followLinks) {
  // Non-blocking, no controlling terminal: the name may now lead to a pipe or a tty.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (followLinks ? 0 : O_NOFOLLOW);
  const int number = open(path.c_str(), flags);
  if (number < 0 && errno == ELOOP && !followLinks) {
    throw FileFailure(FailureReason::kChanged, "has become a symbolic link");
  }
  if (number < 0) throw FileFailure::OfSystem(errno, "open");
  return Descriptor(number);
}

}  // namespace orvexscan
