// The tool as a user meets it: what it prints, writes and exits with.
#include <doctest/doctest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>

#include "harness/contains.h"
#include "harness/sanitizers.h"
#include "harness/scan_run.h"
#include "harness/signed_pe.h"
#include "harness/temporary_directory.h"
#include "terminal/progress.h"

namespace {

std::string Repeated(size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) text += static_cast<char>(i * 31 + i / 251);
  return text;
}

std::string FirstWord(const std::string& text) { return text.substr(0, text.find(' ')); }

}  // namespace

TEST_CASE("the digests are those of md5sum, sha1sum and sha256sum") {
  const TemporaryDirectory directory;
  // Around the size of the buffer, and around the digests' own blocks.
  for (const size_t size : {0u, 1u, 55u, 56u, 64u, 262143u, 262144u, 262145u, 1000000u}) {
    directory.Write("sub dir/" + std::to_string(size), Repeated(size));
  }
  const nlohmann::json report = RunScan(directory.path(), "--json - .").Json();
  CHECK(report["files"].size() == 9);
  for (const auto& file : report["files"]) {
    const std::string path = file["path"];
    CAPTURE(path);
    const std::string quoted = " '" + path + "'";
    CHECK(file["answer"]["md5"] == FirstWord(OutputOf(directory.path(), "md5sum" + quoted)));
    CHECK(file["answer"]["sha1"] == FirstWord(OutputOf(directory.path(), "sha1sum" + quoted)));
    CHECK(file["answer"]["sha256"] == FirstWord(OutputOf(directory.path(), "sha256sum" + quoted)));
  }
}

TEST_CASE("the table shows the digests of a file that is the only one") {
  const TemporaryDirectory directory;
  directory.Write("file", "content");
  directory.Write("other", "other content");
  const ScanRun one = RunScan(directory.path(), "file");
  const ScanRun two = RunScan(directory.path(), "file other");
  for (const char* program : {"md5sum", "sha1sum", "sha256sum"}) {
    CAPTURE(program);
    const std::string digest =
        FirstWord(OutputOf(directory.path(), std::string(program) + " file"));
    CHECK(Contains(one.output, digest));
    CHECK_FALSE(Contains(two.output, digest));
  }
}

TEST_CASE("size, time, device and inode are those of stat") {
  const TemporaryDirectory directory;
  directory.Write("file", "12345");
  const nlohmann::json answer =
      FileIn(RunScan(directory.path(), "--json - file").Json(), "file")["answer"];
  const std::string seconds = answer["mtime"]["seconds"].dump();
  const std::string nanoseconds =
      std::to_string(1000000000 + answer["mtime"]["nanoseconds"].get<int64_t>()).substr(1);
  CHECK(std::to_string(answer["size"].get<uint64_t>()) + " " + seconds + "." + nanoseconds + " " +
            std::to_string(answer["device"].get<uint64_t>()) + " " +
            std::to_string(answer["inode"].get<uint64_t>()) + "\n" ==
        OutputOf(directory.path(), "stat -c '%s %.9Y %d %i' file"));
}

TEST_CASE("the second pass is answered from the cache") {
  const TemporaryDirectory directory;
  for (int i = 0; i < 20; ++i) directory.Write(std::to_string(i), Repeated(1000));
  const nlohmann::json report = RunScan(directory.path(), "--json - --settle 0 .").Json();
  const nlohmann::json& first = report["passes"][0];
  const nlohmann::json& second = report["passes"][1];
  CHECK(first["hashCache"]["misses"] == 20);
  CHECK(first["hashCache"]["callbacks"] == 20);
  CHECK(first["fileTypeCache"]["callbacks"] == 20);
  CHECK(first["bytesHashed"] == 20000);
  CHECK(first["bytesSaved"] == 0);
  CHECK(second["hashCache"]["hits"] == 20);
  CHECK(second["hashCache"]["misses"] == 0);
  CHECK(second["hashCache"]["partialHits"] == 0);
  CHECK(second["hashCache"]["callbacks"] == 0);
  CHECK(second["fileTypeCache"]["hits"] == 20);
  CHECK(second["fileTypeCache"]["callbacks"] == 0);
  CHECK(second["bytesHashed"] == 0);
  CHECK(second["bytesSaved"] == 20000);
}

