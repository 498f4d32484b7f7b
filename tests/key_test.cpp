// The identity of a file in the caches.
#include <doctest/doctest.h>

#include <string>

#include "cache/orvex_lru_cache_key.h"
#include "harness/recorded_log.h"

namespace {

// A key of all fields; what is not given is the same in all keys of a test.
struct Identity {
  const char* path = "/bin/true";
  uint64_t size = 1;
  uint64_t mtime = 2;
  uint64_t deviceID = 3;
  uint64_t fileID = 4;
};

LRUCacheKey KeyOf(uint32_t mask, const Identity& identity, const char* name = "name") {
  metadata_input_s in{};
  in.name = name;
  in.path = identity.path;
  in.size = identity.size;
  in.mtime = identity.mtime;
  in.deviceID = identity.deviceID;
  in.fileID = identity.fileID;
  in.fileOperation = mask;
  return LRUCacheKey(in);
}

bool Equivalent(const LRUCacheKey& a, const LRUCacheKey& b) { return !(a < b) && !(b < a); }

}  // namespace

TEST_CASE("a key takes over every field of its input") {
  LRUCacheKey key = KeyOf(0xff, {"/a", 10, 20, 30, 40}, "the name");
  CHECK(key.flags == 0xff);
  CHECK(key.name == "the name");
  CHECK(key.path == "/a");
  CHECK(key.size == 10);
  CHECK(key.mtime == 20);
  CHECK(key.deviceID == 30);
  CHECK(key.fileID == 40);
}

TEST_CASE("a key of no input is empty") {
  const LRUCacheKey key;
  CHECK(key.flags == 0);
  CHECK(key.name == "");
  CHECK(key.path == "");
  CHECK(key.size == 0);
  CHECK(key.mtime == 0);
  CHECK(key.deviceID == 0);
  CHECK(key.fileID == 0);
}

TEST_CASE("null texts in a key's input read as empty") {
  LRUCacheKey key = KeyOf(KEY_PATH, {nullptr}, nullptr);
  CHECK(key.path == "");
  CHECK(key.name == "");
}

TEST_CASE("keys of equal paths and different sizes are one entry unless the size is selected") {
  const Identity small{"/a", 1};
  const Identity large{"/a", 2};
  CHECK(Equivalent(KeyOf(KEY_PATH, small), KeyOf(KEY_PATH, large)));
  CHECK(KeyOf(KEY_PATH | KEY_SIZE, small) < KeyOf(KEY_PATH | KEY_SIZE, large));
  CHECK_FALSE(KeyOf(KEY_PATH | KEY_SIZE, large) < KeyOf(KEY_PATH | KEY_SIZE, small));
}

TEST_CASE("each bit of the mask selects its field and no other") {
  const struct {
    uint32_t bit;
    Identity larger;
  } rows[] = {{KEY_PATH, {"/bin/zzz"}},
              {KEY_SIZE, {"/bin/true", 9}},
              {KEY_MTIME, {"/bin/true", 1, 9}},
              {KEY_DEVICE_ID, {"/bin/true", 1, 2, 9}},
              {KEY_FILE_ID, {"/bin/true", 1, 2, 3, 9}}};
  for (const auto& row : rows) {
    for (const auto& other : rows) {
      CAPTURE(row.bit);
      CAPTURE(other.bit);
      const LRUCacheKey small = KeyOf(other.bit, {});
      const LRUCacheKey large = KeyOf(other.bit, row.larger);
      CHECK((small < large) == (row.bit == other.bit));
      CHECK_FALSE(large < small);
    }
  }
}

TEST_CASE("the fields of a key count in the order path, size, mtime, device, file") {
  const LRUCacheKey rising[] = {KeyOf(0x1f, {"/a", 9, 9, 9, 9}), KeyOf(0x1f, {"/b", 1, 9, 9, 9}),
                                KeyOf(0x1f, {"/b", 2, 1, 9, 9}), KeyOf(0x1f, {"/b", 2, 2, 1, 9}),
                                KeyOf(0x1f, {"/b", 2, 2, 2, 1}), KeyOf(0x1f, {"/b", 2, 2, 2, 2})};
  for (const LRUCacheKey& left : rising) {
    for (const LRUCacheKey& right : rising) {
      CHECK((left < right) == (&left < &right));
    }
  }
}

