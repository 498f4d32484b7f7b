// What the command line refuses, and with which message.
#include <doctest/doctest.h>

#include <string>

#include "harness/scan_run.h"
#include "harness/temporary_directory.h"

TEST_CASE("a value that an option does not take is refused with what it takes") {
  const TemporaryDirectory directory;
  const struct {
    const char* arguments;
    const char* refusal;
  } rows[] = {
      {"--identity inode", "--identity: 'inode' is not one of mtime, ctime, strict\n"},
      {"--identity ''", "--identity: '' is not one of mtime, ctime, strict\n"},
      {"--identity 1", "--identity: '1' is not one of mtime, ctime, strict\n"},
      {"--format xml", "--format: 'xml' is not one of table, json, jsonl, sha256sum, csv\n"},
      {"--digests sha256,sha3-256",
       "--digests: 'sha256' and 'sha3-256' have 32 bytes each, and the engine keeps one "
       "digest of that length\n"},
      {"--digests md5 --format sha256sum",
       "--format sha256sum: needs sha256 among the --digests\n"},
      {"--metrics csv", "--metrics: 'csv' is not one of prometheus, json\n"},
      {"--threads many", "--threads: 'many' is not a whole number from 1 to 64\n"},
      {"--threads 65", "--threads: '65' is not a whole number from 1 to 64\n"},
      {"--passes 1.5", "--passes: '1.5' is not a whole number from 1 to 1000000\n"},
      {"--passes=-1", "--passes: '-1' is not a whole number from 1 to 1000000\n"},
      {"--capacity 4097", "--capacity: '4097' is not a whole number from 1 to 4096\n"},
      {"--settle 1h", "--settle: '1h' is not a whole number from 0 to 86400\n"},
      {"--time-limit 0", "--time-limit: '0' is not a whole number from 1 to 31536000\n"},
      {"--max-size 1M", "--max-size: '1M' is not a number of bytes\n"},
      {"--threads \"$(printf '\\033')\"",
       "--threads: '\\x1b' is not a whole number from 1 to 64\n"}};
  for (const auto& row : rows) {
    CAPTURE(row.arguments);
    const ScanRun run = RunScan(directory.path(), std::string(row.arguments) + " .");
    CHECK(run.exitCode == 2);
    CHECK(run.output == "");
    CHECK(run.errors.substr(0, run.errors.find('\n') + 1) == row.refusal);
  }
}

TEST_CASE("a number with zeros in front is read as decimal") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "ten bytes.");
  const nlohmann::json report =
      RunScan(directory.path(),
              "--threads 010 --passes 012 --capacity 0100 --settle 09 --max-size 010 --json - in")
          .Json();
  CHECK(report["options"]["threads"] == 10);
  CHECK(report["options"]["passes"] == 12);
  CHECK(report["options"]["capacity"] == 100);
  CHECK(report["options"]["settleSeconds"] == 9);
  CHECK(report["files"].size() == 1);
}
