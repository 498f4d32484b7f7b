#include "file/file_failure.h"

#include <cerrno>
#include <system_error>

namespace orvexscan {

const char* NameOf(FailureReason reason) {
  switch (reason) {
    case FailureReason::kVanished:
      return "vanished";
    case FailureReason::kUnreadable:
      return "unreadable";
    case FailureReason::kChanged:
      return "changed";
    case FailureReason::kNotRegular:
      return "not regular";
    case FailureReason::kLoop:
      return "loop";
    case FailureReason::kType:
      return "type";
    case FailureReason::kTime:
      return "time";
    case FailureReason::kInterrupted:
      return "interrupted";
    case FailureReason::kEngine:
      return "engine";
  }
  return "";
}

FileFailure::FileFailure(FailureReason reason, const std::string& detail)
    : std::runtime_error(detail), reason_(reason) {}

FileFailure FileFailure::OfSystem(int error, const std::string& call) {
  const bool gone = error == ENOENT || error == ENOTDIR || error == ESRCH;
  return FileFailure(gone ? FailureReason::kVanished : FailureReason::kUnreadable,
                     call + ": " + std::generic_category().message(error));
}

}  // namespace orvexscan
