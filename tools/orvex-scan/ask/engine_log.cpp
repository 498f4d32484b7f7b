#include "ask/engine_log.h"

#include <cstdio>

#include "orvexeng.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

const char* NameOfLevel(unsigned int level) {
  constexpr const char* kNames[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG"};
  return level < 5 ? kNames[level] : "?";
}

// One call for the whole line, since several threads may log at once. A path in it may hold
// anything.
void Print(unsigned int level, unsigned int line, const char* function, const char* file,
           const char* message, unsigned int) {
  std::fprintf(stderr, "engine %s: %s (%s:%u %s)\n", NameOfLevel(level), Printable(message).c_str(),
               file, line, function);
}

void Drop(unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {}

}  // namespace

void TakeEngineLog(bool verbose) { orvex_register_log_cb(verbose ? Print : Drop); }

}  // namespace orvexscan
