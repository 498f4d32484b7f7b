// The least-recently-used cache under both caches.
#pragma once

#include <cstdint>
#include <exception>
#include <new>

#include "cache/orvex_lru_cache_entries.h"
#include "orvexeng.h"
#include "support/orvex_annotations.h"
#include "support/orvex_atomic.h"
#include "support/orvex_lock.h"
#include "support/orvex_log.h"
#include "support/orvex_profiling.h"

// What LRUCacheNodeUpdate does with a node.
enum LRU_OPERATION : int {
  LRU_UPDATE = 1,  // it is cached: move it to the front
  LRU_INSERT = 2,  // it is new: put it at the front and enter its key
};

// The results of a lookup; they stay inside the library.
enum LRU_LOOKUP : int {
  LRU_NOT_YET = 0,
  LRU_MISS = 1,
  LRU_HIT = 2,
  LRU_PARTIAL_HIT = 3,
  LRU_OUT_OF_DATE = 4,
  LRU_NO_MEMORY = -2,  // nothing was changed or counted
};

// Keeps nodes in recency order, finds them by key, and holds the capacity, the host's callback and
// the counters. Subclasses define lookup and query.
//
// Key:     constructible from metadata_input_s&, has Read(), converts to LRUCacheKeyView.
// Node:    constructible from and SetDataToCacheNode(metadata_input_s&,
//          metadata_output_s&), members mapEntry (an LRUCacheSlot) and path, Dump().
// Metrics: a plain record of 64-bit counters, each aligned to 8.
//
// Ownership: owns its nodes until they are evicted or flushed. Destruction does
// not delete them: a cache is flushed before its process ends.
// Threads: any number at once.
// Locking: lock guards everything but the counters, the active flag and the callback,
// which are atomics. It is never held while the host computes. Operations that say so expect
// it held, all others take it themselves.
// Invariant: while nobody holds the lock, entries_ has at most capacity nodes.
template <typename Key, typename Node, typename Metrics>
class ORVEX_API LRUCacheT {
 public:
  // Not defaulted, like the destructor: explicit instantiation would not export it.
  LRUCacheT() {}  // NOLINT(modernize-use-equals-default)
  LRUCacheT(const LRUCacheT&) = delete;
  LRUCacheT& operator=(const LRUCacheT&) = delete;

