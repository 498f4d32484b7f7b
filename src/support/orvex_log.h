// The logger: levels, switches, and the call through which every message goes.
#pragma once

#include "orvexeng.h"
#include "support/orvex_atomic.h"

// How severe a message is; smaller is more severe. Its range is open: a
// configuration file may set any level.
enum ORVEX_LOG : int {
  ORVEX_LOG_FATAL = 0,
  ORVEX_LOG_ERROR = 1,
  ORVEX_LOG_WARNING = 2,
  ORVEX_LOG_INFO = 3,
  ORVEX_LOG_DEBUG = 4,
};

// Formats messages and hands them to the host's callback or, without one, to
// standard output, one line each.
//
// Threads: any; takes no lock and allocates nothing. The switches and the
// callback are expected to be set before queries run, but may change any time.
class ORVEX_API ORVEX_LOG_BASE {
 public:
  ORVEX_LOG_BASE();
  virtual ~ORVEX_LOG_BASE();
  ORVEX_LOG_BASE(const ORVEX_LOG_BASE&) = delete;
  ORVEX_LOG_BASE& operator=(const ORVEX_LOG_BASE&) = delete;

  // line, function and file (a bare name) say where the message comes from. The text is cut to 511
  // characters. Never throws: exceptions of the callback are swallowed, since a message must not
  // change what the library does.
  virtual void Log(ORVEX_LOG level, unsigned int line, const char* function, const char* file,
                   const char* format, ...) __attribute__((format(printf, 6, 7)));
  // For loggers that have settings; this one has none. Always 0.
  virtual unsigned int ReadConfig(char* text);

  // Replaces the callback. Returns 0, or 1 for a null one, which changes nothing.
  unsigned int RegisterLogCallback(orvex_log_cb newCallback);
  // "FATAL" to "DEBUG", or "" for a level that has no name.
  static const char* LogLevelToString(unsigned int level);

  // Whether a message of this level is kept.
  __attribute__((always_inline)) static bool Keeps(ORVEX_LOG level) {
    return ORVEX_LoadRelaxed(LogEnable) && level <= ORVEX_LoadRelaxed(LogLevel);
  }

  // The host may set both directly.
  static bool LogEnable;      // false drops every message
  static ORVEX_LOG LogLevel;  // the most detailed level kept

 private:
  orvex_log_cb callback_ = nullptr;
};

// Access to the process's one logger.
class ORVEX_API ORVEX_LOGGER {
 public:
  static ORVEX_LOG_BASE* GetInstance();
};

// Logs a message with the current line number. A dropped one costs two comparisons; its arguments
// are not evaluated.
#define ORVEX_LOG_MESSAGE(level, function, sourceFile, ...)                                 \
  do {                                                                                      \
    if (ORVEX_LOG_BASE::Keeps(level)) {                                                     \
      ORVEX_LOGGER::GetInstance()->Log(level, __LINE__, function, sourceFile, __VA_ARGS__); \
    }                                                                                       \
  } while (false)
