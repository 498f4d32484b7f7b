// The entries of a cache against the naive cache of the model, on keys and nodes alone.
#include "cache/orvex_lru_cache_entries.h"

#include <doctest/doctest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "harness/colliding_numbers.h"
#include "harness/records.h"
#include "model/model_cache.h"

namespace {

struct Numbered {
  explicit Numbered(int itsNumber) : number(itsNumber) {}
  int number;
  int entry = 0;  // the model's
};

// Both caches: given the same operations, compared after each step.
class Pair {
 public:
  ~Pair() { Clear(); }

  // The number of the node found, or 0.
  int Find(metadata_input_s in) {
    const LRUCacheSlot found = entries_.Find(LRUCacheKeyView(in));
    const Numbered* const expected = model_.Find(ModelKey(in));
    const int number = found != 0 ? NodeIn(found)->number : 0;
    CHECK(number == (expected != nullptr ? expected->number : 0));
    return number;
  }
  void Insert(metadata_input_s in) {
    const int number = ++nodes_;
    // Any node may be built in place or elsewhere, and any key share its text or not.
    auto* const node =
        number % 3 == 0 ? new Numbered(number) : new (entries_.MemoryForNode()) Numbered(number);
    const bool copiesText = number % 2 == 0;
    const std::string passing(TextOrEmpty(in.path));
    LRUCacheKeyView key(in);
    if (copiesText) key.path = passing.c_str();
    entries_.Insert(key, HashOf(key), entries_.Find(key), node, copiesText);
    model_.Insert(ModelKey(in), std::make_unique<Numbered>(number));
  }
  // The node at this place, from the most recently used one.
  void MoveToFront(size_t place) {
    LRUCacheSlot slot = entries_.After(0);
    for (size_t at = 0; at < place; ++at) slot = entries_.After(slot);
    entries_.MoveToFront(slot);
    model_.MoveToFront(model_.nodes[place].get());
  }
  void RemoveOldest() {
    const LRUCacheSlot removed = entries_.RemoveOldest();
    CHECK(NodeIn(removed)->number == model_.nodes.back()->number);
    End(removed);
    model_.RemoveOldest();
  }
  void Clear() {
    for (LRUCacheSlot slot = entries_.After(0); slot != 0; slot = entries_.After(slot)) End(slot);
    entries_.Clear();
    model_.Clear();
  }
  size_t Size() const { return entries_.Size(); }

  void CheckThatAllIsTheSame() {
    REQUIRE(entries_.Size() == model_.nodes.size());
    std::vector<std::string> recency, expectedRecency, keys, expectedKeys;
    for (LRUCacheSlot slot = entries_.After(0); slot != 0; slot = entries_.After(slot)) {
      recency.push_back(std::to_string(NodeIn(slot)->number) +
                        (entries_.HasEntry(slot) ? "" : "-"));
    }
    for (const auto& node : model_.nodes) {
      expectedRecency.push_back(std::to_string(node->number) + (node->entry != 0 ? "" : "-"));
    }
    for (const LRUCacheSlot slot : entries_.InOrderOfKeys()) {
      const LRUCacheKeyView key = entries_.KeyIn(slot);
      keys.push_back(Told(key.flags, key.path, key.size, key.mtime, key.deviceID, key.fileID));
    }
    for (const ModelKey* key : model_.KeysInOrder()) {
      expectedKeys.push_back(Told(key->flags, key->path, key->numbers[0], key->numbers[1],
                                  key->numbers[2], key->numbers[3]));
    }
    REQUIRE(recency == expectedRecency);
    REQUIRE(keys == expectedKeys);
    REQUIRE(entries_.EntryCount() == keys.size());
  }

 private:
  template <typename... Numbers>
  static std::string Told(uint32_t flags, const std::string& path, Numbers... numbers) {
    return path + ((" " + std::to_string(numbers)) + ...) + " " + std::to_string(flags);
  }

  Numbered* NodeIn(LRUCacheSlot slot) { return static_cast<Numbered*>(entries_.NodeIn(slot)); }
  void End(LRUCacheSlot slot) {
    if (!entries_.IsInPlace(slot)) delete NodeIn(slot);
  }

  LRUCacheEntries entries_{sizeof(Numbered)};
  ModelCache<Numbered> model_;
  int nodes_ = 0;
};

// Few enough values that keys agree in some fields and differ in others.
class Keys {
 public:
  explicit Keys(unsigned int seed) : random_(seed) {}

  unsigned int Below(unsigned int limit) { return static_cast<unsigned int>(random_() % limit); }
  metadata_input_s Next(uint32_t mask) {
    metadata_input_s in{};
    in.path = kPaths[Below(4)];
    in.size = Below(3);
    in.mtime = Below(3);
    in.deviceID = Below(2);
    in.fileID = Below(4);
    in.fileOperation = mask;
    return in;
  }

