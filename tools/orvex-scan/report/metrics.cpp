#include "report/metrics.h"

#include <fmt/format.h>

#include <cstdint>
#include <initializer_list>

namespace orvexscan {
namespace {

template <typename Value>
Value Sum(const std::vector<PassReport>& passes, Value PassReport::*field) {
  Value sum{};
  for (const PassReport& pass : passes) sum += pass.*field;
  return sum;
}

int64_t Sum(const std::vector<PassReport>& passes, int64_t orvex_metrics_s::*counter) {
  int64_t sum = 0;
  for (const PassReport& pass : passes) sum += pass.engine.*counter;
  return sum;
}

int64_t Sum(const std::vector<PassReport>& passes,
            std::initializer_list<int64_t orvex_metrics_s::*> counters) {
  int64_t sum = 0;
  for (const auto counter : counters) sum += Sum(passes, counter);
  return sum;
}

Metric Single(const char* name, const char* type, const char* help, nlohmann::json value) {
  return {name, help, type, {{"", "", std::move(value)}}};
}

Metric OfHashCache(const char* name, const char* help, int64_t value) {
  return {name, help, "counter", {{"cache", "hash", value}}};
}

Metric OfBothCaches(const char* name, const char* help, int64_t hash, int64_t fileType) {
  return {name, help, "counter", {{"cache", "hash", hash}, {"cache", "file_type", fileType}}};
}

void AddOfTool(const std::vector<PassReport>& passes, size_t files, size_t walkFailures,
               std::vector<Metric>* metrics) {
  const std::string version = passes.empty() ? ORVEX_VERSION : passes.front().engine.version;
  metrics->push_back({"orvex_engine_info",
                      "The engine's version, as a label.",
                      "gauge",
                      {{"version", version, 1}}});
  const auto gauge = [metrics](const char* name, const char* help, nlohmann::json value) {
    metrics->push_back(Single(name, "gauge", help, std::move(value)));
  };
  const auto counter = [metrics](const char* name, const char* help, nlohmann::json value) {
    metrics->push_back(Single(name, "counter", help, std::move(value)));
  };
  gauge("orvex_files", "Files that are asked about.", files);
  counter("orvex_passes_total", "Passes over the files.", passes.size());
  counter("orvex_visits_total", "Times that a file was asked about.",
          Sum(passes, &PassReport::visits));
  counter("orvex_failures_total", "Times that a file had no answer.",
          Sum(passes, &PassReport::failed));
  counter("orvex_walk_failures_total", "Paths that could not be gathered.", walkFailures);
  counter("orvex_unsettled_total", "Answers not kept, as the file was changed too recently.",
          Sum(passes, &PassReport::unsettled));
  counter("orvex_snapshot_answers_total", "Answers taken from the snapshot.",
          Sum(passes, &PassReport::fromSnapshot));
  counter("orvex_hashed_bytes_total", "Bytes read for digests.",
          Sum(passes, &PassReport::bytesHashed));
  counter("orvex_saved_bytes_total", "Bytes not read, as their digests were cached.",
          Sum(passes, &PassReport::bytesSaved));
  counter("orvex_wall_seconds_total", "Time that the passes took.",
          Sum(passes, &PassReport::wallSeconds));
  counter("orvex_hashing_seconds_total", "Time that workers spent on hashing.",
          Sum(passes, &PassReport::hashSeconds));
  metrics->push_back({"orvex_part_seconds_total",
                      "Time that workers spent on each part of an answer.",
                      "counter",
                      {{"part", "reading", Sum(passes, &PassReport::readingSeconds)},
                       {"part", "digests", Sum(passes, &PassReport::digestSeconds)},
                       {"part", "types", Sum(passes, &PassReport::typeSeconds)},
                       {"part", "signers", Sum(passes, &PassReport::signerSeconds)}}});
  counter("orvex_saved_seconds_total", "Time that hashing the saved bytes would have taken.",
          Sum(passes, &PassReport::savedSeconds));
}

void AddOfEngine(const std::vector<PassReport>& passes, std::vector<Metric>* metrics) {
  using Counters = orvex_metrics_s;
  const auto both = [&](const char* name, const char* help, int64_t Counters::*hash,
                        int64_t Counters::*fileType) {
    metrics->push_back(OfBothCaches(name, help, Sum(passes, hash), Sum(passes, fileType)));
  };
  const auto hash = [&](const char* name, const char* help, int64_t Counters::*counter) {
    metrics->push_back(OfHashCache(name, help, Sum(passes, counter)));
  };
  // The engine does not count the file type cache's lookups; each is one of these three.
  metrics->push_back(OfBothCaches(
      "orvex_cache_lookups_total", "Lookups in a cache.", Sum(passes, &Counters::cacheQuery),
      Sum(passes,
          {&Counters::fileTypeHit, &Counters::fileTypeMiss, &Counters::fileTypeOutOfDate})));
  both("orvex_cache_hits_total", "Lookups answered in full.", &Counters::cacheHit,
       &Counters::fileTypeHit);
  hash("orvex_cache_partial_hits_total", "Lookups whose entry lacked a wanted part.",
       &Counters::cachePartialHit);
  both("orvex_cache_out_of_date_total", "Lookups whose entry had another modification time.",
       &Counters::cacheOutOfDate, &Counters::fileTypeOutOfDate);
  both("orvex_cache_misses_total", "Lookups that found no entry.", &Counters::cacheMiss,
       &Counters::fileTypeMiss);
  both("orvex_cache_evictions_total", "Entries evicted for capacity.", &Counters::cacheWipeOuts,
       &Counters::fileTypeWipeOuts);
  both("orvex_cache_callbacks_total", "Calls of the host to compute an answer.",
       &Counters::cacheHelpFuncCalled, &Counters::fileTypeHelpFuncCalled);
  hash("orvex_cache_waits_total", "Queries that waited while another calculated.",
       &Counters::cacheWaitInHashCalculation);
  hash("orvex_cache_updates_total", "Answers that the host pushed and the cache stored.",
       &Counters::cacheUpdateMetaDataSuccess);
  hash("orvex_cache_update_failures_total",
       "Answers that the host pushed and the cache did not store.",
       &Counters::cacheUpdateMetaDataFailure);
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char character : text) {
    if (character == '\\' || character == '"') escaped += '\\';
    escaped += character == '\n' ? "\\n" : std::string(1, character);
  }
  return escaped;
}

}  // namespace

std::vector<Metric> MetricsOf(const std::vector<PassReport>& passes, size_t files,
                              size_t walkFailures) {
  std::vector<Metric> metrics;
  AddOfTool(passes, files, walkFailures, &metrics);
  AddOfEngine(passes, &metrics);
  return metrics;
}

std::string PrometheusText(const std::vector<Metric>& metrics) {
  std::string text;
  for (const Metric& metric : metrics) {
    text += fmt::format("# HELP {} {}\n# TYPE {} {}\n", metric.name, metric.help, metric.name,
                        metric.type);
    for (const Sample& sample : metric.samples) {
      text += metric.name;
      if (!sample.label.empty()) {
        text += fmt::format("{{{}=\"{}\"}}", sample.label, Escaped(sample.labelValue));
      }
      text += fmt::format(" {}\n", sample.value.dump());
    }
  }
  return text;
}

std::string JsonText(const std::vector<Metric>& metrics) {
  nlohmann::ordered_json object;
  for (const Metric& metric : metrics) {
    for (const Sample& sample : metric.samples) {
      auto& place = object[metric.name];
      (sample.label.empty() ? place : place[sample.labelValue]) = sample.value;
    }
  }
  return object.dump(2) + "\n";
}

}  // namespace orvexscan
