// How many calls of hosts are inside.
#include "support/orvex_calls_in_flight.h"

#include <unistd.h>

#include "support/orvex_log.h"

namespace {
constexpr int kMaxRetries = 10;
constexpr unsigned int kPauseUs = 100000;
}  // namespace

int ORVEX_CallsInFlight::Sum(Count count) const {
  int sum = 0;
  for (const Cell& cell : cells_) sum += Of(count, ORVEX_atomic_read_32(&cell.counts));
  return sum;
}

void ORVEX_CallsInFlight::SetToZero(Count count) {
  for (Cell& cell : cells_) {
    const int found = Of(count, ORVEX_atomic_read_32(&cell.counts));
    if (found != 0) ORVEX_atomic_add_32(&cell.counts, -found * count);
  }
}

void ORVEX_CallsInFlight::Drain(Count count, const char* what, unsigned int line,
                                const char* function, const char* sourceFile) const {
  ORVEX_LOG_BASE& log = *ORVEX_LOGGER::GetInstance();
  for (int retry = 0; retry < kMaxRetries; ++retry) {
    const int inside = Sum(count);
    if (inside == 0) {
      log.Log(ORVEX_LOG_WARNING, line, function, sourceFile,
              "%s: All threads leaves successfully, retry=%d", what, retry);
      return;
    }
    log.Log(ORVEX_LOG_WARNING, line, function, sourceFile,
            "%s: Waiting for threads(%d) to leave, retry=%d", what, inside, retry);
    usleep(kPauseUs);
  }
  log.Log(ORVEX_LOG_WARNING, line, function, sourceFile,
          "%s: Threads(%d) still running after max retry", what, Sum(count));
}