 private:
  static constexpr const char* kPaths[] = {"/a", "/b", "/c", ""};
  std::mt19937 random_;
};

// One of otherMasks keys has another mask than most.
void CheckRandomSteps(unsigned int seed, unsigned int otherMasks) {
  Keys keys(seed);
  Pair pair;
  const uint32_t usual = keys.Below(32);
  for (int step = 0; step < 3000; ++step) {
    CAPTURE(seed);
    CAPTURE(step);
    const bool isUsual = otherMasks == 0 || keys.Below(otherMasks) != 0;
    const metadata_input_s in = keys.Next(isUsual ? usual : keys.Below(32));
    switch (keys.Below(8)) {
      case 0:
        if (pair.Size() != 0) pair.RemoveOldest();
        break;
      case 1:
        if (pair.Size() != 0) pair.MoveToFront(keys.Below(static_cast<unsigned int>(pair.Size())));
        break;
      case 2:
        if (keys.Below(60) == 0) pair.Clear();
        break;
      case 3:  // next to one under an equivalent key, if there is one
        if (keys.Below(8) == 0) pair.Insert(in);
        break;
      default:
        if (pair.Find(in) == 0) pair.Insert(in);
    }
    while (pair.Size() > 20) pair.RemoveOldest();
    pair.CheckThatAllIsTheSame();
  }
}

}  // namespace

TEST_CASE("entries of one mask are found, ordered and removed as in a naive cache") {
  for (unsigned int seed = 1; seed <= 8; ++seed) CheckRandomSteps(seed, 0);
}

TEST_CASE("entries of different masks are found, ordered and removed as in a naive cache") {
  for (unsigned int seed = 1; seed <= 8; ++seed) {
    CheckRandomSteps(seed, 2);
    CheckRandomSteps(seed, 20);
    CheckRandomSteps(seed, 300);
  }
}

TEST_CASE("colliding keys leave no trace in what keys of different masks find") {
  for (unsigned int seed = 1; seed <= 20; ++seed) {
    CAPTURE(seed);
    Keys keys(seed);
    Pair pair;
    for (uint64_t i = 0; i < 200; ++i) {
      metadata_input_s in = keys.Next(KEY_SIZE);
      in.size = NumberToHash(kFactorOfSizes, 0x12345678, keys.Below(1U << 30));
      if (pair.Find(in) == 0) pair.Insert(in);
    }
    while (pair.Size() > 40) pair.RemoveOldest();
    for (int step = 0; step < 200; ++step) {
      const metadata_input_s in = keys.Next(keys.Below(32));
      if (pair.Find(in) == 0) pair.Insert(in);
    }
    pair.CheckThatAllIsTheSame();
  }
}

TEST_CASE("keys are found across the end of the index") {
  Pair pair;
  metadata_input_s in{};
  in.fileOperation = KEY_SIZE;
  const auto hashing = [&](uint32_t hash) {
    in.size = NumberToHash(kFactorOfSizes, hash, 1);
    return in;
  };
  for (uint32_t i = 0; i < 20; ++i) {
    pair.Insert(hashing(0xFFFFFFFF - i));
    if (i >= 10) pair.RemoveOldest();
  }
  for (uint32_t i = 0; i < 20; ++i) CHECK((pair.Find(hashing(0xFFFFFFFF - i)) != 0) == (i >= 10));
}

TEST_CASE("a key at the maximum probe distance is found after a removal moves it closer") {
  Pair pair;
  metadata_input_s in{};
  in.fileOperation = KEY_SIZE;
  // By the cell where its probing begins, the upper 13 bits of the hash.
  const auto beginningAt = [&](uint32_t cell, uint32_t rest) {
    in.size = NumberToHash(kFactorOfSizes, cell << 19 | rest, 1);
    return in;
  };
  // 200 cells in a row, and one key of the first in the middle of them.
  constexpr uint32_t kMostProbes = 128;
  for (uint32_t cell = 0; cell < 200; ++cell) {
    const bool isFar = cell == kMostProbes - 1;
    pair.Insert(isFar ? beginningAt(0, 1) : beginningAt(cell, 0));
  }
  pair.RemoveOldest();
  CHECK(pair.Find(beginningAt(0, 0)) == 0);
  CHECK(pair.Find(beginningAt(0, 1)) != 0);
  for (uint32_t cell = 1; cell < 200; ++cell) {
    if (cell != kMostProbes - 1) CHECK(pair.Find(beginningAt(cell, 0)) != 0);
  }
}

TEST_CASE("a key that is inserted twice is removed twice without harm") {
  LRUCacheEntries entries(0);
  metadata_input_s in = InputFor("/a");
  const LRUCacheKeyView key(in);
  for (int i = 0; i < 2; ++i) entries.Insert(key, HashOf(key), 0, nullptr, true);
  in.fileOperation = KEY_PATH;
  CHECK(entries.Find(LRUCacheKeyView(in)) != 0);
  for (int i = 0; i < 2; ++i) entries.RemoveOldest();
  CHECK(entries.Size() == 0);
}

TEST_CASE("all slots but one hold nodes, and one node more is refused") {
  LRUCacheEntries entries(0);
  metadata_input_s in = InputFor("/a");
  size_t refused = 0;
  for (uint64_t i = 0; i < LRUCacheIndex::kSlots; ++i) {
    in.size = i;
    const LRUCacheKeyView key(in);
    try {
      entries.Insert(key, HashOf(key), 0, nullptr, false);
    } catch (const std::bad_alloc&) {
      ++refused;
    }
  }
  CHECK(refused == 1);
  CHECK(entries.Size() == LRUCacheIndex::kSlots - 1);
  in.size = LRUCacheIndex::kSlots - 2;
  CHECK(entries.Find(LRUCacheKeyView(in)) != 0);
}
