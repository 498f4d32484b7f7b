// A scan that starts from what an earlier one found.
#include <doctest/doctest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "harness/contains.h"
#include "harness/scan_run.h"
#include "harness/signed_pe.h"
#include "harness/temporary_directory.h"
#include "snapshot/snapshot.h"

namespace {

constexpr const char kScan[] = "--json - --settle 0 --passes 1 --snapshot snapshot in";

constexpr orvexscan::SnapshotRules kRules{orvexscan::IdentityMode::kCtime, 0};

// The snapshot with the first such part replaced, and a matching checksum.
std::string Edited(const std::string& snapshot, const std::string& part, const std::string& other) {
  const size_t at = snapshot.find(part);
  REQUIRE(at != std::string::npos);
  std::string text = snapshot.substr(0, snapshot.rfind("sha256 "));
  return orvexscan::WithChecksum(text.replace(at, part.size(), other));
}

nlohmann::json Report(const TemporaryDirectory& directory, const std::string& arguments = kScan) {
  const ScanRun run = RunScan(directory.path(), arguments);
  CHECK(run.exitCode == 0);
  return run.Json();
}

std::string SnapshotIn(const TemporaryDirectory& directory) {
  return OutputOf(directory.path(), "cat snapshot");
}

// Whether a run that finds this snapshot reports it in one line, ignores it, and leaves a
// good one behind.
void CheckIgnored(const TemporaryDirectory& directory, const std::string& reason,
                  const std::string& arguments = kScan) {
  CAPTURE(reason);
  const nlohmann::json report = Report(directory, arguments);
  REQUIRE(report["notes"].size() == 1);
  CHECK(report["notes"][0] == "The snapshot snapshot is ignored: " + reason);
  CHECK(report["passes"][0]["fromSnapshot"] == 0);
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
    CHECK(cold["passes"][0]["fromSnapshot"] == 0);
    CHECK(cold["passes"][0]["bytesHashed"] > 0);
    CHECK(warm["notes"].empty());
    CHECK(warm["passes"][0]["fromSnapshot"] == 5);
    CHECK(warm["passes"][0]["bytesHashed"] == 0);
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

TEST_CASE("a file that changed since the snapshot is calculated again") {
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
    CHECK(report["passes"][0]["fromSnapshot"] == 1);
    CHECK(report["passes"][0]["bytesHashed"] == 1);
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
  CHECK(report["passes"][0]["fromSnapshot"] == 1);
  CHECK(report["passes"][0]["unsettled"] == 1);
}

TEST_CASE("a snapshot with one bit flipped is ignored, wherever it is") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  REQUIRE_NOTHROW(orvexscan::Snapshot(kRules).Parse(good));
  for (size_t at = 0; at < good.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string damaged = good;
      damaged[at] = static_cast<char>(damaged[at] ^ (1 << bit));
      CAPTURE(at);
      CHECK_THROWS_AS(orvexscan::Snapshot(kRules).Parse(damaged), std::runtime_error);
    }
  }
  std::string damaged = good;
  damaged[good.size() / 2] ^= 1;
  directory.Write("snapshot", damaged);
  CheckIgnored(directory, "its checksum is wrong");
}

TEST_CASE("a damaged snapshot is reported in one line and ignored") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  for (size_t length = 0; length < good.size(); ++length) {
    CHECK_THROWS_AS(orvexscan::Snapshot(kRules).Parse(good.substr(0, length)), std::runtime_error);
  }
  const struct {
    std::string content;
    const char* reason;
  } rows[] = {{"", "it is not a snapshot, or was written by another version of the tool"},
              {std::string(300000, '['),
               "it is not a snapshot, or was written by another version of the tool"},
              {std::string(1000, '\xff'),
               "it is not a snapshot, or was written by another version of the tool"},
              {good.substr(0, 50), "it is cut off"},
              {good + good, "its checksum is wrong"},
              {Edited(good, "\tmd5,sha1,sha256\n", "\tmd5,sha1,sha256\n\n"), "it is malformed"}};
  for (const auto& row : rows) {
    directory.Write("snapshot", row.content);
    CheckIgnored(directory, row.reason);
  }
}

TEST_CASE("a snapshot with a good checksum is trusted only as far as it is well formed") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "plain words\n");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  REQUIRE_NOTHROW(orvexscan::Snapshot(kRules).Parse(Edited(good, "", "")));
  const std::string path = "\n696e2f66696c65\t";  // in/file
  for (const std::string& content :
       {Edited(good, path, "\n696e2f66696c6\t"), Edited(good, path, "\n696e2f66696c6x\t"),
        Edited(good, path, path + "-"), Edited(good, path, path + " "),
        Edited(good, path, path + "99999999999999999999"), Edited(good, path, "\n"),
        Edited(good, "\t5\t1\t", "\t5\t1\t5\t"), Edited(good, "\t5\t1\t", "\t5\t1\t:4"),
        Edited(good, "\t5\t1\t", "\t5\t1\t:41:4x"), Edited(good, "\t5\t1\t", "\t5\t1\t\t\t\t"),
        Edited(good, "\t5\t1\t", "\t5\t1"), Edited(good, "\t5\t1\t", "\t5\t4294967296\t")}) {
    CAPTURE(content);
    CHECK_THROWS_WITH(orvexscan::Snapshot(kRules).Parse(content), "it is malformed");
  }
  std::string manySigners;
  for (int i = 0; i < 257; ++i) manySigners += ":41";
  CHECK_THROWS_WITH(
      orvexscan::Snapshot(kRules).Parse(Edited(good, "\t5\t1\t", "\t5\t1\t" + manySigners)),
      "it is malformed");
}

