// Finding files, telling them apart and reading them.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
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

TEST_CASE("directories are walked in name order, paths in the order given") {
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

TEST_CASE("a file written to while it is read is reported as changed") {
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

TEST_CASE("the file in a line of a maps file is found, whatever its name is made of") {
  using Names = std::vector<std::string>;
  const struct {
    const char* line;
    Names names;
  } rows[] = {
      {"5581a000-5581c000 r--p 00000000 fe:00 1234       /usr/bin/cat", {"/usr/bin/cat"}},
      {"5581a000-5581c000 r--p 00000000 fe:00 1234       /a b  c", {"/a b  c"}},
      {"5581a000-5581c000 r--p 00000000 fe:00 1234       /a\\012b", {"/a\\012b", "/a\nb"}},
      {"7ffd0000-7ffd2000 rw-p 00000000 00:00 0          [stack]", {}},
      {"7ffd0000-7ffd2000 rw-p 00000000 00:00 0 ", {}},
      {"7ffd0000-7ffd2000 rw-p 00000000 00:0d 5          anon_inode:[x]", {}},
      {"5581a000-5581c000 r--p 00000000 fe 1234          /a", {}},
      {"5581a000-5581c000 r--p 00000000 fe:00 12x4       /a", {}},
      {"5581a000-5581c000 r--p 00000000 fe:00 99999999999999999999 /a", {}},
      {"", {}},
      {"5581a000-5581c000", {}},
  };
  for (const auto& row : rows) {
    CAPTURE(row.line);
    CHECK(orvexscan::ParseMapsLine(row.line).names == row.names);
  }
  const auto file = orvexscan::ParseMapsLine("1000-2000 r--p 0 fe:1f 18446744073709551615 /a");
  CHECK(file.device == makedev(0xfe, 0x1f));
  CHECK(file.inode == 18446744073709551615u);
}

namespace {

// A line of a maps file about the file at path, which the process knows by that name.
std::string MapsLine(const std::string& path, const std::string& name) {
  struct stat status {};
  REQUIRE(stat(path.c_str(), &status) == 0);
  std::ostringstream line;
  line << "1000-2000 r--p 00000000 " << std::hex << major(status.st_dev) << ":"
       << minor(status.st_dev) << std::dec << " " << status.st_ino << "     " << name << "\n";
  return line.str();
}

std::string MapsLine(const std::string& path) { return MapsLine(path, path); }

}  // namespace

TEST_CASE("mapped files are visited process by process, each once for each") {
  const TemporaryDirectory directory;
  const std::string library = directory.Write("lib.so", "x");
  const std::string program = directory.Write("program", "x");
  const std::string odd = directory.Write("odd (deleted)", "x");
  directory.Write("proc/100/maps", MapsLine(program) + MapsLine(library) + MapsLine(library));
  directory.Write("proc/9/maps", MapsLine(library) + MapsLine(odd) + MapsLine("/dev/null") +
                                     "1000-2000 r--p 00000000 00:00 0     [heap]\n");
  directory.Write("proc/self/maps", MapsLine(program));
  directory.Write("proc/30/comm", "");
  Inventory inventory;
  orvexscan::AddMappedFiles(directory.PathOf("proc"), &inventory);
  CHECK(VisitedPaths(inventory) == std::vector<std::string>{library, odd, program, library});
  CHECK(inventory.notes() == std::vector<std::string>{"Processes that map files: 2"});
}

TEST_CASE("the file that is mapped is asked about, and not another one of that name") {
  const TemporaryDirectory directory;
  const std::string newline = directory.Write("a\nb", "x");
  const std::string backslash = directory.Write("a\\012b", "x");
  const std::string replaced = directory.Write("replaced", "x");
  const std::string old = directory.Write("old", "x");
  const std::string ambiguous = directory.PathOf("a\\012b");
  directory.Write("proc/1/maps", MapsLine(newline, ambiguous) + MapsLine(backslash, ambiguous) +
                                     MapsLine(old, replaced) +
                                     MapsLine(old, directory.PathOf("gone (deleted)")));
  Inventory inventory;
  orvexscan::AddMappedFiles(directory.PathOf("proc"), &inventory);
  CHECK(VisitedPaths(inventory) == std::vector<std::string>{newline, backslash});
  CHECK(inventory.notes() ==
        std::vector<std::string>{"Processes that map files: 1",
                                 "Mapped files deleted or replaced since, left out: 2"});
}

TEST_CASE("a file that only its process can name is read through that process") {
  const TemporaryDirectory directory;
  directory.Write("here/program", "not this");
  const std::string inside = directory.Write("there" + directory.path() + "/here/program", "this");
  std::filesystem::create_directories(directory.PathOf("proc/1"));
  std::filesystem::create_directory_symlink(directory.PathOf("there"),
                                            directory.PathOf("proc/1/root"));
  directory.Write("proc/1/maps", MapsLine(inside, directory.PathOf("here/program")));
  directory.Write("proc/2/maps", MapsLine(inside, directory.PathOf("here/program")));
  Inventory inventory;
  orvexscan::AddMappedFiles(directory.PathOf("proc"), &inventory);
  const std::string path = directory.PathOf("proc/1/root") + directory.path() + "/here/program";
  CHECK(VisitedPaths(inventory) == std::vector<std::string>{path, path});
  CHECK(inventory.notes() ==
        std::vector<std::string>{
            "Processes that map files: 2",
            "Mapped files with another name here, or none, read through a process: 1"});
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
