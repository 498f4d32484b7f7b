// How often the engine allocates.
#include <doctest/doctest.h>

#include "harness/counted_allocations.h"
#include "harness/engine_under_test.h"

namespace {

const char* const kLongPath = "/a/path/of/more/characters/than/a/string/holds/in/itself";

// What one query of each kind allocates once the file is cached. The test host
// allocates nothing unless called.
Allocations UsedBy(EngineUnderTest& engine, metadata_input_s& in, Answer& out) {
  const Allocations before = AllocationsOfThisThread();
  const int code = engine.Query(in, out);
  const Allocations used = AllocationsOfThisThread() - before;
  CHECK(code == 0);
  return used;
}

}  // namespace

TEST_CASE("the allocations of every library in the process are counted") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor(kLongPath);
  Answer out;
  const Allocations miss = UsedBy(engine, in, out);
  CHECK(engine.host.hashCalls == 1);
  // The entry and its path stay.
  CHECK(miss.made >= miss.freed + 2);
  CHECK(miss.bytesHeld > 0);
}

TEST_CASE("a full hit without signers allocates nothing and frees nothing") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor(kLongPath);
  engine.Query(kLongPath);
  Answer out;
  const Allocations hit = UsedBy(engine, in, out);
  CHECK(engine.host.hashCalls == 1);
  CHECK(out.resultReady == 1);
  CHECK(hit.made == 0);
  CHECK(hit.freed == 0);
}

TEST_CASE("a full hit with signers allocates their array and nothing else") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor(kLongPath);
  Answer pushed;
  GiveDigests(pushed, kAllDigests, 1);
  GiveSigners(pushed, {"Kelda", "Other", "Third"});
  orvex_update_metadata(&in, &pushed);
  in.queryFlags = kAllDigests | QUERY_SIGNERS;
  Answer out;
  const Allocations hit = UsedBy(engine, in, out);
  CHECK(engine.host.hashCalls == 0);
  CHECK(out.signerCount == 3);
  CHECK(hit.made == 1);
  CHECK(hit.freed == 0);
}

TEST_CASE("a file type hit allocates nothing and frees nothing") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor(kLongPath);
  in.queryFlags = QUERY_FILE_TYPE;
  in.invOperation = INV_KEEP_IN_CACHE;
  Answer first;
  engine.Query(in, first);
  Answer out;
  const Allocations hit = UsedBy(engine, in, out);
  CHECK(engine.host.fileTypeCalls == 1);
  CHECK(out.major == 3);
  CHECK(hit.made == 0);
  CHECK(hit.freed == 0);
}

TEST_CASE("a cache-only miss allocates nothing and frees nothing") {
  EngineUnderTest engine;
  metadata_input_s in = InputFor(kLongPath);
  in.invOperation = INV_CACHE_ONLY;
  Answer out;
  const Allocations miss = UsedBy(engine, in, out);
  CHECK(engine.host.hashCalls == 0);
  CHECK(out.resultReady == 0);
  CHECK(miss.made == 0);
  CHECK(miss.freed == 0);
}
