// The C++ header: owning answers, callables, the engine as an object.
#include <doctest/doctest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "harness/records.h"
#include "orvexeng.hpp"

namespace {

using Views = std::vector<std::string_view>;

int NoAnswer(metadata_input_s&, orvexeng::answer&) { return 1; }

int Signed(metadata_input_s&, orvexeng::answer& out) {
  out.set_signers({"First", "Second"});
  return 0;
}

metadata_input_s AskingForSigners() {
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  return in;
}

// The code of the error that starting an engine throws, or 0.
int CodeOfStart(orvexeng::callback hash, orvexeng::callback fileType) {
  try {
    const orvexeng::engine engine(std::move(hash), std::move(fileType));
    return 0;
  } catch (const orvexeng::error& error) {
    return error.code();
  }
}

}  // namespace

TEST_CASE("an engine runs from its construction to its destruction") {
  CHECK(orvex_get_status() == ORVEX_NOT_INITIALISED);
  {
    const orvexeng::engine engine(NoAnswer, NoAnswer);
    CHECK(orvex_get_status() == ORVEX_INITIALISED);
  }
  CHECK(orvex_get_status() == ORVEX_NOT_INITIALISED);
}

TEST_CASE("an engine that cannot start throws the code and leaves what runs alone") {
  CHECK(CodeOfStart(nullptr, NoAnswer) == ORVEX_INVALID_CALLBACKS);
  CHECK(CodeOfStart(NoAnswer, nullptr) == ORVEX_INVALID_CALLBACKS);
  CHECK(orvex_get_status() == ORVEX_NOT_INITIALISED);
  const orvexeng::engine first(NoAnswer, NoAnswer);
  CHECK(CodeOfStart(NoAnswer, NoAnswer) == ORVEX_INITIALISED);
  CHECK(orvex_get_status() == ORVEX_INITIALISED);
}

TEST_CASE("each callable answers for its own cache") {
  orvexeng::engine engine(
      [](metadata_input_s&, orvexeng::answer& out) {
        out.digest32[0] = 7;
        out.add(QUERY_DIGEST32);
        return 0;
      },
      [](metadata_input_s&, orvexeng::answer& out) {
        out.major = 3;
        out.add(QUERY_FILE_TYPE);
        return 0;
      });
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_DIGEST32 | QUERY_FILE_TYPE;
  orvexeng::answer out;
  CHECK(engine.query(in, out) == 0);
  CHECK(out.has(in.queryFlags));
  CHECK(out.digest32[0] == 7);
  CHECK(out.major == 3);
  CHECK(engine.metrics().cacheHelpFuncCalled == 1);
  CHECK(engine.metrics().fileTypeHelpFuncCalled == 1);
}

TEST_CASE("a query with callables of its own asks those and not the engine's") {
  orvexeng::engine engine(NoAnswer, NoAnswer);
  int calls = 0;
  const orvexeng::callbacks calculate{[&](metadata_input_s& in, orvexeng::answer& out) {
                                        ++calls;
                                        return Signed(in, out);
                                      },
                                      NoAnswer};
  orvexeng::answer out;
  CHECK(engine.query(AskingForSigners(), out, calculate) == 0);
  CHECK(calls == 1);
  CHECK(out.signer_names() == Views{"First", "Second"});
  CHECK(engine.query(AskingForSigners(), out, calculate) == 0);
  CHECK(calls == 1);
  CHECK(engine.query(AskingForSigners(), out) == 0);
  CHECK(engine.metrics().cacheHit == 2);
}

TEST_CASE("an engine without callables answers queries that bring them, and no others") {
  orvexeng::engine engine;
  orvexeng::answer out;
  CHECK(engine.query(AskingForSigners(), out) == orvexeng::callback_threw);
  CHECK(engine.query(AskingForSigners(), out, {nullptr, NoAnswer}) == orvexeng::callback_threw);
  CHECK(engine.query(AskingForSigners(), out, {Signed, nullptr}) == 0);
  CHECK_THROWS_AS(orvexeng::engine(), orvexeng::error);
}

