// What a cache holds: which keys, a node for each, and how recently each was used.
#include "cache/orvex_lru_cache_entries.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <set>
#include <utility>

// Compares slots by their keys, with each other and with any key.
struct LRUCacheEntries::Before {
  using is_transparent = void;
  const LRUCacheEntries* entries;

  template <typename Left, typename Right>
  bool operator()(const Left& left, const Right& right) const {
    return KeyOf(left) < KeyOf(right);
  }
  LRUCacheKeyView KeyOf(LRUCacheSlot slot) const { return entries->KeyIn(slot); }
  const LRUCacheKeyView& KeyOf(const LRUCacheKeyView& key) const { return key; }
};

// For keys that the index cannot handle.
struct LRUCacheEntries::OrderedView {
  using Set = std::set<LRUCacheSlot, Before>;
  explicit OrderedView(Before before) : slots(before) {}
  Set slots;
  std::array<Set::const_iterator, kSlots> positions{};

  // Returns the slot itself, or that of an equivalent key, which stays.
  LRUCacheSlot Enter(LRUCacheSlot slot) {
    const auto position = slots.insert(slots.begin(), slot);
    // Remove meets end() only if a host changed a path while it was being stored.
    positions[slot] = *position == slot ? position : slots.end();
    return *position;
  }
  void Remove(LRUCacheSlot slot) {
    if (positions[slot] != slots.end()) slots.erase(positions[slot]);
  }
};

LRUCacheEntries::LRUCacheEntries(size_t nodeBytes)
    : bytesOfPlace_((sizeof(Place) + nodeBytes + sizeof(Line) - 1) / sizeof(Line) * sizeof(Line)) {}

LRUCacheEntries::~LRUCacheEntries() { Clear(); }

LRUCacheEntries::Slots LRUCacheEntries::InOrderOfKeys() const {
  if (view_ == nullptr) return EntriesBy(Before{this});
  LRUCacheSlot* const begin = tables_->sorted.data();
  return {begin, std::copy(view_->slots.begin(), view_->slots.end(), begin)};
}

void* LRUCacheEntries::MemoryForNode() { return &PlaceOf(FreeSlot()) + 1; }

LRUCacheSlot LRUCacheEntries::Insert(const LRUCacheKeyView& key, uint32_t hash, LRUCacheSlot found,
                                     void* node, bool copiesText) {
  const LRUCacheSlot slot = FreeSlot();
  new (&PlaceOf(slot)) Place{key.size, key.mtime, key.deviceID, key.fileID};
  tables_->texts[slot] = key.path;
  tables_->origins[slot] = {node, ++insertions_, key.flags};
  Link& link = tables_->links[slot];
  const LRUCacheSlot nextFree = link.next;
  link.ownsText = false;
  link.isInPlace = node == &PlaceOf(slot) + 1;
  // A node from elsewhere may be changed by whoever built it.
  if (copiesText || !link.isInPlace) CopyText(slot);
  try {
    link.entry = Enter(slot, hash, found);
  } catch (...) {
    FreeText(slot);
    throw;
  }
  if (slot == freeSlot_) {
    freeSlot_ = nextFree;
  } else {
    lastSlot_ = slot;
  }
  LinkFirst(slot);
  ++size_;
  return slot;
}

void LRUCacheEntries::CopyText(LRUCacheSlot slot) {
  if (tables_->links[slot].ownsText) return;
  const char*& text = tables_->texts[slot];
  const size_t bytes = std::strlen(text) + 1;
  text = static_cast<const char*>(std::memcpy(new char[bytes], text, bytes));
  tables_->links[slot].ownsText = true;
}

LRUCacheSlot LRUCacheEntries::RemoveOldest() {
  const LRUCacheSlot slot = Oldest();
  if (HasEntry(slot)) RemoveEntry(tables_->links[slot].entry);
  FreeText(slot);
  Unlink(slot);
  tables_->links[slot].next = std::exchange(freeSlot_, slot);
  --size_;
  return slot;
}

void LRUCacheEntries::ForgetKeys() {
  for (LRUCacheSlot slot = After(0); slot != 0; slot = After(slot)) {
    FreeText(slot);
    tables_->links[slot].entry = 0;
  }
  entryCount_ = 0;
  indexedFields_ = kNoFields;
  ForgetOrder();
}

void LRUCacheEntries::Clear() {
  ForgetKeys();
  tables_.reset();
  chunks_ = {};
  size_ = freeSlot_ = lastSlot_ = 0;
}

// A free slot with memory behind it.
LRUCacheSlot LRUCacheEntries::FreeSlot() {
  // Not value-initialised: what has no initialiser is written before it is read.
  if (tables_ == nullptr) tables_.reset(new Tables);  // NOLINT(modernize-make-unique)
  if (freeSlot_ != 0) return freeSlot_;
  const size_t slot = size_t{lastSlot_} + 1;
  if (slot == kSlots) throw std::bad_alloc();
  std::unique_ptr<Line[]>& chunk = chunks_[slot / kChunk];
  // NOLINTNEXTLINE(modernize-make-unique): as above.
  if (chunk == nullptr) chunk.reset(new Line[kChunk * bytesOfPlace_ / sizeof(Line)]);
  return static_cast<LRUCacheSlot>(slot);
}

