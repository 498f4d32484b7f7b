// What "Using the engine correctly" says, section by section.
#include <doctest/doctest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "free_signers.h"
#include "harness/counted_sleep.h"
#include "harness/engine_under_test.h"
#include "harness/held_host.h"
#include "harness/recorded_log.h"
#include "orvexeng.hpp"

namespace {

// Logged by a thread that is about to wait for another one's calculation.
constexpr char kWaiting[] = "File hash is calculating, wait for signal";

// A query for these parts, under this mask and mtime.
metadata_input_s Asking(const char* path, uint32_t parts, uint32_t mask = kAllKeyBits,
                        uint64_t mtime = 5) {
  metadata_input_s in = InputFor(path);
  in.queryFlags = parts;
  in.fileOperation = mask;
  in.mtime = mtime;
  return in;
}

// A callback that fills these digests with one byte.
Host::Callback Giving(uint32_t parts, int byte) {
  return [parts, byte](metadata_input_s&, metadata_output_s& out) {
    GiveDigests(out, parts, byte);
    return 0;
  };
}

// Another working directory, empty, for the length of a scope.
class OwnDirectory {
 public:
  OwnDirectory() : before_(std::filesystem::current_path()) {
    char name[] = "/tmp/using_test.XXXXXX";
    REQUIRE(mkdtemp(name) != nullptr);
    own_ = name;
    std::filesystem::current_path(own_);
  }
  ~OwnDirectory() {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(own_);
  }
  OwnDirectory(const OwnDirectory&) = delete;
  OwnDirectory& operator=(const OwnDirectory&) = delete;

 private:
  std::filesystem::path before_, own_;
};

// A capacity of the hash cache for the length of a scope.
struct Capacity {
  explicit Capacity(int entries) { orvex_set_cache_capacity(ORVEX_HASH_CACHE, entries); }
  ~Capacity() { orvex_set_cache_capacity(ORVEX_HASH_CACHE, ORVEX_MAX_CAPACITY); }
  Capacity(const Capacity&) = delete;
  Capacity& operator=(const Capacity&) = delete;
};

}  // namespace

TEST_CASE("an older part is served as current unless the key holds mtime or a refresh fills all") {
  constexpr uint32_t kBoth = QUERY_DIGEST16 | QUERY_DIGEST32;
  const struct {
    const char* habit;
    uint32_t mask;
    uint32_t refreshed;
    int digest16;
    int hashCalls;
  } rows[] = {{"neither", KEY_PATH, QUERY_DIGEST32, 1, 2},
              {"mtime in the key", KEY_PATH | KEY_MTIME, QUERY_DIGEST32, 2, 3},
              {"a full refresh", KEY_PATH, kBoth, 2, 2}};
  for (const auto& row : rows) {
    CAPTURE(row.habit);
    EngineUnderTest engine;
    metadata_input_s in = Asking("/a", kBoth, row.mask, 5);
    Answer older, refresh, newer;
    engine.host.onHash = Giving(kBoth, 1);
    engine.Query(in, older);
    in = Asking("/a", QUERY_DIGEST32, row.mask, 6);
    engine.host.onHash = Giving(row.refreshed, 2);
    engine.Query(in, refresh);
    in = Asking("/a", kBoth, row.mask, 6);
    engine.host.onHash = Giving(kBoth, 2);
    CHECK(engine.Query(in, newer) == 0);
    CHECK(newer.resultReady == 1);
    CHECK(newer.digest16[0] == row.digest16);
    CHECK(newer.digest32[0] == 2);
    CHECK(engine.host.hashCalls == row.hashCalls);
  }
}

TEST_CASE("a record that was not zeroed returns another file's part as the answer") {
  EngineUnderTest engine;
  engine.host.onHash = Giving(QUERY_DIGEST32, 2);
  metadata_input_s in = Asking("/b", QUERY_DIGEST32);
  Answer seed;
  engine.Query(in, seed);

  Answer used;
  engine.host.onHash = Giving(QUERY_DIGEST16, 1);
  in = Asking("/a", QUERY_DIGEST16);
  engine.Query(in, used);
  engine.host.onHash = Giving(QUERY_DIGEST16, 2);
  in = Asking("/b", QUERY_DIGEST16);
  const int before = engine.host.hashCalls;
  engine.Query(in, used);
  CHECK(engine.host.hashCalls == before);
  CHECK(used.digest16[0] == 1);

  Answer zeroed;
  engine.Query(in, zeroed);
  CHECK(engine.host.hashCalls == before + 1);
  CHECK(zeroed.digest16[0] == 2);
}

