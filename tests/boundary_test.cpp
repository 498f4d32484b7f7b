// What a host compiled against an earlier header relies on: where the virtual
// operations, the members and the counters of the exported classes lie.
#include <doctest/doctest.h>
#include <errno.h>

#include <cstdint>
#include <memory>
#include <new>
#include <string>

#include "engine/orvex_engine.h"
#include "harness/failing_new.h"
#include "harness/failing_pthread.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"
#include "harness/records.h"
#include "harness/virtual_table.h"
#include "support/orvex_config.h"
#include "support/orvex_profiling.h"

namespace {

const char* const kLong = "a text of more characters than a string holds in itself, by far";

// Every polymorphic class but the caches' begins with both destructors, which
// only the caches have at the end.
constexpr size_t kDestroy = 0;
constexpr size_t kDelete = 1;

// Fills an object so that its destructor has memory to free.
void Fill(LRUCacheKey& key) { key.path = kLong; }
void Fill(LRUCacheNode& node) { node.path = kLong; }
void Fill(ORVEX_Config& config) {
  char line[] = "a_key_of_more_characters_than_a_string_holds = 1";
  config.ParseLine(line);
}
template <typename Other>
void Fill(Other&) {}

template <typename Class>
void* Memory() {
  if constexpr (alignof(Class) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
    return operator new(sizeof(Class));
  } else {
    return operator new (sizeof(Class), std::align_val_t{alignof(Class)});
  }
}

// Whether this pair of slots destroys an object in place and deletes one.
template <typename Class>
bool DestroysAndDeletes(size_t destroy, size_t deleteSlot) {
  const long before = LiveAllocations();
  void* const memory = Memory<Class>();
  const long afterNew = LiveAllocations();
  Fill(*new (memory) Class());
  CallSlot<void>(memory, destroy);
  if (LiveAllocations() != afterNew) return false;
  Fill(*new (memory) Class());
  CallSlot<void>(memory, deleteSlot);
  return LiveAllocations() == before;
}

class OwnLock : public ORVEX_Lock {
 public:
  unsigned int Lock() override { return 101; }
  unsigned int Unlock() override { return 102; }
};

class OwnCondVar : public ORVEX_CondVar {
 public:
  unsigned int Signal() override { return 101; }
  unsigned int SignalAll() override { return 102; }
  unsigned int Wait(bool&, CondWaitCallbacks_t&) override { return 103; }
};

template <typename Object>
void* PointerTo(Object& object) {
  return const_cast<void*>(static_cast<const void*>(&object));
}

}  // namespace

TEST_CASE("both destructors come first in every table but those of the caches") {
  CHECK(DestroysAndDeletes<LRUCacheKey>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<LRUCacheNode>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<ORVEX_Config>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<ORVEX_Profiling>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<ORVEX_ENGINE>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<ORVEX_LOG_BASE>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<ORVEX_PThread_Lock>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<ORVEX_PThread_CondLock>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<OwnLock>(kDestroy, kDelete));
  CHECK(DestroysAndDeletes<OwnCondVar>(kDestroy, kDelete));
  // After the fifteen operations of the template.
  CHECK(DestroysAndDeletes<LRUCache>(15, 16));
}

TEST_CASE("a lock reports its error, locks and unlocks through slots 2 to 4") {
  OwnLock own;
  CHECK(CallSlot<unsigned int>(&own, 2) == 0);
  CHECK(CallSlot<unsigned int>(&own, 3) == 101);
  CHECK(CallSlot<unsigned int>(&own, 4) == 102);

  ORVEX_PThread_Lock plain;
  ORVEX_PThread_CondLock condition;
  ORVEX_Lock* const secondBase = &condition;
  for (void* const lock : {PointerTo(plain), PointerTo(*secondBase)}) {
    int locks = 0;
    int unlocks = 0;
    unsigned int codes[2] = {};
    {
      FailingPThread failing;
      failing.lockError = EINVAL;
      failing.unlockError = EPERM;
      codes[0] = CallSlot<unsigned int>(lock, 3);
      locks = failing.locks;
      failing.lockError = 0;
      CallSlot<unsigned int>(lock, 3);
      codes[1] = CallSlot<unsigned int>(lock, 4);
      unlocks = failing.unlocks;
    }
    CHECK(codes[0] == ORVEX_LOCK_FAILED);
    CHECK(codes[1] == ORVEX_UNLOCK_FAILED);
    CHECK(locks == 1);
    CHECK(unlocks == 1);
    CHECK(CallSlot<unsigned int>(lock, 2) == EPERM);
  }
}