TEST_CASE("files just written are calculated again in each pass, and counted") {
  const TemporaryDirectory directory;
  for (int i = 0; i < 3; ++i) directory.Write("in/" + std::to_string(i), "x");
  // With one file older than any test. Its name may be a link.
  const ScanRun run = RunScan(directory.path(), "--json - --follow in /bin/sh");
  const nlohmann::json report = run.Json();
  for (const auto& pass : report["passes"]) CHECK(pass["unsettled"] == 3);
  CHECK(report["passes"][1]["hashCache"]["hits"] == 1);
  CHECK(report["passes"][1]["hashCache"]["callbacks"] == 3);
  CHECK(report["passes"][1]["fileTypeCache"]["hits"] == 1);
  CHECK(report["passes"][1]["fileTypeCache"]["callbacks"] == 3);
  CHECK(Contains(run.errors, "not kept, changed too recently"));
}

TEST_CASE("the JSON report says how changed files were recognised") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  const nlohmann::json plain = RunScan(directory.path(), "--json - .").Json()["options"];
  CHECK(plain["identity"] == "ctime");
  CHECK(plain["settleSeconds"] == 2);
  for (const std::string mode : {"mtime", "ctime", "strict"}) {
    const nlohmann::json report =
        RunScan(directory.path(), "--json - --settle 0 --identity " + mode + " .").Json();
    CHECK(report["options"]["identity"] == mode);
    CHECK(report["options"]["settleSeconds"] == 0);
    CHECK(report["passes"][1]["hashCache"]["hits"] == 1);
    // The true ones, whatever the engine is told.
    const nlohmann::json answer = FileIn(report, "./file")["answer"];
    CHECK(std::to_string(answer["device"].get<uint64_t>()) + " " +
              std::to_string(answer["inode"].get<uint64_t>()) + "\n" ==
          OutputOf(directory.path(), "stat -c '%d %i' file"));
  }
}

TEST_CASE("an empty file and one without a time are full hits the second time") {
  const TemporaryDirectory directory;
  directory.Write("empty", "");
  directory.Write("timeless", "x");
  directory.Write("both", "");
  REQUIRE(OutputOf(directory.path(), "touch -d @0 timeless both && echo done") == "done\n");
  const nlohmann::json report = RunScan(directory.path(), "--json - --settle 0 .").Json();
  CHECK(FileIn(report, "./timeless")["answer"]["mtime"]["seconds"] == 0);
  CHECK(report["passes"][1]["hashCache"]["hits"] == 3);
  CHECK(report["passes"][1]["hashCache"]["partialHits"] == 0);
}

TEST_CASE("as many passes run as are wanted") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  CHECK(RunScan(directory.path(), "--json - --passes 1 .").Json()["passes"].size() == 1);
  CHECK(RunScan(directory.path(), "--json - --passes 5 .").Json()["passes"].size() == 5);
}

TEST_CASE("several workers ask about each file once in each pass") {
  const TemporaryDirectory directory;
  for (int i = 0; i < 200; ++i) directory.Write(std::to_string(i), Repeated(2000));
  const nlohmann::json report =
      RunScan(directory.path(), "--json - --threads 8 --settle 0 .").Json();
  for (const auto& pass : report["passes"]) {
    CHECK(pass["hashCache"]["lookups"] == 200);
    CHECK(pass["failed"] == 0);
  }
  CHECK(report["passes"][1]["hashCache"]["hits"] == 200);
  CHECK(report["files"].size() == 200);
}

TEST_CASE("the JSON report has one record for each file, whatever its name") {
  const TemporaryDirectory directory;
  directory.Write("plain", "x");
  directory.Write("gr\xc3\xbc\xc3\x9f", "x");
  directory.Write("byte\xff", "x");
  directory.Write("new\nline\x1b[31m\"\\", "x");
  const ScanRun run = RunScan(directory.path(), "--json - .");
  const nlohmann::json report = run.Json();
  CHECK(report["files"].size() == 4);
  CHECK(FileIn(report, "./gr\xc3\xbc\xc3\x9f")["answer"]["size"] == 1);
  CHECK(FileIn(report, "./new\nline\x1b[31m\"\\")["answer"]["size"] == 1);
  const nlohmann::json odd = FileIn(report, "./byte\xef\xbf\xbd");
  CHECK(odd["pathHex"] == "2e2f62797465ff");
  CHECK(odd["answer"]["size"] == 1);
}

TEST_CASE("the JSON report goes to a file while the table goes to standard output") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  const ScanRun run = RunScan(directory.path(), "--json report.json in");
  CHECK(run.exitCode == 0);
  CHECK(Contains(run.output, "PASS 1"));
  const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report.json"));
  CHECK(report["files"].size() == 1);
}

