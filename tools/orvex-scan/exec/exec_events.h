// Executions, as the kernel reports them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "file/descriptor.h"

namespace orvexscan {

// One file that was opened to be executed.
struct Execution {
  std::chrono::system_clock::time_point time;  // when its event was read
  pid_t pid;                                   // of the process that executes it
  std::unique_ptr<Descriptor> file;            // open for reading
};

// A fanotify group.
//
// Threads: one at a time.
class ExecEvents {
 public:
  // Listens on the mount that each path is on. Throws std::runtime_error, with a text for the user,
  // if the system refuses.
  explicit ExecEvents(const std::vector<std::string>& paths);

  // Readable when there is something to read.
  int descriptor() const { return group_.get(); }
  // Some of the pending events; empty if there are none.
  std::vector<Execution> Read();
  // Receives no new events from now on. Earlier ones can still be read.
  void Stop();

  // How often executions were lost, each time one or more: the kernel's queue was full, or a
  // file could not be opened for this process.
  uint64_t losses() const { return losses_; }

 private:
  const Descriptor group_;
  uint64_t losses_ = 0;
};

}  // namespace orvexscan
