// orvex-scan: an ordinary host of the inventory engine. It uses only the public headers.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "ask/engine_log.h"
#include "ask/scan.h"
#include "exec/exec_watch.h"
#include "file/interruption.h"
#include "file/private_file.h"
#include "inventory/inventory.h"
#include "inventory/process_maps.h"
#include "inventory/walk.h"
#include "options.h"
#include "orvexeng.hpp"
#include "report/advice.h"
#include "report/baseline.h"
#include "report/file_lines.h"
#include "report/metrics.h"
#include "report/report_file.h"
#include "report/report_json.h"
#include "report/report_table.h"
#include "snapshot/snapshot.h"
#include "terminal/output.h"
#include "terminal/printable.h"
#include "terminal/progress.h"
#include "watch/watcher.h"

namespace orvexscan {
namespace {

ReadingRules ReadingRulesOf(const Options& options, const Snapshot* snapshot) {
  ReadingRules rules{options.followLinks, Settling(std::chrono::seconds(options.settleSeconds))};
  rules.identity = options.identity;
  rules.parts = options.parts;
  rules.snapshot = snapshot;
  rules.timeLimit = std::chrono::seconds(options.timeLimitSeconds);
  return rules;
}

WalkRules WalkRulesOf(const Options& options) {
  WalkRules rules{options.followLinks, options.oneFileSystem, options.pseudo};
  rules.exclude = options.exclude;
  rules.maxSize = options.maxSize;
  return rules;
}

// NUL-terminated, as find -print0 prints them; the last NUL may be missing.
void AddPathsFrom(const std::string& file, std::vector<std::string>* paths) {
  std::ifstream named;
  if (file != "-") named.open(file);
  std::istream& input = file == "-" ? std::cin : named;
  if (!input) throw std::system_error(errno, std::generic_category(), file);
  for (std::string path; std::getline(input, path, '\0');) paths->push_back(path);
}

bool AnyFailed(const Inventory& inventory) {
  return std::any_of(inventory.records().begin(), inventory.records().end(),
                     [](const FileRecord& record) { return record.failure.has_value(); });
}

void Report(const std::exception& failure) { Say(Printable(failure.what())); }

// The outputs and the baseline, checked before the work begins.
struct Destinations {
  explicit Destinations(const Options& options) {
    if (!options.json.empty() && options.json != "-") json.emplace(options.json);
    if (!options.snapshot.empty()) CheckReplaceable(options.snapshot);
    if (options.baseline.empty()) return;
    try {
      baseline =
          ReadBaseline(options.baseline, {options.identity, options.settleSeconds, options.parts});
    } catch (const std::exception& failure) {
      throw std::runtime_error(
          fmt::format("the baseline {} cannot be used: {}", options.baseline, failure.what()));
    }
  }
  std::optional<ReportFile> json;
  Baseline baseline;
};

void ReadSnapshot(const std::string& path, Snapshot* snapshot, Inventory* inventory) {
  try {
    snapshot->Read(path);
  } catch (const std::exception& failure) {
    inventory->AddNote(
        fmt::format("The snapshot {} is ignored: {}", Printable(path), Printable(failure.what())));
  }
}

// Prints JSON Lines as the files are done. A failed write is noticed at the end.
std::function<void(const FileRecord&)> LinePrinter(const Options& options) {
  if (options.format != "jsonl") return nullptr;
  return [](const FileRecord& record) {
    const std::string line = FileJsonLine(record);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
  };
}

void PrintLines(const Options& options, const Inventory& inventory) {
  if (options.format == "csv") fmt::print("{}", CsvHeader(options.parts.digests));
  for (const FileRecord& record : inventory.records()) {
    if (options.format == "csv") fmt::print("{}", CsvLine(record, options.parts.digests));
    if (options.format == "sha256sum") fmt::print("{}", Sha256sumLine(record));
    if (options.format == "jsonl" && record.visits == 0) fmt::print("{}", FileJsonLine(record));
  }
  Finish(stdout);
}

// Runs each step by itself: a failed write in one is no reason to lose the others.
class Attempts {
 public:
  template <typename Step>
  void operator()(const Step& step) {
    try {
      step();
    } catch (const std::exception& failure) {
      anyFailed_ = true;
      Report(failure);
    }
  }
  bool anyFailed() const { return anyFailed_; }

