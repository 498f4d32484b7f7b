// How the hash cache classifies a lookup and stores an answer.
#include <doctest/doctest.h>

#include <cstring>
#include <string>

#include "harness/open_hash_cache.h"
#include "harness/recorded_log.h"
#include "support/orvex_profiling.h"

namespace {

// A mask that leaves the modification time out, so that a changed file still
// finds its entry.
metadata_input_s ByPath(const char* path, uint64_t mtime) {
  metadata_input_s in = InputFor(path);
  in.fileOperation = KEY_PATH;
  in.mtime = mtime;
  return in;
}

struct Counters {
  long long query, miss, hit, partialHit, outOfDate;
};

void CheckCounters(const OpenHashCache& cache, const Counters& expected) {
  CHECK(cache.Counters().Query == expected.query);
  CHECK(cache.Counters().Miss == expected.miss);
  CHECK(cache.Counters().Hit == expected.hit);
  CHECK(cache.Counters().PartialHit == expected.partialHit);
  CHECK(cache.Counters().OutOfDate == expected.outOfDate);
}

}  // namespace

TEST_CASE("a lookup of an unknown file is a miss and leaves the output alone") {
  OpenHashCache cache;
  RecordedLog log;
  Answer out;
  out.queryFlags = QUERY_FILE_TYPE;
  CHECK(cache.Look(InputFor("/a"), out) == 1);
  CHECK(out.queryFlags == QUERY_FILE_TYPE);
  CheckCounters(cache, {1, 1, 0, 0, 0});
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, /a"}));
}

TEST_CASE("a lookup that finds every part wanted is a hit") {
  OpenHashCache cache;
  cache.Store("/a");
  RecordedLog log;
  Answer out;
  CHECK(cache.Look(InputFor("/a"), out) == 2);
  CHECK(out.digest32[0] == 1);
  CHECK(out.size == 1000);
  CheckCounters(cache, {1, 0, 1, 0, 0});
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG GetDataFromCacheNode orvex_lru_cache: metaOut.modificationTime=5",
               "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache hits, /a",
               "DEBUG LRUCacheNodeUpdate orvex_lru_cache: Cache node updated: path=/a"}));
}

TEST_CASE("a lookup that lacks a part wanted is a partial hit and copies the others") {
  OpenHashCache cache;
  Answer stored;
  GiveDigests(stored, QUERY_DIGEST32, 1);
  cache.Store(InputFor("/a"), stored);
  RecordedLog log;
  Answer out;
  CHECK(cache.Look(InputFor("/a"), out) == 3);
  CHECK((out.queryFlags & kAllDigests) == QUERY_DIGEST32);
  CHECK(out.digest32[31] == 1);
  CheckCounters(cache, {1, 0, 0, 1, 0});
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG GetDataFromCacheNode orvex_lru_cache: metaOut.modificationTime=5",
               "DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache partial hits, /a",
               "DEBUG LRUCacheNodeUpdate orvex_lru_cache: Cache node updated: path=/a"}));
}

TEST_CASE("a lookup with another mtime is out of date and copies nothing") {
  OpenHashCache cache;
  Answer stored;
  GiveDigests(stored, kAllDigests, 1);
  cache.Store(ByPath("/a", 5), stored);
  cache.Store("/b");
  RecordedLog log;
  Answer out;
  CHECK(cache.Look(ByPath("/a", 6), out) == 4);
  CHECK(out.queryFlags == 0);
  CHECK(cache.PathsInOrder() == Paths{"/b", "/a"});
  CheckCounters(cache, {1, 0, 0, 0, 1});
  CHECK(log.TakeTranscript() ==
        Lines({"WARNING QueryLRUCache orvex_lru_cache: Cache query: cache out-of-date, (6/5) /a"}));
}

TEST_CASE("a lookup with an older mtime is out of date as well") {
  OpenHashCache cache;
  Answer stored;
  cache.Store(ByPath("/a", 5), stored);
  Answer out;
  CHECK(cache.Look(ByPath("/a", 4), out) == 4);
  CheckCounters(cache, {1, 0, 0, 0, 1});
}

TEST_CASE("a lookup whose mtime is not given is never out of date") {
  OpenHashCache cache;
  Answer stored;
  GiveDigests(stored, QUERY_DIGEST32, 1);
  cache.Store(ByPath("/a", 5), stored);
  metadata_input_s in = ByPath("/a", 0);
  Answer out;
  CHECK(cache.Look(in, out) == 3);
  in.queryFlags = QUERY_DIGEST32;
  CHECK(cache.Look(in, out) == 2);
  CHECK(out.modificationTime == 5);
}

