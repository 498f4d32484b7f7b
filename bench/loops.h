// The timed loops, and how benchmarks are named.
//
// Names are scenario/contender/arguments; the report sorts by the first two.
#pragma once

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "contenders.h"
#include "counts/contender.h"

namespace cost {

// The contender of the benchmark that is running, between its Setup and Teardown,
// which run before and after each repetition on a single thread.
template <class C>
std::unique_ptr<C> running;

template <class C>
void StopRunning(const benchmark::State&) {
  running<C>.reset();
}

// One order for each thread of a benchmark, so that they do not walk in step.
const Order& UniformOrder(int thread);
const Order& ZipfOrder(int thread);

// Times single queries, each after the same preparation of its record.
template <class Cache>
void TimeHits(benchmark::State& state, Cache& cache, const Order& order, size_t files) {
  metadata_output_s out{};
  size_t step = 0;
  for ([[maybe_unused]] auto _ : state) {
    out.queryFlags = 0;
    cache.Query(AllFiles()[order[step++] % files], out);
    benchmark::DoNotOptimize(out);
  }
}

template <class C>
std::string Name(const char* scenario) {
  return std::string(scenario) + '/' + C::kName;
}

void AddHits();           // a, b, c, e
void AddInsertions();     // d, f
void AddColdPath();       // g
void AddEngineQueries();  // h, i, k

}  // namespace cost
