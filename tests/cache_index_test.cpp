// The hash index finds exactly what the ordered map would, however keys collide or
// mix.
#include <doctest/doctest.h>

#include <random>
#include <string>
#include <vector>

#include "support/open_hash_cache.h"
#include "support/records.h"

namespace {

// Enough to make the table grow several times.
constexpr uint64_t kMany = 500;

struct File {
  std::string path;
  uint64_t size;
  uint64_t fileID;
};

metadata_input_s KeyOf(const File& file, uint32_t fields) {
  metadata_input_s in{};
  in.path = file.path.c_str();
  in.size = file.size;
  in.fileID = file.fileID;
  in.fileOperation = fields;
  return in;
}

void Store(OpenHashCache& cache, const File& file, uint32_t fields) {
  metadata_input_s in = KeyOf(file, fields);
  Answer out;
  REQUIRE(cache.UpdateCache(&in, &out) == 0);
}

bool Holds(OpenHashCache& cache, const File& file, uint32_t fields) {
  metadata_input_s in = KeyOf(file, fields);
  Answer out;
  return cache.QueryLRUCache(&in, &out) == LRU_HIT;
}

// Stores the even ones of many files and looks all of them up.
void CheckThatEvenOnesAreFound(const std::vector<File>& files, uint32_t fields) {
  OpenHashCache cache;
  for (size_t i = 0; i < files.size(); i += 2) Store(cache, files[i], fields);
  for (size_t i = 0; i < files.size(); ++i) {
    CAPTURE(files[i].path);
    CAPTURE(files[i].size);
    CHECK(Holds(cache, files[i], fields) == (i % 2 == 0));
  }
}

std::string PathNumber(uint64_t number) { return "/usr/share/name-" + std::to_string(number); }

}  // namespace

TEST_CASE("files are told apart by their numbers") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", i, i + 1});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("many names of one file are told apart by their paths") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 7, 9});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("files without a file number are told apart by their paths") {
  std::vector<File> files;
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({PathNumber(i), 0, 0});
  CheckThatEvenOnesAreFound(files, kAllKeyBits);
}

TEST_CASE("files whose numbers all hash alike are found all the same") {
  std::vector<File> files;
  // Odd multiples of so high a power of two have no low bit to be told apart by.
  for (uint64_t i = 0; i < kMany; ++i) files.push_back({"/a", (i + 1) << 44, 0});
  CheckThatEvenOnesAreFound(files, KEY_SIZE);
}

TEST_CASE("files are found by one mask after files of another came in, and after a flush") {
  OpenHashCache cache;
  Store(cache, {"/a", 1, 1}, KEY_PATH);
  CHECK(Holds(cache, {"/a", 2, 2}, KEY_PATH));
  Store(cache, {"/b", 1, 1}, KEY_PATH | KEY_SIZE);
  CHECK(Holds(cache, {"/a", 2, 2}, KEY_PATH));
  CHECK(Holds(cache, {"/b", 1, 2}, KEY_PATH | KEY_SIZE));
  cache.FlushCache();
  CHECK_FALSE(Holds(cache, {"/a", 2, 2}, KEY_PATH));
  Store(cache, {"/c", 1, 1}, KEY_SIZE);
  CHECK(Holds(cache, {"/d", 1, 2}, KEY_SIZE));
}

TEST_CASE("an entry that goes with another's node is no longer found") {
  OpenHashCache cache;
  cache.SetCapacity(2);
  const File file{"/a", 1, 1};
  metadata_input_s in = KeyOf(file, kAllKeyBits);
  Answer out;
  LRUCacheKey key(in);
  // Two nodes of one key, which only this operation lets in.
  for (int i = 0; i < 2; ++i) cache.LRUCacheNodeUpdate(key, new LRUCacheNode(in, out), LRU_INSERT);
  CHECK(Holds(cache, file, kAllKeyBits));
  for (uint64_t i = 2; i < 5; ++i) Store(cache, {"/a", i, i}, kAllKeyBits);
  CHECK_FALSE(Holds(cache, file, kAllKeyBits));
  CHECK(cache.CacheNodeList.size() == 2);
}

TEST_CASE("what is found stays right while files come and go at random") {
  OpenHashCache cache;
  cache.SetCapacity(100);
  std::mt19937 random(1);
  for (int step = 0; step < 20000; ++step) {
    const uint64_t number = random() % 300;
    const File file{PathNumber(number % 7), number, number / 50};
    metadata_input_s in = KeyOf(file, kAllKeyBits);
    const bool inMap = cache.CacheMap.find(LRUCacheKey(in)) != cache.CacheMap.end();
    REQUIRE(Holds(cache, file, kAllKeyBits) == inMap);
    if (random() % 2 == 0) Store(cache, file, kAllKeyBits);
  }
}
