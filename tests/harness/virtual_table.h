// Virtual functions by their vtable slot, as a host compiled against an earlier
// header calls them.
#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

// How many slots the tables of the caches have, in their order:
// InitLRUCache, DeinitLRUCache, UpdateMetaData, UpdateCache, FlushCache,
// ResetMetrics, DumpCache, Query, GetMetrics, DumpMetrics, LRUCacheNodeUpdate,
// DumpCacheMap, DumpCacheNodeList, QueryLRUCache, LRUCacheNodeWipe, and in the
// hash cache the two destructors.
constexpr size_t kHashCacheSlots = 17;
constexpr size_t kFileTypeCacheSlots = 15;

// Calls the operation in this slot, the first one being 0. A method of the C++ ABI
// in use is a function whose first argument is the object.
template <typename Result, typename... Arguments>
Result CallSlot(void* object, size_t slot, Arguments... arguments) {
  void** table = nullptr;
  std::memcpy(&table, object, sizeof table);
  return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

// One virtual operation of one object, replaced for the length of a scope.
//
// Stands in for a subclass where the library makes the object itself.
class ReplacedOperation {
 public:
  template <typename Result, typename... Arguments>
  ReplacedOperation(void* object, size_t slots, size_t slot,
                    Result (*replacement)(void*, Arguments...))
      : object_(object) {
    void** table = nullptr;
    std::memcpy(&table, object, sizeof table);
    original_ = table;
    // Before the first slot stand the offset to the top and the type.
    copy_.assign(table - 2, table + slots);
    copy_[2 + slot] = reinterpret_cast<void*>(replacement);
    SetTable(copy_.data() + 2);
  }
  ~ReplacedOperation() { SetTable(original_); }
  ReplacedOperation(const ReplacedOperation&) = delete;
  ReplacedOperation& operator=(const ReplacedOperation&) = delete;

 private:
  void SetTable(void** table) { std::memcpy(object_, &table, sizeof table); }

  void* object_;
  void** original_ = nullptr;
  std::vector<void*> copy_;
};
