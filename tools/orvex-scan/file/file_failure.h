// Why a file has no answer.
#pragma once

#include <stdexcept>
#include <string>

namespace orvexscan {

enum class FailureReason {
  kVanished = 1000,  // no longer there, or never was
  kUnreadable,       // the system refuses to open, stat or read it
  kChanged,          // not the file the query was about, or written to while it was read
  kNotRegular,       // a link that is not followed, a device, a pipe, a socket
  kLoop,             // a directory inside itself, by way of links
  kType,             // libmagic gave up on it
  kTime,             // reading it took too long
  kInterrupted,      // the scan was stopped before it was read
  kEngine            // the engine's own code, such as out of memory
};

// The reason as one word for machines: "vanished", "unreadable", ...
const char* NameOf(FailureReason reason);

// Thrown by whatever looks at a file; the scan counts it and goes on.
//
// A query callback returns the reason's value, which is far from the engine's own codes, so that a
// query's result distinguishes the two.
class FileFailure : public std::runtime_error {
 public:
  FileFailure(FailureReason reason, const std::string& detail);

  // For a system call that failed: vanished for a name that leads nowhere, otherwise unreadable,
  // with the system's text for error.
  static FileFailure OfSystem(int error, const std::string& call);

  FailureReason reason() const { return reason_; }

 private:
  FailureReason reason_;
};

}  // namespace orvexscan
