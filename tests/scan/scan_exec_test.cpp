// --exec: what runs is reported, from the file that runs, once for each answer.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "harness/scan_run.h"
#include "harness/temporary_directory.h"
#include "harness/watching_scan.h"

namespace fs = std::filesystem;

namespace {

// Why this test cannot listen for executions; empty if it can.
std::string WhyNot() {
  const int group = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC, O_RDONLY);
  if (group < 0) return std::string("fanotify_init: ") + std::strerror(errno);
  const int marked =
      fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC, AT_FDCWD, "/");
  const int error = errno;
  close(group);
  return marked == 0 ? "" : std::string("fanotify_mark: ") + std::strerror(error);
}

// A file system of this process and its children alone, where nobody else runs anything.
class PrivateMount {
 public:
  PrivateMount() {
    why_ = WhyNot();
    if (!why_.empty()) return;
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", directory_.path().c_str(), "tmpfs", 0, nullptr) != 0) {
      why_ = std::string("no mount namespace: ") + std::strerror(errno);
    }
  }
  ~PrivateMount() {
    if (why_.empty()) umount2(directory_.path().c_str(), MNT_DETACH);
  }
  PrivateMount(const PrivateMount&) = delete;
  PrivateMount& operator=(const PrivateMount&) = delete;

  const std::string& why() const { return why_; }
  const TemporaryDirectory& directory() const { return directory_; }
  std::string Do(const std::string& command) const { return OutputOf(directory_.path(), command); }
  // A program that does nothing, and differs from others with another ending.
  void MakeProgram(const std::string& name, const std::string& ending = "") const {
    REQUIRE(Do("cp /bin/true new && printf '" + ending + "' >>new && mv new " + name +
               " && echo done") == "done\n");
  }
  std::string Sha256Of(const std::string& name) const {
    return Do("sha256sum " + name).substr(0, 64);
  }

 private:
  TemporaryDirectory directory_;
  std::string why_;
};

std::vector<std::string> FieldsOf(const std::string& line) {
  std::istringstream text(line);
  std::vector<std::string> fields;
  for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
  return fields;
}

int End(WatchingScan* scan) {
  scan->Send(SIGTERM);
  return scan->ExitCode();
}

}  // namespace

#define NEEDS(mount)                       \
  if (!(mount).why().empty()) {            \
    MESSAGE("not tried: ", (mount).why()); \
    return;                                \
  }

