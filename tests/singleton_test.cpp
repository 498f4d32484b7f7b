// One object of a class per process.
#include <doctest/doctest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "harness/latch.h"
#include "support/orvex_singleton.h"

namespace {

std::atomic<int> constructions{0};

struct Counted {
  Counted() { ++constructions; }
};

}  // namespace

TEST_CASE("threads that ask for a singleton at once get one object, built once") {
  constexpr int kThreads = 8;
  Latch start;
  std::vector<Counted*> found(kThreads);
  std::vector<std::thread> threads;
  for (Counted*& mine : found) {
    threads.emplace_back([&start, &mine] {
      start.Wait();
      mine = ORVEX_Singleton<Counted>::GetInstance();
    });
  }
  start.Open();
  for (std::thread& thread : threads) thread.join();
  CHECK(constructions == 1);
  for (const Counted* mine : found) CHECK(mine == found.front());
}
