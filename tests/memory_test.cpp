// The caches free all the memory they allocate.
#include <doctest/doctest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cache/orvex_lru_cache_file_type.h"
#include "harness/failing_new.h"
#include "harness/open_hash_cache.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"

namespace {

const char* const kLongPath = "/a/path/of/more/characters/than/a/string/holds/in/itself";

// A different path for each number, every other one too long for the small-string
// buffer.
std::string PathOf(int number) {
  return (number % 2 == 0 ? "/" : kLongPath) + std::to_string(number);
}

// How many allocations the work leaks. The test framework allocates too: check
// nothing in there.
template <typename Work>
long LeftBehindBy(Work work) {
  RecordedLog quiet(ORVEX_LOG_FATAL);
  const long before = LiveAllocations();
  work();
  return LiveAllocations() - before;
}

// Stores, replaces and evicts nodes; more of them than the compiler would lay out
// one by one.
template <typename Cache>
void FillAndEvict(Cache& cache) {
  cache.SetCapacity(300);
  for (int number = 0; number < 500; ++number) {
    const std::string path = PathOf(number);
    metadata_input_s in = InputFor(path.c_str());
    in.name = path.c_str();
    Answer out;
    GiveSigners(out, {"Kelda"});
    for (int time = 0; time < 2; ++time) cache.UpdateCache(&in, &out);
  }
}

template <typename Node, typename Metrics>
auto NodesOf(LRUCacheT<LRUCacheKey, Node, Metrics>& cache) {
  return NodesIn<Node>(OpenedCache<LRUCacheKey, Node, Metrics>::Entries(cache));
}

}  // namespace

TEST_CASE("a node frees signers that others replace, in itself and in a record, and at its end") {
  CHECK(LeftBehindBy([] {
          metadata_input_s in = InputFor("/a");
          Answer kelda;
          GiveSigners(kelda, {"Kelda"});
          Answer other;
          GiveSigners(other, {"Other"});
          LRUCacheNode node(in, kelda);
          node.SetDataToCacheNode(in, other);
          LRUCacheNode copy(in, kelda);
          copy = node;
          Answer back;
          for (int time = 0; time < 2; ++time) node.GetDataFromCacheNode(back);
        }) == 0);
}

TEST_CASE("a hash cache gives back all its memory when it stops") {
  CHECK(LeftBehindBy([] {
          OpenHashCache cache;
          cache.InitLRUCache();
          FillAndEvict(cache);
          for (int file = 0; file < 1000; ++file) cache.calHashSet.paths.insert(PathOf(file));
          cache.DeinitLRUCache();
        }) == 0);
}

TEST_CASE("a file type cache gives back all its memory when it stops") {
  CHECK(LeftBehindBy([] {
          FileTypeCache cache;
          cache.InitLRUCache();
          FillAndEvict(cache);
          cache.DeinitLRUCache();
        }) == 0);
}

TEST_CASE("a query whose host throws keeps no memory of its own") {
  CHECK(LeftBehindBy([] {
          OpenHashCache cache;
          cache.InitLRUCache();
          cache.onHash = [](metadata_input_s&, metadata_output_s&) -> int { throw 1; };
          Answer out;
          try {
            cache.Ask(InputFor(kLongPath), out);
          } catch (int) {
          }
        }) == 0);
}
