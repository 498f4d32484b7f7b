// What a cache holds: which keys, a node for each, and how recently each was used.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "cache/orvex_lru_cache_index.h"
#include "cache/orvex_lru_cache_key.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"

// Every node has a numbered slot with its key. The slots form a ring in order of recency,
// and a hash index leads from a key to its slot; where hashing cannot tell what the order
// of keys says, an ordered view of them answers.
//
// Keys that select the same fields are equal or not, and the index answers. Keys of
// different masks have no common order: what is found among them depends on how they were
// compared, so that the first one asked for or inserted makes the view - a tree of all
// keys in the order in which they came - which answers until no entry is left. A node
// that is inserted under a key equivalent to an entry's shares that entry; the entry goes
// with the first of them that is removed, and the others are then in no entry.
//
// Ownership: nodes, and the texts of keys that are not copied, are the cache's.
// Locking: none of its own; part of what the cache lock guards.
// Invariant: the ring holds every slot in use once. A slot's entry is itself, a slot whose
// entry is itself, or 0. The index, as long as it is in use, and the view, once it is
// made, hold exactly the slots that are their own entry.
class ORVEX_LOCAL LRUCacheEntries {
 public:
  // Some slots, until the entries are asked for some again.
  struct Slots {
    const LRUCacheSlot* first;
    const LRUCacheSlot* last;
    const LRUCacheSlot* begin() const { return first; }
    const LRUCacheSlot* end() const { return last; }
  };

  // Each slot has memory for a node of so many bytes.
  explicit LRUCacheEntries(size_t nodeBytes);
  ~LRUCacheEntries();
  LRUCacheEntries(const LRUCacheEntries&) = delete;
  LRUCacheEntries& operator=(const LRUCacheEntries&) = delete;

  // Nodes, those that are in no entry included.
  size_t Size() const { return size_; }
  size_t EntryCount() const { return entryCount_; }
  bool HasEntry(LRUCacheSlot slot) const { return tables_->links[slot].entry != 0; }
  void* NodeIn(LRUCacheSlot slot) const {
    return IsInPlace(slot) ? &PlaceOf(slot) + 1 : tables_->origins[slot].node;
  }
  // Whether the node stands in the memory of its slot.
  bool IsInPlace(LRUCacheSlot slot) const { return tables_->links[slot].isInPlace; }
  // The key that the node was inserted under.
  LRUCacheKeyView KeyIn(LRUCacheSlot slot) const {
    const Place& place = PlaceOf(slot);
    return {tables_->origins[slot].mask,
            place.path,
            place.size,
            place.mtime,
            place.deviceID,
            place.fileID};
  }
  // From the most to the least recently used slot. 0 before the first and after the last.
  LRUCacheSlot After(LRUCacheSlot slot) const {
    return tables_ != nullptr ? tables_->links[slot].next : LRUCacheSlot{0};
  }
  // In the order of keys.
  Slots InOrderOfKeys() const;

  // The slot whose entry has an equivalent key, or 0. hash is the key's HashOf. Throws
  // std::bad_alloc when there is no memory for the ordered view, and then nothing has changed.
  template <typename AnyKey>
  LRUCacheSlot Find(const AnyKey& key, uint32_t hash) {
    return FieldsOf(key) == indexedFields_ ? FindInIndex(key, hash) : FindElsewhere(key, hash);
  }
  LRUCacheSlot Find(const LRUCacheKeyView& key) { return Find(key, HashOf(key)); }
  // Where the node of the next insertion may be built. Throws std::bad_alloc.
  void* MemoryForNode();
  // Takes a slot for the node and makes it the most recently used one. found is what Find
  // has just returned for the key. The text of the key is copied unless the node is in place
  // and shares it until CopyText or its removal. Throws std::bad_alloc, and then nothing has
  // changed.
  LRUCacheSlot Insert(const LRUCacheKeyView& key, uint32_t hash, LRUCacheSlot found, void* node,
                      bool copiesText);
  // Gives the key a text of its own. Throws std::bad_alloc.
  void CopyText(LRUCacheSlot slot);
  void MoveToFront(LRUCacheSlot slot) {
    Unlink(slot);
    LinkFirst(slot);
  }
  LRUCacheSlot Oldest() const { return tables_->links[0].previous; }
  // Its entry goes with it, whoever shares it; its node can be reached until the next
  // insertion. There must be a slot in use.
  LRUCacheSlot RemoveOldest();
  // Slots keep their nodes, and only the order of use is left.
  void ForgetKeys();
  void Clear();

