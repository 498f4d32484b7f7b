#include "file/interruption.h"

#include <atomic>
#include <csignal>

namespace orvexscan {
namespace {

// Relaxed: a lone flag, tied to no other memory.
std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler must not take a lock");

}  // namespace

void HearInterruptions() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted.store(true, std::memory_order_relaxed); };
  action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() { return interrupted.load(std::memory_order_relaxed); }

}  // namespace orvexscan