TEST_CASE("the table has a column for each pass and every count") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  const ScanRun run = RunScan(directory.path(), "--passes 3 .");
  CHECK(run.exitCode == 0);
  for (const char* part :
       {"PASS 1", "PASS 3", "files", "not kept, changed too recently", "bytes read", "wall time",
        "worker time: types", "hash cache: full hits", "hash cache: partial hits",
        "hash cache: out of date", "hash cache: misses", "hash cache: waits",
        "hash cache: callbacks", "hash cache: evictions", "file type cache: evictions",
        "hashing saved"}) {
    CAPTURE(part);
    CHECK(Contains(run.output, part));
  }
}

TEST_CASE("nothing is drawn when standard error is not a terminal") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  const ScanRun run = RunScan(directory.path(), ".");
  CHECK(run.errors.empty());
  CHECK_FALSE(Contains(run.output, "\x1b"));
  CHECK_FALSE(Contains(run.output, "\r"));
}

TEST_CASE("a progress bar is drawn on a terminal and wiped at the end") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  const std::string drawn =
      OutputOf(directory.path(), "script -qec '" ORVEX_SCAN " in >table' /dev/null");
  CHECK(Contains(drawn, "pass 1/2 [##"));
  CHECK(Contains(drawn, "100% 1/1 files"));
  REQUIRE(drawn.size() > 4);
  CHECK(drawn.substr(drawn.size() - 4) == "\r\x1b[K");
}

TEST_CASE("progress fits any width and moves inside a large file, and not when quiet") {
  CHECK(orvexscan::FitLine("0123456789", 80) == "0123456789");
  CHECK(orvexscan::FitLine("0123456789", 5) == "0123");
  CHECK(orvexscan::FitLine("0123456789", 0).empty());
  const TemporaryDirectory directory;
  directory.Write("in/file", "");
  std::filesystem::resize_file(directory.PathOf("in/file"), uint64_t{1} << 30);
  directory.Write("drawn", "");
  // Interrupted once the bar has begun to move and was drawn a third time.
  const std::string drawn = OutputOf(
      directory.path(),
      "script -qefc 'stty cols 40; echo $$ >pid; exec " ORVEX_SCAN
      " --passes 1 in >table' /dev/null >drawn & "
      "until [ $(tr '\\r' '\\n' <drawn | grep -c '^pass') -gt 2 ] && grep -q '#[.]' drawn || "
      "! kill -0 $! 2>&-; do :; done; kill -INT $(cat pid); wait $!; cat drawn");
  CHECK(Contains(drawn, "\rpass 1/1 [#"));
  CHECK(Contains(drawn, "#."));
  size_t lines = 0;
  for (size_t at = drawn.find("\rpass"); at != std::string::npos; ++lines) {
    const size_t end = drawn.find("\x1b[K", at);
    CHECK(end - at <= 40);
    at = drawn.find("\rpass", end);
  }
  CHECK(lines > 2);  // though there is one file
  CHECK(OutputOf(directory.path(),
                 "script -qec '" ORVEX_SCAN " --passes 1 --quiet table >more' /dev/null") == "");
}

TEST_CASE("many passes are folded into several tables, each in 80 columns") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  const std::string table = RunScan(directory.path(), "--passes 12 in").output;
  CHECK(Contains(table, "PASS 1 "));
  CHECK(Contains(table, "PASS 12"));
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) CHECK(line.size() <= 80);
}

TEST_CASE("types and signers are looked for only where they are wanted") {
  const TemporaryDirectory directory;
  directory.Write("in/signed.exe", PeFile(TableEntry(Signature("Signer"))));
  const std::string scan = "--json - --settle 0 --snapshot snapshot ";
  const nlohmann::json report =
      RunScan(directory.path(), scan + "--no-type --no-signers in").Json();
  const nlohmann::json answer = FileIn(report, "in/signed.exe")["answer"];
  CHECK(answer["type"].is_null());
  CHECK(answer["unverifiedSigners"].is_null());
  CHECK(answer["sha256"] == FirstWord(OutputOf(directory.path(), "sha256sum in/signed.exe")));
  CHECK_FALSE(FileIn(report, "in/signed.exe").contains("signature"));
  CHECK(report["passes"][0]["fileTypeCache"]["callbacks"] == 0);
  CHECK(report["passes"][1]["hashCache"]["hits"] == 1);
  // An answer without them does not do where they are wanted.
  const nlohmann::json all = RunScan(directory.path(), scan + "in").Json();
  CHECK(Contains(all["notes"][0], "another --no-type or --no-signers"));
  CHECK(FileIn(all, "in/signed.exe")["answer"]["unverifiedSigners"][0] == "Signer");
  CHECK(FileIn(all, "in/signed.exe")["answer"]["type"]["name"] == "program");
}