TEST_CASE("a callback that assigns its bits instead of adding them loses the signers") {
  for (const bool assigns : {false, true}) {
    CAPTURE(assigns);
    EngineUnderTest engine;
    engine.host.onHash = [](metadata_input_s&, metadata_output_s& out) {
      GiveSigners(out, {"Example"});
      return 0;
    };
    metadata_input_s in = Asking("/a", QUERY_SIGNERS);
    Answer signers, digest, both;
    engine.Query(in, signers);
    engine.host.onHash = [assigns](metadata_input_s&, metadata_output_s& out) {
      const uint32_t before = assigns ? 0 : out.queryFlags;
      out.queryFlags = before | QUERY_DIGEST32;
      return 0;
    };
    in = Asking("/a", QUERY_DIGEST32);
    engine.Query(in, digest);
    in = Asking("/a", QUERY_SIGNERS | QUERY_DIGEST32);
    in.invOperation = INV_CACHE_ONLY;
    engine.Query(in, both);
    CHECK(both.resultReady == (assigns ? 0 : 1));
    CHECK(SignersIn(both) == (assigns ? Names{} : Names{"Example"}));
  }
}

TEST_CASE("a callback keeps its answer out of the cache by clearing a bit of the caller's record") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s& in, metadata_output_s& out) {
    in.invOperation &= ~uint32_t{INV_KEEP_IN_CACHE};
    return Host::AnswerHash(in, out);
  };
  metadata_input_s in = InputFor("/a");
  Answer first, second;
  CHECK(engine.Query(in, first) == 0);
  CHECK(first.resultReady == 1);
  CHECK((in.invOperation & INV_KEEP_IN_CACHE) == 0);
  in.invOperation = INV_CACHE_ONLY;
  CHECK(engine.Query(in, second) == 0);
  CHECK(second.resultReady == 0);
}

TEST_CASE("one calculation serves the threads that waited for it only if its answer was kept") {
  for (const bool keeps : {true, false}) {
    CAPTURE(keeps);
    EngineUnderTest engine;
    RecordedLog log;
    HeldHost held(engine.host.onHash);
    const auto query = [&] {
      metadata_input_s in = InputFor("/a");
      in.invOperation = keeps ? INV_KEEP_IN_CACHE : 0;
      Answer out;
      return engine.Query(in, out);
    };
    auto leader = std::async(std::launch::async, query);
    held.entered.Wait();
    auto waiter = std::async(std::launch::async, query);
    log.WaitFor(kWaiting);
    held.mayAnswer.Open();
    CHECK(leader.get() == 0);
    CHECK(waiter.get() == 0);
    CHECK(engine.host.hashCalls == (keeps ? 1 : 2));
  }
}

TEST_CASE("a file whose mtime was set back is another file once its ctime is part of fileID") {
  // A well-known mixing function: changing one bit affects all.
  const auto mixed = [](uint64_t inode, uint64_t ctime) {
    uint64_t mix = inode * 0x9e3779b97f4a7c15u + ctime;
    mix = (mix ^ (mix >> 30)) * 0xbf58476d1ce4e5b9u;
    mix = (mix ^ (mix >> 27)) * 0x94d049bb133111ebu;
    return mix ^ (mix >> 31);
  };
  for (const bool mixes : {false, true}) {
    CAPTURE(mixes);
    EngineUnderTest engine;
    for (const uint64_t ctime : {uint64_t{100}, uint64_t{101}}) {
      metadata_input_s in = InputFor("/a");
      in.fileID = mixes ? mixed(2, ctime) : 2;
      Answer out;
      engine.Query(in, out);
    }
    CHECK(engine.host.hashCalls == (mixes ? 2 : 1));
  }
}

TEST_CASE("a walk over more files than fit never hits, and the same walk backwards does") {
  const struct {
    const char* secondWalk;
    int capacity;
    const char* paths[3];
    int64_t hits;
  } rows[] = {{"the same", 2, {"/a", "/b", "/c"}, 0},
              {"backwards", 2, {"/c", "/b", "/a"}, 2},
              {"the same, with room for all", 3, {"/a", "/b", "/c"}, 3}};
  for (const auto& row : rows) {
    CAPTURE(row.secondWalk);
    const Capacity room(row.capacity);
    EngineUnderTest engine;
    for (const char* path : {"/a", "/b", "/c"}) engine.Query(path);
    for (const char* path : row.paths) engine.Query(path);
    CHECK(engine.Metrics().cacheHit == row.hits);
  }
}

