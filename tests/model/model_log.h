// The model's logger and its timed scopes.
#pragma once

#include <time.h>

#include "orvexeng.h"

// Levels as the log callback receives them.
enum ModelLevel : int { kError = 1, kWarning = 2, kInfo = 3, kDebug = 4 };

struct ModelLog {
  // A message that is kept goes to the callback or, without one, to standard output.
  void operator()(ModelLevel messageLevel, const char* function, const char* file,
                  const char* format, ...) const __attribute__((format(printf, 5, 6)));

  bool enable = true;
  int level = kInfo;
  bool profiling = false;
  orvex_log_cb callback = nullptr;
};

// A timed scope. Whether it times is asked at either end.
class ModelScope {
 public:
  ModelScope(const ModelLog& log, const char* name);
  ~ModelScope();
  ModelScope(const ModelScope&) = delete;
  ModelScope& operator=(const ModelScope&) = delete;

 private:
  const ModelLog& log_;
  const char* name_;
  timespec start_{};
};