TEST_CASE("sha256sum accepts what is printed for it, whatever the names") {
  const TemporaryDirectory directory;
  for (const char* name : {"plain", "back\\slash", "new\nline", "re\rturn", " blank", "byte\xff"}) {
    directory.Write(std::string("in/") + name, name);
  }
  const ScanRun run = RunScan(directory.path(), "--format sha256sum in missing >sums");
  CHECK(run.exitCode == 1);
  CHECK(Contains(run.errors, "PASS 1"));
  CHECK(OutputOf(directory.path(), "sha256sum -c --strict --quiet sums && wc -l <sums") == "6\n");
  CHECK(RunScan(directory.path(), "--format sha256sum --quiet in").errors.empty());
}

TEST_CASE("each line of JSON Lines is a file of the JSON report") {
  const TemporaryDirectory directory;
  directory.Write("in/1", "x");
  directory.Write("in/2", "y");
  const std::string lines =
      RunScan(directory.path(), "--format jsonl --passes 1 in missing").output;
  const nlohmann::json report = RunScan(directory.path(), "--format json in missing").Json();
  std::istringstream all(lines);
  size_t count = 0;
  for (std::string line; std::getline(all, line); ++count) {
    const auto file = nlohmann::json::parse(line);
    CHECK(file == FileIn(report, file["path"]));
  }
  CHECK(count == 3);
}

TEST_CASE("JSON Lines are printed as files are done") {
  const TemporaryDirectory directory;
  directory.Write("in/a", "x");
  directory.Write("in/b", "");
  std::filesystem::resize_file(directory.PathOf("in/b"), uint64_t{1} << 40);
  CHECK(OutputOf(directory.path(),
                 ORVEX_SCAN " --threads 1 --format jsonl --quiet in >lines & "
                            "until [ -s lines ]; do :; done; "
                            "grep -c in/a lines; kill $!; wait $!; echo $?") == "1\n3\n");
}

TEST_CASE("a line of CSV quotes what would break it") {
  const TemporaryDirectory directory;
  directory.Write("in/a,\"b\"", "x");
  const std::string csv = RunScan(directory.path(), "--format csv in missing").output;
  CHECK(csv.find(
            "path,size,mtimeNs,md5,sha1,sha256,type,signature,unverifiedSigners,failure\r\n") == 0);
  CHECK(Contains(csv, "\r\n\"in/a,\"\"b\"\"\",1,"));
  CHECK(Contains(csv, "\r\nmissing,,,,,,,,,"));
}

TEST_CASE("patterns, sizes and lists choose the files") {
  const TemporaryDirectory directory;
  for (const char* name : {"in/keep", "in/skip.o", "in/cache/a", "in/sub/cache/b", "in/sub/c"}) {
    directory.Write(name, "x");
  }
  directory.Write("in/large", "large");
  const auto paths = [&](const std::string& arguments) {
    std::string all;
    const nlohmann::json report =
        RunScan(directory.path(), "--json - --passes 1 " + arguments).Json();
    for (const auto& file : report["files"]) all += file["path"].get<std::string>() + " ";
    return all;
  };
  CHECK(paths("--exclude '*.o' --exclude cache in") == "in/keep in/large in/sub/c ");
  CHECK(paths("--exclude 'in/sub/*' --max-size 4 in") == "in/cache/a in/keep in/skip.o ");
  CHECK(paths("--exclude keep in/keep") == "in/keep ");
  CHECK(Contains(RunScan(directory.path(), "--max-size 4 in").output,
                 "Files larger than --max-size, left out: 1."));
  OutputOf(directory.path(), "printf 'in/keep\\0in/sub/c' >list");
  CHECK(paths("--files0-from list") == "in/keep in/sub/c ");
  CHECK(OutputOf(directory.path(),
                 "printf 'in/keep\\0' | " ORVEX_SCAN
                 " --files0-from - --format sha256sum --quiet in/sub/c | wc -l") == "2\n");
  CHECK(RunScan(directory.path(), "--files0-from nowhere").exitCode == 2);
}

