// Watching: each change of a file is one line, and nothing is missed.
#include <doctest/doctest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "harness/contains.h"
#include "harness/scan_run.h"
#include "harness/temporary_directory.h"
#include "harness/watching_scan.h"
#include "watch/known_files.h"

namespace fs = std::filesystem;

namespace {

// What a change shows of the digest of a file with that content.
std::string Short(const std::string& content) {
  const TemporaryDirectory directory;
  directory.Write("file", content);
  return OutputOf(directory.path(), "sha256sum file").substr(0, 12);
}

// Tests check line by line, so two writes are ordered by reading the line of the first
// in between.
void CheckNext(WatchingScan* scan, const std::string& what, const std::string& path,
               const std::string& digests) {
  const ChangeLine change = scan->Next();
  CAPTURE(path);
  CHECK(change.what == what);
  CHECK(change.path == path);
  CHECK(change.digests == digests);
}

void CheckEnd(WatchingScan* scan) {
  scan->Send(SIGTERM);
  CHECK(scan->ExitCode() == 0);
}

}  // namespace

TEST_CASE("writing a file reports it with its old and its new digest") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "old");
  WatchingScan scan(directory.path(), {"in"});
  directory.Write("in/file", "newer");
  const ChangeLine change = scan.Next();
  CHECK(std::regex_match(change.time,
                         std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z")));
  CHECK(change.what == "changed");
  CHECK(change.path == "in/file");
  CHECK(change.digests == Short("old") + " -> " + Short("newer"));
  CheckEnd(&scan);
}

TEST_CASE("touching a file reports it as same") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  OutputOf(directory.path(), "touch -d '2001-01-01' in/file");
  CheckNext(&scan, "same", "in/file", Short("x") + " -> " + Short("x"));
  CheckEnd(&scan);
}

TEST_CASE("a file replaced by a rename is reported as changed") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "old");
  directory.Write("out", "newer");
  WatchingScan scan(directory.path(), {"in"});
  fs::rename(directory.PathOf("out"), directory.PathOf("in/file"));
  CheckNext(&scan, "changed", "in/file", Short("old") + " -> " + Short("newer"));
  CheckEnd(&scan);
}

TEST_CASE("a renamed file is reported under both names") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  fs::rename(directory.PathOf("in/file"), directory.PathOf("in/other"));
  CheckNext(&scan, "gone", "in/file", Short("x") + " -> -");
  CheckNext(&scan, "new", "in/other", "- -> " + Short("x"));
  CheckEnd(&scan);
}

TEST_CASE("a deleted file is reported as gone, and as new when it comes back") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  fs::remove(directory.PathOf("in/file"));
  CheckNext(&scan, "gone", "in/file", Short("x") + " -> -");
  directory.Write("in/file", "y");
  CheckNext(&scan, "new", "in/file", "- -> " + Short("y"));
  CheckEnd(&scan);
}

TEST_CASE("a second name of a file is reported as new") {
  const TemporaryDirectory directory;
  directory.Write("out", "x");
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  fs::create_hard_link(directory.PathOf("out"), directory.PathOf("in/second"));
  CheckNext(&scan, "new", "in/second", "- -> " + Short("x"));
  CheckEnd(&scan);
}

TEST_CASE("a file in a new directory is reported, and its later changes too") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  directory.Write("in/a/b/file", "content");
  // It may be found before it is written as well.
  const ChangeLine change = scan.Next();
  CHECK(change.what == "new");
  CHECK(change.path == "in/a/b/file");
  if (change.digests != "- -> " + Short("content")) {
    scan.Await("changed", "in/a/b/file", Short("content"));
  }
  directory.Write("in/a/b/file", "more content");
  scan.Await("changed", "in/a/b/file", Short("more content"));
  CheckEnd(&scan);
}

TEST_CASE("the files of a directory that moves are reported under both paths") {
  const TemporaryDirectory directory;
  directory.Write("in/here/a/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  fs::rename(directory.PathOf("in/here"), directory.PathOf("in/there"));
  CheckNext(&scan, "gone", "in/here/a/file", Short("x") + " -> -");
  CheckNext(&scan, "new", "in/there/a/file", "- -> " + Short("x"));
  directory.Write("in/there/a/file", "newer");
  CheckNext(&scan, "changed", "in/there/a/file", Short("x") + " -> " + Short("newer"));
  CheckEnd(&scan);
}

TEST_CASE("the files of a directory that leaves are reported as gone and no longer watched") {
  const TemporaryDirectory directory;
  directory.Write("in/here/file", "x");
  directory.Write("in/last", "x");
  WatchingScan scan(directory.path(), {"in"});
  fs::rename(directory.PathOf("in/here"), directory.PathOf("out"));
  CheckNext(&scan, "gone", "in/here/file", Short("x") + " -> -");
  directory.Write("out/file", "newer");
  directory.Write("in/last", "newer");
  CheckNext(&scan, "changed", "in/last", Short("x") + " -> " + Short("newer"));
  CheckEnd(&scan);
}

TEST_CASE("the files of a watched path that is moved away are reported as gone") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  fs::rename(directory.PathOf("in"), directory.PathOf("out"));
  CheckNext(&scan, "gone", "in/file", Short("x") + " -> -");
  CheckEnd(&scan);
}

