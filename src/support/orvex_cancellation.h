// Defers thread cancellation for the length of a scope.
#pragma once

#include <pthread.h>

// Printing is a cancellation point, and the library prints from destructors, where unwinding a
// cancelled thread would terminate the process. The request stays pending until the thread's next
// cancellation point.
class ORVEX_CancellationHold {
 public:
  ORVEX_CancellationHold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previousState_); }
  ~ORVEX_CancellationHold() { pthread_setcancelstate(previousState_, nullptr); }
  ORVEX_CancellationHold(const ORVEX_CancellationHold&) = delete;
  ORVEX_CancellationHold& operator=(const ORVEX_CancellationHold&) = delete;

 private:
  int previousState_ = PTHREAD_CANCEL_ENABLE;
};
