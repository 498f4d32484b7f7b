// What distinguishes a file from its earlier version, and when that is reliable.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "ask/calculation.h"
#include "file/identity.h"
#include "file/settling.h"
#include "harness/calculating_host.h"
#include "harness/temporary_directory.h"

using orvexscan::Calculation;
using orvexscan::Identity;
using orvexscan::IdentityMode;
using orvexscan::IdentityOf;
using orvexscan::Settling;

namespace {

constexpr IdentityMode kModes[] = {IdentityMode::kMtime, IdentityMode::kCtime,
                                   IdentityMode::kStrict};
constexpr timespec kTimes[2] = {{1000000000, 5}, {1000000000, 5}};

Sha256 DigestOf(const std::string& content) {
  Sha256 digest{};
  REQUIRE(EVP_Digest(content.data(), content.size(), digest.data(), nullptr, EVP_sha256(),
                     nullptr) == 1);
  return digest;
}

// Writes one file in place, again and again.
class Writer {
 public:
  explicit Writer(const std::string& path)
      : descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) {
    REQUIRE(descriptor_ >= 0);
  }
  ~Writer() { close(descriptor_); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void Write(const std::string& content) {
    const ssize_t written = pwrite(descriptor_, content.data(), content.size(), 0);
    REQUIRE(written == static_cast<ssize_t>(content.size()));
  }
  // Sets mtime to what it always is then.
  void WriteAndCoverUp(const std::string& content) {
    Write(content);
    REQUIRE(futimens(descriptor_, kTimes) == 0);
  }

 private:
  const int descriptor_;
};

// How many of the answers about a file that is rewritten again and again are those of
// an older content, though its size and mtime never change.
int StaleAnswers(int rewrites, IdentityMode mode, std::chrono::nanoseconds settling) {
  const TemporaryDirectory directory;
  const std::string path = directory.PathOf("file");
  Writer writer(path);
  CalculatingHost host(settling);
  int stale = 0;
  for (int i = 0; i < rewrites; ++i) {
    const std::string content = std::to_string(1000000 + i);
    writer.WriteAndCoverUp(content);
    const Identity identity = IdentityOf(path, false, mode);
    Calculation calculation(&host.tools, identity, host.rules);
    // Nothing but the digest: finding the type takes far longer.
    metadata_input_s query = QueryFor(path, identity);
    query.queryFlags = QUERY_DIGEST32;
    REQUIRE(host.Ask(query, calculation.Callbacks()) == 0);
    if (host.digest != DigestOf(content)) ++stale;
  }
  return stale;
}

// Some change of the file that leaves size, content and mtime alone, repeated until the
// clock that stamps files has moved on.
Identity AfterTouchingCtime(const std::string& path, IdentityMode mode) {
  const Identity before = IdentityOf(path, false, mode);
  for (;;) {
    std::filesystem::rename(path, path + ".away");
    std::filesystem::rename(path + ".away", path);
    REQUIRE(chmod(path.c_str(), 0600) == 0);
    const Identity after = IdentityOf(path, false, mode);
    if (after.ctimeNs != before.ctimeNs) return after;
  }
}

bool SameKey(const metadata_input_s& left, const metadata_input_s& right) {
  return left.size == right.size && left.mtime == right.mtime && left.deviceID == right.deviceID &&
         left.fileID == right.fileID;
}

// Long after everything that the tests write.
Settling::Instant NextCentury() { return std::chrono::hours(24 * 365 * 130); }

Identity WithTimes(std::chrono::nanoseconds mtime, std::chrono::nanoseconds ctime) {
  Identity identity;
  identity.mtimeNs = static_cast<uint64_t>(mtime.count());
  identity.ctimeNs = static_cast<uint64_t>(ctime.count());
  return identity;
}

}  // namespace

TEST_CASE("ten thousand rewrites behind the same size and mtime give no stale digest") {
  CHECK(StaleAnswers(10000, Identity().mode, kDefaultSettling) == 0);
}

TEST_CASE("rewrites behind the same mtime do give stale digests with nothing to guard against") {
  CHECK(StaleAnswers(10, IdentityMode::kMtime, {}) == 9);
}

TEST_CASE("the guard alone saves a file that is still being written, in every mode") {
  for (const IdentityMode mode : kModes) {
    CAPTURE(NameOf(mode));
    CHECK(StaleAnswers(100, mode, kDefaultSettling) == 0);
  }
}

