// Ever-new files: alone, and while another thread's queries all hit.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "harness/latch.h"
#include "loops.h"
#include "processors.h"

namespace cost {
namespace {

template <class C>
void StartFull(const benchmark::State&) {
  running<C> = std::make_unique<C>(kFiles);
  metadata_output_s out{};
  // From last to first, so that the files queried below are the most recent.
  for (size_t file = kFiles; file-- > 0;) {
    out.queryFlags = 0;
    running<C>->Query(AllFiles()[file], out);
  }
}

// Miss, callback, keep, evict. Includes generating a new name, which is cheap and
// costs all the same.
template <class C>
void Insertions(benchmark::State& state) {
  // Continues where the last repetition stopped: the files stay new.
  static NewFiles files('d');
  metadata_output_s out{};
  for ([[maybe_unused]] auto _ : state) {
    out.queryFlags = 0;
    running<C>->Query(files.Next(), out);
    benchmark::DoNotOptimize(out);
  }
}

// A thread that queries new files until destroyed, pinned to one processor.
template <class C>
class Inserter {
 public:
  Inserter(C& cache, int processor)
      : thread_([this, &cache, processor] { Run(cache, processor); }) {
    started_.Wait();
  }
  ~Inserter() {
    stop_.store(true, std::memory_order_relaxed);
    thread_.join();
  }
  Inserter(const Inserter&) = delete;
  Inserter& operator=(const Inserter&) = delete;

  // How many files it has queried.
  uint64_t Asked() const { return asked_.load(std::memory_order_relaxed); }

 private:
  void Run(C& cache, int processor) {
    const Pinned here(processor);
    static NewFiles files('f');
    metadata_output_s out{};
    started_.Open();
    for (uint32_t asked = 1; !stop_.load(std::memory_order_relaxed); ++asked) {
      out.queryFlags = 0;
      cache.Query(files.Next(), out);
      asked_.store(asked, std::memory_order_relaxed);
    }
  }

  Latch started_;
  std::atomic<bool> stop_{false};
  std::atomic<uint32_t> asked_{0};
  std::thread thread_;
};

// The time that this share of the hits did not exceed.
double Percentile(std::vector<float>& hits, double share) {
  const auto at =
      hits.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(hits.size() - 1));
  std::nth_element(hits.begin(), at, hits.end());
  return *at;
}

// Few files, queried often, so that the new ones do not evict them; those that
// miss anyway are counted and reported. Each hit is timed alone: a cache whose
// inserter retakes the lock at once has a good mean and a bad tail.
template <class C>
void HitsDuringInsertions(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  constexpr size_t kHotFiles = 64;
  static const TickClock ticks;
  const Pinned here(Processors().first);
  const Inserter<C> inserter(*running<C>, Processors().second);
  // The inserter may have evicted them before this thread runs again.
  metadata_output_s out{};
  for (size_t file = 0; file < kHotFiles; ++file) {
    out.queryFlags = 0;
    running<C>->Query(AllFiles()[file], out);
  }
  const Order& order = UniformOrder(0);
  std::vector<float> hits;
  hits.reserve(static_cast<size_t>(state.max_iterations));
  const int missesBefore = hashCallsHere;
  const uint64_t askedBefore = inserter.Asked();
  const auto start = Clock::now();
  for ([[maybe_unused]] auto _ : state) {
    metadata_input_s& in = AllFiles()[order[hits.size()] % kHotFiles];
    out.queryFlags = 0;
    const uint64_t begin = TickClock::Now();
    running<C>->Query(in, out);
    const double ns = ticks.Ns(TickClock::Now() - begin);
    hits.push_back(static_cast<float>(ns));
    state.SetIterationTime(ns / 1e9);
  }
  const std::chrono::duration<double, std::nano> passed = Clock::now() - start;
  const uint64_t inserted = std::max<uint64_t>(1, inserter.Asked() - askedBefore);
  state.counters["insertionNs"] = passed.count() / static_cast<double>(inserted);
  state.counters["misses"] = (hashCallsHere - missesBefore) / static_cast<double>(hits.size());
  state.counters["p50"] = Percentile(hits, 0.5);
  state.counters["p99"] = Percentile(hits, 0.99);
  state.counters["p99.9"] = Percentile(hits, 0.999);
}

}  // namespace

void AddInsertions() {
  ForEachCache([](auto type) {
    using C = typename decltype(type)::Contender;
    benchmark::RegisterBenchmark(Name<C>("d-insert").c_str(), Insertions<C>)
        ->Setup(StartFull<C>)
        ->Teardown(StopRunning<C>);
    benchmark::RegisterBenchmark(Name<C>("f-hit-during-insert").c_str(), HitsDuringInsertions<C>)
        ->Setup(StartFull<C>)
        ->Teardown(StopRunning<C>)
        // Enough for a hundred hits beyond the last percentile.
        ->Iterations(100000)
        ->UseManualTime();
  });
}

}  // namespace cost
