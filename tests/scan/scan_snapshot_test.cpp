// A scan that starts with what an earlier one found out.
#include <doctest/doctest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "harness/scan_run.h"
#include "harness/signed_pe.h"
#include "harness/temporary_directory.h"

namespace {

constexpr const char kScan[] = "--json - --settle 0 --passes 1 --snapshot snapshot in";

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

nlohmann::json Report(const TemporaryDirectory& directory, const std::string& arguments = kScan) {
  const ScanRun run = RunScan(directory.path(), arguments);
  CHECK(run.exitCode == 0);
  return run.Json();
}

std::string SnapshotIn(const TemporaryDirectory& directory) {
  return OutputOf(directory.path(), "cat snapshot");
}

// Whether a run that finds the snapshot as it is says so in one line, ignores it, and
// leaves a good one behind.
void CheckIgnored(const TemporaryDirectory& directory, const std::string& reason,
                  const std::string& arguments = kScan) {
  CAPTURE(reason);
  const nlohmann::json report = Report(directory, arguments);
  REQUIRE(report["notes"].size() == 1);
  CHECK(report["notes"][0] == "The snapshot snapshot is ignored: " + reason);
  CHECK(report["passes"][0]["hashCache"]["hits"] == 0);
  CHECK(report["passes"][0]["fileTypeCache"]["hits"] == 0);
  CHECK(Report(directory, arguments)["passes"][0]["failed"] == 0);
}

}  // namespace

TEST_CASE("a second process answers everything from the snapshot of the first") {
  const TemporaryDirectory directory;
  directory.Write("in/plain", "x");
  directory.Write("in/empty", "");
  directory.Write("in/byte\xff", "y");
  directory.Write("in/signed.exe", PeFile(Join(TableEntry(Signature("First Signer")),
                                               TableEntry(Signature("Gr\xc3\xbc\xc3\x9f")))));
  directory.Write("in/bad.exe", PeFile(TableEntry(Signature("Signer")), true, 1 << 20));
  REQUIRE(OutputOf(directory.path(), "touch -d @0 in/plain && echo done") == "done\n");
  for (const std::string mode : {"mtime", "ctime", "strict"}) {
    CAPTURE(mode);
    const std::string arguments = "--identity " + mode + " " + kScan;
    std::filesystem::remove(directory.PathOf("snapshot"));
    const nlohmann::json cold = Report(directory, arguments);
    const nlohmann::json warm = Report(directory, arguments);
    CHECK(cold["notes"].empty());
    CHECK(cold["passes"][0]["hashCache"]["callbacks"] == 5);
    CHECK(warm["notes"] == nlohmann::json{"5 of 5 answers in the snapshot still hold"});
    CHECK(warm["passes"][0]["hashCache"]["callbacks"] == 0);
    CHECK(warm["passes"][0]["hashCache"]["hits"] == 5);
    CHECK(warm["passes"][0]["fileTypeCache"]["callbacks"] == 0);
    CHECK(warm["passes"][0]["fileTypeCache"]["hits"] == 5);
    CHECK(warm["files"] == cold["files"]);
  }
}

TEST_CASE("a snapshot serves a third process as it did the second") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string first = SnapshotIn(directory);
  Report(directory);
  CHECK(SnapshotIn(directory) == first);
}

TEST_CASE("a file that changed since the snapshot is calculated anew") {
  const TemporaryDirectory directory;
  directory.Write("in/same", "x");
  directory.Write("in/changed", "x");
  directory.Write("in/gone", "x");
  // By ctime, even where the rest of the scan would not look at it.
  for (const std::string mode : {"mtime", "ctime", "strict"}) {
    CAPTURE(mode);
    const std::string arguments = "--identity " + mode + " " + kScan;
    directory.Write("in/changed", "x");
    directory.Write("in/gone", "x");
    std::filesystem::remove(directory.PathOf("snapshot"));
    Report(directory, arguments);
    REQUIRE(OutputOf(directory.path(),
                     "before=$(stat -c %z in/changed) && touch -r in/changed times && "
                     "until [ \"$before\" != \"$(stat -c %z in/changed)\" ]; do "
                     "printf y >in/changed && touch -r times in/changed; done && "
                     "rm in/gone && echo done") == "done\n");
    const nlohmann::json report = Report(directory, arguments);
    CHECK(report["notes"] == nlohmann::json{"1 of 3 answers in the snapshot still hold"});
    CHECK(report["passes"][0]["hashCache"]["hits"] == 1);
    CHECK(report["passes"][0]["hashCache"]["callbacks"] == 1);
    CHECK(report["passes"][0]["fileTypeCache"]["callbacks"] == 1);
    CHECK(FileIn(report, "in/changed")["answer"]["sha256"] ==
          OutputOf(directory.path(), "sha256sum in/changed").substr(0, 64));
  }
}

TEST_CASE("the answer about a young file is not written") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  const std::string arguments = "--json - --follow --snapshot snapshot in /bin/sh";
  Report(directory, arguments);
  const nlohmann::json report = Report(directory, arguments);
  CHECK(report["notes"] == nlohmann::json{"1 of 1 answers in the snapshot still hold"});
  CHECK(report["passes"][0]["unsettled"] == 1);
}

