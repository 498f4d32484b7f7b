// Files of more bytes than 32 bits can count.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "file/descriptor.h"
#include "file/file_reader.h"
#include "file/identity.h"
#include "harness/deep_form.h"
#include "harness/scan_run.h"
#include "harness/temporary_directory.h"

using orvexscan::IdentityOf;

namespace {

constexpr uint64_t kSize = (uint64_t{4} << 30) + 4097;

static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8 && sizeof(time_t) == 8,
              "sizes, inodes and times have 64 bits on every target");

// Writes one byte and leaves what comes before it, which takes no room on the disk.
void PutByte(const std::string& path, uint64_t at, char byte) {
  const orvexscan::Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  REQUIRE(file.get() >= 0);
  REQUIRE(pwrite(file.get(), &byte, 1, static_cast<off_t>(at)) == 1);
}

}  // namespace

TEST_CASE("a byte beyond 4 GiB is read where it is, and no byte before") {
  const TemporaryDirectory directory;
  const std::string path = directory.PathOf("sparse");
  PutByte(path, kSize - 1, 'x');
  const orvexscan::Identity identity = IdentityOf(path, false);
  CHECK(identity.size == kSize);
  CHECK(QueryFor(path, identity).size == kSize);
  orvexscan::FileReader reader(path, identity, false);
  CHECK(reader.size() == kSize);
  unsigned char bytes[8] = {};
  CHECK(reader.ReadAt(kSize - 2, bytes, sizeof bytes) == 2);
  CHECK(bytes[0] == 0);
  CHECK(bytes[1] == 'x');
  CHECK(reader.ReadAt(kSize, bytes, sizeof bytes) == 0);
  // Where an offset of 32 bits would come out.
  CHECK(reader.ReadAt((kSize - 1) & 0xffffffff, bytes, 1) == 1);
  CHECK(bytes[0] == 0);
}

TEST_CASE("the last byte of a file beyond 4 GiB counts in every digest" *
          doctest::skip(!IsDeepForm())) {
  const TemporaryDirectory directory;
  const std::string path = directory.PathOf("sparse");
  nlohmann::json answers[2];
  for (int i = 0; i < 2; ++i) {
    PutByte(path, kSize - 1, i == 0 ? 'x' : 'y');
    const nlohmann::json report = RunScan(directory.path(), "--json - --passes 1 sparse").Json();
    CHECK(report["passes"][0]["bytesHashed"] == kSize);
    answers[i] = FileIn(report, "sparse")["answer"];
    CHECK(answers[i]["size"] == kSize);
  }
  for (const char* digest : {"md5", "sha1", "sha256"})
    CHECK(answers[0][digest] != answers[1][digest]);
  CHECK(answers[1]["sha256"] == OutputOf(directory.path(), "sha256sum sparse").substr(0, 64));
}
