// Which digests are calculated, and that each is called what it is.
#include <doctest/doctest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "content/digests.h"
#include "harness/contains.h"
#include "harness/real_function.h"
#include "harness/scan_run.h"
#include "harness/temporary_directory.h"
#include "harness/watching_scan.h"

namespace {

std::atomic<int> updates{0};

// Those of "abc", from the standards.
const struct {
  const char* name;
  const char* digest;
} kKnown[] = {{"md5", "900150983cd24fb0d6963f7d28e17f72"},
              {"ripemd160", "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc"},
              {"sha1", "a9993e364706816aba3e25717850c26c9cd0d89d"},
              {"blake2s256", "508c5e8c327c14e2e1a72ba34eeb452f37458b209ed63a294d999b4c86675982"},
              {"sha256", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
              {"sha3-256", "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532"},
              {"sha512-256", "53048e2681941ef99b2e29b76b4c7dabe4c2d0c634fc6d46e0e2f13107e7af23"},
              {"sm3", "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"}};

// The digests in the answer, by name.
nlohmann::json DigestsIn(const nlohmann::json& report) {
  nlohmann::json digests;
  for (const auto& [name, value] : report["files"][0]["answer"].items()) {
    if (value.is_string() && value.get<std::string>().size() >= 32) digests[name] = value;
  }
  return digests;
}

}  // namespace

// Counts, and does the work as well.
extern "C" int EVP_DigestUpdate(EVP_MD_CTX* context, const void* bytes, size_t count) {
  static const auto real = RealFunction<decltype(EVP_DigestUpdate)>("EVP_DigestUpdate");
  ++updates;
  return real(context, bytes, count);
}

TEST_CASE("a digest that is chosen is in the report under its name, and no other") {
  const TemporaryDirectory directory;
  directory.Write("file", "abc");
  for (const auto& known : kKnown) {
    CAPTURE(known.name);
    const ScanRun run = RunScan(
        directory.path(), std::string("--settle 0 --json - --digests ") + known.name + " file");
    const nlohmann::json report = run.Json();
    CHECK(DigestsIn(report) == nlohmann::json{{known.name, known.digest}});
    CHECK(report["options"]["digests"] == nlohmann::json{known.name});
    CHECK(report["passes"][1]["hashCache"]["hits"] == 1);
    CHECK(Contains(run.errors, std::string(known.name) + " "));
    CHECK(Contains(run.errors, known.digest));
  }
}

TEST_CASE("digests are called by one name, however they are chosen") {
  const TemporaryDirectory directory;
  directory.Write("file", "abc");
  for (const std::string names : {"sha256,md5", "SHA2-256,MD5", "sha-256,Md5"}) {
    CAPTURE(names);
    const nlohmann::json report =
        RunScan(directory.path(), "--json - --digests " + names + " file").Json();
    CHECK(report["options"]["digests"] == nlohmann::json{"md5", "sha256"});
    CHECK(DigestsIn(report).size() == 2);
  }
}

TEST_CASE("only the digests that are chosen are calculated") {
  const unsigned char byte = 0;
  for (const char* names : {"md5", "sha256", "md5,sm3", "md5,sha1,sha256"}) {
    CAPTURE(names);
    const orvexscan::DigestChoice choice = orvexscan::DigestsNamed(names);
    orvexscan::Digests digests(choice);
    const int before = updates;
    digests.Add(&byte, 1);
    CHECK(updates - before == static_cast<int>(orvexscan::NamesOf(choice).size()));
    metadata_output_s answer{};
    digests.Finish(&answer);
    CHECK(answer.queryFlags == orvexscan::PartsOf(choice));
  }
}

TEST_CASE("a digest that the engine has no place for is refused with those it has") {
  const TemporaryDirectory directory;
  for (const std::string name : {"sha257", "blake2b512", "shake128", "md5-sha1", ""}) {
    CAPTURE(name);
    for (const std::string& list : {name, "md5," + name}) {
      const ScanRun run = RunScan(directory.path(), "--digests '" + list + "' .");
      CHECK(run.exitCode == 2);
      CHECK(run.errors.find("--digests: '" + name + "' is not one of ") == 0);
      CHECK(Contains(run.errors, ", sha1, sha256, "));
    }
  }
}

TEST_CASE("a snapshot answers for the digests that it was written with") {
  const TemporaryDirectory directory;
  directory.Write("file", "abc");
  const std::string scan = "--json - --settle 0 --passes 1 --snapshot snapshot --digests ";
  const nlohmann::json cold = RunScan(directory.path(), scan + "sm3,md5 file").Json();
  const nlohmann::json warm = RunScan(directory.path(), scan + "md5,sm3 file").Json();
  CHECK(warm["passes"][0]["fromSnapshot"] == 1);
  CHECK(DigestsIn(cold).size() == 2);
  CHECK(DigestsIn(warm) == DigestsIn(cold));
  const nlohmann::json other = RunScan(directory.path(), scan + "md5,sha3-256 file").Json();
  REQUIRE(other["notes"].size() == 1);
  CHECK(Contains(other["notes"][0], "it was written with other --digests"));
  CHECK(other["passes"][0]["fromSnapshot"] == 0);
  CHECK(DigestsIn(other)["sha3-256"] == kKnown[5].digest);
}

TEST_CASE("a baseline is compared by a digest that both runs have") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "abc");
  directory.Write("in/other", "other");
  REQUIRE(RunScan(directory.path(), "--json report in").exitCode == 0);
  directory.Write("in/file", "xyz");
  const std::string scan = "--json - --baseline report --digests ";
  const ScanRun same = RunScan(directory.path(), scan + "md5 in");
  CHECK(same.exitCode == 4);
  REQUIRE(same.Json()["differences"].size() == 1);
  CHECK(same.Json()["differences"][0]["change"] == "changed");
  const ScanRun other = RunScan(directory.path(), scan + "md5,sm3 in");
  CHECK(other.exitCode == 2);
  CHECK(Contains(other.errors, "the baseline report cannot be used: it has no sm3"));
}

TEST_CASE("a line of CSV has a column for each digest that is chosen") {
  const TemporaryDirectory directory;
  directory.Write("file", "abc");
  const std::string csv =
      RunScan(directory.path(), "--format csv --no-type --digests sha3-256 file missing").output;
  CHECK(csv.find("path,size,mtimeNs,sha3-256,type,signature,unverifiedSigners,failure\r\n") == 0);
  CHECK(Contains(csv, std::string(",") + kKnown[5].digest + ",,,,\r\n"));
  CHECK(Contains(csv, "\r\nmissing,,,,,,,walk: No such file or directory\r\n"));
}

TEST_CASE("a change is reported with the longest digest chosen") {
  const TemporaryDirectory directory;
  directory.Write("file", "abc");
  WatchingScan scan(directory.path(), {"--digests", "md5,ripemd160", "file"});
  directory.Write("file", "xyz");
  const ChangeLine change = scan.Next();
  CHECK(change.what == "changed");
  CHECK(change.digests.find("8eb208f7e05d -> ") == 0);
}