TEST_CASE("a file renamed or with other permissions has changed by ctime, but not by mtime") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  for (const IdentityMode mode : kModes) {
    CAPTURE(NameOf(mode));
    const Identity before = IdentityOf(path, false, mode);
    const Identity after = AfterTouchingCtime(path, mode);
    CHECK(before != after);
    CHECK(SameKey(QueryFor(path, before), QueryFor(path, after)) == (mode == IdentityMode::kMtime));
  }
}

TEST_CASE("a file that nobody touches is unchanged in every mode") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  for (const IdentityMode mode : kModes) {
    CAPTURE(NameOf(mode));
    const Identity first = IdentityOf(path, false, mode);
    const Identity second = IdentityOf(path, false, mode);
    CHECK(first == second);
    CHECK(SameKey(QueryFor(path, first), QueryFor(path, second)));
  }
}

TEST_CASE("everything that strict mode looks at is part of the key, and of no other mode's") {
  for (const IdentityMode mode : kModes) {
    CAPTURE(NameOf(mode));
    Identity identity;
    identity.mode = mode;
    const metadata_input_s plain = QueryFor("path", identity);
    for (uint64_t Identity::*field :
         {&Identity::generation, &Identity::birthNs, &Identity::mount}) {
      Identity other = identity;
      other.*field = 1;
      CHECK(SameKey(plain, QueryFor("path", other)) == (mode != IdentityMode::kStrict));
    }
  }
}

TEST_CASE("the same numbers in other fields are another file") {
  Identity left;
  left.mode = IdentityMode::kStrict;
  left.generation = 7;
  left.birthNs = 9;
  Identity right = left;
  std::swap(right.generation, right.birthNs);
  CHECK_FALSE(SameKey(QueryFor("path", left), QueryFor("path", right)));
}

TEST_CASE("only mtime mode hands device and inode to the engine as they are") {
  Identity identity;
  identity.device = 3;
  identity.inode = 4;
  identity.mode = IdentityMode::kMtime;
  CHECK(QueryFor("path", identity).deviceID == 3);
  CHECK(QueryFor("path", identity).fileID == 4);
  identity.mode = IdentityMode::kStrict;
  CHECK(QueryFor("path", identity).deviceID != 3);
  CHECK(QueryFor("path", identity).fileID != 4);
}

TEST_CASE("a file is settled when both its times lie far enough back") {
  using std::chrono::seconds;
  const Settling settling(seconds(2));
  const Settling::Instant now = seconds(1000);
  CHECK(settling.IsSettled(WithTimes(seconds(998), seconds(998)), now));
  CHECK(settling.IsSettled(WithTimes(seconds(-5), seconds(0)), now));
  const std::chrono::nanoseconds justTooYoung = seconds(998) + std::chrono::nanoseconds(1);
  CHECK_FALSE(settling.IsSettled(WithTimes(justTooYoung, seconds(0)), now));
  CHECK_FALSE(settling.IsSettled(WithTimes(seconds(0), justTooYoung), now));
  CHECK_FALSE(settling.IsSettled(WithTimes(seconds(5000000000), seconds(0)), now));
  CHECK_FALSE(settling.IsSettled(WithTimes(seconds(0), seconds(1001)), now));
  CHECK(Settling(seconds(0)).IsSettled(WithTimes(seconds(2000), seconds(2000)), now));
}

TEST_CASE("the answer about a young file is kept in neither cache, about an old one in both") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  for (const bool old : {false, true}) {
    CAPTURE(old);
    CalculatingHost host(old ? Settling(kDefaultSettling, NextCentury)
                             : Settling(kDefaultSettling));
    for (int i = 0; i < 2; ++i) {
      Calculation calculation(&host.tools, identity, host.rules);
      REQUIRE(host.Query(path, identity, &calculation) == 0);
      CHECK(calculation.settled() == old);
    }
    orvex_metrics_s metrics{};
    unsigned int written = 0;
    REQUIRE(orvex_get_metrics(&metrics, sizeof metrics, &written) == 0);
    CHECK(metrics.cacheHelpFuncCalled == (old ? 1 : 2));
    CHECK(metrics.fileTypeHelpFuncCalled == (old ? 1 : 2));
  }
}