TEST_CASE("a condition signals one, signals all and waits through slots 2 to 4") {
  OwnCondVar own;
  bool waited = false;
  CondWaitCallbacks_t callbacks{};
  CHECK(CallSlot<unsigned int>(&own, 2) == 101);
  CHECK(CallSlot<unsigned int>(&own, 3) == 102);
  CHECK(CallSlot<unsigned int>(&own, 4, &waited, &callbacks) == 103);

  ORVEX_PThread_CondLock condition;
  int broadcasts[2] = {};
  {
    const FailingPThread counting;
    CallSlot<unsigned int>(&condition, 2);
    broadcasts[0] = counting.broadcasts;
    CallSlot<unsigned int>(&condition, 3);
    broadcasts[1] = counting.broadcasts;
  }
  CHECK(broadcasts[0] == 0);
  CHECK(broadcasts[1] == 1);
  CHECK(CallSlot<unsigned int>(&condition, 4, &waited, &callbacks) == ORVEX_INVALID_PARAMETER);
}

TEST_CASE("a logger logs and reads its configuration through slots 2 and 3") {
  const RecordedLog log;
  ORVEX_LOG_BASE* const logger = ORVEX_LOGGER::GetInstance();
  void** table = nullptr;
  std::memcpy(&table, static_cast<void*>(logger), sizeof table);
  reinterpret_cast<void (*)(void*, ORVEX_LOG, unsigned int, const char*, const char*, const char*,
                            ...)>(table[2])(logger, ORVEX_LOG_INFO, 7, "here", "boundary", "%s %d",
                                            "text", 5);
  CHECK(log.CountOf("text 5") == 1);
  CHECK(CallSlot<unsigned int>(logger, 3, static_cast<char*>(nullptr)) == 0);
}

namespace {

// Calls the fifteen operations that both caches have, each through its slot.
template <typename Cache, typename Node, typename Metrics>
void CheckCacheSlots(const char* metricsLine, uint32_t part) {
  using Opened = OpenedCache<LRUCacheKey, Node, Metrics>;
  RecordedLog log;
  Cache cache;
  metadata_input_s in = InputFor("/a");
  in.queryFlags = part;
  Answer out;
  out.queryFlags = part;
  const auto stored = [&cache] { return Opened::Entries(cache).Size(); };
  const auto says = [&log](const char* text) {
    const bool said = log.CountOf(text) > 0;
    log.TakeTranscript();
    return said;
  };

  CHECK(CallSlot<int>(&cache, 7, &in, &out, nullptr) == 8);  // Query, before
  CHECK(CallSlot<int>(&cache, 0) == 0);                      // InitLRUCache
  CHECK(cache.IsInit());
  CHECK(CallSlot<int>(&cache, 7, &in, static_cast<metadata_output_s*>(nullptr), nullptr) == 3);
  CHECK(CallSlot<int>(&cache, 3, &in, &out) == 0);  // UpdateCache
  CHECK(stored() == 1);
  CHECK(says("Insert new cache node"));
  CHECK(CallSlot<int>(&cache, 2, &in, &out) == 0);  // UpdateMetaData
  CHECK(says("Cache node updated"));
  CallSlot<void>(&cache, 6);  // DumpCache
  CHECK(says("Cache capacity"));
  CallSlot<void>(&cache, 11);  // DumpCacheMap
  CHECK(says("CacheMap.size=1"));
  CallSlot<void>(&cache, 12);  // DumpCacheNodeList
  CHECK(says("CacheNodeList.size=1"));
  CHECK(CallSlot<int>(&cache, 13, &in, &out) == 2);  // QueryLRUCache
  CHECK(says("cache hits"));
  Metrics metrics{};
  CHECK(CallSlot<int>(&cache, 8, &metrics) == 0);  // GetMetrics
  CHECK(metrics.Hit == 1);
  CallSlot<void>(&cache, 9);  // DumpMetrics
  CHECK(says(metricsLine));
  CHECK(CallSlot<int>(&cache, 5) == 0);  // ResetMetrics
  CHECK(Opened::Counters(cache).Hit == 0);
  LRUCacheKey key(in);
  Node* const node = Opened::Find(cache, key);
  CallSlot<void>(&cache, 10, &key, node, LRU_UPDATE);  // LRUCacheNodeUpdate
  CHECK(says("Cache node updated"));
  Opened::Capacity(cache) = 0;
  CallSlot<void>(&cache, 14);  // LRUCacheNodeWipe
  CHECK(stored() == 0);
  Opened::Capacity(cache) = 1;
  cache.UpdateCache(&in, &out);
  CHECK(CallSlot<int>(&cache, 4) == 0);  // FlushCache
  CHECK(stored() == 0);
  CHECK(cache.IsInit());
  CHECK(CallSlot<int>(&cache, 1) == 0);  // DeinitLRUCache
  CHECK_FALSE(cache.IsInit());
}

}  // namespace

