// Finding files, telling them apart and reading them.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "content/file_type.h"
#include "file/file_failure.h"
#include "file/file_reader.h"
#include "file/identity.h"
#include "harness/temporary_directory.h"
#include "inventory/inventory.h"
#include "inventory/process_maps.h"
#include "inventory/walk.h"

using orvexscan::FailureReason;
using orvexscan::FileFailure;
using orvexscan::FileReader;
using orvexscan::IdentityOf;
using orvexscan::Inventory;

namespace {

std::vector<std::string> VisitedPaths(const Inventory& inventory) {
  std::vector<std::string> paths;
  for (size_t visit = 0; visit < inventory.visitCount(); ++visit) {
    paths.push_back(inventory.PathOf(inventory.RecordOfVisit(visit)));
  }
  return paths;
}

template <typename Action>
FailureReason ReasonOf(Action&& action) {
  try {
    action();
  } catch (const FileFailure& failure) {
    return failure.reason();
  }
  FAIL("nothing failed");
  return FailureReason::kEngine;
}

}  // namespace

TEST_CASE("a file is walked in the order of names, the paths in the order given") {
  const TemporaryDirectory directory;
  for (const char* name : {"b/2", "b/1", "a/x/y", "a/c", "z"}) directory.Write(name, "x");
  Inventory inventory;
  const std::string root = directory.path();
  orvexscan::Walk({root + "/z", root + "/b", root + "/a"}, {}, &inventory);
  CHECK(VisitedPaths(inventory) == std::vector<std::string>{root + "/z", root + "/b/1",
                                                            root + "/b/2", root + "/a/c",
                                                            root + "/a/x/y"});
}

TEST_CASE("a path given twice is one file visited twice") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  Inventory inventory;
  orvexscan::Walk({path, path}, {}, &inventory);
  CHECK(inventory.visitCount() == 2);
  CHECK(inventory.FileCount() == 1);
  CHECK(inventory.records().size() == 1);
}

TEST_CASE("sizes and offsets beyond 4 GiB are not cut") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("sparse", "");
  constexpr uint64_t kFar = (uint64_t{5} << 30) + 7;
  const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  REQUIRE(descriptor >= 0);
  REQUIRE(pwrite(descriptor, "end", 3, static_cast<off_t>(kFar)) == 3);
  close(descriptor);
  const orvexscan::Identity identity = IdentityOf(path, false);
  CHECK(identity.size == kFar + 3);
  FileReader reader(path, identity, false);
  unsigned char bytes[8] = {};
  CHECK(reader.ReadAt(kFar, bytes, sizeof bytes) == 3);
  CHECK(std::string(bytes, bytes + 3) == "end");
}

TEST_CASE("a time beyond 2038 is not cut") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  const timespec times[2] = {{5000000000, 0}, {5000000000, 123456789}};
  REQUIRE(utimensat(AT_FDCWD, path.c_str(), times, 0) == 0);
  CHECK(IdentityOf(path, false).mtimeNs == 5000000000123456789u);
}

TEST_CASE("a file written to while it is read is told as changed") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", std::string(100, 'x'));
  FileReader reader(path, IdentityOf(path, false), false);
  reader.CheckUnchanged();
  std::vector<unsigned char> buffer(10);
  bool grown = false;
  reader.ReadAll(&buffer, [&](const unsigned char*, size_t) {
    if (!grown) directory.Write("file", std::string(150, 'y'));
    grown = true;
  });
  CHECK(ReasonOf([&] { reader.CheckUnchanged(); }) == FailureReason::kChanged);
}

TEST_CASE("all of a file is read, also when it fills the buffer exactly") {
  const TemporaryDirectory directory;
  for (const size_t size : {0u, 1u, 9u, 10u, 11u, 20u}) {
    CAPTURE(size);
    const std::string path = directory.Write("file", std::string(size, 'x'));
    FileReader reader(path, IdentityOf(path, false), false);
    std::vector<unsigned char> buffer(10);
    size_t seen = 0;
    CHECK(reader.ReadAll(&buffer, [&](const unsigned char*, size_t count) { seen += count; }) ==
          size);
    CHECK(seen == size);
  }
}