TEST_CASE("a lookup with an mtime is out of date when the entry never had one") {
  OpenHashCache cache;
  Answer stored;
  cache.Store(ByPath("/a", 0), stored);
  Answer out;
  CHECK(cache.Look(ByPath("/a", 5), out) == 4);
}

TEST_CASE("a lookup that wants nothing is a hit when there is an entry") {
  OpenHashCache cache;
  Answer stored;
  metadata_input_s in = InputFor("/a");
  cache.Store(in, stored);
  in.queryFlags = 0;
  Answer out;
  CHECK(cache.Look(in, out) == 2);
}

TEST_CASE("bits that the output holds before the lookup count towards a hit") {
  OpenHashCache cache;
  Answer stored;
  GiveDigests(stored, QUERY_DIGEST32, 1);
  metadata_input_s in = InputFor("/a");
  cache.Store(in, stored);
  in.queryFlags = QUERY_DIGEST32 | QUERY_FILE_TYPE;
  Answer out;
  CHECK(cache.Look(in, out) == 3);
  out.queryFlags = QUERY_FILE_TYPE;
  CHECK(cache.Look(in, out) == 2);
}

TEST_CASE("a bit for signers in the output does not count when the entry holds other signers") {
  OpenHashCache cache;
  Answer stored;
  GiveSigners(stored, {"Kelda"});
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  cache.Store(in, stored);
  Answer out;
  GiveSigners(out, {"stale", "staler"});
  CHECK(cache.Look(in, out) == 2);
  CHECK(SignersIn(out) == Names{"Kelda"});
}

TEST_CASE("an entry that never had signers does not satisfy a request for them") {
  OpenHashCache cache;
  cache.Store("/a");
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  Answer out;
  CHECK(cache.Look(in, out) == 3);
}

TEST_CASE("a callback that gave no parts leaves an entry without any") {
  OpenHashCache cache;
  Answer stored;
  metadata_input_s in = InputFor("/a");
  in.size = 0;
  in.mtime = 0;
  cache.Store(in, stored);
  Answer out;
  CHECK(cache.Look(in, out) == 3);
  CHECK(out.queryFlags == QUERY_FEEDBACK);
}

TEST_CASE("hits and partial hits move the entry to the front") {
  OpenHashCache cache;
  cache.Store("/a");
  cache.Store("/b");
  cache.Store("/c");
  Answer out;
  cache.Look(InputFor("/a"), out);
  CHECK(cache.PathsInOrder() == Paths{"/a", "/c", "/b"});
  metadata_input_s in = InputFor("/b");
  in.queryFlags = QUERY_SIGNERS;
  Answer partial;
  cache.Look(in, partial);
  CHECK(cache.PathsInOrder() == Paths{"/b", "/a", "/c"});
}

TEST_CASE("a null path is looked up and logged as well") {
  OpenHashCache cache;
  metadata_input_s in = InputFor(nullptr);
  Answer out;
  RecordedLog log;
  CHECK(cache.Look(in, out) == 1);
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG QueryLRUCache orvex_lru_cache: Cache query: cache miss, (null)"}));
  cache.Store(in, out);
  CHECK(cache.Look(InputFor(""), out) == 3);
}

TEST_CASE("an update keeps earlier parts, moves the entry to the front and evicts nothing") {
  OpenHashCache cache;
  Answer first;
  GiveDigests(first, QUERY_DIGEST32, 1);
  cache.Store(InputFor("/a"), first);
  cache.Store("/b");
  cache.SetCapacity(2);
  Answer second;
  GiveDigests(second, QUERY_DIGEST20, 2);
  CHECK(cache.Store(InputFor("/a"), second) == 0);
  CHECK(cache.PathsInOrder() == Paths{"/a", "/b"});
  CHECK(cache.Counters().WipeOuts == 0);
  Answer out;
  cache.Look(InputFor("/a"), out);
  CHECK(out.digest32[0] == 1);
  CHECK(out.digest20[0] == 2);
}

TEST_CASE("an update of an out-of-date entry refreshes its mtime and keeps parts not given") {
  OpenHashCache cache;
  Answer old;
  GiveDigests(old, QUERY_DIGEST20 | QUERY_DIGEST32, 1);
  cache.Store(ByPath("/a", 5), old);
  Answer refreshed;
  GiveDigests(refreshed, QUERY_DIGEST32, 2);
  cache.Store(ByPath("/a", 6), refreshed);
  Answer out;
  metadata_input_s in = ByPath("/a", 6);
  in.queryFlags = QUERY_DIGEST20 | QUERY_DIGEST32;
  CHECK(cache.Look(in, out) == 2);
  CHECK(out.digest32[0] == 2);
  CHECK(out.digest20[0] == 1);  // The older file's, served as current.
}

