// How the model waits for calls in flight.
#pragma once

#include "model/model_log.h"

// Waiting for calls to leave, as its messages say.
struct DrainMessages {
  const char* function;
  const char* file;
  const char* subject;
};

// Up to ten pauses of 100 ms.
void Drain(const ModelLog& log, const int& threads, const DrainMessages& messages);