TEST_CASE("signers go through the cache and come back as names") {
  orvexeng::engine engine(Signed, NoAnswer);
  for (const char* pass : {"calculated", "cached"}) {
    CAPTURE(pass);
    orvexeng::answer out;
    CHECK(out.signer_names().empty());
    CHECK(engine.query(AskingForSigners(), out) == 0);
    CHECK(out.signer_names() == Views{"First", "Second"});
  }
  CHECK(engine.metrics().cacheHit == 1);
}

TEST_CASE("a signer name is cut to what its slot holds") {
  orvexeng::answer out;
  const std::string name(300, 'n');
  out.set_signers({name, "after"});
  CHECK(out.signer_names() == Views{std::string_view(name).substr(0, 256), "after"});
  out.set_signers({});
  CHECK(out.has(QUERY_SIGNERS));
  CHECK(out.signers == nullptr);
  CHECK(out.signer_names().empty());
}

TEST_CASE("an answer can be moved and not copied, and leaves an empty one behind") {
  static_assert(!std::is_copy_constructible_v<orvexeng::answer>);
  static_assert(!std::is_copy_assignable_v<orvexeng::answer>);
  orvexeng::answer from;
  from.set_signers({"Name"});
  orvexeng::answer made(std::move(from));
  CHECK(from.signers == nullptr);
  CHECK(from.queryFlags == 0);
  orvexeng::answer assigned;
  assigned.set_signers({"Freed by the assignment"});
  assigned = std::move(made);
  CHECK(made.signers == nullptr);
  CHECK(assigned.signer_names() == Views{"Name"});
}

TEST_CASE("a query resets its answer, so that nothing of an earlier one counts as present") {
  orvexeng::engine engine(NoAnswer, NoAnswer);
  orvexeng::answer out;
  out.set_signers({"Of another file"});
  CHECK(engine.query(AskingForSigners(), out) == 1);
  CHECK(out.queryFlags == 0);
  CHECK(out.signer_names().empty());
}

TEST_CASE("a callback's veto does not reach the caller's record") {
  orvexeng::engine engine(
      [](metadata_input_s& in, orvexeng::answer& out) {
        in.invOperation = 0;
        return Signed(in, out);
      },
      NoAnswer);
  const metadata_input_s in = AskingForSigners();
  orvexeng::answer out;
  CHECK(engine.query(in, out) == 0);
  CHECK(in.invOperation == INV_KEEP_IN_CACHE);
  CHECK(engine.query(in, out) == 0);
  CHECK(engine.metrics().cacheMiss == 2);
}

TEST_CASE("what a callback throws becomes a code and nothing is stored") {
  const struct {
    const char* thrown;
    orvexeng::callback callback;
    int code;
  } rows[] = {
      {"memory", [](metadata_input_s&, orvexeng::answer&) -> int { throw std::bad_alloc(); },
       ORVEX_NO_MEMORY},
      {"an exception",
       [](metadata_input_s&, orvexeng::answer&) -> int { throw std::runtime_error("no"); },
       orvexeng::callback_threw},
      {"a number", [](metadata_input_s&, orvexeng::answer&) -> int { throw 5; },
       orvexeng::callback_threw}};
  for (const auto& row : rows) {
    CAPTURE(row.thrown);
    orvexeng::engine engine(row.callback, row.callback);
    metadata_input_s in = AskingForSigners();
    orvexeng::answer out;
    CHECK(engine.query(in, out) == row.code);
    in.queryFlags = QUERY_FILE_TYPE;
    CHECK(engine.query(in, out) == row.code);
    in.invOperation = INV_CACHE_ONLY;
    in.queryFlags = QUERY_SIGNERS;
    CHECK(engine.query(in, out) == 0);
    CHECK(out.resultReady == 0);
  }
}

TEST_CASE("a hash query without a path throws") {
  orvexeng::engine engine(NoAnswer, NoAnswer);
  orvexeng::answer out;
  metadata_input_s in = AskingForSigners();
  in.path = nullptr;
  CHECK_THROWS_AS(static_cast<void>(engine.query(in, out)), std::logic_error);
}

