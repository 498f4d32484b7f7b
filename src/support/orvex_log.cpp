// The logger: levels, switches, and the call through which every message goes.
#include "support/orvex_log.h"

#include <cxxabi.h>
#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/orvex_cancellation.h"

namespace {

void PrintLine(ORVEX_LOG level, unsigned int line, const char* function, const char* file,
               const char* message) {
  char when[128] = {};
  const time_t now = time(nullptr);
  tm local{};
  // localtime_r alone would not notice a changed TZ.
  tzset();
  if (localtime_r(&now, &local) != nullptr) strftime(when, sizeof when, "%Y %m %d %X ", &local);
  // One call, so that lines of different threads do not mix.
  std::printf("%s [%s] %s %s|%u|%s\n", when,
              ORVEX_LOG_BASE::LogLevelToString(static_cast<unsigned int>(level)), message, file,
              line, function);
  std::fflush(stdout);
}

// vsnprintf, but in a quarter of the time for a format whose only argument is a %s at the end:
// every miss logs such a line.
int Format(char* message, size_t size, const char* format, va_list arguments) {
  if (format == nullptr) return -1;
  const char* const percent = std::strchr(format, '%');
  if (percent != nullptr && std::strcmp(percent, "%s") == 0) {
    va_list again;
    va_copy(again, arguments);
    const char* const text = va_arg(again, const char*);
    va_end(again);
    const auto before = static_cast<size_t>(percent - format);
    const size_t length = before + (text != nullptr ? std::strlen(text) : size);
    if (length < size) {
      std::memcpy(message, format, before);
      std::memcpy(message + before, text, length - before);
      message[length] = '\0';
      return static_cast<int>(length);
    }
  }
  return vsnprintf(message, size, format, arguments);
}

}  // namespace

bool ORVEX_LOG_BASE::LogEnable = true;
ORVEX_LOG ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;

ORVEX_LOG_BASE::ORVEX_LOG_BASE() = default;

ORVEX_LOG_BASE::~ORVEX_LOG_BASE() = default;

// During forced unwinding the caught reference is null, which UBSan reports.
__attribute__((no_sanitize("null"))) void ORVEX_LOG_BASE::Log(ORVEX_LOG level, unsigned int line,
                                                              const char* function,
                                                              const char* file, const char* format,
                                                              ...) {
  if (!Keeps(level)) return;
  char message[512];
  message[0] = '\0';
  va_list arguments;
  va_start(arguments, format);
  const int length = Format(message, sizeof message, format, arguments);
  va_end(arguments);

  const ORVEX_CancellationHold hold;
  const orvex_log_cb registered = ORVEX_LoadRelaxed(callback_);
  if (registered == nullptr) {
    PrintLine(level, line, function, file, message);
    return;
  }
  try {
    registered(static_cast<unsigned int>(level), line, function, file, message,
               static_cast<unsigned int>(length));
#if defined(__GLIBCXX__)
  } catch (const abi::__forced_unwind&) {
    // A thread that exits inside the callback must keep unwinding.
    throw;
#endif
  } catch (...) {
    // A message must not change what the library does.
  }
}

unsigned int ORVEX_LOG_BASE::ReadConfig(char* /*text*/) { return ORVEX_OK; }

unsigned int ORVEX_LOG_BASE::RegisterLogCallback(orvex_log_cb newCallback) {
  if (newCallback == nullptr) return 1;
  ORVEX_StoreRelaxed(callback_, newCallback);
  return ORVEX_OK;
}

const char* ORVEX_LOG_BASE::LogLevelToString(unsigned int level) {
  static constexpr const char* kNames[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG"};
  return level <= ORVEX_LOG_DEBUG ? kNames[level] : "";
}

ORVEX_LOG_BASE* ORVEX_LOGGER::GetInstance() {
  static ORVEX_LOG_BASE logger;
  return &logger;
}