TEST_CASE("a file that is watched by itself may be replaced") {
  const TemporaryDirectory directory;
  directory.Write("file", "old");
  directory.Write("other", "old");
  WatchingScan scan(directory.path(), {"file"});
  CHECK(Contains(scan.greeting(), "watching 1 directory"));
  directory.Write("other", "unseen");
  fs::rename(directory.PathOf("other"), directory.PathOf("file"));
  CheckNext(&scan, "changed", "file", Short("old") + " -> " + Short("unseen"));
  directory.Write("file", "newest");
  CheckNext(&scan, "changed", "file", Short("unseen") + " -> " + Short("newest"));
  CheckEnd(&scan);
}

TEST_CASE("a file that does not exist yet is reported when it is created") {
  const TemporaryDirectory directory;
  WatchingScan scan(directory.path(), {"file"});
  directory.Write("file", "x");
  CheckNext(&scan, "new", "file", "- -> " + Short("x"));
  scan.Send(SIGTERM);
  // The walk did not find it.
  CHECK(scan.ExitCode() == 1);
}

TEST_CASE("link targets are watched only when links are followed") {
  const TemporaryDirectory directory;
  directory.Write("target/file", "x");
  directory.Write("other/file", "x");
  directory.Write("in/own", "x");
  fs::create_symlink("../other/file", directory.PathOf("in/tofile"));
  fs::create_directory_symlink("../target", directory.PathOf("in/todirectory"));
  WatchingScan kept(directory.path(), {"in"});
  WatchingScan followed(directory.path(), {"--follow", "in"});
  directory.Write("target/file", "newer");
  CheckNext(&followed, "changed", "in/todirectory/file", Short("x") + " -> " + Short("newer"));
  directory.Write("other/file", "newer");
  CheckNext(&followed, "changed", "in/tofile", Short("x") + " -> " + Short("newer"));
  fs::create_directory_symlink("../other", directory.PathOf("in/second"));
  CheckNext(&followed, "new", "in/second/file", "- -> " + Short("newer"));
  fs::remove(directory.PathOf("in/second"));
  CheckNext(&followed, "gone", "in/second/file", Short("newer") + " -> -");
  directory.Write("in/own", "newer");
  CheckNext(&kept, "changed", "in/own", Short("x") + " -> " + Short("newer"));
  CheckEnd(&kept);
  CheckEnd(&followed);
}

TEST_CASE("terminal control characters in a path are escaped while watching") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"in"});
  directory.Write("in/\x1b[31m\t", "x");
  CheckNext(&scan, "new", "in/\\x1b[31m\\x09", "- -> " + Short("x"));
  CheckEnd(&scan);
}

TEST_CASE("changes lost to a queue overflow are found again") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  directory.Write("in/gone", "x");
  directory.Write("in/1", "x");
  directory.Write("in/2", "x");
  size_t mostQueued = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> mostQueued;
  WatchingScan scan(directory.path(), {"in"});
  scan.Send(SIGSTOP);
  scan.AwaitStop();
  // Two in turn, as equal events that follow each other are one.
  for (size_t i = 0; i <= mostQueued / 2; ++i) {
    fs::permissions(directory.PathOf("in/1"), fs::perms::owner_all);
    fs::permissions(directory.PathOf("in/2"), fs::perms::owner_all);
  }
  directory.Write("in/file", "newer");
  directory.Write("in/new/file", "newest");
  fs::remove(directory.PathOf("in/gone"));
  scan.Send(SIGCONT);
  scan.Await("changed", "in/file", Short("newer"));
  scan.Await("gone", "in/gone", "-");
  scan.Await("new", "in/new/file", Short("newest"));
  directory.Write("in/new/file", "x");
  scan.Await("changed", "in/new/file", Short("x"));
  CheckEnd(&scan);
}

TEST_CASE("the system's limit on watches is named, and the other directories are watched") {
  const TemporaryDirectory directory;
  directory.Write("in/a/file", "x");
  directory.Write("in/b/file", "x");
  const std::string limit = "echo 2 >/proc/sys/user/max_inotify_watches && ";
  if (OutputOf("/", "unshare -Ur sh -c '" + limit + "echo done'") != "done\n") {
    MESSAGE("not tried: no user namespace to set a limit in");
    return;
  }
  WatchingScan scan(directory.path(), {"unshare", "-Ur", "sh", "-c", limit + "exec \"$@\"", "sh"},
                    {"in"});
  CHECK(Contains(scan.greeting(), "fs.inotify.max_user_watches"));
  CHECK(Contains(scan.greeting(), "watching 2 directories"));
  directory.Write("in/b/file", "unseen");
  directory.Write("in/a/file", "newer");
  CheckNext(&scan, "changed", "in/a/file", Short("x") + " -> " + Short("newer"));
  CheckEnd(&scan);
}

