// What differs from an earlier run.
#include <doctest/doctest.h>

#include <filesystem>
#include <string>

#include "harness/scan_run.h"
#include "harness/temporary_directory.h"

namespace {

// Each difference as "change path" or "change path < from".
std::string Differences(const nlohmann::json& report) {
  std::string all;
  for (const auto& difference : report["differences"]) {
    all += difference["change"].get<std::string>() + " " + difference["path"].get<std::string>();
    if (difference.contains("from")) all += " < " + difference["from"].get<std::string>();
    all += "\n";
  }
  return all;
}

}  // namespace

TEST_CASE("a baseline reports what is new, changed, gone, moved or has other metadata") {
  const TemporaryDirectory directory;
  for (const std::string name : {"same", "changed", "gone", "moved", "mode", "time", "linked"}) {
    directory.Write("in/" + name, "content of " + name);
  }
  directory.Write("other/file", "not asked for");
  const std::string scan = "--settle 0 --passes 1 --quiet ";
  REQUIRE(RunScan(directory.path(), scan + "--snapshot snapshot --json report in other").exitCode ==
          0);
  for (const std::string baseline : {"snapshot", "report"}) {
    CAPTURE(baseline);
    const ScanRun run = RunScan(directory.path(), scan + "--json - --baseline " + baseline + " in");
    CHECK(run.exitCode == 0);
    CHECK(run.Json()["differences"].empty());
  }
  directory.Write("in/new", "content of new");
  directory.Write("in/changed", "other content");
  std::filesystem::remove(directory.PathOf("in/gone"));
  std::filesystem::rename(directory.PathOf("in/moved"), directory.PathOf("in/elsewhere"));
  std::filesystem::permissions(directory.PathOf("in/mode"), std::filesystem::perms(0600));
  std::filesystem::create_hard_link(directory.PathOf("in/linked"), directory.PathOf("link"));
  REQUIRE(OutputOf(directory.path(), "touch -d 2001-01-01 in/time && echo done") == "done\n");
  for (const std::string baseline : {"snapshot", "report"}) {
    CAPTURE(baseline);
    const ScanRun run =
        RunScan(directory.path(), "--settle 0 --passes 1 --json - --baseline " + baseline + " in/");
    CHECK(run.exitCode == 4);
    CHECK(Differences(run.Json()) ==
          "changed in/changed\nmoved in/elsewhere < in/moved\ngone in/gone\nmetadata in/linked\n"
          "metadata in/mode\nnew in/new\nmetadata in/time\n");
    CHECK(run.errors.find("Differences from the baseline: 7") != std::string::npos);
  }
}

TEST_CASE("a baseline that cannot be used is refused before the scan") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  directory.Write("deep",
                  "{\"files\": " + std::string(300000, '[') + std::string(300000, ']') + "}");
  directory.Write("wrong", "{\"files\": [{\"path\": 5}]}");
  directory.Write("noise", "noise");
  for (const std::string name : {"deep", "wrong", "noise", "missing", "in"}) {
    CAPTURE(name);
    const ScanRun run = RunScan(directory.path(), "--baseline " + name + " in");
    CHECK(run.exitCode == 2);
    CHECK(run.output.empty());
    CHECK(run.errors.find("the baseline " + name + " cannot be used: ") != std::string::npos);
  }
  CHECK(RunScan(directory.path(), "--baseline deep in").errors.find("it nests too deeply") !=
        std::string::npos);
}