namespace {

int linesLogged = 0;

void CountLine(unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {
  ++linesLogged;
}

int Fill(metadata_input_s& in, orvexeng::answer& out) {
  if (in.queryFlags == QUERY_FILE_TYPE) return 1;
  out.set_signers({"Name"});
  out.add(in.queryFlags);
  return 0;
}

int FillRecord(metadata_input_s* in, metadata_output_s* out, void*) {
  out->queryFlags |= in->queryFlags;
  return 0;
}

bool Asks() {
  metadata_input_s in = InputFor("/a path that a string does not hold in itself");
  in.queryFlags = QUERY_DIGEST32 | QUERY_FILE_TYPE;
  metadata_output_s out{};
  return orvex_query(&in, &out, nullptr) == 0;
}

bool StartsAndAsks() {
  metadata_query_fptrs_s callbacks{FillRecord, FillRecord};
  return orvex_init(&callbacks) == 0 && Asks();
}

// What the functions return once the library has been destroyed. None logs anything.
bool LibraryIsOver() {
  const int linesBefore = linesLogged;
  metadata_query_fptrs_s callbacks{FillRecord, FillRecord};
  metadata_input_s in = InputFor("/another path that a string does not hold in itself");
  in.queryFlags = QUERY_DIGEST32 | QUERY_FILE_TYPE;
  metadata_output_s out{};
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  const int refusals[] = {orvex_deinit(),
                          orvex_get_status(),
                          orvex_query(&in, &out, nullptr),
                          orvex_get_metrics(&metrics, sizeof metrics, &size),
                          orvex_reset_metrics(),
                          orvex_init(&callbacks),
                          orvex_get_status()};
  for (const int code : refusals) {
    if (code != ORVEX_NOT_INITIALISED) return false;
  }
  orvex_dump_metrics();
  orvex_dump_cache();
  for (const int cache : {ORVEX_HASH_CACHE, ORVEX_FILE_TYPE_CACHE}) {
    if (orvex_flush_cache(cache) != 0 || orvex_set_cache_capacity(cache, 1) != 0) return false;
  }
  return orvex_update_metadata(&in, &out) == 0 && linesLogged == linesBefore;
}

bool handlerIsContent = true;

void ExpectTheEnd() { handlerIsContent = LibraryIsOver(); }

void AskAndStop() { handlerIsContent = Asks() && orvex_deinit() == 0; }

// Constructed before the objects below, so destroyed last.
struct LastToGo {
  ~LastToGo() {
    if (decides) _exit(handlerIsContent && LibraryIsOver() ? 0 : 1);
  }
  bool decides = false;
} lastToGo;

std::unique_ptr<orvexeng::engine> heldByPointer;
std::optional<orvexeng::engine> heldByOptional;

// The status of a child that lives like this and then exits; 0 if all went well.
template <typename Life>
int StatusOf(Life life) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    lastToGo.decides = true;
    orvex_register_log_cb(CountLine);
    if (!life()) _exit(2);
    std::exit(3);
  }
  int status = -1;
  REQUIRE(waitpid(child, &status, 0) == child);
  return status;
}

}  // namespace

TEST_CASE("an engine held by a global outlives the library's objects and stops without harm") {
  metadata_input_s in = AskingForSigners();
  in.path = "/a path that a string does not hold in itself";
  orvexeng::answer out;
  CHECK(StatusOf([&] {
          heldByPointer = std::make_unique<orvexeng::engine>(Fill, Fill);
          return heldByPointer->query(in, out) == 0;
        }) == 0);
  CHECK(StatusOf([&] {
          heldByOptional.emplace(Fill, Fill);
          return heldByOptional->query(in, out) == 0;
        }) == 0);
}

TEST_CASE("every function answers an exit handler as before the start and touches nothing") {
  CHECK(StatusOf([] { return std::atexit(ExpectTheEnd) == 0 && StartsAndAsks(); }) == 0);
  CHECK(StatusOf([] {
          return orvex_set_cache_capacity(ORVEX_HASH_CACHE, 7) == 0 &&
                 std::atexit(ExpectTheEnd) == 0 && StartsAndAsks();
        }) == 0);
}

TEST_CASE("an exit handler that comes after the first call finds the engine as it was left") {
  CHECK(StatusOf([] {
          return orvex_get_status() == ORVEX_NOT_INITIALISED && std::atexit(AskAndStop) == 0 &&
                 StartsAndAsks();
        }) == 0);
}
