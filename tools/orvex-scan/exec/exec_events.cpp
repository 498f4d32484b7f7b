#include "exec/exec_events.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "terminal/printable.h"

namespace orvexscan {
namespace {

// Each holds an open file, so only a few are read at a time.
constexpr size_t kEventsAtOnce = 64;

int OpenGroup() {
  // NOLINTNEXTLINE(misc-redundant-expression): O_LARGEFILE is 0 on one target only.
  constexpr int kOpening = O_RDONLY | O_CLOEXEC | O_LARGEFILE;
  const int group = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, kOpening);
  if (group >= 0) return group;
  if (errno == EPERM) {
    throw std::runtime_error(
        "--exec needs the capability CAP_SYS_ADMIN, in the first user namespace: run it as root");
  }
  if (errno == ENOSYS) throw std::runtime_error("--exec needs a kernel with fanotify");
  throw std::system_error(errno, std::generic_category(), "fanotify_init");
}

}  // namespace

ExecEvents::ExecEvents(const std::vector<std::string>& paths) : group_(OpenGroup()) {
  for (const std::string& path : paths) {
    if (fanotify_mark(descriptor(), FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC, AT_FDCWD,
                      path.c_str()) == 0) {
      continue;
    }
    const int error = errno;
    throw std::runtime_error(error == EINVAL
                                 ? "--exec needs Linux 5.0 or later"
                                 : fmt::format("--exec cannot listen on {}: {}", Printable(path),
                                               std::generic_category().message(error)));
  }
}

std::vector<Execution> ExecEvents::Read() {
  std::array<fanotify_event_metadata, kEventsAtOnce> events;
  const ssize_t got = read(descriptor(), events.data(), sizeof events);
  std::vector<Execution> executions;
  if (got < 0) {
    // Any other error has consumed an event.
    if (errno != EAGAIN && errno != EINTR) ++losses_;
    return executions;
  }
  // Events of this kind all have the same size.
  const size_t count = static_cast<size_t>(got) / sizeof events[0];
  for (size_t i = 0; i < count; ++i) {
    const fanotify_event_metadata& event = events[i];
    if (event.vers != FANOTIFY_METADATA_VERSION) {
      throw std::runtime_error("the kernel reports executions in an unknown format");
    }
    if (event.fd == FAN_NOFD) {
      ++losses_;
      continue;
    }
    executions.push_back(
        {std::chrono::system_clock::now(), event.pid, std::make_unique<Descriptor>(event.fd)});
  }
  return executions;
}

void ExecEvents::Stop() {
  fanotify_mark(descriptor(), FAN_MARK_FLUSH | FAN_MARK_MOUNT, 0, AT_FDCWD, nullptr);
}

}  // namespace orvexscan
