// The entries of a cache: which keys it holds, their nodes, and how recently each was used.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <set>
#include <type_traits>
#include <utility>

#include "cache/orvex_lru_cache_index.h"
#include "cache/orvex_lru_cache_key.h"

// Finds nodes by key, keeps them in order of recency, and knows the order of their keys.
//
// Every node has a slot, whose number it keeps in its member mapEntry. Slots are linked to
// a ring in order of recency, a hash index leads from a key to its slot, and where hashing
// cannot tell what the order of keys says, an ordered view of them answers.
//
// Keys that select the same fields are equal or not, and the index answers. Keys of
// different masks have no common order: what is found among them depends on how they were
// compared, so that the first one asked for or inserted makes the view - a tree of all
// keys in the order in which they came - which answers until no entry is left. A node
// that is inserted under a key equivalent to an entry's shares that entry; the entry goes
// with the first of them that is removed, and the others are then in no entry.
//
// Ownership: keys are copies; nodes are the cache's.
// Locking: none of its own; part of what the cache lock guards.
// Invariant: the ring holds every slot in use once. A slot's entry is itself, a slot whose
// entry is itself, or 0. The index, as long as it is in use, and the view, once it is
// made, hold exactly the slots that are their own entry.
template <typename Key, typename Node>
class LRUCacheEntries {
 public:
  LRUCacheEntries() = default;
  ~LRUCacheEntries() {
    Clear([](Node*) {});
  }
  LRUCacheEntries(const LRUCacheEntries&) = delete;
  LRUCacheEntries& operator=(const LRUCacheEntries&) = delete;

  // Nodes, those that are in no entry included.
  size_t Size() const { return size_; }
  size_t EntryCount() const { return entryCount_; }
  bool HasEntry(const Node* node) const { return PlaceOf(node->mapEntry).entry != 0; }
  // The key that the node was inserted under.
  Key& KeyOf(const Node* node) { return PlaceOf(node->mapEntry).key; }

  // The node whose entry has an equivalent key, or null. Throws std::bad_alloc when there
  // is no memory for the ordered view, and then nothing has changed.
  template <typename AnyKey>
  Node* Find(const AnyKey& key) {
    if (entryCount_ == 0) return nullptr;
    if constexpr (kHashed) {
      if (IndexAnswers(key)) return NodeIn(FindInIndex(key));
    }
    return FindInView(key);
  }

  // Makes a node the most recently used one. Throws std::bad_alloc, and then nothing has
  // changed.
  void Insert(const Key& key, Node* node) {
    const LRUCacheSlot slot = FreeSlot();
    Place* const place = new (tables_->Memory(slot)) Place{key, ++insertions_, 0};
    try {
      place->entry = Enter(slot);
    } catch (...) {
      place->~Place();
      throw;
    }
    if (slot == freeSlot_) {
      freeSlot_ = LinkOf(slot).next;
    } else {
      lastSlot_ = slot;
    }
    tables_->nodes[slot] = node;
    node->mapEntry = slot;
    LinkFirst(slot);
    ++size_;
  }

  void MoveToFront(const Node* node) {
    Unlink(node->mapEntry);
    LinkFirst(node->mapEntry);
  }

  // Its entry goes with it, whoever shares it. There must be a node.
  Node* RemoveOldest() {
    const LRUCacheSlot slot = LinkOf(0).previous;
    Place& place = PlaceOf(slot);
    if (place.entry != 0) RemoveEntry(place.entry);
    Node* const node = NodeIn(slot);
    place.~Place();
    Unlink(slot);
    LinkOf(slot).next = std::exchange(freeSlot_, slot);
    --size_;
    return node;
  }

