// Each piece of advice: the figures that call for it, and figures that do not.
#include <doctest/doctest.h>

#include <string>
#include <vector>

#include "harness/contains.h"
#include "report/advice.h"

using orvexscan::Advice;
using orvexscan::PassReport;
using orvexscan::Setting;

namespace {

Setting WithCapacity(int capacity) {
  Setting setting;
  setting.capacity = capacity;
  return setting;
}

Setting OfProcesses(int capacity, int threads) {
  Setting setting = WithCapacity(capacity);
  setting.processes = true;
  setting.threads = threads;
  return setting;
}

PassReport Pass(int number, uint64_t visits, int64_t hits) {
  PassReport pass;
  pass.number = number;
  pass.visits = visits;
  pass.engine.cacheQuery = static_cast<int64_t>(visits);
  pass.engine.cacheHit = hits;
  pass.engine.cacheMiss = static_cast<int64_t>(visits) - hits;
  return pass;
}

}  // namespace

TEST_CASE("there is no advice when the second pass is answered from the caches") {
  CHECK(Advice(WithCapacity(100), 100, {Pass(1, 100, 0), Pass(2, 100, 100)}).empty());
  CHECK(Advice(WithCapacity(100), 100, {Pass(1, 100, 0)}).empty());
}

TEST_CASE("a walk over more files than a cache keeps is advised in parts") {
  const std::string advice = Advice(WithCapacity(4096), 5000, {Pass(1, 5000, 0)});
  CHECK(Contains(advice, "5000 files are walked in order, but a cache keeps 4096 entries"));
  CHECK(Contains(advice, "Walk at most 4096 files at a time."));
}

TEST_CASE("a walk is advised a larger capacity only when there is one") {
  CHECK(Contains(Advice(WithCapacity(10), 11, {Pass(1, 11, 0)}), "with --capacity 11 or more."));
  CHECK(Contains(Advice(WithCapacity(10), 9999, {Pass(1, 9999, 0)}), "--capacity 4096"));
  CHECK_FALSE(Contains(Advice(WithCapacity(4096), 9999, {Pass(1, 9999, 0)}), "--capacity"));
}

TEST_CASE("evictions are announced if processes map more files than a cache keeps") {
  PassReport pass = Pass(1, 9000, 3000);
  pass.engine.cacheWipeOuts = 904;
  const std::string advice = Advice(OfProcesses(4096, 1), 5000, {pass});
  CHECK(Contains(advice, "5000 files are mapped"));
  CHECK_FALSE(Contains(advice, "cannot hit"));
  CHECK_FALSE(Contains(advice, "--capacity"));
}

TEST_CASE("a larger capacity is advised when evictions cost hits") {
  PassReport pass = Pass(1, 500, 200);
  pass.engine.cacheWipeOuts = 50;
  CHECK(Contains(Advice(OfProcesses(100, 1), 150, {pass}),
                 "Pass 1 hit 200 times where 350 were possible, and evicted 50 entries: try "
                 "--capacity 200."));
  CHECK(Contains(Advice(OfProcesses(3000, 1), 150, {pass}), "try --capacity 4096."));
  CHECK_FALSE(Contains(Advice(OfProcesses(4096, 1), 150, {pass}), "--capacity"));
  CHECK_FALSE(Contains(Advice(OfProcesses(200, 1), 150, {Pass(1, 500, 200)}), "--capacity"));
  PassReport best = Pass(1, 500, 350);
  best.engine.cacheWipeOuts = 50;
  CHECK_FALSE(Contains(Advice(OfProcesses(100, 1), 150, {best}), "--capacity"));
}

TEST_CASE("every hit of a later pass is possible") {
  PassReport pass = Pass(2, 500, 400);
  pass.engine.cacheWipeOuts = 50;
  CHECK(Contains(Advice(OfProcesses(100, 1), 150, {Pass(1, 500, 200), pass}),
                 "Pass 2 hit 400 times where 500 were possible"));
}

TEST_CASE("a walk is advised only once to raise the capacity") {
  PassReport pass = Pass(2, 100, 0);
  pass.engine.cacheWipeOuts = 100;
  CHECK_FALSE(Contains(Advice(WithCapacity(50), 100, {Pass(1, 100, 0), pass}), "\n"));
}

TEST_CASE("the report says that coalescing pays if threads shared a calculation") {
  PassReport first = Pass(1, 300, 200);
  first.engine.cacheWaitInHashCalculation = 7;
  const std::string advice = Advice(OfProcesses(4096, 4), 100, {first, Pass(2, 300, 300)});
  CHECK(Contains(advice, "calculating it too: 7. Coalescing pays"));
  CHECK_FALSE(Contains(advice, "cost nothing"));
}

TEST_CASE(
    "the report says that coalescing cost nothing if threads could have waited and never did") {
  CHECK(Contains(Advice(OfProcesses(4096, 4), 100, {Pass(1, 300, 200)}),
                 "No query had to wait, though 4 threads"));
  CHECK(Advice(OfProcesses(4096, 1), 100, {Pass(1, 300, 200)}).empty());
  CHECK(Advice(OfProcesses(4096, 4), 300, {Pass(1, 300, 0)}).empty());
}

TEST_CASE("answers that are often out of date are reported") {
  const std::vector<PassReport> often = {Pass(1, 100, 0), Pass(2, 100, 89)};
  CHECK(Contains(Advice(WithCapacity(4096), 100, often),
                 "11 of 100 answers were out of date in pass 2"));
  const std::vector<PassReport> seldom = {Pass(1, 100, 0), Pass(2, 100, 90)};
  CHECK(Advice(WithCapacity(4096), 100, seldom).empty());
}

TEST_CASE("a file that failed, was evicted or was too young is not out of date") {
  std::vector<PassReport> failed = {Pass(1, 100, 0), Pass(2, 100, 80)};
  failed[1].failed = 20;
  CHECK(Advice(WithCapacity(4096), 100, failed).empty());
  std::vector<PassReport> evicted = {Pass(1, 100, 0), Pass(2, 100, 80)};
  evicted[0].engine.cacheWipeOuts = 20;
  CHECK(Advice(WithCapacity(4096), 100, evicted).empty());
  std::vector<PassReport> young = {Pass(1, 100, 0), Pass(2, 100, 80)};
  young[0].unsettled = 20;
  CHECK(Advice(WithCapacity(4096), 100, young).empty());
}