TEST_CASE("the bytes of a path count as unsigned and a prefix comes first") {
  CHECK(KeyOf(KEY_PATH, {"/a"}) < KeyOf(KEY_PATH, {"/\xff"}));
  CHECK(KeyOf(KEY_PATH, {"/a"}) < KeyOf(KEY_PATH, {"/aa"}));
  CHECK_FALSE(KeyOf(KEY_PATH, {"/aa"}) < KeyOf(KEY_PATH, {"/a"}));
}

TEST_CASE("numbers of a key count as unsigned 64-bit") {
  const uint64_t large = 0xffffffffffffffff;
  CHECK(KeyOf(KEY_SIZE, {"", 0x7fffffff}) < KeyOf(KEY_SIZE, {"", 0x100000000}));
  CHECK(KeyOf(KEY_SIZE, {"", 1}) < KeyOf(KEY_SIZE, {"", large}));
  CHECK(KeyOf(KEY_MTIME, {"", 0, 1}) < KeyOf(KEY_MTIME, {"", 0, large}));
  CHECK(KeyOf(KEY_DEVICE_ID, {"", 0, 0, 1}) < KeyOf(KEY_DEVICE_ID, {"", 0, 0, large}));
  CHECK(KeyOf(KEY_FILE_ID, {"", 0, 0, 0, 1}) < KeyOf(KEY_FILE_ID, {"", 0, 0, 0, large}));
}

TEST_CASE("the order is that of the left key's mask alone") {
  const LRUCacheKey byPath = KeyOf(KEY_PATH, {"/a", 2});
  const LRUCacheKey bySize = KeyOf(KEY_SIZE, {"/b", 1});
  CHECK(byPath < bySize);
  CHECK(bySize < byPath);
}

TEST_CASE("a key whose mask is empty is never less than another") {
  CHECK_FALSE(KeyOf(0, {"/a", 1, 1, 1, 1}) < KeyOf(0, {"/b", 2, 2, 2, 2}));
  CHECK_FALSE(KeyOf(0xffffffe0, {"/a", 1, 1, 1, 1}) < KeyOf(0x1f, {"/b", 2, 2, 2, 2}));
}

TEST_CASE("equality sees fields that no mask selects") {
  LRUCacheKey key = KeyOf(KEY_PATH, {});
  CHECK(key == KeyOf(0, {}));
  CHECK(key == KeyOf(KEY_PATH, {}, "another name"));
  for (const char* path : {"", "/bin/false", "/bin/trua", "/bin/tru", "/bin/true ", "#bin/true"}) {
    CAPTURE(path);
    CHECK_FALSE(key == KeyOf(KEY_PATH, {path}));
  }
  CHECK_FALSE(key == KeyOf(KEY_PATH, {"/bin/true", 9}));
  CHECK_FALSE(key == KeyOf(KEY_PATH, {"/bin/true", 1, 9}));
  CHECK_FALSE(key == KeyOf(KEY_PATH, {"/bin/true", 1, 2, 9}));
  CHECK_FALSE(key == KeyOf(KEY_PATH, {"/bin/true", 1, 2, 3, 9}));
}

TEST_CASE("keys that differ outside both masks are equivalent and yet not equal") {
  LRUCacheKey first = KeyOf(KEY_PATH, {"/a", 1});
  const LRUCacheKey second = KeyOf(KEY_PATH, {"/a", 2});
  CHECK(Equivalent(first, second));
  CHECK_FALSE(first == second);
}

TEST_CASE("assigning a key leaves the target's name as it was") {
  LRUCacheKey target = KeyOf(1, {"/a", 1, 1, 1, 1}, "mine");
  target = KeyOf(2, {"/b", 2, 3, 4, 5}, "theirs");
  CHECK(target.name == "mine");
  CHECK(target.flags == 2);
  CHECK(target.path == "/b");
  CHECK(target.size == 2);
  CHECK(target.mtime == 3);
  CHECK(target.deviceID == 4);
  CHECK(target.fileID == 5);
}

TEST_CASE("a copied key has the name too") {
  const LRUCacheKey original = KeyOf(2, {"/b", 2, 3, 4, 5}, "name");
  const LRUCacheKey copy(original);
  CHECK(copy.name == "name");
  CHECK(copy.flags == 2);
  CHECK(copy.path == "/b");
  CHECK(copy.fileID == 5);
}

TEST_CASE("a key dumps itself in one DEBUG line") {
  RecordedLog log;
  KeyOf(0x1f, {"/a", 10, 20, 30, 18446744073709551615u}).Dump();
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG Dump orvex_lru_cache: Key: flags=0x0000001f, path=/a, size=10, mtime=20, "
               "deviceID=30, fileID=18446744073709551615"}));
}
