// Several threads want one file, and one of them computes.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <orvexeng.hpp>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 4;

// Opens after the given number of knocks.
class Latch {
 public:
  explicit Latch(int knocks) : missing_(knocks) {}
  void Knock() {
    const std::lock_guard guard(lock_);
    if (--missing_ == 0) open_.notify_all();
  }
  void Wait() {
    std::unique_lock guard(lock_);
    open_.wait(guard, [this] { return missing_ <= 0; });
  }

 private:
  std::mutex lock_;
  std::condition_variable open_;
  int missing_;
};

Latch computing(1);           // The first thread is inside its callback.
Latch waiting(kThreads - 1);  // The others sleep until it is done.

// The engine logs each thread that goes to sleep. This runs under a lock of the library, so
// it only knocks.
void CountSleepers(unsigned int, unsigned int, const char*, const char*, const char* message,
                   unsigned int) {
  if (std::strstr(message, "is calculating, wait for signal") != nullptr) waiting.Knock();
}

}  // namespace

int main() {
  orvex_register_log_cb(CountSleepers);
  std::atomic<int> computed{0}, answered{0};
  orvexeng::engine engine(
      [&](metadata_input_s&, orvexeng::answer& out) {
        ++computed;
        computing.Knock();
        waiting.Wait();  // A host would read the file here.
        out.add(QUERY_DIGEST32);
        return 0;
      },
      [](metadata_input_s&, orvexeng::answer&) { return -1; });
  const auto ask = [&] {
    metadata_input_s in{};
    in.path = "/bin/true";
    in.size = 43872;
    in.mtime = 1663661352;
    in.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME;
    in.invOperation = INV_KEEP_IN_CACHE;  // Without it each thread would compute in turn.
    in.queryFlags = QUERY_DIGEST32;
    orvexeng::answer out;
    if (engine.query(in, out) == ORVEX_OK && out.has(QUERY_DIGEST32)) ++answered;
  };
  std::vector<std::thread> threads;
  threads.emplace_back(ask);
  computing.Wait();
  while (threads.size() < kThreads) threads.emplace_back(ask);
  for (std::thread& thread : threads) thread.join();
  const orvex_metrics_s metrics = engine.metrics();
  std::printf("%d threads answered, computed %d time(s), %d waited, %d hit\n", answered.load(),
              computed.load(), static_cast<int>(metrics.cacheWaitInHashCalculation),
              static_cast<int>(metrics.cacheHit));
}
