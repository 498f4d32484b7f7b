// Atomic operations on plain counters.
#include <doctest/doctest.h>

#include <limits>
#include <thread>
#include <vector>

#include "support/orvex_atomic.h"
#include "support/orvex_scope_ref_cnt.h"

TEST_CASE("an atomic increment returns the old value and adds one") {
  int small = 0;
  CHECK(ORVEX_atomic_increment_32(&small) == 0);
  CHECK(small == 1);
  alignas(8) long long large = 41;
  CHECK(ORVEX_atomic_increment_64(&large) == 41);
  CHECK(large == 42);
}

TEST_CASE("an atomic decrement returns the old value and subtracts one") {
  int small = 0;
  CHECK(ORVEX_atomic_decrement_32(&small) == 0);
  CHECK(small == -1);
  alignas(8) long long large = 1;
  CHECK(ORVEX_atomic_decrement_64(&large) == 1);
  CHECK(large == 0);
}

TEST_CASE("an atomic read returns the value and does not change it") {
  int small = -7;
  CHECK(ORVEX_atomic_read_32(&small) == -7);
  CHECK(small == -7);
  alignas(8) long long large = 0x123456789abcdef0;
  CHECK(ORVEX_atomic_read_64(&large) == 0x123456789abcdef0);
  CHECK(large == 0x123456789abcdef0);
}

TEST_CASE("an atomic addition returns the old value and adds any delta") {
  int small = 10;
  CHECK(ORVEX_atomic_add_32(&small, -30) == 10);
  CHECK(small == -20);
  alignas(8) long long large = 0xffffffff;
  CHECK(ORVEX_atomic_add_64(&large, 0x100000001) == 0xffffffff);
  CHECK(large == 0x200000000);
}

TEST_CASE("an atomic addition wraps silently at the limits") {
  int small = std::numeric_limits<int>::max();
  CHECK(ORVEX_atomic_add_32(&small, 1) == std::numeric_limits<int>::max());
  CHECK(small == std::numeric_limits<int>::min());
  alignas(8) long long large = std::numeric_limits<long long>::min();
  CHECK(ORVEX_atomic_add_64(&large, -1) == std::numeric_limits<long long>::min());
  CHECK(large == std::numeric_limits<long long>::max());
}

TEST_CASE("no addition is lost when threads add to one counter") {
  constexpr int kThreads = 4;
  constexpr int kAdditions = 20000;
  int small = 0;
  alignas(8) long long large = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < kAdditions; ++j) {
        ORVEX_atomic_increment_32(&small);
        ORVEX_atomic_add_64(&large, 0x100000000);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  CHECK(small == kThreads * kAdditions);
  CHECK(large == 0x100000000 * kThreads * kAdditions);
}

TEST_CASE("a 64-bit read is never torn while another thread writes") {
  alignas(8) long long cell = 0;
  std::thread writer([&cell] {
    for (int i = 0; i < 100000; ++i)
      ORVEX_atomic_add_64(&cell, (i % 2 == 0 ? 1 : -1) * 0x100000001);
  });
  int torn = 0;
  for (int i = 0; i < 100000; ++i) {
    const long long seen = ORVEX_atomic_read_64(&cell);
    if (seen != 0 && seen != 0x100000001) ++torn;
  }
  writer.join();
  CHECK(torn == 0);
}

TEST_CASE("a scope count is one higher while the scope lasts") {
  int small = 5;
  alignas(8) long long large = 7;
  {
    const ORVEX_ScopeRefCnt inSmall(&small);
    const ORVEX_ScopeRefCnt inLarge(&large);
    CHECK(small == 6);
    CHECK(large == 8);
  }
  CHECK(small == 5);
  CHECK(large == 7);
}

TEST_CASE("a scope count is taken back when the scope ends by an exception") {
  int count = 0;
  try {
    const ORVEX_ScopeRefCnt inside(&count);
    throw 1;
  } catch (int) {
  }
  CHECK(count == 0);
}

TEST_CASE("a scope count of an unknown width counts nothing") {
  long long cell = 3;
  { const ORVEX_ScopeRefCnt inside(&cell, 16); }
  CHECK(cell == 3);
}
