// The callbacks behind the engine, when a file does not stay what it was.
#include <doctest/doctest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "calculation.h"
#include "engine_log.h"
#include "identity.h"
#include "support/temporary_directory.h"

using orvexscan::Calculation;
using orvexscan::FailureReason;
using orvexscan::Identity;
using orvexscan::IdentityOf;

namespace {

// The engine with the tool's callbacks, and one worker's tools.
class CalculatingHost {
 public:
  CalculatingHost() {
    orvexscan::TakeEngineLog(false);
    metadata_query_fptrs_s callbacks = Calculation::Callbacks();
    REQUIRE(orvex_init(&callbacks) == 0);
  }
  ~CalculatingHost() { orvex_deinit(); }

  int Query(const std::string& path, const Identity& identity, Calculation* calculation) {
    metadata_input_s in = orvexscan::QueryFor(path, identity);
    metadata_output_s out{};
    const int code = orvex_query(&in, &out, calculation);
    delete[] out.signers;
    return code;
  }

  orvexscan::Tools tools;
};

}  // namespace

TEST_CASE("a file that vanishes before it is read is told as vanished") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  std::filesystem::remove(path);
  Calculation calculation(&host.tools, false);
  CHECK(host.Query(path, identity, &calculation) == static_cast<int>(FailureReason::kVanished));
  REQUIRE(calculation.failure());
  CHECK(calculation.failure()->reason() == FailureReason::kVanished);
  CHECK_FALSE(calculation.hashed());
}

TEST_CASE("a file that is another one by the time it is read is told as changed") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  directory.Write("file", "longer");
  Calculation calculation(&host.tools, false);
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
  Calculation calculation(&host.tools, false);
  CHECK(host.Query(path, identity, &calculation) == static_cast<int>(FailureReason::kChanged));
}

TEST_CASE("a failure is not kept: the file is calculated as soon as it can be") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  std::filesystem::rename(path, directory.PathOf("moved"));
  Calculation failing(&host.tools, false);
  CHECK(host.Query(path, identity, &failing) != 0);
  std::filesystem::rename(directory.PathOf("moved"), path);
  Calculation calculating(&host.tools, false);
  CHECK(host.Query(path, identity, &calculating) == 0);
  CHECK(calculating.hashed());
  Calculation cached(&host.tools, false);
  CHECK(host.Query(path, identity, &cached) == 0);
  CHECK_FALSE(cached.hashed());
}

TEST_CASE("a changed file is calculated anew although its older self is cached") {
  const TemporaryDirectory directory;
  CalculatingHost host;
  const std::string path = directory.Write("file", "x");
  Calculation first(&host.tools, false);
  CHECK(host.Query(path, IdentityOf(path, false), &first) == 0);
  directory.Write("file", "longer");
  Calculation second(&host.tools, false);
  CHECK(host.Query(path, IdentityOf(path, false), &second) == 0);
  CHECK(second.hashed());
  CHECK(second.bytesHashed() == 6);
}

TEST_CASE("a file that changes after it was opened gets no digests") {
  const TemporaryDirectory directory;
  orvexscan::Tools tools;
  const std::string path = directory.Write("file", "x");
  metadata_input_s in = orvexscan::QueryFor(path, IdentityOf(path, false));
  metadata_output_s out{};
  Calculation calculation(&tools, false);
  const metadata_query_fptrs_s callbacks = Calculation::Callbacks();
  REQUIRE(callbacks.fileTypeQueryCallback(&in, &out, &calculation) == 0);  // opens it
  directory.Write("file", "longer");
  CHECK(callbacks.metaQueryCallback(&in, &out, &calculation) ==
        static_cast<int>(FailureReason::kChanged));
  CHECK(out.queryFlags == QUERY_FILE_TYPE);
  delete[] out.signers;
}
