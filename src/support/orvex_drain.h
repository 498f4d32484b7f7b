// Waiting for calls in flight to leave.
#pragma once

// Polls a count of calls in flight until it is zero, ten times 100 ms apart at
// most, and then goes on regardless: a host that stops the library must not hang
// on its own stuck callback. Logs each step at WARNING, beginning with what, as
// coming from that line of function in sourceFile. A signal may cut a pause short.
void ORVEX_DrainCalls(int volatile* count, const char* what, unsigned int line,
                      const char* function, const char* sourceFile);
