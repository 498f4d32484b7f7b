// Runs orvex-scan as a user does.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

struct ScanRun {
  int exitCode = -1;
  std::string output;
  std::string errors;

  // The JSON that --json - printed; throws if it is none.
  nlohmann::json Json() const { return nlohmann::json::parse(output); }
};

// Runs the tool with the arguments, words of a shell, in the directory.
ScanRun RunScan(const std::string& directory, const std::string& arguments);

// The same under a limit, words of the shell's ulimit.
ScanRun RunWithLimit(const std::string& directory, const std::string& limit,
                     const std::string& arguments);

// The output of a shell command that is run in the directory.
std::string OutputOf(const std::string& directory, const std::string& command);

// The file of that path in a JSON report; null if there is not exactly one.
nlohmann::json FileIn(const nlohmann::json& report, const std::string& path);
