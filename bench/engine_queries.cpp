// What only the engine does: other questions, and hits that are logged or timed.
#include "engine_cases.h"
#include "loops.h"
#include "support/orvex_log.h"

namespace bench {
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

}  // namespace

void AddEngineQueries() {
  for (const EngineCase& asked : kEngineCases) {
    benchmark::RegisterBenchmark((std::string("h-") + asked.name + "/engine").c_str(),
                                 QueriesOfCase, asked);
  }
  benchmark::RegisterBenchmark("i-hit-log-dropped/engine", LoggedHits, ORVEX_LOG_INFO, false);
  benchmark::RegisterBenchmark("i-hit-debug-log/engine", LoggedHits, ORVEX_LOG_DEBUG, false);
  benchmark::RegisterBenchmark("i-hit-profiling/engine", LoggedHits, ORVEX_LOG_INFO, true);
}

}  // namespace bench