TEST_CASE("a thread that waited for a failed calculation repeats it") {
  EngineUnderTest engine;
  RecordedLog log;
  HeldHost held(engine.host.onHash, 7);
  auto leader = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  auto waiter = engine.QueryFromAnotherThread("/a");
  log.WaitFor(kWaiting);
  held.mayAnswer.Open();
  CHECK(leader.get() == 7);
  CHECK(waiter.get() == 0);
  CHECK(engine.host.hashCalls == 2);
}

TEST_CASE("a cache-only query returns at once where a full one waits for the calculation") {
  EngineUnderTest engine;
  RecordedLog log;
  HeldHost held(engine.host.onHash);
  auto leader = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  metadata_input_s in = InputFor("/a");
  in.invOperation = INV_CACHE_ONLY;
  Answer look;
  CHECK(engine.Query(in, look) == 0);
  CHECK(look.resultReady == 0);
  auto waiter = engine.QueryFromAnotherThread("/a");
  log.WaitFor(kWaiting);
  held.mayAnswer.Open();
  CHECK(leader.get() == 0);
  CHECK(waiter.get() == 0);
  CHECK(engine.host.hashCalls == 1);
}

TEST_CASE("a callback may query another path in full and its own from the cache only") {
  EngineUnderTest engine;
  int memberCode = -1, ownCode = -1;
  uint32_t ownReady = 9;
  engine.host.onHash = [&](metadata_input_s& in, metadata_output_s& out) {
    if (std::string("/archive") == in.path) {
      memberCode = engine.Query("/archive/member");
      metadata_input_s own = InputFor(in.path);
      own.invOperation = INV_CACHE_ONLY;
      Answer look;
      ownCode = engine.Query(own, look);
      ownReady = look.resultReady;
    }
    return Host::AnswerHash(in, out);
  };
  CHECK(engine.Query("/archive") == 0);
  CHECK(memberCode == 0);
  CHECK(ownCode == 0);
  CHECK(ownReady == 0);
  CHECK(engine.host.hashCalls == 2);
}

TEST_CASE("a child forked while no thread is inside goes on with its own caches") {
  EngineUnderTest engine;
  engine.Query("/a");
  const pid_t child = fork();
  if (child == 0) {
    const bool served = engine.Query("/a") == 0 && engine.host.hashCalls == 1;
    const bool added = engine.Query("/b") == 0 && engine.host.hashCalls == 2;
    _exit(served && added ? 0 : 1);
  }
  REQUIRE(child > 0);
  int status = -1;
  REQUIRE(waitpid(child, &status, 0) == child);
  CHECK(status == 0);
  metadata_input_s in = InputFor("/b");
  in.invOperation = INV_CACHE_ONLY;
  Answer look;
  engine.Query(in, look);
  CHECK(look.resultReady == 0);
}

TEST_CASE("a query stuck in its callback outlives the stop and returns into the library") {
  const CountedSleep sleep;  // The stop's pauses take no time.
  EngineUnderTest engine;
  RecordedLog log;
  HeldHost held(engine.host.onHash);
  auto stuck = engine.QueryFromAnotherThread("/a");
  held.entered.Wait();
  CHECK(orvex_deinit() == 0);
  CHECK(log.CountOf("File hash calculation is done") == 0);
  held.mayAnswer.Open();
  CHECK(stuck.get() == 0);
  CHECK(log.CountOf("File hash calculation is done") == 1);
  orvex_flush_cache(ORVEX_HASH_CACHE);  // It stored its answer in the stopped cache.
}

TEST_CASE("signers that a C host makes and frees with the drop-in are kept, copied and freed") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s& out) {
    std::strcpy(new_signers(&out, 2) + ORVEX_SIGNER_SLOT, "Second");
    return 0;
  };
  metadata_input_s in = Asking("/a", QUERY_SIGNERS);
  metadata_output_s first{}, second{};
  engine.Query(in, first);
  engine.Query(in, second);
  CHECK(engine.host.hashCalls == 1);
  CHECK(first.signers != second.signers);
  free_signers(&first);
  CHECK(first.signers == nullptr);
  CHECK(first.signerCount == 0);
  CHECK((first.queryFlags & QUERY_SIGNERS) == 0);
  CHECK(SignersIn(second) == Names{"", "Second"});
  free_signers(&second);
  CHECK(second.queryFlags == (QUERY_SIZE | QUERY_MTIME | QUERY_FEEDBACK));
  // More than a 32-bit process can hold; a 64-bit one might really get it.
  if (sizeof(void*) == 4) CHECK(new_signers(&second, UINT32_MAX / 2) == nullptr);
}

