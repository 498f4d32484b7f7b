// Times the engine and its peers. Takes Google Benchmark's options.
#include <benchmark/benchmark.h>

#include "loops.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  cost::AllFiles();
  cost::AddHits();
  cost::AddInsertions();
  cost::AddColdPath();
  cost::AddEngineQueries();
  benchmark::RunSpecifiedBenchmarks();
}