  // Calls end(node) for each, the most recently used first, once all keys are forgotten.
  template <typename Action>
  void Clear(const Action& end) {
    if (tables_ == nullptr) return;
    const auto tables = std::move(tables_);
    const auto view = std::move(view_);
    entryCount_ = size_ = freeSlot_ = lastSlot_ = 0;
    ForgetOrder();
    for (LRUCacheSlot slot = tables->links[0].next; slot != 0; slot = tables->links[slot].next) {
      tables->At(slot).~Place();
      end(tables->nodes[slot]);
    }
  }

  // From the most to the least recently used.
  template <typename Action>
  void ForEachNode(const Action& action) const {
    if (size_ == 0) return;
    for (LRUCacheSlot slot = LinkOf(0).next; slot != 0; slot = LinkOf(slot).next) {
      action(NodeIn(slot));
    }
  }

  // In the order of keys.
  template <typename Action>
  void ForEachKey(const Action& action) const {
    if (view_ != nullptr) {
      for (const LRUCacheSlot slot : view_->slots) action(KeyIn(slot));
      return;
    }
    for (const LRUCacheSlot slot : EntriesBy(Before{this})) action(KeyIn(slot));
  }

 private:
  // Whether the index knows such keys; others have an order and nothing else.
  static constexpr bool kHashed = std::is_same_v<Key, LRUCacheKey>;
  using KeyView = std::conditional_t<kHashed, LRUCacheKeyView, const Key&>;

  struct Place {
    Key key;
    uint64_t insertion;  // grows from one to the next
    LRUCacheSlot entry;
  };
  struct Link {
    LRUCacheSlot previous;
    LRUCacheSlot next;  // of a free slot: the next free one
  };
  static constexpr size_t kSlots = LRUCacheIndex::kSlots;
  static constexpr size_t kChunk = 64;

  // Places come and go one by one.
  class Chunk {
   public:
    void* Memory(size_t number) { return memory_ + number * sizeof(Place); }

   private:
    alignas(Place) unsigned char memory_[kChunk * sizeof(Place)];
  };
  struct Tables {
    std::array<Link, kSlots> links{};  // 0 begins and ends the ring
    LRUCacheIndex index;
    std::array<std::unique_ptr<Chunk>, kSlots / kChunk> chunks;
    // Beside the keys, so that a node can be on its way while its key is compared.
    std::array<Node*, kSlots> nodes{};
    std::array<LRUCacheSlot, kSlots> sorted{};  // so that sorting needs no memory

    void* Memory(LRUCacheSlot slot) { return chunks[slot / kChunk]->Memory(slot % kChunk); }
    Place& At(LRUCacheSlot slot) { return *std::launder(static_cast<Place*>(Memory(slot))); }
  };
  // Some of the slots sorted last; the next sorting ends it.
  class Sorted {
   public:
    Sorted(const LRUCacheSlot* begin, const LRUCacheSlot* end) : begin_(begin), end_(end) {}
    const LRUCacheSlot* begin() const { return begin_; }
    const LRUCacheSlot* end() const { return end_; }

   private:
    const LRUCacheSlot* begin_;
    const LRUCacheSlot* end_;
  };
  // Compares slots by their keys, with each other and with any key.
  struct Before {
    using is_transparent = void;
    const LRUCacheEntries* entries;

    bool operator()(LRUCacheSlot left, LRUCacheSlot right) const {
      return entries->KeyIn(left) < entries->KeyIn(right);
    }
    template <typename AnyKey>
    bool operator()(const AnyKey& left, LRUCacheSlot right) const {
      return left < KeyView(entries->KeyIn(right));
    }
    template <typename AnyKey>
    bool operator()(LRUCacheSlot left, const AnyKey& right) const {
      return KeyView(entries->KeyIn(left)) < right;
    }
  };
  // Mixed keys cannot be searched for where they are.
  struct OrderedView {
    explicit OrderedView(Before before) : slots(before) {}
    std::set<LRUCacheSlot, Before> slots;
    std::array<typename std::set<LRUCacheSlot, Before>::const_iterator, kSlots> positions{};
  };

