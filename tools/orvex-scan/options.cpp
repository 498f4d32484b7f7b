#include "options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "terminal/printable.h"

namespace orvexscan {
namespace {

constexpr int kMostThreads = 64;
constexpr int kMostSettleSeconds = 24 * 60 * 60;

constexpr int kMostTimeLimitSeconds = 365 * 24 * 60 * 60;

constexpr const char kExitCodes[] =
    "Exit codes: 0 all went well; 1 some files have no answer (each is listed with its\n"
    "reason); 2 the command line is wrong; 3 a signal ended the scan early;\n"
    "4 something differs from the baseline. A malformed "
    "certificate table is listed too, but\n"
    "the file has its answer.";

// Returns why text is refused, or nothing: the parser adds the option's name.
using Refusal = std::function<std::string(const std::string& text)>;

Refusal OneOf(const std::vector<std::string>& words) {
  return [words](const std::string& text) {
    if (std::find(words.begin(), words.end(), text) != words.end()) return std::string();
    return fmt::format("'{}' is not one of {}", Printable(text), fmt::join(words, ", "));
  };
}

// Strips leading zeros, which would make the parser read an octal number.
CLI::Validator WholeNumber(uint64_t least, uint64_t most, const char* what = "a whole number") {
  const auto check = [=](std::string& text) {
    uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc() && rest == end && number >= least && number <= most) {
      text = std::to_string(number);
      return std::string();
    }
    const std::string range = most == UINT64_MAX ? "" : fmt::format(" from {} to {}", least, most);
    return fmt::format("'{}' is not {}{}", Printable(text), what, range);
  };
  return CLI::Validator(check, "");
}

const std::array<IdentityMode, 3> kIdentityModes = {IdentityMode::kMtime, IdentityMode::kCtime,
                                                    IdentityMode::kStrict};

void Describe(CLI::App* app, Options* options) {
  app->set_version_flag(
      "--version", fmt::format("orvex-scan {} (engine {})", ORVEX_SCAN_VERSION, ORVEX_VERSION));
  auto* paths = app->add_option("PATH", options->paths, "Files, and directories to walk");
  app->add_flag("--processes", options->processes,
                "Scan the files that running processes map, in process order")
      ->excludes(paths);
  app->add_flag("--follow", options->followLinks, "Follow symbolic links");
  app->add_flag("-x,--one-file-system", options->oneFileSystem,
                "Do not enter other mounted file systems");
  app->add_flag("--pseudo", options->pseudo,
                "Enter file systems such as /proc and /sys, whose files are generated when read");
  app->add_option("--exclude", options->exclude,
                  "Leave out files and directories that match this shell pattern; may be repeated")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  app->add_option("--max-size", options->maxSize, "Leave out files larger than this, in bytes")
      ->transform(WholeNumber(0, UINT64_MAX, "a number of bytes"))
      ->type_name("BYTES");
  app->add_option("--files0-from", options->files0From,
                  "Read more paths from this file, each ended by a NUL; - for standard input")
      ->type_name("FILE")
      ->excludes("--processes");
  std::vector<std::string> identities;
  identities.reserve(std::size(kIdentityModes));
  for (const IdentityMode mode : kIdentityModes) identities.emplace_back(NameOf(mode));
  app->add_option_function<std::string>(
         "--identity",
         [options](const std::string& name) {
           for (const IdentityMode mode : kIdentityModes) {
             if (name == NameOf(mode)) options->identity = mode;
           }
         },
         "How a changed file is recognised: mtime, ctime as well, or all there is (strict)")
      ->check(OneOf(identities))
      ->option_text("MODE [ctime]");
  app->add_option("--settle", options->settleSeconds,
                  "Keep no answer about a file changed less than this many seconds ago")
      ->transform(WholeNumber(0, kMostSettleSeconds))
      ->capture_default_str();
  app->add_option("--time-limit", options->timeLimitSeconds,
                  "Give up on a file that takes more seconds than this to read")
      ->transform(WholeNumber(1, kMostTimeLimitSeconds))
      ->capture_default_str();
  app->add_option_function<std::string>(
         "--digests",
         [options](const std::string& names) {
           try {
             options->parts.digests = DigestsNamed(names);
           } catch (const std::invalid_argument& refusal) {
             throw CLI::ValidationError("--digests", refusal.what());
           }
         },
         "The digests to calculate, comma-separated: at most one each of 16, 20 and 32 bytes")
      ->option_text("LIST [md5,sha1,sha256]");
  app->add_flag_callback(
      "--no-type", [options] { options->parts.type = false; }, "Do not ask for file types");
  app->add_flag_callback(
      "--no-signers", [options] { options->parts.signers = false; }, "Do not look for signers");
  app->add_option("--threads", options->threads, "How many workers query the engine at once")
      ->transform(WholeNumber(1, kMostThreads))
      ->capture_default_str();
  app->add_option("--passes", options->passes, "How often to ask about everything")
      ->transform(WholeNumber(1, 1000000))
      ->capture_default_str();
  app->add_option("--capacity", options->capacity, "How many entries each cache keeps")
      ->transform(WholeNumber(1, ORVEX_MAX_CAPACITY))
      ->capture_default_str();
  app->add_option("--snapshot", options->snapshot,
                  "Reuse the answers in this file that are still valid, and add those of this scan")
      ->type_name("FILE");
  app->add_option("--baseline", options->baseline,
                  "Report what differs from this snapshot or JSON report of an earlier run")
      ->type_name("FILE");
  app->add_option("--json", options->json, "Write everything to this file; - for standard output")
      ->type_name("FILE");
  app->add_option("--format", options->format,
                  "What to print: table, json, jsonl, sha256sum (for sha256sum -c) or csv")
      ->check(OneOf({"table", "json", "jsonl", "sha256sum", "csv"}))
      ->option_text("FORMAT [table]");
  app->add_option("--metrics", options->metrics,
                  "Print the figures for monitoring instead of the table: prometheus or json")
      ->check(OneOf({"prometheus", "json"}))
      ->option_text("FORMAT");
  app->add_flag("--watch", options->watch,
                "Then print each change of a file until interrupted or terminated");
  auto* exec = app->add_flag("--exec", options->exec,
                             "Instead print what is executed on the mounts of the paths, until "
                             "interrupted or terminated");
  for (const char* other : {"--processes", "--follow", "--one-file-system", "--pseudo", "--exclude",
                            "--max-size", "--passes", "--baseline", "--watch"}) {
    exec->excludes(other);
  }
  app->add_flag("--verbose", options->verbose, "Show the engine's log on standard error");
  app->add_flag("--quiet", options->quiet,
                "Draw no progress, and print no table on standard error");
  app->footer(kExitCodes);
}

// What CLI11 cannot express.
void CheckTogether(const Options& options) {
  if (options.paths.empty() && options.files0From.empty() && !options.processes) {
    throw CLI::RequiredError("PATH, --files0-from or --processes");
  }
  // JSON Lines continue while watching.
  const bool otherFormat =
      options.format != "table" && !(options.format == "jsonl" && (options.watch || options.exec));
  const std::initializer_list<bool> printing = {options.json == "-", !options.metrics.empty(),
                                                options.watch || options.exec, otherFormat};
  if (std::count(printing.begin(), printing.end(), true) > 1) {
    throw CLI::ValidationError(
        "standard output",
        "has room for only one of --json -, --format, --metrics, --watch and --exec");
  }
  if (options.format == "sha256sum" && options.parts.digests[2] != NID_sha256) {
    throw CLI::ValidationError("--format sha256sum", "needs sha256 among the --digests");
  }
  if (options.watch && options.processes) throw CLI::ExcludesError("--watch", "--processes");
}

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  line.options.threads =
      std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, kMostThreads);
  CLI::App app("Asks the inventory engine about files and shows what its caches are worth.",
               "orvex-scan");
  Describe(&app, &line.options);
  try {
    app.parse(argc, argv);
    CheckTogether(line.options);
    line.run = true;
  } catch (const CLI::ParseError& error) {
    line.exitCode = app.exit(error) == 0 ? kAllFine : kUsage;
  }
  return line;
}

}  // namespace orvexscan
