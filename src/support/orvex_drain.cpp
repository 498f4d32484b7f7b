// Waiting for calls in flight to leave.
#include "support/orvex_drain.h"

#include <unistd.h>

#include "support/orvex_atomic.h"
#include "support/orvex_log.h"

namespace {
constexpr int kMaxRetries = 10;
constexpr unsigned int kPauseUs = 100000;
}  // namespace

void ORVEX_DrainCalls(int volatile* count, const char* what, unsigned int line,
                      const char* function, const char* sourceFile) {
  for (int retry = 0; retry < kMaxRetries; ++retry) {
    const int inside = ORVEX_atomic_read_32(count);
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
               "%s: Threads(%d) still running after max retry", what, ORVEX_atomic_read_32(count));
}
