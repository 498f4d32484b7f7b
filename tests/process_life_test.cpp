// The engine in the life of a process: forks, signals, starts and stops under
// load, and a soak.
#include <doctest/doctest.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "harness/counted_sleep.h"
#include "harness/deep_form.h"
#include "harness/failing_new.h"
#include "harness/latch.h"
#include "harness/opened_caches.h"
#include "harness/records.h"
#include "harness/sanitizers.h"
#include "support/orvex_log.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPaths = 64;

struct HostIsLost {};

char FirstByte(const char* path) { return path[std::strlen(path) - 1]; }

// Answers with the last character of the path, so that an answer about another
// file is noticed. Throws if ctx is not null.
int AnswerHash(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  if (ctx != nullptr) throw HostIsLost();
  if ((in->queryFlags & QUERY_SIGNERS) != 0) GiveSigners(*out, {in->path});
  GiveDigests(*out, QUERY_DIGEST32, FirstByte(in->path));
  return 0;
}

int AnswerType(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  if (ctx != nullptr) throw HostIsLost();
  out->major = FirstByte(in->path);
  out->queryFlags |= QUERY_FILE_TYPE;
  return 0;
}

void DropMessage(unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {}

int Start() {
  orvex_register_log_cb(DropMessage);
  metadata_query_fptrs_s callbacks{AnswerHash, AnswerType};
  return orvex_init(&callbacks);
}

struct Asked {
  int code = 0;
  bool right = true;  // whatever is said to be ready is about this file
};

Asked Ask(int number, uint32_t parts, uint32_t invOperation = INV_KEEP_IN_CACHE,
          bool throws = false) {
  const std::string path = "/a/path/that/a/string/does/not/hold/in/itself/" +
                           std::string(1, static_cast<char>('A' + number % kPaths));
  metadata_input_s in = InputFor(path.c_str());
  in.invOperation = invOperation;
  in.queryFlags = parts;
  Answer out;
  Asked asked;
  try {
    asked.code = orvex_query(&in, &out, throws ? &in : nullptr);
  } catch (const HostIsLost&) {
    return asked;
  }
  if (asked.code == 0 && out.resultReady == 1) {
    const char byte = FirstByte(in.path);
    if ((parts & QUERY_DIGEST32) != 0) asked.right = out.digest32[0] == static_cast<uint8_t>(byte);
    if ((parts & QUERY_FILE_TYPE) != 0) asked.right &= out.major == byte;
    if ((parts & QUERY_SIGNERS) != 0) asked.right &= SignersIn(out) == Names{path};
  }
  return asked;
}

// Threads that run all kinds of queries until told to stop.
class Load {
 public:
  explicit Load(int threads) {
    for (int i = 0; i < threads; ++i) threads_.emplace_back([this, i] { Run(i); });
  }
  ~Load() { Stop(); }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  void Stop() {
    goesOn_ = false;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
    // Stored by a query that outlived the last stop.
    orvex_flush_cache(ORVEX_HASH_CACHE);
    orvex_flush_cache(ORVEX_FILE_TYPE_CACHE);
  }

  std::vector<pthread_t> Threads() {
    std::vector<pthread_t> threads;
    for (std::thread& thread : threads_) threads.push_back(thread.native_handle());
    return threads;
  }

  std::atomic<long> queries{0};
  std::atomic<int> wrongAnswers{0};
  std::atomic<int> wrongCodes{0};

 private:
  void Run(int seed) {
    constexpr uint32_t kKinds[] = {QUERY_DIGEST32, QUERY_FILE_TYPE,
                                   QUERY_DIGEST32 | QUERY_FILE_TYPE,
                                   QUERY_DIGEST32 | QUERY_SIGNERS};
    std::minstd_rand random(static_cast<unsigned int>(seed + 1));
    while (goesOn_) {
      const auto dice = random();
      const Asked asked = Ask(static_cast<int>(dice % kPaths), kKinds[(dice >> 8) % 4]);
      if (!asked.right) ++wrongAnswers;
      if (asked.code != 0 && asked.code != 8 && asked.code != 100) ++wrongCodes;
      const int status = orvex_get_status();
      if (status != 100 && status != 101) ++wrongCodes;
      ++queries;
    }
  }

  std::atomic<bool> goesOn_{true};
  std::vector<std::thread> threads_;
};

int ExitCodeOf(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

}  // namespace

TEST_CASE("a child forked at any moment of a running load may exec or leave by _exit" *
          doctest::test_suite("slow")) {
  const int kForks = InDeepForm(5000, 200);
  REQUIRE(Start() == 0);
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, kPaths / 2);
  int wrong = 0;
  long queries = 0;
  {
    Load load(4);
    std::minstd_rand random(1);
    for (int i = 0; i < kForks; ++i) {
      usleep(static_cast<useconds_t>(random() % 2000));
      const pid_t child = fork();
      if (child == 0) {
        if (i % 2 == 0) _exit(7);
        execl("/bin/sh", "sh", "-c", "exit 7", nullptr);
        _exit(1);
      }
      if (ExitCodeOf(child) != 7) ++wrong;
    }
    load.Stop();
    CHECK(load.wrongAnswers == 0);
    CHECK(load.wrongCodes == 0);
    queries = load.queries;
  }
  CHECK(wrong == 0);
  CHECK(queries > 0);
  CHECK(BrokenInvariantOfIdleCaches() == "");
  CHECK(orvex_deinit() == 0);
  std::printf("%d forks during %ld queries\n", kForks, queries);
}

