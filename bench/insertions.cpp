// Ever-new files: alone, and beside a thread whose queries all hit.
#include <thread>

#include "loops.h"

namespace cost {
namespace {

template <class C>
void StartFull(const benchmark::State&) {
  running<C> = std::make_unique<C>(kFiles);
  metadata_output_s out{};
  // From the last to the first, so that those asked for below are the most recent.
  for (size_t file = kFiles; file-- > 0;) {
    out.queryFlags = 0;
    running<C>->Query(AllFiles()[file], out);
  }
}

// Miss, callback, keep, evict. The cost of making up a new name, which is small
// and the same for all, is part of it.
template <class C>
void Insertions(benchmark::State& state) {
  // Goes on where the last repetition stopped: the files stay new.
  static NewFiles files('d');
  metadata_output_s out{};
  for ([[maybe_unused]] auto _ : state) {
    out.queryFlags = 0;
    running<C>->Query(files.Next(), out);
    benchmark::DoNotOptimize(out);
  }
}

// A thread that asks for new files for as long as it lives.
template <class C>
class Inserter {
 public:
  explicit Inserter(C& cache) : thread_([this, &cache] { Run(cache); }) {}
  ~Inserter() {
    if (thread_.joinable()) Stop();
  }

  // Returns how many files it asked for.
  int Stop() {
    stop_ = true;
    thread_.join();
    return asked_;
  }

 private:
  void Run(C& cache) {
    static NewFiles files('f');
    metadata_output_s out{};
    while (!stop_.load(std::memory_order_relaxed)) {
      out.queryFlags = 0;
      cache.Query(files.Next(), out);
      ++asked_;
    }
  }

  std::atomic<bool> stop_{false};
  int asked_ = 0;  // read when the thread has gone
  std::thread thread_;
};

// Few files, asked for often, so that the new ones do not drive them out: a hit
// that became a miss all the same is counted and told.
template <class C>
void HitsBesideInsertions(benchmark::State& state) {
  constexpr size_t kHotFiles = 64;
  Inserter<C> inserter(*running<C>);
  // The inserter may have driven them out before this thread runs again.
  metadata_output_s out{};
  for (size_t file = 0; file < kHotFiles; ++file) {
    out.queryFlags = 0;
    running<C>->Query(AllFiles()[file], out);
  }
  const int missesBefore = hashCallsHere;
  TimeHits(state, *running<C>, UniformOrder(0), kHotFiles);
  const int inserted = inserter.Stop();
  const auto queries = static_cast<double>(state.iterations());
  state.counters["misses"] = (hashCallsHere - missesBefore) / queries;
  state.counters["insertions"] = inserted / queries;
}

}  // namespace

void AddInsertions() {
  ForEachCache([](auto type) {
    using C = typename decltype(type)::Contender;
    benchmark::RegisterBenchmark(Name<C>("d-insert").c_str(), Insertions<C>)
        ->Setup(StartFull<C>)
        ->Teardown(StopRunning<C>);
    benchmark::RegisterBenchmark(Name<C>("f-hit-beside-insert").c_str(), HitsBesideInsertions<C>)
        ->Setup(StartFull<C>)
        ->Teardown(StopRunning<C>)
        // As with the hits from several threads.
        ->Iterations(50000)
        ->UseRealTime();
  });
}

}  // namespace cost
