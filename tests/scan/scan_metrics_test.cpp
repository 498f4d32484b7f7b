// The figures for monitoring: every format is valid and says the same.
#include <doctest/doctest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "harness/scan_run.h"
#include "harness/temporary_directory.h"
#include "report/metrics.h"

using orvexscan::Metric;

namespace {

// What the text says, each sample by its name and labels as they are written.
struct Exposition {
  std::map<std::string, std::string> typeOf;
  std::map<std::string, double> samples;
};

// Reads the text line by line and fails at whatever the format does not allow.
Exposition Parse(const std::string& text) {
  static const std::regex help("# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) ([^\\\\\n]|\\\\\\\\|\\\\n)+");
  static const std::regex type("# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge)");
  static const std::regex sample(
      "(([a-zA-Z_:][a-zA-Z0-9_:]*)"
      "(\\{[a-zA-Z_][a-zA-Z0-9_]*=\"([^\"\\\\\n]|\\\\\\\\|\\\\\"|\\\\n)*\"\\})?)"
      " (-?[0-9]+(\\.[0-9]+)?(e[-+]?[0-9]+)?)");
  Exposition all;
  std::string helped;
  std::string current;
  REQUIRE_FALSE(text.empty());
  REQUIRE(text.back() == '\n');
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    CAPTURE(line);
    std::smatch match;
    if (std::regex_match(line, match, help)) {
      helped = match[1];
      CHECK(all.typeOf.count(helped) == 0);
    } else if (std::regex_match(line, match, type)) {
      current = match[1];
      CHECK(current == helped);
      CHECK(all.typeOf.emplace(current, match[2]).second);
    } else {
      REQUIRE(std::regex_match(line, match, sample));
      CHECK(match[2] == current);
      CHECK(all.samples.emplace(match[1], std::stod(match[5])).second);
    }
  }
  return all;
}

bool EndsIn(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

double Total(const nlohmann::json& report, const std::string& pointer) {
  double total = 0;
  for (const auto& pass : report["passes"]) {
    total += pass.at(nlohmann::json::json_pointer(pointer)).get<double>();
  }
  return total;
}

// Five files and one that cannot be read, in caches of three: something to count of most.
ScanRun RunWithCounts(const TemporaryDirectory& directory, const std::string& format) {
  for (int i = 0; i < 5; ++i) directory.Write("in/" + std::to_string(i), std::string(1000, 'x'));
  return RunScan(directory.path(),
                 "--settle 0 --threads 1 --capacity 3 --passes 3 --json report.json " +
                     std::string("--metrics ") + format + " in missing /proc/self/mem");
}

const std::map<std::string, std::string> kPlaces = {
    {"orvex_visits_total", "/visits"},
    {"orvex_failures_total", "/failed"},
    {"orvex_unsettled_total", "/unsettled"},
    {"orvex_snapshot_answers_total", "/fromSnapshot"},
    {"orvex_hashed_bytes_total", "/bytesHashed"},
    {"orvex_saved_bytes_total", "/bytesSaved"},
    {"orvex_wall_seconds_total", "/wallSeconds"},
    {"orvex_hashing_seconds_total", "/hashSeconds"},
    {"orvex_part_seconds_total{part=\"reading\"}", "/partSeconds/reading"},
    {"orvex_part_seconds_total{part=\"digests\"}", "/partSeconds/digests"},
    {"orvex_part_seconds_total{part=\"types\"}", "/partSeconds/types"},
    {"orvex_part_seconds_total{part=\"signers\"}", "/partSeconds/signers"},
    {"orvex_saved_seconds_total", "/savedSeconds"},
    {"orvex_cache_lookups_total{cache=\"hash\"}", "/hashCache/lookups"},
    {"orvex_cache_hits_total{cache=\"hash\"}", "/hashCache/hits"},
    {"orvex_cache_partial_hits_total{cache=\"hash\"}", "/hashCache/partialHits"},
    {"orvex_cache_out_of_date_total{cache=\"hash\"}", "/hashCache/outOfDate"},
    {"orvex_cache_misses_total{cache=\"hash\"}", "/hashCache/misses"},
    {"orvex_cache_waits_total{cache=\"hash\"}", "/hashCache/waits"},
    {"orvex_cache_callbacks_total{cache=\"hash\"}", "/hashCache/callbacks"},
    {"orvex_cache_evictions_total{cache=\"hash\"}", "/hashCache/evictions"},
    {"orvex_cache_hits_total{cache=\"file_type\"}", "/fileTypeCache/hits"},
    {"orvex_cache_out_of_date_total{cache=\"file_type\"}", "/fileTypeCache/outOfDate"},
    {"orvex_cache_misses_total{cache=\"file_type\"}", "/fileTypeCache/misses"},
    {"orvex_cache_callbacks_total{cache=\"file_type\"}", "/fileTypeCache/callbacks"},
    {"orvex_cache_evictions_total{cache=\"file_type\"}", "/fileTypeCache/evictions"},
};

}  // namespace

