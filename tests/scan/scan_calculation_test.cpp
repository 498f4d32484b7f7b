// The callbacks behind the engine, when files change under them.
#include <doctest/doctest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "ask/calculation.h"
#include "file/identity.h"
#include "harness/calculating_host.h"
#include "harness/temporary_directory.h"

using orvexscan::Calculation;
using orvexscan::FailureReason;
using orvexscan::Identity;
using orvexscan::IdentityOf;

TEST_CASE("a file that vanishes before it is read is reported as vanished") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  std::filesystem::remove(path);
  Calculation calculation(&host.tools, identity, host.rules);
  CHECK(host.Query(path, identity, &calculation) == static_cast<int>(FailureReason::kVanished));
  REQUIRE(calculation.failure());
  CHECK(calculation.failure()->reason() == FailureReason::kVanished);
  CHECK_FALSE(calculation.hashed());
}

TEST_CASE("a file that differs by the time it is read is reported as changed") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  directory.Write("file", "longer");
  Calculation calculation(&host.tools, identity, host.rules);
  CHECK(host.Query(path, identity, &calculation) == static_cast<int>(FailureReason::kChanged));
  REQUIRE(calculation.failure());
  CHECK(std::string(calculation.failure()->what()) == "changed before it was read");
}

TEST_CASE("a file that has become a link by the time it is read is not followed") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  std::filesystem::rename(path, directory.PathOf("moved"));
  std::filesystem::create_symlink("moved", path);
  Calculation calculation(&host.tools, identity, host.rules);
  CHECK(host.Query(path, identity, &calculation) == static_cast<int>(FailureReason::kChanged));
}

TEST_CASE("a failure is not kept: the file is calculated as soon as it can be") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("in/file", "x");
  const Identity identity = IdentityOf(path, false);
  // With its directory, so that the file itself does not change.
  std::filesystem::rename(directory.PathOf("in"), directory.PathOf("moved"));
  Calculation failing(&host.tools, identity, host.rules);
  CHECK(host.Query(path, identity, &failing) != 0);
  std::filesystem::rename(directory.PathOf("moved"), directory.PathOf("in"));
  Calculation calculating(&host.tools, identity, host.rules);
  CHECK(host.Query(path, identity, &calculating) == 0);
  CHECK(calculating.hashed());
  Calculation cached(&host.tools, identity, host.rules);
  CHECK(host.Query(path, identity, &cached) == 0);
  CHECK_FALSE(cached.hashed());
}

TEST_CASE("a changed file is calculated again although its older version is cached") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity older = IdentityOf(path, false);
  Calculation first(&host.tools, older, host.rules);
  CHECK(host.Query(path, older, &first) == 0);
  directory.Write("file", "longer");
  const Identity newer = IdentityOf(path, false);
  Calculation second(&host.tools, newer, host.rules);
  CHECK(host.Query(path, newer, &second) == 0);
  CHECK(second.hashed());
  CHECK(second.bytesHashed() == 6);
}

TEST_CASE("a file that takes too long to read has no answer, and the report says why") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  orvexscan::ReadingRules noTime = host.rules;
  noTime.timeLimit = {};
  Calculation calculation(&host.tools, identity, noTime);
  CHECK(host.Query(path, identity, &calculation) == static_cast<int>(FailureReason::kTime));
  REQUIRE(calculation.failure());
  CHECK(calculation.failure()->reason() == FailureReason::kTime);
  CHECK_FALSE(host.IsCached(path, identity));
}

TEST_CASE("a file that changes after it was opened gets no digests") {
  const TemporaryDirectory directory;
  orvexscan::Tools tools;
  const orvexscan::ReadingRules rules{false, orvexscan::Settling({})};
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  metadata_input_s in = orvexscan::QueryFor(path, identity);
  orvexeng::answer out;
  Calculation calculation(&tools, identity, rules);
  const orvexeng::callbacks callbacks = calculation.Callbacks();
  REQUIRE(callbacks.file_type(in, out) == 0);  // opens it
  directory.Write("file", "longer");
  CHECK(callbacks.hash(in, out) == static_cast<int>(FailureReason::kChanged));
  CHECK(out.queryFlags == QUERY_FILE_TYPE);
}