TEST_CASE("the operations of the hash cache keep their slots") {
  CheckCacheSlots<LRUCache, LRUCacheNode, LRUCacheMetrics_s>("Cache Metrics: Query=",
                                                             QUERY_DIGEST32);
}

TEST_CASE("the operations of the file type cache keep their slots") {
  CheckCacheSlots<FileTypeCache, FileTypeCacheNode, FileTypeCacheMetrics_s>(
      "File type cache Metrics: Hit=", QUERY_FILE_TYPE);
}

namespace {

// Whether each member follows the previous one.
template <typename First, typename Second, typename... Others>
bool InOrder(const First& first, const Second& second, const Others&... others) {
  const bool right = reinterpret_cast<uintptr_t>(&first) < reinterpret_cast<uintptr_t>(&second);
  if constexpr (sizeof...(others) == 0) {
    return right;
  } else {
    return right && InOrder(second, others...);
  }
}

template <typename Metrics>
bool NoCounterCrossesALine(const Metrics& metrics) {
  constexpr uintptr_t kCacheLine = 64;
  const auto begin = reinterpret_cast<uintptr_t>(&metrics);
  for (uintptr_t counter = begin; counter < begin + sizeof metrics; counter += 8) {
    if (counter / kCacheLine != (counter + 7) / kCacheLine) return false;
  }
  return true;
}

}  // namespace

TEST_CASE("the members of keys and nodes lie in their order") {
  const LRUCacheKey key;
  CHECK(InOrder(key.flags, key.name, key.path, key.size, key.mtime, key.deviceID, key.fileID));
  const LRUCacheNode node;
  CHECK(InOrder(node.dataSet, node.queryFlags, node.fileOperation, node.invOperation,
                node.recordTime, node.mapEntry, node.path, node.size, node.mtime, node.signerCount,
                node.signers, node.digest16, node.digest20, node.digest32, node.auxDigest20,
                node.deviceID, node.fileID, node.feedback));
  const FileTypeCacheNode typeNode;
  CHECK(InOrder(typeNode.mapEntry, typeNode.queryFlag, typeNode.path, typeNode.major,
                typeNode.minor, typeNode.mtime));
}

TEST_CASE("the members of caches and set lie in their order") {
  using Opened = OpenedCache<LRUCacheKey, LRUCacheNode, LRUCacheMetrics_s>;
  LRUCache& cache = HashCache();
  ORVEX_Set& set = OpenedHashCache::Set(cache);
  CHECK(InOrder(Opened::Entries(cache), Opened::Lock(cache), Opened::Capacity(cache),
                Opened::Counters(cache), set));
  CHECK(InOrder(set.active, set.paths, set.condLock));
}

TEST_CASE("no 64-bit counter of the running engine lies across two cache lines") {
  CHECK(NoCounterCrossesALine(OpenedHash::Counters(HashCache())));
  CHECK(NoCounterCrossesALine(OpenedFileType::Counters(TypeCache())));
  // A host's own caches on stack and heap as well, wherever the frame lies.
  for (int shift = 0; shift < 4; ++shift) {
    const auto shifted = std::make_unique<char[]>(static_cast<size_t>(4 * shift + 1));
    const auto onHeap = std::make_unique<LRUCache>();
    LRUCache onStack;
    CHECK(NoCounterCrossesALine(OpenedHash::Counters(*onHeap)));
    CHECK(NoCounterCrossesALine(OpenedHash::Counters(onStack)));
  }
}
