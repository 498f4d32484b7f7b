// A hash index beside the ordered map of a cache.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <utility>
#include <vector>

#include "cache/orvex_lru_cache_key.h"
#include "cache/orvex_lru_cache_map.h"

// For keys that have an order and nothing else: answers nothing.
template <typename Key, typename Node>
class LRUCacheIndex {
 public:
  bool Answers(const Key&) const { return false; }
  Node* Find(const Key&) const { return nullptr; }
  void MakeRoom() {}
  void Add(Node*) {}
  void Remove(const Node*) {}
  void Clear() {}
};

// Finds the node of a key in one probe where the map needs a dozen comparisons
// through cold tree nodes.
//
// The ordered map stays the truth. The index answers for it only while the keys of
// all nodes, and the key asked for, select the same fields: then the map's answer
// is plain equality of those fields. It gives up as soon as keys are mixed or a
// probe grows long, and Clear gives it another chance: that bounds its price.
//
// Ownership: none; nodes are the cache's and leave the index before they go. A node
// in it has an entry of its own in the map, where its key stands.
// Locking: none of its own; part of what the cache lock guards.
template <typename Node>
class LRUCacheIndex<LRUCacheKey, Node> {
 public:
  // Whether Find tells for this key what the map would.
  bool Answers(const LRUCacheKeyView& key) const { return !gaveUp_ && key.Fields() == fields_; }

  // The node under an equal key, or null.
  Node* Find(const LRUCacheKeyView& key) const {
    if (size_ == 0) return nullptr;
    const uint32_t hash = key.Hash(hashesPaths_);
    for (size_t at = Home(hash); cells_[at].node != nullptr; at = Next(at)) {
      const Cell& cell = cells_[at];
      if (cell.hash == hash && key.Equals(cell.entry->first)) return cell.node;
    }
    return nullptr;
  }

  // Before Add, which then needs no memory. Throws std::bad_alloc, and then nothing
  // has changed.
  void MakeRoom() {
    // At most half full, so that probes are short.
    if (!gaveUp_ && size_ >= cells_.size() / 2) Rebuild(std::max(kFirstCells, cells_.size() * 2));
  }

  // After the node has got its entry in the map. One that shares another's stays out.
  void Add(Node* node) {
    if (gaveUp_ || *node->mapEntry->second != node) return;
    if (size_ == 0) fields_ = KeyOf(node).Fields();
    ++size_;
    if (!Answers(KeyOf(node)) || (!Place(CellOf(node)) && !PlaceByPath(node))) GiveUp();
  }

  // While the node still has its entry in the map.
  void Remove(const Node* node) {
    if (gaveUp_) return;
    size_t gap = Home(KeyOf(node).Hash(hashesPaths_));
    while (cells_[gap].node != node) gap = Next(gap);
    // What has its home before the gap closes it, so that no probe ends early.
    for (size_t at = Next(gap); cells_[at].node != nullptr; at = Next(at)) {
      if (Distance(Home(cells_[at].hash), at) < Distance(gap, at)) continue;
      cells_[gap] = cells_[at];
      gap = at;
    }
    cells_[gap] = Cell{};
    --size_;
  }

  void Clear() { *this = LRUCacheIndex(); }

 private:
  struct Cell {
    uint32_t hash = 0;
    Node* node = nullptr;  // null in a free cell
    // The node's mapEntry: a probe need not read the node to compare keys.
    typename LRUCacheMap<LRUCacheKey, Node>::iterator entry{};
  };
  static constexpr size_t kFirstCells = 64;
  // In a table at most half full a longer probe means keys that collide, by chance
  // or on purpose.
  static constexpr int kLongestProbe = 64;

  static LRUCacheKeyView KeyOf(const Node* node) { return node->mapEntry->first; }

  size_t Home(uint32_t hash) const { return hash >> shift_; }
  size_t Next(size_t at) const { return (at + 1) & lastCell_; }
  size_t Distance(size_t from, size_t to) const { return (to - from) & lastCell_; }

  void Rebuild(size_t cells) {
    std::vector<Cell> old(cells);
    cells_.swap(old);
    lastCell_ = cells - 1;
    shift_ = static_cast<unsigned int>(__builtin_clz(static_cast<unsigned int>(lastCell_)));
    for (const Cell& cell : old) {
      if (cell.node != nullptr && !Place(cell)) return GiveUp();
    }
  }

  Cell CellOf(Node* node) const { return {KeyOf(node).Hash(hashesPaths_), node, node->mapEntry}; }

  // False when the probe is too long.
  bool Place(const Cell& cell) {
    size_t at = Home(cell.hash);
    for (int probe = 0; cells_[at].node != nullptr; at = Next(at)) {
      if (++probe == kLongestProbe) return false;
    }
    cells_[at] = cell;
    return true;
  }

  // Many names of one file have all numbers in common; their paths tell them apart.
  bool PlaceByPath(Node* node) {
    if (std::exchange(hashesPaths_, true)) return false;
    for (Cell& cell : cells_) {
      if (cell.node != nullptr) cell = CellOf(cell.node);
    }
    try {
      Rebuild(cells_.size());
    } catch (const std::exception&) {
      return false;
    }
    return !gaveUp_ && Place(CellOf(node));
  }

  void GiveUp() {
    std::vector<Cell>().swap(cells_);
    gaveUp_ = true;
  }

  // Open addressing with linear probing; a power of two.
  std::vector<Cell> cells_;
  size_t lastCell_ = 0;
  unsigned int shift_ = 0;  // leaves of a hash the upper bits that number the cells
  size_t size_ = 0;
  uint32_t fields_ = 0;       // which every key in it selects
  bool hashesPaths_ = false;  // although numbers usually tell files apart
  bool gaveUp_ = false;
};