TEST_CASE("an invalid command line exits with 2") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  for (const char* arguments : {"",
                                "--nonsense .",
                                "--passes 0 .",
                                "--passes x .",
                                "--threads 0 .",
                                "--capacity 0 .",
                                "--capacity 4097 .",
                                "--settle x .",
                                "--settle -1 .",
                                "--identity inode .",
                                "--identity",
                                "--processes .",
                                "--json",
                                "--json /nowhere/at/all .",
                                "--metrics",
                                "--metrics xml .",
                                "--metrics json --json - .",
                                "--format xml .",
                                "--format csv --json - .",
                                "--format csv --watch .",
                                "--max-size x .",
                                "--watch",
                                "--watch --processes",
                                "--watch --json - .",
                                "--watch --metrics json ."}) {
    CAPTURE(arguments);
    const ScanRun run = RunScan(directory.path(), arguments);
    CHECK(run.exitCode == 2);
    CHECK_FALSE(run.errors.empty());
    CHECK(run.output.empty());
  }
}

TEST_CASE("a report that cannot be written is a failure") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  for (const char* arguments : {". >/dev/full", "--json - . >/dev/full", "--json /dev/full ."}) {
    CAPTURE(arguments);
    const ScanRun run = RunScan(directory.path(), arguments);
    CHECK(run.exitCode == 1);
    CHECK(Contains(run.errors, "No space left on device"));
  }
}

TEST_CASE("threads that cannot be created mean fewer threads and a note") {
  const TemporaryDirectory directory;
  for (int i = 0; i < 50; ++i) directory.Write("in/" + std::to_string(i), "x");
  // A user with a process limit: root has none.
  const std::string user =
      geteuid() == 0 ? "setpriv --reuid 54321 --regid 54321 --clear-groups " : "";
  if (OutputOf("/", user + "test -x " ORVEX_SCAN " && echo done") != "done\n") {
    MESSAGE("not tried: another user may not run the tool");
    return;
  }
  std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
  const auto report = nlohmann::json::parse(OutputOf(
      directory.path(), user + "prlimit --nproc=3 " ORVEX_SCAN " --threads 20 --json - in"));
  CHECK(report["passes"][1]["visits"] == 50);
  REQUIRE_FALSE(report["notes"].empty());
  const std::string note = report["notes"][0];
  CHECK(Contains(note, " threads instead of 20: "));
  CHECK(RunScan("/", "--threads 65 .").exitCode == 2);
}

TEST_CASE("one path that cannot be walked does not end the others") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  const ScanRun run =
      RunScan(directory.path(), "--json - '' " + std::string(5000, 'x') + " missing file");
  CHECK(run.exitCode == 1);
  const nlohmann::json report = run.Json();
  CHECK(report["files"].size() == 4);
  CHECK(FileIn(report, "file")["answer"]["size"] == 1);
  CHECK(FileIn(report, "")["failure"]["reason"] == "vanished");
}

TEST_CASE("a failing standard output is a failure and affects nothing else") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  REQUIRE(OutputOf(directory.path(), "mkfifo pipe && echo done") == "done\n");
  // The last is a pipe whose only reader, needed to open it, is gone.
  for (const std::string output : {">/dev/full", ">&-", "2>&- >/dev/full", "3<>pipe >pipe 3<&-"}) {
    CAPTURE(output);
    std::filesystem::remove(directory.PathOf("snapshot"));
    std::filesystem::remove(directory.PathOf("report"));
    // More than a buffer holds, so that the table fails halfway.
    const std::string scan =
        ORVEX_SCAN " --settle 0 --passes 100 --json report --snapshot snapshot in";
    CHECK(OutputOf(directory.path(), "{ " + scan + "; echo $? >code; } " + output) == "");
    CHECK(OutputOf(directory.path(), "cat code") == "1\n");
    const auto report = nlohmann::json::parse(OutputOf(directory.path(), "cat report"));
    CHECK(FileIn(report, "in/file")["answer"]["size"] == 1);
    CHECK(Contains(OutputOf(directory.path(), "cat snapshot"), "696e2f66696c65"));
  }
  // Nothing failed but the output.
  CHECK(OutputOf(directory.path(), ORVEX_SCAN " in >&-; echo $?") == "1\n");
  CHECK(OutputOf(directory.path(), ORVEX_SCAN " in 2>&- >/dev/null; echo $?") == "0\n");
}

