// How the model waits for calls in flight.
#include "model/drain.h"

#include <unistd.h>

void Drain(const ModelLog& log, const int& threads, const DrainMessages& messages) {
  for (int retry = 0; retry < 10; ++retry) {
    if (threads == 0) {
      log(kWarning, messages.function, messages.file,
          "%s: All threads leaves successfully, retry=%d", messages.subject, retry);
      return;
    }
    log(kWarning, messages.function, messages.file,
        "%s: Waiting for threads(%d) to leave, retry=%d", messages.subject, threads, retry);
    usleep(100000);
  }
  log(kWarning, messages.function, messages.file, "%s: Threads(%d) still running after max retry",
      messages.subject, threads);
}
