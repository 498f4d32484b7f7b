// Counts what the engine's operations cost. counts.py runs it under callgrind and checks it
// against the ceilings.
#include "counts/counts.h"

#include "counts/careful_hosts.h"
#include "counts/engine.h"
#include "counts/engine_cases.h"

namespace cost {
namespace {

void CountEngineCases() {
  for (const EngineCase& asked : kEngineCases) {
    EngineInCase engine(asked);
    engine.Query(kFiles - 1);
    Count(Engine::kName, asked.name, [&](size_t i) { engine.Query(i); });
  }
}

template <class Host>
void CountCarefulHost() {
  Host host;
  for (size_t i = 0; i < kFiles; ++i) host.Query(i);
  const int callsBefore = hashCalls;
  Count(Engine::kName, Host::kName, [&](size_t i) { host.Query(i); });
  if (hashCalls != callsBefore) std::printf("# %s: not all were hits\n", Host::kName);
}

}  // namespace
}  // namespace cost

int main() {
  using namespace cost;
  AllFiles();
  CountHits<Engine>();
  CountInsertions<Engine>();
  CountMemory<Engine>();
  CountEngineCases();
  CountCarefulHost<HandWrittenHost>();
  CountCarefulHost<HppHost>();
}
