// Thread cancellation held off for the length of a scope.
#pragma once

#include <pthread.h>

// Writing a line is a cancellation point, and the library writes lines from
// destructors, where the unwinding of a cancelled thread would end the process.
// The request stays pending and is served at the thread's next point.
class ORVEX_CancellationHold {
 public:
  ORVEX_CancellationHold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previousState_); }
  ~ORVEX_CancellationHold() { pthread_setcancelstate(previousState_, nullptr); }
  ORVEX_CancellationHold(const ORVEX_CancellationHold&) = delete;
  ORVEX_CancellationHold& operator=(const ORVEX_CancellationHold&) = delete;

 private:
  int previousState_ = PTHREAD_CANCEL_ENABLE;
};