TEST_CASE("the figures for monitoring are in the text exposition format") {
  const TemporaryDirectory directory;
  const Exposition all = Parse(RunWithCounts(directory, "prometheus").output);
  CHECK(all.samples.size() >= all.typeOf.size());
  for (const auto& metric : all.typeOf) {
    const auto& name = metric.first;
    CAPTURE(name);
    CHECK(name.compare(0, 6, "orvex_") == 0);
    CHECK(EndsIn(name, "_total") == (metric.second == "counter"));
  }
}

TEST_CASE("the figures for monitoring are summed over the passes") {
  const TemporaryDirectory directory;
  const Exposition all = Parse(RunWithCounts(directory, "prometheus").output);
  const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report.json"));
  for (const auto& metric : kPlaces) {
    const auto& name = metric.first;
    CAPTURE(name);
    REQUIRE(all.samples.count(name) == 1);
    CHECK(all.samples.at(name) == doctest::Approx(Total(report, metric.second)));
  }
  CHECK(all.samples.at("orvex_passes_total") == 3);
  CHECK(all.samples.at("orvex_files") == 6);
  CHECK(all.samples.at("orvex_failures_total") == 3);
  CHECK(all.samples.at("orvex_walk_failures_total") == 1);
  CHECK(all.samples.at("orvex_part_seconds_total{part=\"reading\"}") > 0);
  CHECK(all.samples.at("orvex_part_seconds_total{part=\"digests\"}") > 0);
  CHECK(all.samples.at("orvex_part_seconds_total{part=\"types\"}") > 0);
  CHECK(all.samples.at("orvex_part_seconds_total{part=\"signers\"}") > 0);
  CHECK(all.samples.at("orvex_cache_evictions_total{cache=\"hash\"}") > 0);
  CHECK(all.samples.at("orvex_cache_lookups_total{cache=\"file_type\"}") ==
        Total(report, "/fileTypeCache/hits") + Total(report, "/fileTypeCache/outOfDate") +
            Total(report, "/fileTypeCache/misses"));
  CHECK(all.samples.at("orvex_cache_updates_total{cache=\"hash\"}") == 0);
  CHECK(all.samples.at("orvex_cache_update_failures_total{cache=\"hash\"}") == 0);
}

TEST_CASE("the figures for monitoring are the same in JSON") {
  const TemporaryDirectory directory;
  const auto figures = nlohmann::json::parse(RunWithCounts(directory, "json").output);
  const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report.json"));
  CHECK(figures["orvex_visits_total"] == Total(report, "/visits"));
  CHECK(figures["orvex_cache_misses_total"]["hash"] == Total(report, "/hashCache/misses"));
  CHECK(figures["orvex_cache_misses_total"]["file_type"] == Total(report, "/fileTypeCache/misses"));
  std::set<std::string> names;
  for (const auto& [name, value] : figures.items()) names.insert(name);
  std::set<std::string> others;
  for (const auto& [name, type] : Parse(RunWithCounts(directory, "prometheus").output).typeOf) {
    others.insert(name);
  }
  CHECK(names == others);
}

TEST_CASE("the table makes room for the figures on standard output") {
  const TemporaryDirectory directory;
  const ScanRun run = RunWithCounts(directory, "prometheus");
  CHECK(run.output.find("PASS 1") == std::string::npos);
  CHECK(run.errors.find("PASS 1") != std::string::npos);
}

TEST_CASE("a label's value may hold anything") {
  const std::vector<Metric> metrics = {
      {"orvex_odd", "Odd.", "gauge", {{"label", "a\\b\"c\nd", 1.5}}}};
  CHECK(
      orvexscan::PrometheusText(metrics) ==
      "# HELP orvex_odd Odd.\n# TYPE orvex_odd gauge\norvex_odd{label=\"a\\\\b\\\"c\\nd\"} 1.5\n");
  CHECK(nlohmann::json::parse(orvexscan::JsonText(metrics))["orvex_odd"]["a\\b\"c\nd"] == 1.5);
}