 private:
  // What a slot's memory begins with, as far as an index asks for it; the memory for its
  // node follows. A slot of the hash cache takes four cache lines.
  struct Place {
    const char* path;
    uint64_t size;
    uint64_t mtime;
    uint64_t deviceID;
    uint64_t fileID;
  };
  struct Link {
    LRUCacheSlot previous;
    LRUCacheSlot next;  // of a free slot: the next free one
    LRUCacheSlot entry;
    bool ownsText;  // of its key
    bool isInPlace;
  };
  // What a hit has no use for.
  struct Origin {
    void* node;
    uint64_t insertion;  // grows from one to the next
    uint32_t mask;
  };
  struct alignas(kCacheLineBytes) Line {
    unsigned char bytes[kCacheLineBytes];
  };
  static constexpr size_t kSlots = LRUCacheIndex::kSlots;
  static constexpr size_t kChunk = 64;
  static constexpr uint32_t kNoFields = ~uint32_t{0};
  static constexpr uint32_t kAlsoByPath = uint32_t{1} << 31;
  struct Tables {
    std::array<Link, kSlots> links{};  // 0 begins and ends the ring
    LRUCacheIndex index;
    std::array<Origin, kSlots> origins;
    std::array<LRUCacheSlot, kSlots> sorted{};  // so that sorting needs no memory
  };
  struct Before;
  struct OrderedView;

  Place& PlaceOf(LRUCacheSlot slot) const {
    auto* const first = reinterpret_cast<unsigned char*>(chunks_[slot / kChunk].get());
    return *std::launder(reinterpret_cast<Place*>(first + slot % kChunk * bytesOfPlace_));
  }
  LRUCacheSlot FreeSlot();
  void LinkFirst(LRUCacheSlot slot) {
    auto& links = tables_->links;
    links[slot].previous = 0;
    links[slot].next = links[0].next;
    links[links[0].next].previous = slot;
    links[0].next = slot;
  }
  void Unlink(LRUCacheSlot slot) {
    auto& links = tables_->links;
    links[links[slot].previous].next = links[slot].next;
    links[links[slot].next].previous = links[slot].previous;
  }
  void FreeText(LRUCacheSlot slot);
  LRUCacheSlot Enter(LRUCacheSlot slot, uint32_t hash, LRUCacheSlot found);
  void RemoveEntry(LRUCacheSlot entry);
  void ForgetOrder();
  template <typename Order>
  Slots EntriesBy(const Order& before) const;
  Slots EntriesAsTheyCame() const;
  std::unique_ptr<OrderedView> MakeView() const;
  // Not inlined: a hit has no use for it.
  template <typename AnyKey>
  __attribute__((noinline)) LRUCacheSlot FindElsewhere(const AnyKey& key, uint32_t hash) {
    if ((FieldsOf(key) | kAlsoByPath) == indexedFields_) {
      return FindInIndex(key, hash + HashOfPath(key));
    }
    return FindInView(LRUCacheKeyView(key));
  }
  LRUCacheSlot FindInView(const LRUCacheKeyView& key);
  bool EnterIndex(LRUCacheSlot slot, uint32_t hash);
  bool EnterByPaths(LRUCacheSlot newSlot);
  // The slot whose key is equal, or 0.
  template <typename AnyKey>
  LRUCacheSlot FindInIndex(const AnyKey& key, uint32_t hash) const {
    return tables_->index.Find(hash, [this, &key](LRUCacheSlot slot) {
      // While the keys are compared the node is on its way.
      const Place& place = PlaceOf(slot);
      const auto* const line = reinterpret_cast<const Line*>(&place);
      for (int following = 1; following < 4; ++following) __builtin_prefetch(line + following);
      return AreEqual(key, place);
    });
  }

  const size_t bytesOfPlace_;       // whole lines
  std::unique_ptr<Tables> tables_;  // null until the first insertion
  // Of places, each null until it is needed. Small ones, which a process can use again.
  std::array<std::unique_ptr<Line[]>, kSlots / kChunk> chunks_;
  std::unique_ptr<OrderedView> view_;  // null until it is needed
  size_t size_ = 0;
  size_t entryCount_ = 0;
  uint64_t insertions_ = 0;
  LRUCacheSlot freeSlot_ = 0;  // begins a chain; 0 when it is empty
  LRUCacheSlot lastSlot_ = 0;  // beyond it no slot was ever taken
  bool isMixed_ = false;       // keys of different masks were asked for or inserted
  uint32_t fields_ = 0;        // that all keys select unless they are mixed
  // The same as long as the index is in use, and whether it hashes each path as well,
  // although numbers usually tell files apart.
  uint32_t indexedFields_ = kNoFields;
};
