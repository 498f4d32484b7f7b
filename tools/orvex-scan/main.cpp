// orvex-scan: an ordinary host of the inventory engine. It knows the public header and
// nothing else of it.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <exception>
#include <memory>
#include <system_error>

#include "ask/engine_log.h"
#include "ask/scan.h"
#include "inventory/inventory.h"
#include "inventory/process_maps.h"
#include "inventory/walk.h"
#include "options.h"
#include "orvexeng.hpp"
#include "report/advice.h"
#include "report/metrics.h"
#include "report/report_json.h"
#include "report/report_table.h"
#include "snapshot/snapshot.h"
#include "snapshot/warm_start.h"
#include "terminal/output.h"
#include "terminal/printable.h"
#include "terminal/progress.h"
#include "watch/watcher.h"

namespace orvexscan {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

ReadingRules ReadingRulesOf(const Options& options) {
  return {options.followLinks, Settling(std::chrono::seconds(options.settleSeconds)),
          options.identity, std::chrono::seconds(options.timeLimitSeconds)};
}

bool AnyFailed(const Inventory& inventory) {
  return std::any_of(inventory.records().begin(), inventory.records().end(),
                     [](const FileRecord& record) { return record.failure.has_value(); });
}

int Run(const Options& options) {
  const bool jsonToOutput = options.json == "-";
  File jsonFile;
  if (!options.json.empty() && !jsonToOutput) {
    // Before the scan: hours of work are not lost to a wrong name.
    jsonFile.reset(std::fopen(options.json.c_str(), "we"));
    if (!jsonFile) {
      const int error = errno;
      fmt::print(stderr, "orvex-scan: {}: {}\n", Printable(options.json),
                 std::generic_category().message(error));
      return kUsage;
    }
  }

  TakeEngineLog(options.verbose);
  orvexeng::engine engine;
  // After the start, which may have read another capacity from orvexeng.ini.
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, options.capacity);
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, options.capacity);
  const ReadingRules reading = ReadingRulesOf(options);
  const WalkRules walking{options.followLinks, options.oneFileSystem};
  Inventory inventory;
  const auto watcher =
      options.watch ? std::make_unique<Watcher>(&engine, reading, options.paths, walking) : nullptr;
  if (watcher) {
    watcher->Gather(&inventory);
  } else if (options.processes) {
    AddMappedFiles("/proc", &inventory);
  } else {
    Walk(options.paths, walking, &inventory);
  }
  if (!options.snapshot.empty()) WarmStart(&engine, options, &inventory);
  Progress progress(!options.verbose);
  std::vector<PassReport> passes =
      Scan(&engine, {reading, options.threads, options.passes}, &inventory, &progress);
  const std::string advice =
      Advice({options.processes, options.threads, options.capacity}, inventory.FileCount(), passes);
  if (watcher) watcher->Run(inventory, &passes);

  const bool outputIsForPrograms = jsonToOutput || !options.metrics.empty();
  std::FILE* const table = outputIsForPrograms ? stderr : stdout;
  PrintReport(passes, inventory, advice, table);
  Finish(table);
  if (!options.json.empty()) {
    std::FILE* const json = jsonToOutput ? stdout : jsonFile.get();
    fmt::print(json, "{}", JsonReport(options, passes, inventory, advice));
    Finish(json);
  }
  if (!options.metrics.empty()) {
    const std::vector<Metric> metrics = MetricsOf(passes, inventory.FileCount());
    fmt::print("{}", options.metrics == "json" ? JsonText(metrics) : PrometheusText(metrics));
    Finish(stdout);
  }
  if (!options.snapshot.empty()) WriteSnapshot(options, inventory);
  return AnyFailed(inventory) ? kSomeFilesFailed : kAllFine;
}

}  // namespace
}  // namespace orvexscan

// NOLINTNEXTLINE(bugprone-exception-escape): when the last message fails, nothing is left to do.
int main(int argc, char** argv) {
  // Characters only: numbers are written the same in every language.
  std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): no thread yet
  try {
    const orvexscan::CommandLine line = orvexscan::ParseCommandLine(argc, argv);
    return line.run ? orvexscan::Run(line.options) : line.exitCode;
  } catch (const std::exception& failure) {
    fmt::print(stderr, "orvex-scan: {}\n", orvexscan::Printable(failure.what()));
    return orvexscan::kSomeFilesFailed;
  }
}