TEST_CASE("the configuration file is read from the working directory at the start") {
  const Capacity restored(ORVEX_MAX_CAPACITY);
  const OwnDirectory directory;
  const auto evictedOfTwo = [] {
    EngineUnderTest engine;
    engine.Query("/a");
    engine.Query("/b");
    return engine.Metrics().cacheWipeOuts;
  };
  CHECK(evictedOfTwo() == 0);
  std::ofstream("orvexeng.ini") << "CacheCapacity=1\n";
  CHECK(evictedOfTwo() == 1);
}

TEST_CASE("each counter counts its own events") {
  EngineUnderTest engine;
  const auto query = [&](const char* path, uint32_t parts, uint64_t mtime = 5) {
    metadata_input_s in = Asking(path, parts, KEY_PATH, mtime);
    Answer out;
    engine.Query(in, out);
  };
  engine.host.onHash = Giving(QUERY_DIGEST32, 1);
  query("/a", QUERY_DIGEST32);     // A miss,
  query("/a", QUERY_DIGEST32);     // a hit,
  query("/a", QUERY_DIGEST16);     // a partial hit,
  query("/a", QUERY_DIGEST32, 6);  // and out of date.
  for (const uint64_t mtime : {5u, 5u, 6u}) query("/a", QUERY_FILE_TYPE, mtime);
  metadata_input_s in = Asking("/b", 0, KEY_PATH);
  Answer pushed;
  orvex_update_metadata(&in, &pushed);
  orvex_update_metadata(&in, nullptr);
  { const Capacity room(1); }
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, 1);
  query("/b", QUERY_FILE_TYPE);
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, ORVEX_MAX_CAPACITY);

  const orvex_metrics_s metrics = engine.Metrics();
  CHECK(metrics.cacheQuery == 4);
  CHECK(metrics.cacheMiss == 1);
  CHECK(metrics.cacheHit == 1);
  CHECK(metrics.cachePartialHit == 1);
  CHECK(metrics.cacheOutOfDate == 1);
  CHECK(metrics.cacheHelpFuncCalled == 3);
  CHECK(metrics.cacheWipeOuts == 1);
  CHECK(metrics.cacheUpdateMetaDataSuccess == 1);
  CHECK(metrics.cacheUpdateMetaDataFailure == 1);
  CHECK(metrics.cacheWaitInHashCalculation == 0);
  CHECK(metrics.fileTypeHit == 1);
  CHECK(metrics.fileTypeMiss == 2);
  CHECK(metrics.fileTypeOutOfDate == 1);
  CHECK(metrics.fileTypeHelpFuncCalled == 3);
  CHECK(metrics.fileTypeWipeOuts == 1);
}

TEST_CASE("a successful answer may lack a wanted part, and only queryFlags says so") {
  EngineUnderTest engine;
  engine.host.onHash = Giving(QUERY_DIGEST32, 1);
  metadata_input_s in = Asking("/a", QUERY_DIGEST32 | QUERY_DIGEST16);
  Answer out;
  CHECK(engine.Query(in, out) == 0);
  CHECK(out.resultReady == 1);
  CHECK(out.queryFlags == QUERY_DIGEST32);

  in = Asking("/b", QUERY_SIZE | QUERY_MTIME, kAllKeyBits, 0);
  in.size = 0;
  for (const int calls : {2, 3}) {
    Answer without;
    CHECK(engine.Query(in, without) == 0);
    CHECK(engine.host.hashCalls == calls);
    CHECK((without.queryFlags & (QUERY_SIZE | QUERY_MTIME)) == 0);
  }
}

TEST_CASE("a hit brings signers and a feedback that nobody asked for or gave") {
  EngineUnderTest engine;
  engine.host.onHash = [](metadata_input_s&, metadata_output_s& out) {
    GiveSigners(out, {"Name"});
    GiveDigests(out, QUERY_DIGEST32, 1);
    return 0;
  };
  metadata_input_s in = Asking("/a", QUERY_DIGEST32);
  Answer calculated, cached;
  engine.Query(in, calculated);
  engine.Query(in, cached);
  CHECK(engine.host.hashCalls == 1);
  CHECK((calculated.queryFlags & QUERY_FEEDBACK) == 0);
  CHECK((cached.queryFlags & QUERY_FEEDBACK) != 0);
  CHECK(cached.feedback == 0);
  CHECK(SignersIn(cached) == Names{"Name"});
  CHECK(cached.signers != calculated.signers);
}

TEST_CASE("a status of the host is returned unchanged even where it equals a code of the library") {
  EngineUnderTest engine;
  for (const int status : {ORVEX_CACHE_NOT_INITIALISED + 0, ORVEX_NOT_INITIALISED + 0, 1000, -1}) {
    engine.host.onHash = [status](metadata_input_s&, metadata_output_s&) { return status; };
    CHECK(engine.Query("/a") == status);
  }
}

