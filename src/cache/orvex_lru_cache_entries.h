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

// Every node and its key have a numbered slot. The slots form a ring in recency order. A hash index
// maps keys to slots; where hashing cannot reproduce what comparing keys would find, an ordered
// view answers.
//
// Keys that select the same fields are equal or not: the index is enough. Keys of different masks
// have no common order, and what a search finds depends on the comparisons it makes. The first such
// key looked up or inserted therefore builds the view, a tree filled in insertion order. It answers
// such keys, and all keys once one of them is inserted, until no entry is left. A node inserted
// under a key equivalent to an entry's shares that entry. Removing any of these nodes removes the
// entry; the others are then in no entry.
//
// Ownership: owns copied texts; the cache owns the nodes and the texts shared with them.
// Locking: none of its own; part of what the cache lock guards.
// Invariant: the ring holds every slot in use once. A slot's entry is itself, a slot whose entry is
// itself, or 0. The index, while in use, and the view, once built, hold exactly the slots that are
// their own entry.
class ORVEX_LOCAL LRUCacheEntries {
 public:
  // A list of slots, valid until the next list is made.
  struct Slots {
    const LRUCacheSlot* first;
    const LRUCacheSlot* last;
    const LRUCacheSlot* begin() const { return first; }
    const LRUCacheSlot* end() const { return last; }
  };

  // Each slot has nodeBytes of memory for a node.
  explicit LRUCacheEntries(size_t nodeBytes);
  ~LRUCacheEntries();
  LRUCacheEntries(const LRUCacheEntries&) = delete;
  LRUCacheEntries& operator=(const LRUCacheEntries&) = delete;

  // Nodes, including those in no entry.
  size_t Size() const { return size_; }
  size_t EntryCount() const { return entryCount_; }
  bool HasEntry(LRUCacheSlot slot) const { return tables_->links[slot].entry != 0; }
  void* NodeIn(LRUCacheSlot slot) const {
    return IsInPlace(slot) ? &PlaceOf(slot) + 1 : tables_->origins[slot].node;
  }
  // Whether the node was built in its slot's memory.
  bool IsInPlace(LRUCacheSlot slot) const { return tables_->links[slot].isInPlace; }
  // The key that the node was inserted under.
  LRUCacheKeyView KeyIn(LRUCacheSlot slot) const {
    const Place& place = PlaceOf(slot);
    return {tables_->origins[slot].mask,
            tables_->texts[slot],
            place.size,
            place.mtime,
            place.deviceID,
            place.fileID};
  }
  // Walks from the most to the least recently used slot, starting and ending at 0.
  LRUCacheSlot After(LRUCacheSlot slot) const {
    return tables_ != nullptr ? tables_->links[slot].next : LRUCacheSlot{0};
  }
  // In key order.
  Slots InOrderOfKeys() const;

  // The slot whose entry has an equivalent key, or 0. hash is HashOf(key). Throws std::bad_alloc,
  // with nothing changed, if there is no memory for the ordered view.
  template <typename AnyKey>
  LRUCacheSlot Find(const AnyKey& key, uint32_t hash) {
    return FieldsOf(key) == indexedFields_ ? FindInIndex(key, hash) : FindElsewhere(key, hash);
  }
  LRUCacheSlot Find(const LRUCacheKeyView& key) { return Find(key, HashOf(key)); }
  // Memory to build the next node to be inserted in. Throws std::bad_alloc.
  void* MemoryForNode();
  // Takes a slot for the node and makes it the most recently used. found is what Find just returned
  // for the key. Without copiesText a node built in place shares its text with the key until
  // CopyText or removal; otherwise the text is copied. Changes nothing if it throws std::bad_alloc.
  LRUCacheSlot Insert(const LRUCacheKeyView& key, uint32_t hash, LRUCacheSlot found, void* node,
                      bool copiesText);
  // Gives the key its own copy of the text. Throws std::bad_alloc.
  void CopyText(LRUCacheSlot slot);
  void MoveToFront(LRUCacheSlot slot) {
    Unlink(slot);
    LinkFirst(slot);
  }
  LRUCacheSlot Oldest() const { return tables_->links[0].previous; }
  // Also removes its entry, even if other nodes share it. The node stays accessible until the next
  // insertion. At least one slot must be in use.
  LRUCacheSlot RemoveOldest();
  // Forgets the keys; slots keep their nodes and their recency order.
  void ForgetKeys();
  void Clear();

 private:
  // The start of a slot's memory: the numbers of its key. The node's memory follows. A slot of the
  // hash cache takes four cache lines.
  struct Place {
    uint64_t size;
    uint64_t mtime;
    uint64_t deviceID;
    uint64_t fileID;
  };
  struct Link {
    LRUCacheSlot previous;
    LRUCacheSlot next;  // of a free slot: the next free one
    LRUCacheSlot entry;
    bool ownsText;
    bool isInPlace;
  };
  // What a hit does not need.
  struct Origin {
    void* node;
    uint64_t insertion;  // a sequence number
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
    std::array<Link, kSlots> links{};  // 0 is the head of the ring
    LRUCacheIndex index;
    // The paths of the keys. Apart from their numbers, so that a hit loads both at once.
    std::array<const char*, kSlots> texts;
    std::array<Origin, kSlots> origins;
    std::array<LRUCacheSlot, kSlots> sorted{};  // so that sorting allocates nothing
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
  Slots EntriesByInsertion() const;
  std::unique_ptr<OrderedView> MakeView() const;
  // Not inlined: a hit does not need it.
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
      return AreEqual(key, PlaceOf(slot), tables_->texts[slot]);
    });
  }

  const size_t bytesOfPlace_;       // whole lines
  std::unique_ptr<Tables> tables_;  // null until the first insertion
  // Of places; each null until needed. Small, so that the heap can reuse them.
  std::array<std::unique_ptr<Line[]>, kSlots / kChunk> chunks_;
  std::unique_ptr<OrderedView> view_;  // null until it is needed
  size_t size_ = 0;
  size_t entryCount_ = 0;
  uint64_t insertions_ = 0;
  LRUCacheSlot freeSlot_ = 0;  // head of the free list; 0 if empty
  LRUCacheSlot lastSlot_ = 0;  // the highest slot ever taken
  bool isMixed_ = false;       // keys of different masks were looked up or inserted
  uint32_t fields_ = 0;        // selected by all keys unless mixed
  // fields_ while the index is in use, kNoFields otherwise; with kAlsoByPath if the index also
  // hashes paths, because too many keys had the same numbers.
  uint32_t indexedFields_ = kNoFields;
};