TEST_CASE("the third file in a cache of two evicts the first") {
  OpenHashCache cache;
  cache.SetCapacity(2);
  cache.Store("/a");
  cache.Store("/b");
  RecordedLog log;
  cache.Store("/c");
  CHECK(cache.PathsInOrder() == Paths{"/c", "/b"});
  CHECK(cache.Counters().WipeOuts == 1);
  const auto records = log.Records();
  REQUIRE(records.size() == 3);
  CHECK(records[0].text == "Insert new cache node: path=/c");
  CHECK(records[1].text == "Reach max cache capacity, start to remove oldest one");
  CHECK(records[1].function == "LRUCacheNodeWipe");
  CHECK(records[2].text.find("path=/a,") != std::string::npos);
  CHECK(records[2].level == ORVEX_LOG_DEBUG);
}

TEST_CASE("with a capacity of 0 every node is evicted by the update that inserted it") {
  OpenHashCache cache;
  cache.capacity = 0;
  CHECK(cache.Store("/a") == 0);
  CHECK(cache.PathsInOrder().empty());
  CHECK(cache.entries_.EntryCount() == 0);
  CHECK(cache.Counters().WipeOuts == 1);
}

TEST_CASE("pushing metadata counts whether it was stored") {
  OpenHashCache cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(cache.UpdateMetaData(&in, &out) == 0);
  CHECK(cache.UpdateMetaData(nullptr, &out) == 3);
  CHECK(cache.UpdateMetaData(&in, nullptr) == 3);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataSuccess == 1);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataFailure == 2);
}

TEST_CASE("pushing metadata and inserting a node call a subclass's overrides") {
  class Telling : public OpenHashCache {
   public:
    int UpdateCache(metadata_input_s*, metadata_output_s*) override { return 77; }
    void LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node,
                            LRU_OPERATION operation) override {
      ++updates;
      OpenHashCache::LRUCacheNodeUpdate(key, node, operation);
    }
    int updates = 0;
  } cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  CHECK(cache.UpdateMetaData(&in, &out) == 77);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataFailure == 1);
  LRUCacheKey key(in);
  CHECK(cache.InsertCacheNode(key, new LRUCacheNode(in, out)) == 0);
  CHECK(cache.updates == 1);
}

TEST_CASE("keys that an override renames keep texts of their own") {
  struct RenamingCache : OpenHashCache {
    void LRUCacheNodeUpdate(LRUCacheKey& key, LRUCacheNode* node,
                            LRU_OPERATION operation) override {
      if (operation == LRU_INSERT) key.path += "-renamed";
      OpenHashCache::LRUCacheNodeUpdate(key, node, operation);
    }
  } cache;
  cache.Store("/a");
  cache.Store("/b");
  const RecordedLog log;
  cache.DumpCache();
  CHECK(log.CountOf("path=/a-renamed,") == 1);
  CHECK(log.CountOf("path=/b-renamed,") == 1);
}

TEST_CASE("an update by itself counts nothing") {
  OpenHashCache cache;
  cache.Store("/a");
  CHECK(cache.UpdateCache(nullptr, nullptr) == 3);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataSuccess == 0);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataFailure == 0);
}

TEST_CASE("a node can be inserted under a key of its own") {
  OpenHashCache cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  LRUCacheKey key(in);
  CHECK(cache.InsertCacheNode(key, new LRUCacheNode(in, out)) == 0);
  CHECK(cache.PathsInOrder() == Paths{"/a"});
}

TEST_CASE("inserting under a cached key returns 201 and does not take the node") {
  for (const uint32_t fields : {kAllKeyBits, uint32_t{KEY_PATH}}) {
    CAPTURE(fields);
    OpenHashCache cache;
    metadata_input_s in = InputFor("/a");
    in.fileOperation = fields;
    Answer out;
    cache.Store(in, out);
    if ((fields & KEY_SIZE) == 0) ++in.size;
    LRUCacheKey key(in);
    LRUCacheNode mine(in, out);
    CHECK(cache.InsertCacheNode(key, &mine) == 201);
    CHECK(cache.entries_.Size() == 1);
    CHECK(cache.Find(key) != &mine);
  }
}

TEST_CASE("inserting a node counts nothing, whether it succeeds or not") {
  OpenHashCache cache;
  metadata_input_s in = InputFor("/a");
  Answer out;
  LRUCacheKey key(in);
  LRUCacheNode refused(in, out);
  CHECK(cache.InsertCacheNode(key, new LRUCacheNode(in, out)) == 0);
  CHECK(cache.InsertCacheNode(key, &refused) == 201);
  CHECK(cache.InsertCacheNode(key, nullptr) == 3);
  CheckCounters(cache, {0, 0, 0, 0, 0});
  CHECK(cache.Counters().WipeOuts == 0);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataSuccess == 0);
  CHECK(cache.Counters().numOfCacheUpdateMetaDataFailure == 0);
}