TEST_CASE("the final report has a column for the time of watching") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"--json", "report.json", "in"});
  directory.Write("in/file", "newer");
  CheckNext(&scan, "changed", "in/file", Short("x") + " -> " + Short("newer"));
  scan.Send(SIGINT);
  CHECK(scan.ExitCode() == 0);
  CHECK(Contains(scan.Rest(), " WATCH\n"));
  const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report.json"));
  CHECK(report["passes"].size() == 3);
  CHECK(report["passes"][1]["watching"] == false);
  CHECK(report["passes"][2]["watching"] == true);
  CHECK(report["passes"][2]["visits"] >= 1);
  CHECK(report["passes"][2]["hashCache"]["misses"] >= 1);
}

TEST_CASE("JSON report and snapshot describe the files as they were at the end of watching") {
  const TemporaryDirectory directory;
  directory.Write("in/changed", "x");
  directory.Write("in/gone", "x");
  WatchingScan scan(directory.path(),
                    {"--settle", "0", "--json", "report.json", "--snapshot", "snapshot", "in"});
  directory.Write("in/changed", "newer");
  scan.Await("changed", "in/changed", Short("newer"));
  directory.Write("in/new", "newest");
  scan.Await("new", "in/new", Short("newest"));
  fs::remove(directory.PathOf("in/gone"));
  scan.Await("gone", "in/gone", "-");
  CheckEnd(&scan);
  const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report.json"));
  CHECK(report["files"].size() == 2);
  CHECK(FileIn(report, "in/changed")["answer"]["size"] == 5);
  CHECK(FileIn(report, "in/new")["answer"]["size"] == 6);
  const auto next =
      RunScan(directory.path(), "--json - --settle 0 --passes 1 --snapshot snapshot in").Json();
  CHECK(next["passes"][0]["fromSnapshot"] == 2);
}

TEST_CASE("changes come as JSON Lines, too") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"--format", "jsonl", "--quiet", "--passes", "1", "in"});
  CHECK(nlohmann::json::parse(scan.NextLine())["path"] == "in/file");
  directory.Write("in/file", "newer");
  const auto change = nlohmann::json::parse(scan.NextLine());
  CHECK(change["change"] == "changed");
  CHECK(change["path"] == "in/file");
  CHECK(change["before"] == Short("x"));
  CHECK(change["after"] == Short("newer"));
  CheckEnd(&scan);
}

TEST_CASE("a file that is busy waits once, however often it is written") {
  const TemporaryDirectory directory;
  directory.Write("in/1", "x");
  directory.Write("in/2", "x");
  directory.Write("in/file", "x");
  WatchingScan scan(directory.path(), {"--json", "report.json", "in"});
  scan.Send(SIGSTOP);
  scan.AwaitStop();
  // Two in turn, as equal events that follow each other are one.
  for (int i = 0; i < 2000; ++i) directory.Write(i % 2 == 0 ? "in/1" : "in/2", "newer");
  directory.Write("in/file", "newer");
  scan.Send(SIGCONT);
  scan.Await("changed", "in/file", Short("newer"));
  CheckEnd(&scan);
  const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report.json"));
  CHECK(report["passes"][2]["visits"] < 200);
}

TEST_CASE("a file that cannot be read or is not complete yet changes nothing known") {
  using orvexscan::ChangeKind;
  using orvexscan::FailureReason;
  using orvexscan::FileFailure;
  orvexscan::KnownFiles known{orvexscan::Inventory()};
  CHECK(known.Learn("file", orvexscan::Answer()).kind == ChangeKind::kNew);
  CHECK(known.Learn("file", orvexscan::Answer()).kind == ChangeKind::kNone);
  CHECK(known.Learn("file", FileFailure(FailureReason::kChanged, "")).kind == ChangeKind::kNone);
  const orvexscan::Change failed =
      known.Learn("file", FileFailure(FailureReason::kUnreadable, "open:\n"));
  CHECK(failed.kind == ChangeKind::kFailed);
  CHECK(failed.after == "open:\\x0a");
  CHECK(known.Learn("file", FileFailure(FailureReason::kNotRegular, "")).kind == ChangeKind::kGone);
  CHECK(known.Learn("file", FileFailure(FailureReason::kVanished, "")).kind == ChangeKind::kNone);
}