TEST_CASE("only a regular file has an identity") {
  const TemporaryDirectory directory;
  directory.Write("file", "x");
  std::filesystem::create_symlink("file", directory.PathOf("link"));
  REQUIRE(mkfifo(directory.PathOf("pipe").c_str(), 0600) == 0);
  const auto reasonOf = [&](const std::string& name, bool follow) {
    return ReasonOf([&] { IdentityOf(directory.PathOf(name), follow); });
  };
  CHECK(reasonOf("link", false) == FailureReason::kNotRegular);
  CHECK(reasonOf("pipe", false) == FailureReason::kNotRegular);
  CHECK(reasonOf(".", false) == FailureReason::kNotRegular);
  CHECK(reasonOf("missing", false) == FailureReason::kVanished);
  CHECK(IdentityOf(directory.PathOf("link"), true) == IdentityOf(directory.PathOf("file"), false));
}

TEST_CASE("the path in a line of a maps file is found, whatever it is made of") {
  const struct {
    const char* line;
    const char* path;
  } rows[] = {
      {"5581a000-5581c000 r--p 00000000 fe:00 1234       /usr/bin/cat", "/usr/bin/cat"},
      {"5581a000-5581c000 r--p 00000000 fe:00 1234       /a b  c", "/a b  c"},
      {"5581a000-5581c000 r--p 00000000 fe:00 1234       /a\\012b", "/a\nb"},
      {"7ffd0000-7ffd2000 rw-p 00000000 00:00 0          [stack]", ""},
      {"7ffd0000-7ffd2000 rw-p 00000000 00:00 0 ", ""},
      {"7ffd0000-7ffd2000 rw-p 00000000 00:0d 5          anon_inode:[x]", ""},
      {"", ""},
      {"5581a000-5581c000", ""},
  };
  for (const auto& row : rows) {
    CAPTURE(row.line);
    CHECK(orvexscan::PathInMapsLine(row.line) == row.path);
  }
}

TEST_CASE("mapped files are visited process by process, each once for each") {
  const TemporaryDirectory directory;
  const std::string library = directory.Write("lib.so", "x");
  const std::string program = directory.Write("program", "x");
  const std::string odd = directory.Write("odd (deleted)", "x");
  const auto line = [](const std::string& path) {
    return "1000-2000 r--p 00000000 fe:00 12     " + path + "\n";
  };
  directory.Write("proc/100/maps", line(program) + line(library) + line(library));
  directory.Write("proc/9/maps", line(library) + line(odd) + line("/dev/null") + line("[heap]"));
  directory.Write("proc/20/maps", line(directory.PathOf("gone.so (deleted)")));
  directory.Write("proc/self/maps", line(program));
  directory.Write("proc/30/comm", "");
  Inventory inventory;
  orvexscan::AddMappedFiles(directory.PathOf("proc"), &inventory);
  CHECK(VisitedPaths(inventory) == std::vector<std::string>{library, odd, program, library});
  CHECK(inventory.notes() ==
        std::vector<std::string>{"3 processes map files",
                                 "1 mapped files have been deleted and are left out"});
}

TEST_CASE("the type of a file comes from its content and never from its name") {
  const TemporaryDirectory directory;
  orvexscan::FileTypeReader types;
  const struct {
    const char* name;
    std::string content;
    int32_t major;
    int32_t minor;
  } rows[] = {{"empty.exe", "", 11, 0},
              {"text.png", "plain words\n", 5, 1},
              {"script.txt", "#!/bin/sh\nexit 0\n", 2, 1},
              {"archive.txt", std::string("\x1f\x8b\x08\0\0\0\0\0\0\3", 10), 3, 3},
              {"noise", std::string("\x01\x02\xfe\xff\x80\0\x99", 7), 0, 0}};
  for (const auto& row : rows) {
    CAPTURE(row.name);
    const std::string path = directory.Write(row.name, row.content);
    FileReader reader(path, IdentityOf(path, false), false);
    const orvexscan::FileType type = types.Read(reader.descriptor());
    CHECK(type.major == row.major);
    CHECK(type.minor == row.minor);
  }
}

TEST_CASE("a type that the table does not name falls under its family or is unknown") {
  CHECK(orvexscan::FileTypeFor("application/x-pie-executable").minor == 2);
  CHECK(orvexscan::FileTypeFor("image/x-unheard-of").major == 6);
  CHECK(orvexscan::FileTypeFor("image/x-unheard-of").minor == 0);
  CHECK(orvexscan::FileTypeFor("application/x-unheard-of").major == 0);
  CHECK(orvexscan::FileTypeFor("").major == 0);
  CHECK(std::string(orvexscan::NameOfMajor(1)) == "program");
  CHECK(std::string(orvexscan::NameOfMajor(11)) == "empty");
  CHECK(std::string(orvexscan::NameOfMajor(12)) == "unknown");
  CHECK(std::string(orvexscan::NameOfMajor(-1)) == "unknown");
}