TEST_CASE("an old JSON report survives until there is a new one, whole") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  directory.Write("report", "old");
  std::filesystem::permissions(directory.PathOf("report"), std::filesystem::perms(0640));
  // No file may grow beyond a block.
  CHECK(OutputOf(directory.path(), "trap '' XFSZ; ulimit -f 1; " ORVEX_SCAN
                                   " --json report in >table; echo $?") == "1\n");
  CHECK(OutputOf(directory.path(), "cat report; ls") == "oldin\nreport\ntable\n");
  CHECK(RunScan(directory.path(), "--json report in").exitCode == 0);
  CHECK(OutputOf(directory.path(), "stat -c %a report") == "640\n");
  std::filesystem::create_symlink("report", directory.PathOf("link"));
  CHECK(RunScan(directory.path(), "--passes 1 --json link in").exitCode == 0);
  CHECK(std::filesystem::is_symlink(directory.PathOf("link")));
  CHECK(nlohmann::json::parse(OutputOf(directory.path(), "cat report"))["passes"].size() == 1);
  CHECK(OutputOf(directory.path(),
                 "umask 027; " ORVEX_SCAN " --json new in >table; stat -c %a new") == "640\n");
}

// A sanitizer takes terabytes of addresses for itself.
TEST_CASE("too little memory is a message and an exit code" *
          doctest::skip(ORVEXENG_CHECKS_MEMORY)) {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  int failures = 0;
  for (int mebibytes = 16; mebibytes <= 256; mebibytes += 8) {
    CAPTURE(mebibytes);
    const ScanRun run = RunWithLimit(directory.path(), "-v " + std::to_string(mebibytes * 1024),
                                     "--threads 4 --passes 1 file");
    // 127: the loader itself lacked memory.
    CHECK((run.exitCode == 0 || run.exitCode == 1 || run.exitCode == 127));
    if (run.exitCode == 0) continue;
    ++failures;
    CHECK_FALSE((run.errors + run.output).empty());
  }
  CHECK(failures > 0);
}

TEST_CASE("a file list too large for memory is reported as such" *
          doctest::skip(ORVEXENG_CHECKS_MEMORY)) {
  const TemporaryDirectory directory;
  OutputOf(directory.path(), "seq 1000000 | tr '\\n' '\\0' >list");
  // Enough to start, and for some of the list: too little to read it, or to walk it.
  for (const char* limit : {"-v 40960", "-v 98304"}) {
    CAPTURE(limit);
    const ScanRun run = RunWithLimit(directory.path(), limit, "--files0-from list");
    CHECK(run.exitCode == 1);
    CHECK(run.errors == "orvex-scan: out of memory\n");
    CHECK(run.output == "");
  }
}

TEST_CASE("a pipe or device in place of the engine's configuration is not read") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  for (const std::string make : {"mkfifo", "ln -s /dev/zero"}) {
    CAPTURE(make);
    CHECK(OutputOf(directory.path(),
                   make + " orvexeng.ini && " ORVEX_SCAN " --verbose file 2>log >table; echo $?; "
                          "grep -o 'Open config file .* failed' log; "
                          "rm orvexeng.ini") == "0\nOpen config file orvexeng.ini failed\n");
  }
}

TEST_CASE("help and version exit with 0") {
  const TemporaryDirectory directory;
  const ScanRun help = RunScan(directory.path(), "--help");
  CHECK(help.exitCode == 0);
  CHECK(Contains(help.output, "--processes"));
  CHECK(Contains(help.output, "Exit codes"));
  const ScanRun version = RunScan(directory.path(), "--version");
  CHECK(version.exitCode == 0);
  CHECK(Contains(version.output, "orvex-scan "));
}

TEST_CASE("a file without an answer is listed with its reason and the others are answered") {
  const TemporaryDirectory directory;
  directory.Write("good", "x");
  std::filesystem::create_symlink("nowhere", directory.PathOf("dangling"));
  REQUIRE(OutputOf(directory.path(), "mkfifo pipe && echo done") == "done\n");
  // Its memory is a file that not even its owner can read from the beginning.
  const ScanRun run =
      RunScan(directory.path(), "--json - good missing good/below dangling pipe /proc/self/mem");
  CHECK(run.exitCode == 1);
  const nlohmann::json report = run.Json();
  CHECK(FileIn(report, "good")["answer"]["size"] == 1);
  CHECK_FALSE(FileIn(report, "good").contains("failure"));
  const struct {
    const char* path;
    const char* reason;
    const char* detail;
  } rows[] = {{"missing", "vanished", "No such file or directory"},
              {"good/below", "vanished", "Not a directory"},
              {"dangling", "not regular", "a symbolic link"},
              {"pipe", "not regular", "not a regular file"},
              {"/proc/self/mem", "unreadable", "Input/output error"}};
  for (const auto& row : rows) {
    CAPTURE(row.path);
    const nlohmann::json file = FileIn(report, row.path);
    CHECK(file["answer"].is_null());
    CHECK(file["failure"]["reason"] == row.reason);
    CHECK(Contains(file["failure"]["detail"], row.detail));
    // The table, which is on standard error here, has it too.
    CHECK(Contains(run.errors, row.detail));
  }
  CHECK(report["passes"][0]["failed"] == 1);
}

