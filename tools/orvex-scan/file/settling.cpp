#include "file/settling.h"

namespace orvexscan {
namespace {

// Signed again: a time before 1970 is a long time ago.
Settling::Instant InstantOf(uint64_t nanoseconds) {
  return Settling::Instant(static_cast<int64_t>(nanoseconds));
}

}  // namespace

bool Settling::IsSettled(const Identity& identity, Instant now) const {
  if (!Judges()) return true;
  const Instant latest = now - time_;
  return InstantOf(identity.mtimeNs) <= latest && InstantOf(identity.ctimeNs) <= latest;
}

Settling::Instant Settling::Realtime() {
  return std::chrono::system_clock::now().time_since_epoch();
}

}  // namespace orvexscan