TEST_CASE("a child forked while no thread is inside has an engine of its own") {
  REQUIRE(Start() == 0);
  REQUIRE(Ask(1, QUERY_DIGEST32).code == 0);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    // The entry is there, a thread may be started, and all of it can be stopped.
    const Asked hit = Ask(1, QUERY_DIGEST32, INV_CACHE_ONLY);
    Asked missed;
    std::thread([&missed] { missed = Ask(2, QUERY_DIGEST32); }).join();
    const bool works = hit.code == 0 && hit.right && missed.code == 0 && missed.right;
    _exit(works && orvex_deinit() == 0 && Start() == 0 && orvex_deinit() == 0 ? 7 : 1);
  }
  CHECK(ExitCodeOf(child) == 7);
  CHECK(orvex_get_status() == 101);
  // What the child asked and stopped is not the parent's.
  metadata_input_s in = InputFor("/a/path/that/a/string/does/not/hold/in/itself/C");
  Answer out;
  in.queryFlags = QUERY_DIGEST32;
  in.invOperation = INV_CACHE_ONLY;
  CHECK(orvex_query(&in, &out, nullptr) == 0);
  CHECK(out.resultReady == 0);
  CHECK(orvex_deinit() == 0);
}

namespace {

std::atomic<int> signalsSeen{0};

void CountSignal(int) { ++signalsSeen; }

// Queued signals within a scope, ten thousand a second, sent in turn to the thread that made it
// and those of the load. They interrupt system calls.
class SignalRain {
 public:
  explicit SignalRain(Load& load) : targets_(load.Threads()) {
    // Permanent: a pending signal must find it.
    struct sigaction counting {};
    counting.sa_handler = CountSignal;
    sigaction(SIGRTMIN, &counting, nullptr);
    targets_.push_back(pthread_self());
    cloud_ = std::thread([this] { Rain(); });
  }
  ~SignalRain() {
    goesOn_ = false;
    cloud_.join();
  }
  SignalRain(const SignalRain&) = delete;
  SignalRain& operator=(const SignalRain&) = delete;

 private:
  void Rain() {
    const auto begin = Clock::now();
    for (int drop = 0; goesOn_; ++drop) {
      while (Clock::now() < begin + drop * std::chrono::microseconds(100)) sched_yield();
      pthread_kill(targets_[static_cast<size_t>(drop) % targets_.size()], SIGRTMIN);
    }
  }