TEST_CASE("a program that is executed is reported with its process and digest") {
  const PrivateMount mount;
  NEEDS(mount)
  mount.MakeProgram("program");
  WatchingScan scan(mount.directory().path(), {}, {"."}, "--exec");
  const std::string pid = mount.Do("echo $$; exec ./program");
  const std::vector<std::string> fields = FieldsOf(scan.NextLine());
  REQUIRE(fields.size() == 6);
  CHECK(
      std::regex_match(fields[0], std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z")));
  CHECK(fields[1] + "\n" == pid);
  CHECK(fields[2] == mount.directory().PathOf("program"));
  CHECK(fields[3] == mount.Sha256Of("program"));
  CHECK(fields[4] == "-");
  CHECK(fields[5] == "read");
  CHECK(End(&scan) == 0);
}

TEST_CASE("a program that is executed is reported with the digest that was chosen") {
  const PrivateMount mount;
  NEEDS(mount)
  mount.MakeProgram("program");
  WatchingScan scan(mount.directory().path(), {}, {".", "--digests", "md5", "--format", "jsonl"},
                    "--exec");
  mount.Do("./program");
  const auto told = nlohmann::json::parse(scan.NextLine());
  CHECK(told.value("md5", "") == mount.Do("md5sum program").substr(0, 32));
  CHECK_FALSE(told.contains("sha256"));
  CHECK(End(&scan) == 0);
}

TEST_CASE(
    "a program that runs again is answered from the cache and reported once until it changes") {
  const PrivateMount mount;
  NEEDS(mount)
  mount.MakeProgram("program");
  mount.MakeProgram("another");
  const std::string before = mount.Sha256Of("program");
  WatchingScan scan(
      mount.directory().path(), {},
      {".", "--settle", "0", "--threads", "1", "--format", "jsonl", "--json", "report.json"},
      "--exec");
  mount.Do("./program; ./program; ./program; ./another");
  const auto first = nlohmann::json::parse(scan.NextLine());
  CHECK(first["sha256"] == before);
  CHECK(first["path"] == mount.directory().PathOf("program"));
  CHECK(first["unverifiedSigners"] == nlohmann::json::array());
  CHECK(first["cached"] == false);
  // With one thread all that came before it has been answered.
  CHECK(nlohmann::json::parse(scan.NextLine())["path"] == mount.directory().PathOf("another"));
  mount.MakeProgram("program", "changed");
  mount.Do("./program");
  CHECK(End(&scan) == 0);
  std::istringstream lines(scan.Rest());
  std::vector<nlohmann::json> told;
  for (std::string line; std::getline(lines, line);) told.push_back(nlohmann::json::parse(line));
  REQUIRE(told.size() == 1);
  CHECK(told[0]["sha256"] == mount.Sha256Of("program"));
  const auto report = nlohmann::json::parse(mount.Do("cat report.json"));
  CHECK(report["files"].size() == 2);
  CHECK(report["passes"][0]["visits"] == 5);
  CHECK(report["passes"][0]["hashCache"]["hits"] == 2);
}

TEST_CASE("a program that is executed elsewhere is not reported") {
  const PrivateMount mount;
  NEEDS(mount)
  mount.MakeProgram("program");
  WatchingScan scan(mount.directory().path(), {}, {"."}, "--exec");
  mount.Do("/bin/true; cat program >/dev/null; ./program");
  CHECK(End(&scan) == 0);
  const std::string told = scan.Rest();
  CHECK(FieldsOf(told.substr(0, told.find('\n')))[2] == mount.directory().PathOf("program"));
  CHECK(told.find("/true") == std::string::npos);
}

TEST_CASE("a program deleted before it was read has its digest and is counted") {
  const PrivateMount mount;
  NEEDS(mount)
  mount.MakeProgram("program");
  const std::string sha256 = mount.Sha256Of("program");
  WatchingScan scan(mount.directory().path(), {}, {".", "--json", "report.json"}, "--exec");
  scan.Send(SIGSTOP);
  scan.AwaitStop();
  mount.Do("./program; rm program");
  scan.Send(SIGCONT);
  const std::vector<std::string> fields = FieldsOf(scan.NextLine());
  CHECK(fields[2] == mount.directory().PathOf("program") + " (deleted)");
  CHECK(fields[3] == sha256);
  CHECK(End(&scan) == 0);
  const auto report = nlohmann::json::parse(mount.Do("cat report.json"));
  REQUIRE(report["notes"].size() == 1);
  CHECK(
      report["notes"][0] ==
      "Executed files deleted or replaced before they were asked about, and read all the same: 1");
}

TEST_CASE("executions dropped by the system's queue are counted as lost" *
          doctest::test_suite("slow")) {
  const PrivateMount mount;
  NEEDS(mount)
  size_t mostQueued = 16384;
  std::ifstream("/proc/sys/fs/fanotify/max_queued_events") >> mostQueued;
  if (mostQueued > 65536) {
    MESSAGE("not tried: the queue takes ", mostQueued, " events");
    return;
  }
  // Not a program, but opened like one. Each short-lived name is a new one to the kernel,
  // which would merge equal ones, and the same file to the tool.
  const std::string file = mount.directory().Write("file", "x");
  fs::permissions(file, fs::perms::owner_all);
  const std::string name = mount.directory().PathOf("name");
  char* const arguments[] = {const_cast<char*>(name.c_str()), nullptr};
  WatchingScan scan(mount.directory().path(), {},
                    {".", "--settle", "0", "--threads", "1", "--json", "report.json"}, "--exec");
  scan.Send(SIGSTOP);
  scan.AwaitStop();
  size_t executions = 0;
  while (executions <= mostQueued && link(file.c_str(), name.c_str()) == 0) {
    if (execv(name.c_str(), arguments) == -1) ++executions;
    unlink(name.c_str());
  }
  REQUIRE(executions == mostQueued + 1);
  scan.Send(SIGCONT);
  CHECK(scan.NextLine() != "");
  scan.Send(SIGTERM);
  scan.Rest();
  CHECK(scan.ExitCode() == 0);
  const auto report = nlohmann::json::parse(mount.Do("cat report.json"));
  REQUIRE(report["notes"].size() == 1);
  CHECK(report["notes"][0] ==
        "Overflows of the system's queue, each of which lost one or more executions: 1");
  CHECK(report["passes"][0]["visits"] == mostQueued);
}

TEST_CASE("a line that cannot be printed ends the run, and all that is known is reported") {
  const PrivateMount mount;
  NEEDS(mount)
  mount.MakeProgram("program");
  WatchingScan scan(mount.directory().path(), {"sh", "-c", "exec \"$0\" \"$@\" >/dev/full"},
                    {".", "--json", "report.json"}, "--exec");
  mount.Do("./program");
  CHECK(scan.ExitCode() == 1);
  const auto report = nlohmann::json::parse(mount.Do("cat report.json"));
  REQUIRE(report["passes"].size() == 1);
  CHECK(report["passes"][0]["visits"] == 1);
}

TEST_CASE("a user who may not watch executions is told what is missing") {
  const TemporaryDirectory directory;
  const ScanRun run = RunScan(directory.path(), "--exec nowhere");
  CHECK(run.exitCode == 1);
  if (OutputOf("/", "unshare -Ur true && echo done") != "done\n") {
    MESSAGE("not tried: no user namespace to be had");
    return;
  }
  CHECK(OutputOf(directory.path(), "unshare -Ur " ORVEX_SCAN " --exec . 2>&1") ==
        "orvex-scan: --exec needs the capability CAP_SYS_ADMIN, in the first user namespace: run "
        "it as root\n");
}

TEST_CASE("options that make no sense for executions are refused with --exec") {
  const TemporaryDirectory directory;
  for (const char* other : {"--watch", "--passes 3", "--baseline x", "--metrics json",
                            "--format csv", "--json -", "--follow"}) {
    CAPTURE(other);
    CHECK(RunScan(directory.path(), std::string("--exec nowhere ") + other).exitCode == 2);
  }
  CHECK(RunScan(directory.path(), "--exec").exitCode == 2);
}