TEST_CASE("what is malformed is told in one line and ignored") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  const auto damaged = [&good](const std::string& part, const std::string& other) {
    const size_t at = good.find(part);
    REQUIRE(at != std::string::npos);
    return std::string(good).replace(at, part.size(), other);
  };
  const std::string noise(1000, '\xff');
  for (const std::string& content :
       {std::string(), std::string("{}"), std::string("[1,2]"), std::string("null"),
        std::string("7"), noise, std::string(100000, '['), good.substr(0, good.size() / 2),
        good.substr(0, good.size() - 3), good + good, damaged("\"major\"", "\"mayor\""),
        damaged("\"inode\": ", "\"inode\": \"\" + "), damaged("\"md5\": \"", "\"md5\": \"0"),
        damaged("\"md5\": \"9", "\"md5\": \"x"), damaged("\"signers\": []", "\"signers\": 5"),
        damaged("\"signers\": []", "\"signers\": [\"4\"]"),
        damaged("\"signers\": []", "\"signers\": [4]"),
        damaged("\"answers\": [", "\"answers\": [null, ")}) {
    CAPTURE(content);
    directory.Write("snapshot", content);
    CheckIgnored(directory, "it is malformed");
  }
}

TEST_CASE("no cut of a snapshot takes the tool down") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  for (size_t length = 0; length < good.size() - 2; length += 61) {
    CAPTURE(length);
    directory.Write("snapshot", good.substr(0, length));
    CheckIgnored(directory, "it is malformed");
  }
}

TEST_CASE("a snapshot of another version, mode or trust is told and ignored") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  const auto rewrite = [&](const std::string& part, const std::string& other) {
    const size_t at = good.find(part);
    REQUIRE(at != std::string::npos);
    directory.Write("snapshot", std::string(good).replace(at, part.size(), other));
  };
  for (const char* part : {"\"snapshot\": ", "\"libmagic\": "}) {
    rewrite(part, std::string(part) + "9");
    CheckIgnored(directory, "another version of the tool wrote it");
  }
  rewrite("\"tool\": \"", "\"tool\": \"9");
  CheckIgnored(directory, "another version of the tool wrote it");
  rewrite("", "");
  CheckIgnored(directory, "it was written with another --identity",
               "--identity strict --json - --settle 0 --snapshot snapshot in");
  rewrite("", "");
  CheckIgnored(directory, "it was written with a shorter --settle",
               "--json - --settle 1 --snapshot snapshot in");
}

TEST_CASE("a snapshot that others could have written is told and ignored") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  for (const mode_t mode : {0620U, 0602U}) {
    Report(directory);
    REQUIRE(chmod(directory.PathOf("snapshot").c_str(), mode) == 0);
    CheckIgnored(directory, "others may write to it");
  }
  // Only the superuser can give a file away.
  if (geteuid() == 0) {
    REQUIRE(chown(directory.PathOf("snapshot").c_str(), 1, 1) == 0);
    CheckIgnored(directory, "it belongs to another user");
  }
}

TEST_CASE("a snapshot is for its user alone and leaves nothing else behind") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  CHECK(OutputOf(directory.path(), "umask 0 && " ORVEX_SCAN " --snapshot snapshot in >/dev/null; "
                                   "stat -c %a snapshot && ls") == "600\nin\nsnapshot\n");
}

TEST_CASE("a snapshot that cannot be written is no success, and the report is there") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  std::filesystem::create_directory(directory.PathOf("directory"));
  REQUIRE(OutputOf(directory.path(), "mkfifo pipe && ln -s new link && echo done") == "done\n");
  for (const std::string name : {"nowhere/at/all", "directory", "pipe", "link"}) {
    CAPTURE(name);
    const ScanRun run = RunScan(directory.path(), "--json - --snapshot " + name + " in");
    CHECK(run.exitCode == 1);
    CHECK(run.Json()["files"].size() == 1);
    CHECK(Contains(run.errors, "orvex-scan: " + name + " cannot be written: "));
  }
  CHECK(OutputOf(directory.path(), "ls") == "directory\nin\nlink\npipe\n");
}

TEST_CASE("a small cache takes from a snapshot what is asked about first") {
  const TemporaryDirectory directory;
  for (int i = 1; i <= 5; ++i) directory.Write("in/" + std::to_string(i), "x");
  Report(directory);
  const std::string scan =
      "--json - --settle 0 --passes 1 --threads 1 --capacity 3 --snapshot snapshot in";
  const nlohmann::json report = Report(directory, scan);
  CHECK(report["passes"][0]["hashCache"]["hits"] == 3);
  CHECK(report["passes"][0]["fileTypeCache"]["hits"] == 3);
  // A new file that comes first costs the place of the last one, not of the next.
  directory.Write("in/0", "x");
  CHECK(Report(directory, scan)["passes"][0]["hashCache"]["hits"] == 2);
}
