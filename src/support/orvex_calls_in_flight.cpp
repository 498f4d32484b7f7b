// The number of calls in flight.
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
  const auto tell = [&](const char* format, auto... numbers) {
    if (!ORVEX_LOG_BASE::Keeps(ORVEX_LOG_WARNING)) return;
    ORVEX_LOGGER::GetInstance()->Log(ORVEX_LOG_WARNING, line, function, sourceFile, format, what,
                                     numbers...);
  };
  for (int retry = 0; retry < kMaxRetries; ++retry) {
    const int inside = Sum(count);
    if (inside == 0) {
      tell("%s: All threads leaves successfully, retry=%d", retry);
      return;
    }
    tell("%s: Waiting for threads(%d) to leave, retry=%d", inside, retry);
    usleep(kPauseUs);
  }
  tell("%s: Threads(%d) still running after max retry", Sum(count));
}