  const Link& LinkOf(LRUCacheSlot slot) const { return tables_->links[slot]; }
  Link& LinkOf(LRUCacheSlot slot) { return tables_->links[slot]; }
  Place& PlaceOf(LRUCacheSlot slot) const { return tables_->At(slot); }
  const Key& KeyIn(LRUCacheSlot slot) const { return PlaceOf(slot).key; }
  // None in slot 0.
  Node* NodeIn(LRUCacheSlot slot) const { return tables_->nodes[slot]; }

  // A slot to take, with memory behind it.
  LRUCacheSlot FreeSlot() {
    if (tables_ == nullptr) tables_.reset(new Tables);
    if (freeSlot_ != 0) return freeSlot_;
    const size_t slot = size_t{lastSlot_} + 1;
    if (slot == kSlots) throw std::bad_alloc();
    std::unique_ptr<Chunk>& chunk = tables_->chunks[slot / kChunk];
    if (chunk == nullptr) chunk.reset(new Chunk);
    return static_cast<LRUCacheSlot>(slot);
  }

  void LinkFirst(LRUCacheSlot slot) {
    Link& head = LinkOf(0);
    LinkOf(slot).previous = 0;
    LinkOf(slot).next = head.next;
    LinkOf(head.next).previous = slot;
    head.next = slot;
  }

  void Unlink(LRUCacheSlot slot) {
    const Link link = LinkOf(slot);
    LinkOf(link.previous).next = link.next;
    LinkOf(link.next).previous = link.previous;
  }

  // The entry that the slot is in from here on: its own, or that of an equivalent key.
  // Throws std::bad_alloc, and then no entry has changed.
  LRUCacheSlot Enter(LRUCacheSlot slot) {
    bool inIndex = false;
    if constexpr (kHashed) {
      const LRUCacheKeyView key(KeyIn(slot));
      if (entryCount_ == 0) fields_ = key.Fields();
      inIndex = IndexAnswers(key);
      if (!inIndex) MixKeys(key);
      if (inIndex) {
        if (const LRUCacheSlot equal = FindInIndex(key); equal != 0) return equal;
      }
    }
    if (!inIndex && view_ == nullptr) view_ = MakeView();
    if (view_ != nullptr) {
      if (const LRUCacheSlot equal = EnterView(slot); equal != slot) return equal;
    }
    if constexpr (kHashed) {
      if (inIndex && !EnterIndex(slot)) {
        if (view_ == nullptr) {
          view_ = MakeView();
          EnterView(slot);
        }
        inIndex = false;
      }
    }
    isIndexed_ = inIndex;
    ++entryCount_;
    return slot;
  }

  void RemoveEntry(LRUCacheSlot entry) {
    if (isIndexed_) tables_->index.Remove(entry);
    if (view_ != nullptr) view_->slots.erase(view_->positions[entry]);
    // Some node is in no entry of its own. Those that shared this one are in none now.
    if (entryCount_ != size_) {
      for (LRUCacheSlot slot = LinkOf(0).next; slot != 0; slot = LinkOf(slot).next) {
        if (PlaceOf(slot).entry == entry) PlaceOf(slot).entry = 0;
      }
    }
    if (--entryCount_ == 0) ForgetOrder();
  }

  // Without entries there are no masks, and hashing gets another chance.
  void ForgetOrder() {
    view_.reset();
    if (!isIndexed_ && tables_ != nullptr) tables_->index = {};
    isIndexed_ = kHashed;
    hashesPaths_ = isMixed_ = false;
  }

  template <typename Order>
  Sorted EntriesBy(const Order& before) const {
    if (size_ == 0) return {nullptr, nullptr};
    LRUCacheSlot* const begin = tables_->sorted.data();
    LRUCacheSlot* end = begin;
    for (LRUCacheSlot slot = LinkOf(0).next; slot != 0; slot = LinkOf(slot).next) {
      if (PlaceOf(slot).entry == slot) *end++ = slot;
    }
    std::sort(begin, end, before);
    return {begin, end};
  }