TEST_CASE("the answer about a file that somebody can write to through a mapping is not kept") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  CalculatingHost host(Settling(kDefaultSettling, NextCentury));
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
  REQUIRE(descriptor >= 0);
  void* const mapping = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  REQUIRE(mapping != MAP_FAILED);
  close(descriptor);
  Calculation mapped(&host.tools, identity, host.rules);
  REQUIRE(host.Query(path, identity, &mapped) == 0);
  CHECK_FALSE(mapped.settled());
  CHECK_FALSE(host.IsCached(path, identity));
  munmap(mapping, 1);
  Calculation free(&host.tools, identity, host.rules);
  REQUIRE(host.Query(path, identity, &free) == 0);
  CHECK(free.settled());
  CHECK(host.IsCached(path, identity));
}

TEST_CASE("the answer about a file whose size is not that of its content is kept in no cache") {
  CalculatingHost host;
  const std::string path = "/proc/version";
  const Identity identity = IdentityOf(path, false);
  CHECK(identity.size == 0);
  for (int i = 0; i < 2; ++i) {
    Calculation calculation(&host.tools, identity, host.rules);
    REQUIRE(host.Query(path, identity, &calculation) == 0);
    CHECK(calculation.bytesHashed() > 0);
    CHECK_FALSE(calculation.settled());
  }
  CHECK(host.engine.metrics().cacheHelpFuncCalled == 2);
  CHECK(host.engine.metrics().fileTypeHelpFuncCalled == 2);
}

TEST_CASE("each callback by itself keeps a young file's answer out") {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "x");
  const Identity identity = IdentityOf(path, false);
  CalculatingHost host(kDefaultSettling);
  for (const auto part : {&orvexeng::callbacks::hash, &orvexeng::callbacks::file_type}) {
    Calculation calculation(&host.tools, identity, host.rules);
    metadata_input_s in = QueryFor(path, identity);
    orvexeng::answer out;
    REQUIRE((calculation.Callbacks().*part)(in, out) == 0);
    CHECK((in.invOperation & INV_KEEP_IN_CACHE) == 0);
  }
}

TEST_CASE("a file whose mtime is set back while it is read is reported as changed in every mode") {
  const TemporaryDirectory directory;
  const std::string path = directory.PathOf("file");
  Writer writer(path);
  writer.WriteAndCoverUp("one");
  for (const IdentityMode mode : kModes) {
    CAPTURE(NameOf(mode));
    const Identity before = IdentityOf(path, false, mode);
    orvexscan::FileReader reader(path, before, false);
    reader.CheckUnchanged();
    while (IdentityOf(path, false, mode).ctimeNs == before.ctimeNs) writer.WriteAndCoverUp("two");
    CHECK_THROWS_AS(reader.CheckUnchanged(), orvexscan::FileFailure);
  }
}

TEST_CASE("no digest of two contents mixed is ever kept while a thread writes them in turn") {
  const TemporaryDirectory directory;
  const std::string path = directory.PathOf("file");
  const std::string contents[2] = {std::string(1 << 20, 'a'), std::string(1 << 20, 'b')};
  const Sha256 digests[2] = {DigestOf(contents[0]), DigestOf(contents[1])};
  constexpr int kWrites = 200;
  Writer writer(path);
  writer.Write(contents[0]);

  CalculatingHost host(kDefaultSettling);
  std::atomic<int> queries{0};
  std::atomic<bool> writing{true};
  // One write for each query or so: some have stamped the file when a query begins, and
  // are over when it ends.
  std::thread flipping([&] {
    for (int i = 1; i <= kWrites; ++i) {
      const int before = queries;
      writer.Write(contents[i % 2]);
      while (queries == before) std::this_thread::yield();
    }
    writing = false;
  });
  for (; writing; ++queries) {
    const Identity identity = IdentityOf(path, false);
    Calculation calculation(&host.tools, identity, host.rules);
    metadata_input_s query = QueryFor(path, identity);
    // Not the file type, which would let the write end before the digests begin.
    query.queryFlags &= ~static_cast<uint32_t>(QUERY_FILE_TYPE);
    const int code = host.Ask(query, calculation.Callbacks());
    CHECK((code == 0 || code == static_cast<int>(orvexscan::FailureReason::kChanged)));
    if (host.IsCached(path, identity)) {
      CHECK((host.digest == digests[0] || host.digest == digests[1]));
    }
  }
  flipping.join();
}
