// Full hits: in a full cache, by popularity, from several threads, as the cache grows.
#include <array>

#include "loops.h"

namespace cost {
namespace {

constexpr int kMostThreads = 4;

std::array<Order, kMostThreads> OrderPerThread(Order (*make)(unsigned seed)) {
  return {make(1), make(2), make(3), make(4)};
}

// The cache holds as many files as the benchmark's argument says, and no more.
template <class C>
void Hold(const benchmark::State& state) {
  running<C> = Holding<C>(static_cast<size_t>(state.range(0)));
  hashCalls = 0;
}

template <class C>
void CheckAndStop(const benchmark::State& state) {
  // Outside the timed threads the state cannot carry an error.
  if (hashCalls != 0) {
    std::fprintf(stderr, "%s: %d of the hits were misses\n", C::kName, hashCalls.load());
    std::abort();
  }
  StopRunning<C>(state);
}

template <class C>
void Uniform(benchmark::State& state) {
  TimeHits(state, *running<C>, UniformOrder(state.thread_index()),
           static_cast<size_t>(state.range(0)));
}

template <class C>
void Zipf(benchmark::State& state) {
  TimeHits(state, *running<C>, ZipfOrder(state.thread_index()),
           static_cast<size_t>(state.range(0)));
}

template <class C>
benchmark::internal::Benchmark* Add(const char* scenario, void (*loop)(benchmark::State&)) {
  return benchmark::RegisterBenchmark(Name<C>(scenario).c_str(), loop)
      ->Setup(Hold<C>)
      ->Teardown(CheckAndStop<C>);
}

}  // namespace

const Order& UniformOrder(int thread) {
  static const auto orders = OrderPerThread(Order::Uniform);
  return orders[static_cast<size_t>(thread)];
}

const Order& ZipfOrder(int thread) {
  static const auto orders = OrderPerThread(Order::Zipf);
  return orders[static_cast<size_t>(thread)];
}

void AddHits() {
  UniformOrder(0);
  ZipfOrder(0);
  ForEachContender([](auto type) {
    using C = typename decltype(type)::Contender;
    Add<C>("a-hit-uniform", Uniform<C>)->Arg(kFiles);
    Add<C>("b-hit-zipf", Zipf<C>)->Arg(kFiles);
    // A fixed count: otherwise one late thread would pass for slow queries, and a few
    // of them for a long enough run.
    Add<C>("c-hit-threads", Uniform<C>)
        ->Arg(kFiles)
        ->Threads(2)
        ->Threads(4)
        ->Iterations(100000)
        ->UseRealTime();
    Add<C>("e-growth", Uniform<C>)->Arg(64)->Arg(256)->Arg(1024)->Arg(4096);
  });
}

}  // namespace cost
