// Times the engine and its peers. Takes Google Benchmark's options.
#include <benchmark/benchmark.h>

#include <thread>

#include "harness/latch.h"
#include "loops.h"
#include "processors.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  cost::AllFiles();
  cost::AddHits();
  cost::AddInsertions();
  cost::AddColdPath();
  cost::AddEngineQueries();
  const auto& [first, second] = cost::Processors();
  benchmark::AddCustomContext("processor_of_hits", std::to_string(first));
  benchmark::AddCustomContext("processor_of_insertions", std::to_string(second));

  // While a process has only one thread, the C library takes its locks without locked
  // instructions. No host of a cache is such a process.
  Latch measured;
  std::thread other([&] { measured.Wait(); });
  benchmark::RunSpecifiedBenchmarks();
  measured.Open();
  other.join();
}