TEST_CASE("links are followed only when asked") {
  const TemporaryDirectory directory;
  directory.Write("target/file", "x");
  directory.Write("in/own", "x");
  std::filesystem::create_symlink("../target/file", directory.PathOf("in/tofile"));
  std::filesystem::create_directory_symlink("../target", directory.PathOf("in/todirectory"));
  const nlohmann::json kept = RunScan(directory.path(), "--json - in").Json();
  CHECK(kept["files"].size() == 1);
  const ScanRun followed = RunScan(directory.path(), "--json - --follow in");
  CHECK(followed.exitCode == 0);
  CHECK(followed.Json()["files"].size() == 3);
  CHECK(FileIn(followed.Json(), "in/todirectory/file")["answer"]["size"] == 1);
}

TEST_CASE("a directory that contains itself through a link is reported and skipped") {
  const TemporaryDirectory directory;
  directory.Write("in/file", "x");
  std::filesystem::create_directory_symlink("..", directory.PathOf("in/up"));
  const ScanRun run = RunScan(directory.path(), "--json - --follow in");
  CHECK(run.exitCode == 1);
  const nlohmann::json report = run.Json();
  CHECK(FileIn(report, "in/up/in")["failure"]["reason"] == "loop");
  CHECK(FileIn(report, "in/file")["answer"]["size"] == 1);
}

TEST_CASE("more files than a cache keeps cannot hit again, and the report says why") {
  const TemporaryDirectory directory;
  for (int i = 0; i < 5; ++i) directory.Write("in/" + std::to_string(i), "x");
  const ScanRun tooMany =
      RunScan(directory.path(), "--json - --threads 1 --capacity 4 --settle 0 in");
  CHECK(tooMany.exitCode == 0);
  const nlohmann::json report = tooMany.Json();
  CHECK(report["passes"][1]["hashCache"]["hits"] == 0);
  CHECK(report["passes"][1]["hashCache"]["misses"] == 5);
  CHECK(report["passes"][0]["hashCache"]["evictions"] == 1);
  CHECK(report["passes"][0]["fileTypeCache"]["evictions"] == 1);
  CHECK(Contains(report["advice"], "a second pass cannot hit"));
  CHECK(Contains(tooMany.errors, "a second pass cannot hit"));
  const ScanRun enough =
      RunScan(directory.path(), "--json - --threads 1 --capacity 5 --settle 0 in");
  CHECK(enough.Json()["passes"][1]["hashCache"]["hits"] == 5);
  CHECK(enough.Json()["advice"] == "");
}

TEST_CASE("a scan of /proc ends, and a walk leaves pseudo file systems out by default") {
  const TemporaryDirectory directory;
  const ScanRun proc = RunScan(directory.path(), "--json - /proc");
  CHECK(proc.exitCode == 1);
  CHECK(proc.Json()["files"].size() == 1);
  CHECK(Contains(proc.errors, "--pseudo enters it"));
  // Named by itself a file there is answered.
  const nlohmann::json named = RunScan(directory.path(), "--json - /proc/self/status").Json();
  CHECK(FileIn(named, "/proc/self/status")["answer"]["type"]["name"] == "text");
  CHECK(named["passes"][1]["unsettled"] == 1);
  const ScanRun told = RunScan(directory.path(), "--json - --pseudo /proc/self/net/../fdinfo");
  CHECK(told.Json()["files"].size() > 1);

  if (OutputOf("/", "unshare -rm true && echo done") != "done\n") return;
  directory.Write("in/file", "x");
  std::filesystem::create_directory(directory.PathOf("in/proc"));
  const auto report = nlohmann::json::parse(
      OutputOf(directory.path(),
               "unshare -rm sh -c 'mount --rbind /sys in/proc && " ORVEX_SCAN " --json - in'"));
  CHECK(report["files"].size() == 1);
  CHECK(report["notes"][0] ==
        "Pseudo file systems left out, in/proc first: 1; --pseudo enters them");
}

