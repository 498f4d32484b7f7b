// A hash table of slots.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "orvexeng.h"

// The number of a node's slot among the entries of its cache; 0 is none.
using LRUCacheSlot = uint16_t;

// Maps a hash to the slots that have it. Open addressing, linear probing, backward shift.
//
// Locking: none of its own; part of what the cache lock guards.
// Invariant: at most half full while a cache keeps to its capacity.
class LRUCacheIndex {
 public:
  // A few more than the capacity: if a host's log callback ends its thread during an insertion or
  // an eviction, one extra node stays until the next eviction.
  static constexpr size_t kSlots = ORVEX_MAX_CAPACITY + 64;

  // The slot of this hash that fits, or 0.
  template <typename Fits>
  LRUCacheSlot Find(uint32_t hash, const Fits& fits) const {
    size_t at = HomeOf(hash);
    for (size_t probe = 0; probe < kLongestProbe && cells_[at] != 0; ++probe, at = Next(at)) {
      // If the tags agree, only the slot is left, and its key nearly always fits.
      const uint32_t rest = cells_[at] ^ Cell(hash, 0);
      const auto slot = static_cast<LRUCacheSlot>(rest);
      if (rest < 1U << kSlotBits && __builtin_expect(fits(slot), true)) return slot;
    }
    return 0;
  }

  // False, with nothing changed, if the probe gets too long.
  bool Put(uint32_t hash, LRUCacheSlot slot) {
    size_t at = HomeOf(hash);
    for (size_t probe = 0; cells_[at] != 0; at = Next(at)) {
      if (++probe == kLongestProbe) return false;
    }
    cells_[at] = Cell(hash, slot);
    homes_[slot] = static_cast<uint16_t>(HomeOf(hash));
    return true;
  }

  // The slot must be in the index.
  void Remove(LRUCacheSlot slot) {
    size_t gap = homes_[slot];
    while (SlotIn(cells_[gap]) != slot) gap = Next(gap);
    // Backward shift: a cell whose home is not past the gap fills it, so no probe ends early.
    for (size_t at = Next(gap); cells_[at] != 0; at = Next(at)) {
      if (Distance(homes_[SlotIn(cells_[at])], at) < Distance(gap, at)) continue;
      cells_[gap] = cells_[at];
      gap = at;
    }
    cells_[gap] = 0;
  }

 private:
  static constexpr size_t kCells = 8192;
  // A hash's upper bits select its home cell; the cell stores the lower ones.
  static constexpr unsigned int kSlotBits = 13;
  static constexpr unsigned int kTagBits = 32 - kSlotBits;
  static_assert(kSlots <= 1U << kSlotBits);
  // In a table that is half full a longer probe means deliberate collisions.
  static constexpr size_t kLongestProbe = 128;

  static size_t HomeOf(uint32_t hash) { return hash >> kTagBits; }
  static size_t Next(size_t at) { return (at + 1) % kCells; }
  static size_t Distance(size_t from, size_t to) { return (to - from) % kCells; }
  static uint32_t Cell(uint32_t hash, LRUCacheSlot slot) { return hash << kSlotBits | slot; }
  static LRUCacheSlot SlotIn(uint32_t cell) { return cell % (1U << kSlotBits); }

  std::array<uint32_t, kCells> cells_{};  // 0: free
  std::array<uint16_t, kSlots> homes_{};  // home cells of the slots in the index
};
