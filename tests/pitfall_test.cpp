// What a host can fall into, and the safe way round each. The public header
// explains both.
#include <doctest/doctest.h>

#include <cstring>
#include <string>

#include "harness/engine_under_test.h"

namespace {

// Gives one digest, filled with the file's mtime.
int GiveOne(uint32_t part, const metadata_input_s& in, metadata_output_s& out) {
  GiveDigests(out, part, static_cast<int>(in.mtime));
  return 0;
}

metadata_input_s Wanting(uint32_t parts, uint32_t keyMask, uint64_t mtime) {
  metadata_input_s in = InputFor("/a");
  in.fileOperation = keyMask;
  in.queryFlags = parts;
  in.mtime = mtime;
  return in;
}

}  // namespace

TEST_CASE("without mtime in the key a partial refresh serves an older part as current") {
  EngineUnderTest engine;
  uint32_t given = QUERY_DIGEST16 | QUERY_DIGEST32;
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    return GiveOne(given, in, out);
  };
  metadata_input_s in = Wanting(QUERY_DIGEST16 | QUERY_DIGEST32, KEY_PATH, 5);
  Answer first;
  REQUIRE(engine.Query(in, first) == 0);
  // The file changed, and the callback fills only what it is asked for.
  given = QUERY_DIGEST16;
  in = Wanting(QUERY_DIGEST16, KEY_PATH, 6);
  Answer refresh;
  REQUIRE(engine.Query(in, refresh) == 0);

  in = Wanting(QUERY_DIGEST16 | QUERY_DIGEST32, KEY_PATH, 6);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.resultReady == 1);
  CHECK(engine.host.hashCalls == 2);
  CHECK(out.digest16[0] == 6);
  CHECK(out.digest32[0] == 5);  // the older file's
}

TEST_CASE("with mtime in the key no part of an older file is served") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s& in, metadata_output_s& out) {
    return GiveOne(in.queryFlags & kAllDigests, in, out);
  };
  constexpr uint32_t kMask = KEY_PATH | KEY_SIZE | KEY_MTIME;
  metadata_input_s in = Wanting(QUERY_DIGEST16 | QUERY_DIGEST32, kMask, 5);
  Answer first;
  REQUIRE(engine.Query(in, first) == 0);
  in = Wanting(QUERY_DIGEST16, kMask, 6);
  Answer refresh;
  REQUIRE(engine.Query(in, refresh) == 0);

  in = Wanting(QUERY_DIGEST16 | QUERY_DIGEST32, kMask, 6);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(engine.host.hashCalls == 3);
  CHECK(out.digest16[0] == 6);
  CHECK(out.digest32[0] == 6);
}

TEST_CASE("without mtime in the key a refresh that fills every part serves none of the older") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s& in, metadata_output_s& out) {
    return GiveOne(kAllDigests, in, out);
  };
  metadata_input_s in = Wanting(QUERY_DIGEST32, KEY_PATH, 5);
  Answer first;
  REQUIRE(engine.Query(in, first) == 0);
  in = Wanting(QUERY_DIGEST16, KEY_PATH, 6);
  Answer refresh;
  REQUIRE(engine.Query(in, refresh) == 0);
  in = Wanting(QUERY_DIGEST32, KEY_PATH, 6);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.digest32[0] == 6);
}

TEST_CASE("a walk over one file more than the capacity never hits, one over the capacity always") {
  constexpr int kCapacity = 10;
  EngineUnderTest engine;
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, kCapacity);
  const auto walk = [&engine](int files) {
    for (int i = 0; i < files; ++i) {
      metadata_input_s in = InputFor("/walked");
      in.fileID = static_cast<uint64_t>(i);
      in.queryFlags = kAllDigests;
      Answer out;
      engine.Query(in, out);
    }
  };
  walk(kCapacity + 1);
  walk(kCapacity + 1);
  CHECK(engine.Metrics().cacheHit == 0);
  orvex_flush_cache(ORVEX_HASH_CACHE);
  orvex_reset_metrics();
  walk(kCapacity);
  walk(kCapacity);
  CHECK(engine.Metrics().cacheHit == kCapacity);
}

TEST_CASE("a callback may ask for its own path from the cache only") {
  EngineUnderTest engine;
  int codes[2] = {9, 9};
  uint32_t ready[2] = {9, 9};
  int call = 0;
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    metadata_input_s own = in;
    own.queryFlags = QUERY_DIGEST16;
    own.invOperation = INV_CACHE_ONLY;
    Answer known;
    codes[call] = engine.Query(own, known);
    ready[call] = known.resultReady;
    ++call;
    GiveDigests(out, call == 1 ? uint32_t{QUERY_DIGEST16} : kAllDigests, 1);
    return 0;
  };
  CHECK(engine.Query("/a") == 0);  // Nothing known yet; leaves one part.
  CHECK(engine.Query("/a") == 0);  // A partial hit, which finds that part.
  CHECK(codes[0] == 0);
  CHECK(ready[0] == 0);
  CHECK(codes[1] == 0);
  CHECK(ready[1] == 1);
  CHECK(engine.host.hashCalls == 2);
}

TEST_CASE("a signer array passed in again is freed and one handed out is deleted as an array") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s& out) {
    // What a partial hit left here goes first.
    GiveSigners(out, {"Kelda"});
    return 0;
  };
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  metadata_output_s out{};
  REQUIRE(engine.Query(in, out) == 0);
  REQUIRE(engine.Query(in, out) == 0);  // Takes the first array and leaves another.
  CHECK(engine.host.hashCalls == 1);
  CHECK(SignersIn(out) == Names{"Kelda"});
  delete[] out.signers;
}