void LRUCacheEntries::FreeText(LRUCacheSlot slot) {
  if (std::exchange(tables_->links[slot].ownsText, false)) delete[] tables_->texts[slot];
}

// The slot's entry from now on: its own, or that of an equivalent key. Changes no entry if it
// throws std::bad_alloc.
LRUCacheSlot LRUCacheEntries::Enter(LRUCacheSlot slot, uint32_t hash, LRUCacheSlot found) {
  const uint32_t fields = FieldsOf(KeyIn(slot));
  if (entryCount_ == 0) fields_ = indexedFields_ = fields;
  bool inIndex = fields == (indexedFields_ & ~kAlsoByPath);
  if (inIndex && found != 0) return found;
  if (view_ != nullptr) {
    if (const LRUCacheSlot equal = view_->Enter(slot); equal != slot) return equal;
  }
  inIndex = inIndex && EnterIndex(slot, hash);
  if (!inIndex && view_ == nullptr) {
    view_ = MakeView();
    view_->Enter(slot);
  }
  if (!inIndex) indexedFields_ = kNoFields;
  ++entryCount_;
  return slot;
}

void LRUCacheEntries::RemoveEntry(LRUCacheSlot entry) {
  if (indexedFields_ != kNoFields) tables_->index.Remove(entry);
  if (view_ != nullptr) view_->Remove(entry);
  // Some nodes are not their own entry. Those that shared this one are now in none.
  if (entryCount_ != size_) {
    for (LRUCacheSlot slot = After(0); slot != 0; slot = After(slot)) {
      if (tables_->links[slot].entry == entry) tables_->links[slot].entry = 0;
    }
  }
  if (--entryCount_ == 0) ForgetOrder();
}

// Without entries no masks differ: the index is used again.
void LRUCacheEntries::ForgetOrder() {
  view_.reset();
  if (indexedFields_ == kNoFields && tables_ != nullptr) tables_->index = {};
  indexedFields_ = kNoFields;
  isMixed_ = false;
}

template <typename Order>
LRUCacheEntries::Slots LRUCacheEntries::EntriesBy(const Order& before) const {
  if (size_ == 0) return {nullptr, nullptr};
  LRUCacheSlot* const begin = tables_->sorted.data();
  LRUCacheSlot* end = begin;
  for (LRUCacheSlot slot = After(0); slot != 0; slot = After(slot)) {
    if (tables_->links[slot].entry == slot) *end++ = slot;
  }
  std::sort(begin, end, before);
  return {begin, end};
}

LRUCacheEntries::Slots LRUCacheEntries::EntriesByInsertion() const {
  return EntriesBy([this](LRUCacheSlot left, LRUCacheSlot right) {
    return tables_->origins[left].insertion < tables_->origins[right].insertion;
  });
}

std::unique_ptr<LRUCacheEntries::OrderedView> LRUCacheEntries::MakeView() const {
  auto view = std::make_unique<OrderedView>(Before{this});
  for (const LRUCacheSlot slot : EntriesByInsertion()) view->Enter(slot);
  return view;
}

LRUCacheSlot LRUCacheEntries::FindInView(const LRUCacheKeyView& key) {
  if (entryCount_ == 0) return 0;
  // With different masks, what is found depends on the shape of the tree. A view built earlier for
  // colliding keys was shaped by removals since, so rebuild it.
  if (!isMixed_ && FieldsOf(key) != fields_) {
    view_ = MakeView();
    isMixed_ = true;
  }
  const auto found = view_->slots.find(key);
  return found != view_->slots.end() ? *found : LRUCacheSlot{0};
}

// False, with nothing changed, if too many keys collide.
bool LRUCacheEntries::EnterIndex(LRUCacheSlot slot, uint32_t hash) {
  if ((indexedFields_ & kAlsoByPath) != 0) {
    return tables_->index.Put(hash + HashOfPath(KeyIn(slot)), slot);
  }
  return tables_->index.Put(hash, slot) || ((indexedFields_ & KEY_PATH) != 0 && EnterByPaths(slot));
}

// Hard links to one file share all numbers; only their paths differ.
bool LRUCacheEntries::EnterByPaths(LRUCacheSlot newSlot) {
  const std::unique_ptr<LRUCacheIndex> index(new (std::nothrow) LRUCacheIndex);
  if (index == nullptr) return false;
  const auto put = [this, &index](LRUCacheSlot slot) {
    const LRUCacheKeyView key = KeyIn(slot);
    return index->Put(HashOf(key) + HashOfPath(key), slot);
  };
  for (const LRUCacheSlot slot : EntriesByInsertion()) {
    if (!put(slot)) return false;
  }
  if (!put(newSlot)) return false;
  tables_->index = *index;
  indexedFields_ |= kAlsoByPath;
  return true;
}