  Sorted EntriesAsTheyCame() const {
    return EntriesBy([this](LRUCacheSlot left, LRUCacheSlot right) {
      return PlaceOf(left).insertion < PlaceOf(right).insertion;
    });
  }

  std::unique_ptr<OrderedView> MakeView() const {
    auto view = std::make_unique<OrderedView>(Before{this});
    for (const LRUCacheSlot slot : EntriesAsTheyCame()) {
      view->positions[slot] = view->slots.insert(view->slots.begin(), slot);
    }
    return view;
  }

  // Not inlined: a hit has no use for it.
  template <typename AnyKey>
  [[gnu::noinline]] Node* FindInView(const AnyKey& key) {
    if constexpr (kHashed) MixKeys(key);
    if (view_ == nullptr) view_ = MakeView();
    const auto found = view_->slots.find(key);
    return found != view_->slots.end() ? NodeIn(*found) : nullptr;
  }

  // The slot itself, or that of an equivalent key, which stays.
  LRUCacheSlot EnterView(LRUCacheSlot slot) {
    const auto position = view_->slots.insert(view_->slots.begin(), slot);
    if (*position == slot) view_->positions[slot] = position;
    return *position;
  }

  // What keys of different masks find depends on the shape of the view. One that colliding
  // keys made earlier remembers what was removed since, so that it is made anew.
  void MixKeys(const LRUCacheKeyView& key) {
    if (isMixed_ || key.Fields() == fields_) return;
    view_ = MakeView();
    isMixed_ = true;
  }

  bool IndexAnswers(const LRUCacheKeyView& key) const {
    return isIndexed_ && key.Fields() == fields_;
  }

  // The slot whose key is equal, or 0.
  LRUCacheSlot FindInIndex(const LRUCacheKeyView& key) const {
    return tables_->index.Find(key.Hash(hashesPaths_), [this, &key](LRUCacheSlot slot) {
      // While the keys are compared the node is on its way.
      const auto* const node = reinterpret_cast<const char*>(NodeIn(slot));
      for (size_t line = 0; line < sizeof(Node); line += 64) __builtin_prefetch(node + line);
      return key.Equals(KeyIn(slot));
    });
  }

  uint32_t HashOf(LRUCacheSlot slot, bool alsoPath) const {
    return LRUCacheKeyView(KeyIn(slot)).Hash(alsoPath);
  }

  // False when too many keys collide, and then nothing has changed.
  bool EnterIndex(LRUCacheSlot slot) {
    return tables_->index.Put(HashOf(slot, hashesPaths_), slot) ||
           (!hashesPaths_ && EnterByPaths(slot));
  }

  // Many names of one file have all numbers in common; their paths tell them apart.
  bool EnterByPaths(LRUCacheSlot newSlot) {
    const std::unique_ptr<LRUCacheIndex> index(new (std::nothrow) LRUCacheIndex);
    if (index == nullptr) return false;
    for (const LRUCacheSlot slot : EntriesAsTheyCame()) {
      if (!index->Put(HashOf(slot, true), slot)) return false;
    }
    if (!index->Put(HashOf(newSlot, true), newSlot)) return false;
    tables_->index = *index;
    hashesPaths_ = true;
    return true;
  }

  std::unique_ptr<Tables> tables_;     // null until the first insertion
  std::unique_ptr<OrderedView> view_;  // null until it is needed
  size_t size_ = 0;
  size_t entryCount_ = 0;
  uint64_t insertions_ = 0;
  LRUCacheSlot freeSlot_ = 0;  // begins a chain; 0 when it is empty
  LRUCacheSlot lastSlot_ = 0;  // beyond it no slot was ever taken
  // Whether the index is in use: all its keys select the same fields.
  bool isIndexed_ = kHashed;
  bool hashesPaths_ = false;  // although numbers usually tell files apart
  bool isMixed_ = false;      // keys of different masks were asked for or inserted
  uint32_t fields_ = 0;
};
