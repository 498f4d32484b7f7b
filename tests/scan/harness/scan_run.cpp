#include "harness/scan_run.h"

#include "harness/sanitizers.h"

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "harness/temporary_directory.h"

namespace {

std::string Content(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

ScanRun RunCommand(const std::string& directory, const std::string& command) {
  const TemporaryDirectory captured;
  const std::string output = captured.PathOf("output");
  const std::string errors = captured.PathOf("errors");
  const int status = std::system(("cd '" + directory + "' && { " + command + "\n} >'" + output +
                                  "' 2>'" + errors + "' </dev/null")
                                     .c_str());
  ScanRun run;
  // 128 and more: the shell's word for a signal.
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.output = Content(output);
  run.errors = Content(errors);
  return run;
}

}  // namespace

ScanRun RunScan(const std::string& directory, const std::string& arguments) {
  return RunCommand(directory, ORVEX_SCAN " " + arguments);
}

ScanRun RunWithLimit(const std::string& directory, const std::string& limit,
                     const std::string& arguments) {
  return RunCommand(directory, "ulimit " + limit + " && " ORVEX_SCAN " " + arguments);
}

std::string OutputOf(const std::string& directory, const std::string& command) {
  return RunCommand(directory, command).output;
}

nlohmann::json FileIn(const nlohmann::json& report, const std::string& path) {
  nlohmann::json found;
  for (const auto& file : report["files"]) {
    if (file["path"] != path) continue;
    if (!found.is_null()) return {};
    found = file;
  }
  return found;
}

#if ORVEXENG_CHECKS_MEMORY
// libmagic 5.44 keeps a byte of some files under /proc.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:libmagic.so"; }
#endif