  std::vector<pthread_t> targets_;
  std::atomic<bool> goesOn_{true};
  std::thread cloud_;
};

}  // namespace

TEST_CASE("ten thousand signals a second change no answer and delay no stop" *
          doctest::test_suite("slow")) {
  const auto duration = std::chrono::seconds(InDeepForm(60, 2));
  int starts = 0;
  long queries = 0;
  signalsSeen = 0;
  const auto begin = Clock::now();
  {
    for (int round = 0; round < 4; ++round) {
      REQUIRE(Start() == 0);
      orvex_set_cache_capacity(ORVEX_HASH_CACHE, kPaths / 2);
      Load load(4);
      int code = 9;
      {
        const SignalRain rain(load);
        while (Clock::now() - begin < duration * (round + 1) / 4) sched_yield();
        code = orvex_deinit();  // During the load.
      }
      CHECK(code == 0);
      ++starts;
      load.Stop();
      CHECK(load.wrongAnswers == 0);
      CHECK(load.wrongCodes == 0);
      queries += load.queries;
      // A query that outlived the stop may have stored since.
      CHECK(BrokenInvariant(HashCache()) == "");
      CHECK(BrokenInvariant(TypeCache()) == "");
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  CHECK(signalsSeen > 1000);
  std::printf("%d signals in %.1f s during %ld queries and %d stops\n", signalsSeen.load(), seconds,
              queries, starts);
}

TEST_CASE("a storm of starts and stops under load pauses two seconds at most in every stop" *
          doctest::test_suite("slow")) {
  const int kCycles = InDeepForm(10000, 2000);
  // How fast it goes is up to the scheduler; the short form ends in time.
  const int shortForm = ORVEXENG_CHECKS_MEMORY || ORVEXENG_CHECKS_THREADS ? 2 : 5;
  const auto end = Clock::now() + std::chrono::seconds(InDeepForm(100000, shortForm));
  CountedSleep pauses;
  pauses.onSleep = [] { sched_yield(); };
  Load load(8);
  int wrong = 0;
  int cycles = 0;
  int mostPauses = 0;
  unsigned int mostMicroseconds = 0;
  for (; cycles < kCycles && Clock::now() < end; ++cycles) {
    if (Start() != 0 || orvex_get_status() != 101) ++wrong;
    for (int wait = cycles % 4; wait > 0; --wait) sched_yield();
    pauses.sleeps = 0;
    pauses.microseconds = 0;
    if (orvex_deinit() != 0 || orvex_get_status() != 100) ++wrong;
    mostPauses = std::max(mostPauses, pauses.sleeps.load());
    mostMicroseconds = std::max(mostMicroseconds, pauses.microseconds.load());
  }
  load.Stop();
  CHECK(wrong == 0);
  CHECK(cycles > 0);
  CHECK(mostPauses <= 20);
  CHECK(mostMicroseconds <= 2000000);
  CHECK(load.wrongAnswers == 0);
  CHECK(load.wrongCodes == 0);
  CHECK(load.queries > 0);
  std::printf("%d starts and stops during %ld queries, %d pauses in the longest stop\n", cycles,
              load.queries.load(), mostPauses);
}

TEST_CASE("a stop under load takes its two seconds at most" * doctest::test_suite("slow")) {
  const int kCycles = InDeepForm(100, 3);
  Load load(8);
  double longest = 0;
  int wrong = 0;
  for (int i = 0; i < kCycles; ++i) {
    if (Start() != 0) ++wrong;
    usleep(20000);
    const auto begin = Clock::now();
    if (orvex_deinit() != 0) ++wrong;
    longest = std::max(longest, std::chrono::duration<double>(Clock::now() - begin).count());
  }
  load.Stop();
  CHECK(wrong == 0);
  CHECK(load.wrongCodes == 0);
  // On an idle machine; elsewhere the test above counts.
  if (IsDeepForm()) CHECK(longest < 2.2);
  std::printf("%d stops with real pauses, the longest %.2f s\n", kCycles, longest);
}

namespace {

long ResidentPages() {
  std::ifstream statm("/proc/self/statm");
  long all = 0;
  long resident = 0;
  statm >> all >> resident;
  return resident;
}

// Everything the engine can be asked, on one thread, for a while.
void DoEverything(unsigned int seed, Clock::time_point end, std::atomic<long>& calls,
                  std::atomic<int>& wrong) {
  std::minstd_rand random(seed);
  const auto check = [&wrong](bool right) {
    if (!right) ++wrong;
  };
  for (; Clock::now() < end; ++calls) {
    const int number = static_cast<int>(random() % kPaths);
    switch (random() % 16) {
      case 0:
        check(orvex_flush_cache(static_cast<int>(random() % 2)) == 0);
        break;
      case 1:
        orvex_set_cache_capacity(static_cast<int>(random() % 2), 1 + number);
        break;
      case 2:
        orvex_dump_cache();
        orvex_dump_metrics();
        break;
      case 3: {
        orvex_metrics_s metrics{};
        unsigned int size = 0;
        check(orvex_get_metrics(&metrics, sizeof metrics, &size) == 0);
        break;
      }
      case 4:
        check(orvex_reset_metrics() == 0);
        break;
      case 5: {
        metadata_input_s in = InputFor("/pushed");
        in.fileID = static_cast<uint64_t>(number);
        Answer out;
        GiveSigners(out, {"one", "two"});
        check(orvex_update_metadata(&in, &out) == 0);
        break;
      }
      case 6:
        Ask(number, QUERY_DIGEST32, 0, true);
        break;
      case 7:
        check(Ask(number, QUERY_DIGEST32, INV_CACHE_ONLY).code == 0);
        break;
      default: {
        const Asked asked = Ask(number, QUERY_DIGEST32 | QUERY_FILE_TYPE | QUERY_SIGNERS);
        check(asked.code == 0 && asked.right);
      }
    }
  }
}

}  // namespace

TEST_CASE("a soak of everything at once keeps memory flat" * doctest::test_suite("slow")) {
  const char* const asked = std::getenv("ORVEXENG_SOAK_SECONDS");
  // A sanitizer's own memory grows; it looks for other faults, which need no soak.
  const int shortForm = ORVEXENG_CHECKS_MEMORY || ORVEXENG_CHECKS_THREADS ? 3 : 10;
  const int seconds = asked != nullptr ? std::atoi(asked) : InDeepForm(300, shortForm);
  const int kRounds = 20;
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
  std::atomic<long> calls{0};
  std::atomic<int> wrong{0};
  long pagesEarly = 0;
  int leakingRounds = 0;
  const auto begin = Clock::now();
  for (int round = 0; round < kRounds; ++round) {
    const long liveBefore = LiveAllocations();
    REQUIRE(Start() == 0);
    {
      const auto end = begin + std::chrono::milliseconds(seconds * 1000 / kRounds * (round + 1));
      std::vector<std::thread> threads;
      for (unsigned int i = 1; i <= 4; ++i) {
        threads.emplace_back([&, i] {
          DoEverything(i + 10u * static_cast<unsigned int>(round), end, calls, wrong);
        });
      }
      for (std::thread& thread : threads) thread.join();
    }
    CHECK(BrokenInvariantOfIdleCaches() == "");
    CHECK(orvex_deinit() == 0);
    // In the first round the caches come to keep memory for the texts of keys.
    if (round > 0 && LiveAllocations() != liveBefore) ++leakingRounds;
    if (round == kRounds / 4) pagesEarly = ResidentPages();
  }
  const long grown = ResidentPages() - pagesEarly;
  CHECK(wrong == 0);
  CHECK(leakingRounds == 0);
#if !ORVEXENG_CHECKS_MEMORY && !ORVEXENG_CHECKS_THREADS
  CHECK(grown < 256);  // 1 MiB: arenas of threads settle.
#endif
  std::printf("%ld calls in %d s, resident memory grew by %ld KiB after the first quarter\n",
              calls.load(), seconds, grown * 4);
}