TEST_CASE("a node that takes over another's parts keeps its own place in the cache") {
  OpenHashCache cache;
  LRUCacheNode* nodes[2] = {};
  const char* const paths[2] = {"/a", "/b"};
  for (const int i : {0, 1}) {
    metadata_input_s in = InputFor(paths[i]);
    Answer out;
    LRUCacheKey key(in);
    nodes[i] = new LRUCacheNode(in, out);
    REQUIRE(cache.InsertCacheNode(key, nodes[i]) == 0);
  }
  *nodes[0] = *nodes[1];
  cache.SetCapacity(1);
  Answer out;
  CHECK(cache.Look(InputFor("/a"), out) == 1);
  CHECK(cache.Look(InputFor("/b"), out) != 1);
}

TEST_CASE("an inserted node is found, logged or not, and takes the parts of a store") {
  LRUCache cache;
  cache.InitLRUCache();
  metadata_input_s in = InputFor("/a");
  LRUCacheKey key(in);
  for (const ORVEX_LOG level : {ORVEX_LOG_INFO, ORVEX_LOG_DEBUG}) {
    CAPTURE(level);
    const RecordedLog log(level);
    Answer first, second, found;
    GiveDigests(first, kAllDigests, 1);
    REQUIRE(cache.InsertCacheNode(key, new LRUCacheNode(in, first)) == 0);
    GiveDigests(second, QUERY_DIGEST16, 2);
    CHECK(cache.UpdateCache(&in, &second) == 0);
    CHECK(cache.Query(&in, &found, nullptr) == 0);
    CHECK(found.digest16[0] == 2);
    CHECK(found.digest32[0] == 1);
    cache.FlushCache();
  }
}

TEST_CASE("an inserted node is in the dump and in the log of its eviction") {
  OpenHashCache cache;
  metadata_input_s in = InputFor("/a");
  in.invOperation = 0xabc;
  Answer out;
  LRUCacheKey key(in);
  REQUIRE(cache.InsertCacheNode(key, new LRUCacheNode(in, out)) == 0);
  cache.SetCapacity(1);
  const RecordedLog log;
  cache.DumpCache();
  CHECK(log.CountOf("invOperation=0x00000abc, path=/a,") == 1);
  cache.Store("/b");
  CHECK(log.CountOf("invOperation=0x00000abc, path=/a,") == 2);
}

TEST_CASE("inserting a null node returns 3") {
  OpenHashCache cache;
  LRUCacheKey key;
  CHECK(cache.InsertCacheNode(key, nullptr) == 3);
}

TEST_CASE("inserting a node beyond the capacity evicts the least recently used") {
  OpenHashCache cache;
  cache.SetCapacity(1);
  cache.Store("/a");
  metadata_input_s in = InputFor("/b");
  Answer out;
  LRUCacheKey key(in);
  cache.InsertCacheNode(key, new LRUCacheNode(in, out));
  CHECK(cache.PathsInOrder() == Paths{"/b"});
  CHECK(cache.Counters().WipeOuts == 1);
}

TEST_CASE(
    "an entry's mask leads a search to it, and the search's mask decides whether it matches") {
  OpenHashCache cache;
  Answer out;
  metadata_input_s stored = InputFor("/m");
  stored.fileOperation = KEY_PATH;
  cache.Store(stored, out);

  // The stored key compares paths only and takes this for its equal, while the
  // searching key sees another size.
  metadata_input_s other = InputFor("/m");
  other.size = 1;
  other.fileOperation = KEY_PATH | KEY_SIZE;
  CHECK(cache.Look(other, out) == 1);
  other.size = 2000;
  CHECK(cache.Look(other, out) == 3);
}

TEST_CASE("the operations of the cache are timed under their names, innermost first") {
  OpenHashCache cache;
  cache.SetCapacity(1);
  cache.Store("/a");
  ORVEX_Profiling::EnableProfiling = true;
  RecordedLog log(ORVEX_LOG_INFO);
  Answer out;
  cache.Look(InputFor("/a"), out);
  cache.Store("/b");
  ORVEX_Profiling::EnableProfiling = false;
  std::string names;
  for (const LogRecord& record : log.Records()) {
    names += record.text.substr(0, record.text.find(" used")) + "\n";
  }
  CHECK(names ==
        Lines({"[PROFILING] LRUCache::LRUCacheNodeUpdate", "[PROFILING] LRUCache::QueryLRUCache",
               "[PROFILING] LRUCache::LRUCacheNodeUpdate", "[PROFILING] LRUCache::LRUCacheNodeWipe",
               "[PROFILING] LRUCache::UpdateCache"}));
}