TEST_CASE("the files that processes map are asked about once for each process") {
  const TemporaryDirectory directory;
  // Which processes there are is not ours to say: the tool itself is always one.
  const ScanRun run = RunScan(directory.path(), "--json - --processes --threads 1");
  CHECK((run.exitCode == 0 || run.exitCode == 1));
  const nlohmann::json report = run.Json();
  const std::string library =
      std::filesystem::canonical(std::filesystem::path(ORVEXENG_LIBRARY)).string();
  const nlohmann::json file = FileIn(report, library);
  REQUIRE(file.is_object());
  CHECK(file["visits"] >= 1);
  CHECK(file["answer"]["type"]["name"] == "program");
  CHECK(file["answer"]["sha256"] == FirstWord(OutputOf("/", "sha256sum '" + library + "'")));

  uint64_t visits = 0;
  for (const auto& each : report["files"]) visits += each["visits"].get<uint64_t>();
  CHECK(report["passes"][0]["visits"] == visits);
  // The shell that runs the tool maps the C library of its own width; at least one file
  // of this run is mapped twice, and then the first pass hits already.
  if (visits > report["files"].size()) CHECK(report["passes"][0]["hashCache"]["hits"] > 0);
}

TEST_CASE("a process that has another file mounted over its program is asked about that one") {
  const TemporaryDirectory directory;
  if (OutputOf("/", "unshare -rm true && echo done") != "done\n") {
    MESSAGE("not tried: no mount namespace to be had");
    return;
  }
  REQUIRE(OutputOf(directory.path(),
                   "cp /bin/sleep program && { cat /bin/sleep; echo more; } >other && "
                   "chmod +x other && echo done") == "done\n");
  const auto report = nlohmann::json::parse(
      OutputOf(directory.path(),
               "unshare -rm sh -c 'mount --bind other program && exec ./program 100' >&2 & "
               "until grep -q \"r-xp.*$PWD/program\" /proc/$!/maps; do :; done; " ORVEX_SCAN
               " --processes --passes 1 --json -; kill $!"));
  bool found = false;
  for (const auto& file : report["files"]) {
    const std::string path = file["path"];
    CHECK(path != directory.PathOf("program"));
    if (path.find("/root" + directory.PathOf("program")) == std::string::npos) continue;
    found = true;
    CHECK(file["answer"]["sha256"] == FirstWord(OutputOf(directory.path(), "sha256sum other")));
  }
  CHECK(found);
}

TEST_CASE("the signers of a PE file are reported, from the cache too") {
  const TemporaryDirectory directory;
  const Bytes nested = Signature("Inner Signer");
  directory.Write("signed.exe", PeFile(Join(TableEntry(Signature({{"First Signer", ""}}, {nested})),
                                            TableEntry(Signature("Second Signer")))));
  directory.Write("unsigned.exe", PeFile({}));
  const ScanRun run = RunScan(directory.path(), "--json - --settle 0 .");
  CHECK(run.exitCode == 0);
  const nlohmann::json report = run.Json();
  CHECK(FileIn(report, "./signed.exe")["answer"]["unverifiedSigners"] ==
        nlohmann::json{"First Signer", "Inner Signer", "Second Signer"});
  CHECK(FileIn(report, "./unsigned.exe")["answer"]["unverifiedSigners"] == nlohmann::json::array());
  CHECK(report["passes"][1]["hashCache"]["hits"] == 2);
}

TEST_CASE("a malformed certificate table is reported and the file still has its answer") {
  const TemporaryDirectory directory;
  directory.Write("bad.exe", PeFile(TableEntry(Signature("Signer")), true, 1 << 20));
  const ScanRun run = RunScan(directory.path(), "--json - .");
  CHECK(run.exitCode == 0);
  CHECK(Contains(run.errors, "past the end of the file"));
  const nlohmann::json file = FileIn(run.Json(), "./bad.exe");
  CHECK(Contains(file["certificateFaults"][0], "past the end of the file"));
  CHECK(file["answer"]["sha256"] == FirstWord(OutputOf(directory.path(), "sha256sum bad.exe")));
}

TEST_CASE("the engine's log is shown when asked and never among the output") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  const ScanRun quiet = RunScan(directory.path(), "--json - file");
  CHECK_FALSE(Contains(quiet.errors, "engine INFO"));
  const ScanRun verbose = RunScan(directory.path(), "--json - --verbose file");
  CHECK(Contains(verbose.errors, "engine INFO"));
  CHECK(verbose.Json()["files"].size() == 1);
}

TEST_CASE("terminal control characters in a path are escaped") {
  const TemporaryDirectory directory;
  const ScanRun run = RunScan(directory.path(), "\"$(printf 'no\\033[31msuch')\"");
  CHECK(run.exitCode == 1);
  CHECK(Contains(run.output, "no\\x1b[31msuch"));
  CHECK_FALSE(Contains(run.output, "\x1b"));
}
