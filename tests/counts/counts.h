// Counts what one operation costs: allocations, and under callgrind instructions.
// Counts repeat; times do not.
//
// Each operation prints one line: contender, operation, how many were done,
// allocations, frees, bytes held afterwards for each entry ("-" where it says
// nothing). Under callgrind it also has a profile dumped for each line, named
// contender/operation.
#pragma once

#include <valgrind/callgrind.h>

#include <cstdio>
#include <string>

#include "counts/contender.h"
#include "harness/counted_allocations.h"

namespace cost {

// Runs operation(0), operation(1), ... and prints its line.
template <class Operation>
void Count(const std::string& contender, const char* name, const Operation& operation) {
  constexpr size_t kTimes = 1000;
  const std::string profile = contender + '/' + name;
  const Allocations before = AllocationsOfThisThread();
  CALLGRIND_ZERO_STATS;
  for (size_t i = 0; i < kTimes; ++i) operation(i);
  CALLGRIND_DUMP_STATS_AT(profile.c_str());
  const Allocations used = AllocationsOfThisThread() - before;
  std::printf("%s %s %zu %zu %zu -\n", contender.c_str(), name, kTimes, used.made, used.freed);
}

template <class C>
void CountMemory() {
  const Allocations before = AllocationsOfThisThread();
  const auto cache = Holding<C>(kFiles);
  const Allocations used = AllocationsOfThisThread() - before;
  std::printf("%s memory %zu %zu %zu %zu\n", C::kName, kFiles, used.made, used.freed,
              used.bytesHeld / kFiles);
}

template <class C>
void CountHits() {
  const auto cache = Holding<C>(kFiles);
  static const Order order = Order::Uniform(1);
  metadata_output_s out{};
  const int callsBefore = hashCalls;
  Count(C::kName, "hit", [&](size_t i) {
    out.queryFlags = 0;
    cache->Query(AllFiles()[order[i]], out);
  });
  if (hashCalls != callsBefore) std::printf("# %s: not all were hits\n", C::kName);
}

template <class C>
void CountInsertions() {
  C cache(kFiles);
  NewFiles files('c');
  metadata_output_s out{};
  const auto insert = [&](size_t) {
    out.queryFlags = 0;
    cache.Query(files.Next(), out);
  };
  for (size_t i = 0; i < kFiles; ++i) insert(i);
  Count(C::kName, "insert", insert);
}

}  // namespace cost
