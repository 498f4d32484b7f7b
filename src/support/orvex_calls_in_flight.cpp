// How many calls of hosts are inside.
#include "support/orvex_calls_in_flight.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdint>

#include "support/orvex_log.h"

namespace {
constexpr int kMaxRetries = 10;
constexpr unsigned int kPauseUs = 100000;
}  // namespace

int ORVEX_CallsInFlight::Sum() const {
  int sum = 0;
  for (const Cell& cell : cells_) sum += ORVEX_atomic_read_32(&cell.count);
  return sum;
}

void ORVEX_CallsInFlight::SetToZero() {
  for (Cell& cell : cells_) ORVEX_StoreRelaxed(cell.count, 0);
}

void ORVEX_CallsInFlight::Drain(const char* what, unsigned int line, const char* function,
                                const char* sourceFile) const {
  for (int retry = 0; retry < kMaxRetries; ++retry) {
    const int inside = Sum();
    if (inside == 0) {
      ORVEX_LOG_AT(ORVEX_LOG_WARNING, line, function, sourceFile,
                   "%s: All threads leaves successfully, retry=%d", what, retry);
      return;
    }
    ORVEX_LOG_AT(ORVEX_LOG_WARNING, line, function, sourceFile,
                 "%s: Waiting for threads(%d) to leave, retry=%d", what, inside, retry);
    usleep(kPauseUs);
  }
  ORVEX_LOG_AT(ORVEX_LOG_WARNING, line, function, sourceFile,
               "%s: Threads(%d) still running after max retry", what, Sum());
}

// Threads' own addresses differ in their middle bits.
int volatile& ORVEX_CallsInFlight::CellOfThread() {
  const auto thread =
      static_cast<uint32_t>(reinterpret_cast<uintptr_t>(__builtin_thread_pointer()) >> 4);
  return cells_[(thread * 0x9E3779B9U) >> 26].count;
}
