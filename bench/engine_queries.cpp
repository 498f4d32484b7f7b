// What only the engine does: other queries, hits that are logged or timed, and those of
// careful hosts.
#include "counts/careful_hosts.h"
#include "counts/engine_cases.h"
#include "loops.h"
#include "support/orvex_log.h"

namespace cost {
namespace {

void QueriesOfCase(benchmark::State& state, const EngineCase& asked) {
  EngineInCase engine(asked);
  const Order& order = UniformOrder(0);
  engine.Query(0);
  if (engine.Answered() != asked.known) state.SkipWithError("answered otherwise than expected");
  size_t step = 0;
  for ([[maybe_unused]] auto _ : state) engine.Query(order[step++]);
}

void LoggedHits(benchmark::State& state, ORVEX_LOG level, bool profiling) {
  const auto engine = Holding<Engine>(kFiles);
  ORVEX_LOG_BASE::LogLevel = level;
  orvex_profiling_set_enable(profiling);
  TimeHits(state, *engine, UniformOrder(0), kFiles);
  orvex_profiling_set_enable(false);
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_INFO;
}

template <class Host>
void CarefulHits(benchmark::State& state) {
  Host host;
  const Order& order = UniformOrder(0);
  for (size_t i = 0; i < kFiles; ++i) host.Query(i);
  const int callsBefore = hashCalls;
  size_t step = 0;
  for ([[maybe_unused]] auto _ : state) host.Query(order[step++]);
  if (hashCalls != callsBefore) state.SkipWithError("not all were hits");
}

template <class Host>
void AddCarefulHits() {
  benchmark::RegisterBenchmark((std::string("k-") + Host::kName + "/engine").c_str(),
                               CarefulHits<Host>);
}

}  // namespace

void AddEngineQueries() {
  for (const EngineCase& asked : kEngineCases) {
    benchmark::RegisterBenchmark((std::string("h-") + asked.name + "/engine").c_str(),
                                 QueriesOfCase, asked);
  }
  benchmark::RegisterBenchmark("i-hit-log-dropped/engine", LoggedHits, ORVEX_LOG_INFO, false);
  benchmark::RegisterBenchmark("i-hit-debug-log/engine", LoggedHits, ORVEX_LOG_DEBUG, false);
  benchmark::RegisterBenchmark("i-hit-profiling/engine", LoggedHits, ORVEX_LOG_INFO, true);
  AddCarefulHits<HandWrittenHost>();
  AddCarefulHits<HppHost>();
}

}  // namespace cost