TEST_CASE("a hash query without a path throws and leaves the engine running") {
  EngineUnderTest engine;
  metadata_input_s in = Asking(nullptr, QUERY_DIGEST32);
  Answer out;
  CHECK_THROWS_AS(engine.Query(in, out), std::logic_error);
  CHECK(engine.Query("/a") == 0);
  in.queryFlags = QUERY_FILE_TYPE;
  CHECK(engine.Query(in, out) == 0);
}

TEST_CASE("a start that finds any file applies the capacity that an earlier one assigned") {
  const Capacity restored(ORVEX_MAX_CAPACITY);
  const OwnDirectory directory;
  const auto start = [](const char* settings) {
    std::ofstream("orvexeng.ini") << settings;
    RecordedLog log;
    { const EngineUnderTest engine; }
    return log.CountOf("Set max cache capacity to 2");
  };
  CHECK(start("CacheCapacity=2\n") == 1);
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, 5);
  CHECK(start("# Nothing.\n") == 1);
}

namespace {

void DropMessage(unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {}

// How a child that starts the engine ends when nobody reads its standard output.
int StatusWithClosedOutput(bool registersCallback) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) _exit(2);
    close(ends[0]);
    signal(SIGPIPE, SIG_DFL);
    if (registersCallback) orvex_register_log_cb(DropMessage);
    metadata_query_fptrs_s callbacks = Host::Callbacks();
    _exit(orvex_init(&callbacks));
  }
  int status = -1;
  REQUIRE(waitpid(child, &status, 0) == child);
  return status;
}

}  // namespace

TEST_CASE("a closed standard output ends a host that registered no log callback") {
  const int alone = StatusWithClosedOutput(false);
  CHECK(WIFSIGNALED(alone));
  CHECK(WTERMSIG(alone) == SIGPIPE);
  CHECK(StatusWithClosedOutput(true) == 0);
}

namespace {

std::jmp_buf outOfCallback;

int JumpOut(metadata_input_s*, metadata_output_s*, void*) { std::longjmp(outOfCallback, 1); }

}  // namespace

TEST_CASE("a path whose callback was left by longjmp stays marked until the engine stops") {
  const CountedSleep sleep;
  RecordedLog log;
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  callbacks.metaQueryCallback = JumpOut;
  REQUIRE(orvex_init(&callbacks) == 0);
  static metadata_input_s in = Asking("/a", QUERY_DIGEST32);
  static metadata_output_s out{};
  if (setjmp(outOfCallback) == 0) orvex_query(&in, &out, nullptr);
  auto waiting = std::async(std::launch::async, [] { return orvex_query(&in, &out, nullptr); });
  log.WaitFor(kWaiting);
  CHECK(orvex_deinit() == 0);
  CHECK(waiting.get() == ORVEX_CACHE_NOT_INITIALISED);
  CHECK(log.CountOf("still running after max retry") > 0);
}

namespace {

// Built before the engine, and so destroyed after it.
struct ExitsInPeace {
  ~ExitsInPeace() {
    if (expected) _exit(orvex_get_status() == ORVEX_NOT_INITIALISED ? 0 : 1);
  }
  bool expected = false;
} exitsInPeace;

std::unique_ptr<orvexeng::engine> heldByGlobal;

}  // namespace

TEST_CASE("an engine in a global pointer is destroyed at exit without harm") {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    exitsInPeace.expected = true;
    const auto none = [](metadata_input_s&, orvexeng::answer&) { return 1; };
    heldByGlobal = std::make_unique<orvexeng::engine>(none, none);
    std::exit(2);
  }
  int status = -1;
  REQUIRE(waitpid(child, &status, 0) == child);
  CHECK(status == 0);
}

TEST_CASE("a dump logs file types at INFO and everything else at DEBUG") {
  EngineUnderTest engine;
  metadata_input_s in = Asking("/a", QUERY_DIGEST32 | QUERY_FILE_TYPE);
  in.invOperation = INV_KEEP_IN_CACHE;
  Answer out;
  REQUIRE(engine.Query(in, out) == 0);
  const struct {
    int level;
    int nodes;
    int keys;
  } rows[] = {{2, 0, 0}, {3, 1, 0}, {4, 2, 2}, {9, 2, 2}};
  for (const auto& row : rows) {
    CAPTURE(row.level);
    RecordedLog log(static_cast<ORVEX_LOG>(row.level));
    orvex_dump_cache();
    CHECK(log.CountOf("Node: ") == row.nodes);
    CHECK(log.CountOf("Key: ") == row.keys);
  }
}
