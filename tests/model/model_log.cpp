// The model's logger and its timed scopes.
#include "model/model_log.h"

#include <cstdarg>
#include <cstdio>

void ModelLog::operator()(ModelLevel messageLevel, const char* function, const char* file,
                          const char* format, ...) const {
  if (!enable || messageLevel > level) return;
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (callback != nullptr) {
    callback(static_cast<unsigned int>(messageLevel), 0, function, file, text,
             static_cast<unsigned int>(length));
    return;
  }
  const time_t now = time(nullptr);
  char date[128];
  strftime(date, sizeof date, "%Y %m %d %X ", localtime(&now));
  static const char* const kNames[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG"};
  std::printf("%s [%s] %s %s|0|%s\n", date, kNames[messageLevel], text, file, function);
  std::fflush(stdout);
}

ModelScope::ModelScope(const ModelLog& log, const char* name) : log_(log), name_(name) {
  if (log_.profiling) clock_gettime(CLOCK_MONOTONIC, &start_);
}

ModelScope::~ModelScope() {
  if (!log_.profiling) return;
  timespec stop{};
  clock_gettime(CLOCK_MONOTONIC, &stop);
  long seconds = static_cast<long>(stop.tv_sec - start_.tv_sec);
  long nanoseconds = stop.tv_nsec - start_.tv_nsec;
  if (nanoseconds < 0) {
    nanoseconds += 1000000000;
    --seconds;
  }
  log_(kInfo, "PrintProfilingResult", "orvex_profiling", "[PROFILING] %s used %ld (s) and %ld (ns)",
       name_, seconds, nanoseconds);
}
