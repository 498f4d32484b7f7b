// What the command line asks for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "content/answer.h"
#include "file/identity.h"
#include "orvexeng.h"

namespace orvexscan {

// Exit codes.
constexpr int kAllFine = 0;
constexpr int kSomeFilesFailed = 1;
constexpr int kUsage = 2;
constexpr int kInterrupted = 3;
constexpr int kDiffers = 4;

struct Options {
  std::vector<std::string> paths;
  bool processes = false;  // the files that processes map, instead of paths
  bool followLinks = false;
  bool oneFileSystem = false;
  bool pseudo = false;
  std::vector<std::string> exclude;  // patterns of names and paths
  uint64_t maxSize = UINT64_MAX;     // of a file, in bytes
  std::string files0From;            // a file of more paths, "-" for standard input, or empty
  IdentityMode identity = IdentityMode::kCtime;
  int settleSeconds = 2;
  int timeLimitSeconds = 3600;
  int threads = 1;
  int passes = 2;
  int capacity = ORVEX_MAX_CAPACITY;  // of each cache, in entries
  std::string snapshot;               // a file to start with and to leave behind, or empty
  std::string baseline;               // a file to compare with, or empty
  std::string json;                   // a file to write, "-" for standard output, or empty
  std::string format = "table";       // of standard output: table, json, jsonl, sha256sum, csv
  std::string metrics;                // "prometheus", "json" or empty
  bool watch = false;
  bool exec = false;  // what is executed on the mounts of the paths, instead of what is there
  WantedParts parts;
  bool verbose = false;
  bool quiet = false;
};

// Either options to run with, or the code to exit with at once: the help, version or error message
// has then been printed.
struct CommandLine {
  bool run = false;
  int exitCode = kAllFine;
  Options options;
};

CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace orvexscan