TEST_CASE("a snapshot of too many files or bytes is ignored") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  // Counted before any is parsed: these are not files at all.
  const std::string text =
      good.substr(0, good.rfind("sha256 ")) + std::string(orvexscan::kMostSnapshotFiles, '\n');
  CHECK_THROWS_WITH(orvexscan::Snapshot(kRules).Parse(orvexscan::WithChecksum(text)),
                    "it holds too many files");
  REQUIRE(truncate(directory.PathOf("snapshot").c_str(), off_t{5} << 30) == 0);
  CheckIgnored(directory, "it is too large");
}

TEST_CASE("a snapshot of another version, mode or trust is reported and ignored") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  Report(directory);
  const std::string good = SnapshotIn(directory);
  directory.Write("snapshot", Edited(good, "snapshot 3\n", "snapshot 2\n"));
  CheckIgnored(directory, "it is not a snapshot, or was written by another version of the tool");
  directory.Write("snapshot", Edited(good, "snapshot 3\n", "snapshot 3\n9"));
  CheckIgnored(directory, "another version of the tool wrote it");
  directory.Write("snapshot", good);
  CheckIgnored(directory, "it was written with another --identity",
               "--identity strict --json - --settle 0 --snapshot snapshot in");
  directory.Write("snapshot", good);
  CheckIgnored(directory, "it was written with other --digests",
               "--digests sha256 --json - --settle 0 --snapshot snapshot in");
  directory.Write("snapshot", good);
  CheckIgnored(directory, "it was written with a shorter --settle",
               "--json - --settle 1 --snapshot snapshot in");
}

TEST_CASE("a snapshot holds more files than a cache, and those of several trees") {
  const TemporaryDirectory directory;
  for (int i = 1; i <= 5; ++i) directory.Write("in/" + std::to_string(i), "x");
  directory.Write("other/file", "x");
  directory.Write("other/gone", "x");
  const std::string scan = "--json - --settle 0 --passes 1 --capacity 3 --snapshot snapshot ";
  Report(directory, scan + "other");
  Report(directory, scan + "in");
  std::filesystem::remove(directory.PathOf("other/gone"));
  CHECK(Report(directory, scan + "in")["passes"][0]["fromSnapshot"] == 5);
  CHECK(Report(directory, scan + "other")["passes"][0]["fromSnapshot"] == 1);
  CHECK(OutputOf(directory.path(), "wc -l <snapshot") == "9\n");
}

TEST_CASE("a scan that a signal ends leaves its report and its snapshot") {
  const TemporaryDirectory directory;
  directory.Write("in/a", "x");
  directory.Write("in/b", "");
  REQUIRE(truncate(directory.PathOf("in/b").c_str(), off_t{1} << 40) == 0);
  for (const std::string signal : {"INT", "TERM"}) {
    CAPTURE(signal);
    std::filesystem::remove(directory.PathOf("snapshot"));
    // Once the second file is open the first has its answer.
    CHECK(OutputOf(directory.path(),
                   ORVEX_SCAN " --threads 1 --settle 0 --json report --snapshot snapshot in "
                              ">table & "
                              "until ls -l /proc/$!/fd 2>&1 | grep -q /in/b$; do :; done; "
                              "kill -" +
                       signal + " $!; wait $!; echo $?") == "3\n");
    const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report"));
    CHECK(FileIn(report, "in/a")["answer"]["size"] == 1);
    CHECK(FileIn(report, "in/b")["answer"].is_null());
    CHECK(Report(directory,
                 "--json - --settle 0 --passes 1 --snapshot snapshot in/a")["passes"][0]
                                                                           ["fromSnapshot"] == 1);
  }
}

TEST_CASE("a snapshot that others could have written is reported and ignored") {
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

TEST_CASE("a snapshot that cannot be written is refused before the scan") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  std::filesystem::create_directory(directory.PathOf("directory"));
  REQUIRE(OutputOf(directory.path(), "mkfifo pipe && ln -s new link && echo done") == "done\n");
  for (const std::string name : {"nowhere/at/all", "directory", "pipe", "link"}) {
    CAPTURE(name);
    const ScanRun run = RunScan(directory.path(), "--json - --snapshot " + name + " in");
    CHECK(run.exitCode == 2);
    CHECK(run.output.empty());
    CHECK(Contains(run.errors, "orvex-scan: " + name + " cannot be written: "));
  }
  CHECK(OutputOf(directory.path(), "ls") == "directory\nin\nlink\npipe\n");
}