  virtual int InitLRUCache() ORVEX_EXCLUDES(lock) {
    const ORVEX_MutexGuard guard(&lock);
    ORVEX_StoreRelaxed(active, true);
    return ORVEX_OK;
  }
  // Refuses new queries from now on, empties the cache and zeroes the counters.
  virtual int DeinitLRUCache() ORVEX_EXCLUDES(lock) {
    {
      const ORVEX_MutexGuard guard(&lock);
      ORVEX_StoreRelaxed(active, false);
    }
    FlushCache();
    ResetMetrics();
    return ORVEX_OK;
  }
  virtual int UpdateMetaData(metadata_input_s* metaIn, metadata_output_s* metaOut)
      ORVEX_EXCLUDES(lock) {
    return UpdateCache(metaIn, metaOut);
  }
  // Stores, active or not. With ORVEX_INVALID_PARAMETER or ORVEX_NO_MEMORY the cache is unchanged.
  virtual int UpdateCache(metadata_input_s* metaIn, metadata_output_s* metaOut)
      ORVEX_EXCLUDES(lock) {
    if (metaOut == nullptr || metaIn == nullptr) return ORVEX_INVALID_PARAMETER;
    // Read once: the host may change a shared record on another thread.
    metadata_input_s in = *metaIn;
    const LRUCacheKeyView key(in);
    const uint32_t hash = HashOf(key);
    const ORVEX_MutexGuard guard(&lock);
    const bool observed = IsObserved() || !isFinal_;
    try {
      if (observed) key_.Read(in);
      const LRUCacheSlot slot = observed ? entries_.Find(key_) : entries_.Find(key, hash);
      if (slot == 0) {
        Insert(key, hash, new (entries_.MemoryForNode()) Node(in, *metaOut), observed);
      } else {
        // The key shares the text that is about to change.
        if (NodeIn(slot)->path != key.path) entries_.CopyText(slot);
        NodeIn(slot)->SetDataToCacheNode(in, *metaOut);
        Use(slot, observed);
      }
      return ORVEX_OK;
    } catch (const std::exception&) {
      // No memory, or a text longer than a string can be.
      ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kLRUCacheSourceFile,
                        "Insufficient memory for create cache node");
      return ORVEX_NO_MEMORY;
    }
  }
  virtual int FlushCache() ORVEX_EXCLUDES(lock) {
    const ORVEX_MutexGuard guard(&lock);
    entries_.ForgetKeys();
    for (LRUCacheSlot slot = entries_.After(0); slot != 0; slot = entries_.After(slot)) End(slot);
    entries_.Clear();
    return ORVEX_OK;
  }
  virtual int ResetMetrics() ORVEX_EXCLUDES(lock) {
    const ORVEX_MutexGuard guard(&lock);
    ZeroMetrics();
    return ORVEX_OK;
  }
  virtual void DumpCache() const ORVEX_EXCLUDES(lock) {
    const ORVEX_MutexGuard guard(&lock);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile, "Cache capacity = %u",
                      capacity);
    DumpCacheMap();
    DumpCacheNodeList();
  }
  virtual int Query(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx)
      ORVEX_EXCLUDES(lock) = 0;
  virtual int GetMetrics(Metrics& out) const = 0;
  virtual void DumpMetrics() const = 0;
  // LRU_INSERT may throw std::bad_alloc; the node then stays the caller's.
  virtual void LRUCacheNodeUpdate(Key& key, Node* node, LRU_OPERATION operation)
      ORVEX_REQUIRES(lock) {
    if (node == nullptr) return;
    if (operation == LRU_UPDATE) {
      entries_.MoveToFront(node->mapEntry);
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                        "Cache node updated: path=%s", node->path.c_str());
    } else if (operation == LRU_INSERT) {
      LRUCacheKeyView view(key);
      const bool sharesText = node->path == view.path;
      if (sharesText) view.path = node->path.c_str();
      const uint32_t hash = HashOf(view);
      node->mapEntry = entries_.Insert(view, hash, entries_.Find(view, hash), node, !sharesText);
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                        "Insert new cache node: path=%s", node->path.c_str());
    }
  }
  virtual void DumpCacheMap() const ORVEX_REQUIRES(lock) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile, "CacheMap.size=%u",
                      static_cast<unsigned int>(entries_.EntryCount()));
    for (const LRUCacheSlot slot : entries_.InOrderOfKeys()) entries_.KeyIn(slot).Dump();
  }
  virtual void DumpCacheNodeList() const ORVEX_REQUIRES(lock) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile, "CacheNodeList.size=%u",
                      static_cast<unsigned int>(entries_.Size()));
    for (LRUCacheSlot slot = entries_.After(0); slot != 0; slot = entries_.After(slot)) {
      NodeIn(slot)->Dump();
    }
  }
  // Returns an LRU_LOOKUP. Allocates only for signers, a copy of the key or the ordered view.
  virtual int QueryLRUCache(metadata_input_s* metaIn, metadata_output_s* metaOut)
      ORVEX_EXCLUDES(lock) = 0;
  // Evicts the least recently used nodes beyond the capacity.
  virtual void LRUCacheNodeWipe() ORVEX_REQUIRES(lock) = 0;

  bool IsInit() const ORVEX_EXCLUDES(lock) {
    const ORVEX_MutexGuard guard(&lock);
    return IsActive();
  }
  // In nodes, 1 to ORVEX_MAX_CAPACITY; anything else means the latter. Evicts at once.
  void SetCapacity(unsigned int newCapacity) ORVEX_EXCLUDES(lock) {
    const ORVEX_MutexGuard guard(&lock);
    // Unsigned, so that 0 counts as too large.
    capacity = newCapacity - 1 < ORVEX_MAX_CAPACITY ? newCapacity : ORVEX_MAX_CAPACITY;
    ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, kLRUCacheSourceFile, "Set max cache capacity to %u",
                      capacity);
    LRUCacheNodeWipe();
  }
  // A null callback is an error in the log and changes nothing.
  void RegisterMetaQueryCallback(orvex_query_cb callback) ORVEX_EXCLUDES(lock) {
    if (callback == nullptr) {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kLRUCacheSourceFile,
                        "Kelda Inventory Engine register query callback failed: invalid parameter");
      return;
    }
    const ORVEX_MutexGuard guard(&lock);
    ORVEX_StoreRelease(queryCallback, callback);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kLRUCacheSourceFile,
                      "Kelda Inventory Engine register query callback successfully");
  }

 protected:
  ~LRUCacheT() {}  // NOLINT(modernize-use-equals-default)

  // IsInit without the lock. A call racing a start or stop may see either answer.
  ORVEX_LOCAL bool IsActive() const { return ORVEX_LoadRelaxed(active); }
  // The slot must not be 0.
  ORVEX_LOCAL Node* NodeIn(LRUCacheSlot slot) const ORVEX_REQUIRES(lock) {
    return static_cast<Node*>(entries_.NodeIn(slot));
  }
  // Whether the host can observe each step, through DEBUG messages or profiling.
  ORVEX_LOCAL static bool IsObserved() {
    return ORVEX_ProfilingScope::IsOn() || ORVEX_LOG_BASE::Keeps(ORVEX_LOG_DEBUG);
  }
  // Makes the node the most recently used. If observed is set, key_ must hold its key.
  ORVEX_LOCAL void Use(LRUCacheSlot slot, bool observed) ORVEX_REQUIRES(lock) {
    if (observed) {
      LRUCacheNodeUpdate(key_, NodeIn(slot), LRU_UPDATE);
    } else {
      entries_.MoveToFront(slot);
    }
  }
  // Counts and logs a lookup that found no node, or one with another mtime.
  ORVEX_LOCAL __attribute__((noinline)) LRU_LOOKUP MissOrOutOfDate(const Node* node,
                                                                   const metadata_input_s& in)
      ORVEX_REQUIRES(lock) {
    if (node == nullptr) {
      ORVEX_atomic_increment_64(&metrics.Miss);
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, "QueryLRUCache", kLRUCacheSourceFile,
                        "Cache query: cache miss, %s", in.path);
      return LRU_MISS;
    }
    ORVEX_atomic_increment_64(&metrics.OutOfDate);
    ORVEX_LOG_MESSAGE(ORVEX_LOG_WARNING, "QueryLRUCache", kLRUCacheSourceFile,
                      "Cache query: cache out-of-date, (%llu/%llu) %s", PrintableNumber(in.mtime),
                      PrintableNumber(node->mtime), in.path);
    return LRU_OUT_OF_DATE;
  }
  // The body of LRUCacheNodeWipe.
  ORVEX_LOCAL void EvictBeyondCapacity() ORVEX_REQUIRES(lock) {
    while (entries_.Size() > capacity) {
      ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, "LRUCacheNodeWipe", kLRUCacheSourceFile,
                        "Reach max cache capacity, start to remove oldest one");
      NodeIn(entries_.Oldest())->Dump();
      End(entries_.RemoveOldest());
      ORVEX_atomic_increment_64(&metrics.WipeOuts);
    }
  }
  ORVEX_LOCAL void ZeroMetrics() ORVEX_REQUIRES(lock) {
    static_assert(alignof(Metrics) >= 8 && sizeof(Metrics) % sizeof(long long) == 0,
                  "a counter across two cache lines slows every locked add: keep alignas(8)");
    auto* const counters = reinterpret_cast<long long*>(&metrics);
    for (size_t i = 0; i < sizeof metrics / sizeof *counters; ++i) ORVEX_ZeroCounter(counters + i);
  }
  ORVEX_LOCAL void ReadMetrics(Metrics& out) const {
    auto* const counters = reinterpret_cast<long long*>(&metrics);
    auto* const copies = reinterpret_cast<long long*>(&out);
    for (size_t i = 0; i < sizeof out / sizeof *copies; ++i) {
      copies[i] = ORVEX_atomic_read_64(counters + i);
    }
  }
  // The host's answer, unchanged.
  ORVEX_LOCAL int AskHost(metadata_input_s* metaIn, metadata_output_s* metaOut, void* ctx)
      ORVEX_EXCLUDES(lock) {
    // Without the lock: the host may take seconds, may throw, and may call back into the
    // library on this very thread.
    return ORVEX_LoadAcquire(queryCallback)(metaIn, metaOut, ctx);
  }

  LRUCacheEntries entries_ ORVEX_GUARDED_BY(lock){sizeof(Node)};
  // On its own cache line: waiters poll it.
  alignas(kCacheLineBytes) mutable ORVEX_PThread_Lock lock;
  // From InitLRUCache to DeinitLRUCache. An atomic, written under the lock.
  alignas(kCacheLineBytes) bool active = false;
  // In nodes. LRUCacheNodeWipe evicts what exceeds it.
  unsigned int capacity ORVEX_GUARDED_BY(lock) = ORVEX_MAX_CAPACITY;
  // True, from the first start on, if no subclass overrides LRUCacheNodeUpdate: a store that is not
  // logged then uses the record itself as the key and copies no text for it.
  bool isFinal_ ORVEX_GUARDED_BY(lock) = false;
  // Null until registered; survives flush and stop. An atomic, written under the lock.
  orvex_query_cb queryCallback = nullptr;
  // Atomics: some are counted without the lock; zeroed under it.
  struct Counters : Metrics {
    // Hits that were not logged. Each counts as Query and as Hit, with one locked add.
    alignas(8) long long silentHits = 0;
  };
  alignas(kCacheLineBytes) mutable Counters metrics{};
  // The key of the current record; its strings' memory is reused from record to record.
  alignas(kCacheLineBytes) Key key_ ORVEX_GUARDED_BY(lock);

 private:
  // A node built in its slot's memory is destroyed but not freed.
  ORVEX_LOCAL void End(LRUCacheSlot slot) ORVEX_REQUIRES(lock) {
    Node* const node = NodeIn(slot);
    entries_.IsInPlace(slot) ? node->~Node() : delete node;
  }
  // The node was built in place. Once inserted it belongs to the cache, even if a log callback ends
  // the thread.
  ORVEX_LOCAL void Insert(LRUCacheKeyView key, uint32_t hash, Node* node, bool observed)
      ORVEX_REQUIRES(lock) {
    try {
      if (observed) {
        LRUCacheNodeUpdate(key_, node, LRU_INSERT);
      } else {
        key.path = node->path.c_str();
        node->mapEntry = entries_.Insert(key, hash, 0, node, false);
      }
    } catch (const std::bad_alloc&) {
      node->~Node();
      throw;
    }
    LRUCacheNodeWipe();
  }
};
