// Eight threads ask for one file that is not cached, and the host takes 5 ms.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "harness/latch.h"
#include "loops.h"

namespace cost {
namespace {

constexpr int kThreads = 8;

// Reports how often the host was asked for each file. A cache that does not coalesce
// asks it eight times concurrently, in the same time.
template <class C>
void ColdPath(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  static NewFiles files('g');
  hashCalls = 0;
  hashTakes = std::chrono::milliseconds(5);
  for ([[maybe_unused]] auto _ : state) {
    metadata_input_s& in = files.Next();
    Latch go;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&] {
        metadata_output_s out{};
        go.Wait();
        running<C>->Query(in, out);
      });
    }
    const auto start = Clock::now();
    go.Open();
    for (std::thread& thread : threads) thread.join();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  hashTakes = std::chrono::milliseconds(0);
  state.counters["calls"] = hashCalls / static_cast<double>(state.iterations());
}

}  // namespace

void AddColdPath() {
  ForEachCache([](auto type) {
    using C = typename decltype(type)::Contender;
    benchmark::RegisterBenchmark(Name<C>("g-cold-path").c_str(), ColdPath<C>)
        ->Setup([](const benchmark::State&) { running<C> = std::make_unique<C>(kFiles); })
        ->Teardown(StopRunning<C>)
        ->Iterations(5)
        ->UseManualTime();
  });
}

}  // namespace cost