 private:
  bool anyFailed_ = false;
};

struct Results {
  const std::vector<PassReport>& passes;
  const Inventory& inventory;
  const std::string& advice;
  const std::vector<Difference>& differences;
  size_t walkFailures;
};

void WriteReports(const Options& options, const Results& of, std::optional<ReportFile>* json,
                  Attempts* attempt) {
  const bool jsonToOutput = options.json == "-" || options.format == "json";
  const bool outputIsForPrograms =
      jsonToOutput || options.format != "table" || !options.metrics.empty();
  std::FILE* const table = outputIsForPrograms ? stderr : stdout;
  if (!outputIsForPrograms || !options.quiet) {
    (*attempt)([&] {
      PrintReport(of.passes, of.inventory, of.advice, of.differences, table);
      Finish(table);
    });
  }
  if (jsonToOutput || *json) {
    (*attempt)([&] {
      const std::string report =
          JsonReport(options, of.passes, of.inventory, of.advice, of.differences);
      if (*json) (*json)->Write(report);
      if (jsonToOutput) Print(report, stdout);
    });
  }
  if (options.format != "table" && options.format != "json") {
    (*attempt)([&] { PrintLines(options, of.inventory); });
  }
  if (!options.metrics.empty()) {
    (*attempt)([&] {
      const std::vector<Metric> metrics =
          MetricsOf(of.passes, of.inventory.FileCount(), of.walkFailures);
      Print(options.metrics == "json" ? JsonText(metrics) : PrometheusText(metrics), stdout);
    });
  }
}

int Work(const Options& options, Destinations* destinations) {
  TakeEngineLog(options.verbose);
  orvexeng::engine engine;
  // After the start, which may have read another capacity from orvexeng.ini.
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, options.capacity);
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, options.capacity);

  Inventory inventory;
  Snapshot snapshot({options.identity, options.settleSeconds, options.parts});
  if (!options.snapshot.empty()) ReadSnapshot(options.snapshot, &snapshot, &inventory);
  ReadingRules reading = ReadingRulesOf(options, &snapshot);
  const WalkRules walking = WalkRulesOf(options);
  const auto watcher = options.watch ? std::make_unique<Watcher>(&engine, reading, options.paths,
                                                                 walking, options.format == "jsonl")
                                     : nullptr;
  const auto execWatch =
      options.exec ? std::make_unique<ExecWatch>(&engine, reading, options.paths, options.threads,
                                                 options.format == "jsonl")
                   : nullptr;
  if (watcher) {
    watcher->Gather(&inventory);
  } else if (options.processes) {
    AddMappedFiles("/proc", &inventory);
  } else if (!execWatch) {
    Walk(options.paths, walking, &inventory);
  }
  const size_t walkFailures = inventory.FailureCount();
  Progress progress(!options.verbose && !options.quiet);
  reading.onRead = [&progress](uint64_t bytes) { progress.AddBytes(bytes); };
  std::vector<PassReport> passes;
  if (!execWatch) {
    passes = Scan(&engine, {reading, LinePrinter(options), options.threads, options.passes},
                  &inventory, &progress);
  }
  const bool interrupted = Interrupted();
  // Failures while watching are reported at once and do not fail the scan.
  const bool failed = AnyFailed(inventory);
  const std::string advice = execWatch
                                 ? ""
                                 : Advice({options.processes, options.threads, options.capacity},
                                          inventory.FileCount(), passes);

  Attempts attempt;
  if (watcher && !interrupted) attempt([&] { watcher->Run(&inventory, &passes); });
  if (execWatch) attempt([&] { execWatch->Run(&inventory, &passes); });
  std::vector<Difference> differences;
  if (!options.baseline.empty()) {
    differences = Compare(destinations->baseline, inventory, options.paths);
  }
  WriteReports(options, {passes, inventory, advice, differences, walkFailures}, &destinations->json,
               &attempt);
  if (!options.snapshot.empty()) {
    attempt([&] {
      snapshot.Update(inventory);
      snapshot.Write(options.snapshot);
    });
  }
  if (interrupted) return kInterrupted;
  if (failed || attempt.anyFailed()) return kSomeFilesFailed;
  return differences.empty() ? kAllFine : kDiffers;
}

int Run(Options options) {
  std::optional<Destinations> destinations;
  try {
    if (!options.files0From.empty()) AddPathsFrom(options.files0From, &options.paths);
    destinations.emplace(options);
  } catch (const std::bad_alloc&) {
    throw;  // not the command line's fault
  } catch (const std::exception& failure) {
    Report(failure);
    return kUsage;
  }
  return Work(options, &*destinations);
}

// A file that is opened later must not become standard output or standard error. Writing to a
// closed one still fails, as it should.
void FillStandardDescriptors() {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (fcntl(number, F_GETFD) < 0) static_cast<void>(open("/dev/null", O_RDONLY));
  }
}

}  // namespace
}  // namespace orvexscan

// NOLINTNEXTLINE(bugprone-exception-escape): when the last message fails, nothing is left to do.
int main(int argc, char** argv) {
  // Characters only: numbers look the same in every locale.
  std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): no thread yet
  // A reader that went away is an error to report, not a reason to lose the rest.
  std::signal(SIGPIPE, SIG_IGN);
  // Sent when somebody opens a file for writing while we hold its lease.
  std::signal(SIGIO, SIG_IGN);
  orvexscan::FillStandardDescriptors();
  orvexscan::HearInterruptions();
  try {
    const orvexscan::CommandLine line = orvexscan::ParseCommandLine(argc, argv);
    return line.run ? orvexscan::Run(line.options) : line.exitCode;
  } catch (const std::bad_alloc&) {
    std::fputs("orvex-scan: out of memory\n", stderr);
    return orvexscan::kSomeFilesFailed;
  } catch (const std::exception& failure) {
    orvexscan::Report(failure);
    return orvexscan::kSomeFilesFailed;
  }
}
