// The host's callbacks throw at every point where they are called.
#include <doctest/doctest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "harness/counted_sleep.h"
#include "harness/held_host.h"
#include "harness/opened_caches.h"
#include "harness/whole_life.h"
#include "support/orvex_log.h"

namespace {

// Not caught by handlers of std::exception.
struct HostIsLost {};

std::atomic<int> messages{0};
int throwingMessage = 0;  // counted from 1; 0 for none, -1 for every one
std::function<void(const char*)> onMessage;

void ReceiveMessage(unsigned int, unsigned int, const char*, const char*, const char* message,
                    unsigned int) {
  if (onMessage) onMessage(message);
  const int number = ++messages;
  if (throwingMessage == -1 || number == throwingMessage) throw HostIsLost();
}

class TalkativeLibrary {
 public:
  TalkativeLibrary() {
    orvex_register_log_cb(ReceiveMessage);
    ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
    orvex_profiling_set_enable(true);
  }
  ~TalkativeLibrary() {
    orvex_profiling_set_enable(false);
    throwingMessage = 0;
    onMessage = nullptr;
  }
};

int CountOf(const Steps& steps, const std::string& text) {
  int count = 0;
  for (const std::string& step : steps) {
    if (step.find(text) != std::string::npos) ++count;
  }
  return count;
}

}  // namespace

TEST_CASE("a query callback that throws, at whichever call, ends its own query and no other") {
  const TalkativeLibrary talkative;
  const CountedSleep pauses;
  for (const bool once : {true, false}) {
    CAPTURE(once);
    int points = 0;
    for (int first = 1;; ++first) {
      CAPTURE(first);
      WholeLife life;
      int calls = 0;
      int thrown = 0;
      std::string broken;
      life.onHostCall = [&] {
        ++calls;
        if (once ? calls != first : calls < first) return;
        ++thrown;
        throw HostIsLost();
      };
      life.afterStep = [&broken](const char* step) {
        const std::string wrong = BrokenInvariantOfIdleCaches();
        if (broken.empty() && !wrong.empty()) broken = std::string(step) + ": " + wrong;
      };
      const Steps steps = life.Tell();
      CHECK(broken == "");
      CHECK(CountOf(steps, "=thrown") == thrown);
      CHECK(CountOf(steps, "=thrown ready=1") == 0);
      // Nobody was left inside: the stop found no one to wait for.
      CHECK(pauses.sleeps == 0);
      if (thrown == 0) break;
      ++points;
    }
    CHECK(points > 0);
    std::printf("%4d points: query callbacks throw %s\n", points, once ? "once" : "from there on");
  }
}

TEST_CASE("a log callback that throws, at whichever message, changes nothing a host sees") {
  const TalkativeLibrary talkative;
  const CountedSleep pauses;
  const Steps undisturbed = WholeLife().Tell();
  int points = 0;
  for (throwingMessage = 1;; ++throwingMessage) {
    CAPTURE(throwingMessage);
    messages = 0;
    CHECK(WholeLife().Tell() == undisturbed);
    CHECK(BrokenInvariantOfIdleCaches() == "");
    if (messages < throwingMessage) break;
    ++points;
  }
  CHECK(points > 0);
  throwingMessage = -1;
  CHECK(WholeLife().Tell() == undisturbed);
  CHECK(pauses.sleeps == 0);
  std::printf("%4d points: log callback throws once\n", points);
  std::printf("%4d points: log callback throws always\n", points);
}

TEST_CASE("a log callback that throws in a waiting or calculating thread blocks nobody") {
  const TalkativeLibrary talkative;
  throwingMessage = -1;
  EngineUnderTest engine;
  HeldHost held(engine.host.onHash);
  onMessage = [&](const char* message) { held.AnswerOnceWaitedFor(message); };
  auto leader = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  CHECK(engine.Query("/a") == 0);
  CHECK(leader.get() == 0);
  CHECK(engine.host.hashCalls == 1);
}

TEST_CASE("when the host throws, the next thread waiting for the path calculates") {
  const TalkativeLibrary talkative;
  constexpr int kThrowing = 3;
  EngineUnderTest engine;
  std::atomic<int> calls{0};
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    if (++calls <= kThrowing) throw HostIsLost();
    return Host::AnswerHash(in, out);
  };
  HeldHost held(engine.host.onHash);
  std::atomic<int> asleep{0};
  onMessage = [&](const char* message) {
    if (std::strstr(message, "wait for signal") != nullptr && ++asleep >= kThrowing) {
      held.mayAnswer.Open();
    }
  };
  std::atomic<int> thrown{0};
  std::atomic<int> answered{0};
  const auto ask = [&] {
    try {
      if (engine.Query("/a") == 0) ++answered;
    } catch (const HostIsLost&) {
      ++thrown;
    }
  };
  std::thread leader(ask);
  held.entered.Wait();
  std::thread waiters[kThrowing];
  for (std::thread& waiter : waiters) waiter = std::thread(ask);
  leader.join();
  for (std::thread& waiter : waiters) waiter.join();
  CHECK(thrown == kThrowing);
  CHECK(answered == 1);
  CHECK(calls == kThrowing + 1);
  CHECK(BrokenInvariantOfIdleCaches() == "");
}
