// Every allocation of every exported function fails, either once or from then on.
//
// A story runs afresh for each point: prepared with memory, called without, judged,
// and run again with memory, from another thread too. The framework allocates, so a
// point collects errors in a text first.
#include <doctest/doctest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "harness/counted_sleep.h"
#include "harness/engine_under_test.h"
#include "harness/failing_new.h"
#include "harness/held_host.h"
#include "harness/open_hash_cache.h"
#include "harness/opened_caches.h"
#include "harness/recorded_log.h"
#include "support/orvex_config.h"
#include "support/orvex_profiling.h"

namespace {

// Longer than the small-string buffer.
const char* const kPath = "/a/path/of/more/characters/than/a/string/holds/in/itself";
const char* const kOther = "/another/path/of/more/characters/than/a/string/holds";
const char* const kSigner = "Kelda";

// Longer than what a query keeps without allocating.
const std::string kVeryLongPath = "/" + std::string(300, 'x');

constexpr int kNullPathThrown = 1000;

// Messages are made at DEBUG and dropped without memory.
std::atomic<int> errorsOpeningConfig{0};
std::function<void(const char*)> onMessage;

void DropMessage(unsigned int, unsigned int, const char*, const char*, const char* message,
                 unsigned int) {
  if (std::strncmp(message, "Open config file", 16) == 0) ++errorsOpeningConfig;
  if (onMessage) onMessage(message);
}

// Everything that can be logged or timed is.
class TalkativeLibrary {
 public:
  TalkativeLibrary();
  ~TalkativeLibrary() {
    orvex_profiling_set_enable(false);
    onMessage = nullptr;
  }
};

// A signer array as the host makes it, whose memory never runs out.
void HostGivesSigner(metadata_output_s& out) {
  const MemoryForHost memory;
  GiveSigners(out, {kSigner});
}

// One engine, one query about one file, and a host that answers it.
struct Stage {
  Stage() : in(InputFor(kPath)) {
    in.queryFlags = kAllDigests;
    engine.host.onHash = [this](metadata_input_s& asked, metadata_output_s& answer) {
      if (hostCode != 0) return hostCode;
      if (givesSigners) HostGivesSigner(answer);
      return Host::AnswerHash(asked, answer);
    };
    engine.host.onFileType = [this](metadata_input_s& asked, metadata_output_s& answer) {
      return hostCode != 0 ? hostCode : Host::AnswerFileType(asked, answer);
    };
  }
  ~Stage() {
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, ORVEX_MAX_CAPACITY);
    orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, ORVEX_MAX_CAPACITY);
  }

  int Ask(metadata_output_s& answer) {
    try {
      return engine.Query(in, answer);
    } catch (const std::logic_error&) {
      return kNullPathThrown;
    }
  }

  // Puts the file into the caches as a query would.
  void Cache(uint32_t parts) {
    metadata_input_s other = in;
    other.queryFlags = parts;
    other.invOperation = INV_KEEP_IN_CACHE;
    Answer answer;
    engine.Query(other, answer);
  }

  EngineUnderTest engine;
  metadata_input_s in;
  bool givesSigners = false;
  bool indexMayGiveUp = false;
  int hostCode = 0;
};

TalkativeLibrary::TalkativeLibrary() {
  orvex_register_log_cb(DropMessage);
  ORVEX_LOG_BASE::LogLevel = ORVEX_LOG_DEBUG;
  orvex_profiling_set_enable(true);
  // The caches keep memory for the longest texts of a key that they have seen.
  Stage stage;
  stage.in.path = stage.in.name = kVeryLongPath.c_str();
  stage.Cache(kAllDigests | QUERY_FILE_TYPE);
}

bool IsComplete(const metadata_input_s& in, const metadata_output_s& out) {
  const auto wanted = in.queryFlags;
  if ((wanted & ~out.queryFlags) != 0 || out.resultReady != 1) return false;
  const auto digest = static_cast<uint8_t>(std::strlen(in.path));
  if ((wanted & QUERY_DIGEST32) != 0 && out.digest32[31] != digest) return false;
  if ((wanted & QUERY_FILE_TYPE) != 0 && out.minor != 4) return false;
  return (wanted & QUERY_SIGNERS) == 0 ||
         (out.signerCount == 1 && std::strcmp(out.signers, kSigner) == 0);
}

// What both caches hold, whatever the order.
std::vector<std::string> Contents() {
  std::vector<std::string> contents;
  for (const auto* node : NodesIn<LRUCacheNode>(OpenedHash::Entries(HashCache()))) {
    contents.push_back("hash " + node->path + " " + std::to_string(node->queryFlags) + " " +
                       std::to_string(node->mtime) + " " + std::to_string(node->signerCount));
  }
  for (const auto* node : NodesIn<FileTypeCacheNode>(OpenedFileType::Entries(TypeCache()))) {
    contents.push_back("type " + node->path + " " + std::to_string(node->queryFlag) + " " +
                       std::to_string(node->mtime));
  }
  std::sort(contents.begin(), contents.end());
  return contents;
}

// One point of a story: how many allocations failed, and what went wrong.
struct Point {
  int failures = 0;
  std::string wrong;
};

// Runs a story with its first allocation failing, its second, and so on, until none
// is left to fail, with both kinds of failure. Prints and returns the number of
// points.
int CountPoints(const char* function, const char* story,
                const std::function<Point(int allocation, bool fromThereOn)>& tell) {
  int points = 0;
  for (const bool fromThereOn : {false, true}) {
    CAPTURE(fromThereOn);
    for (int allocation = 1;; ++allocation) {
      CAPTURE(allocation);
      const Point point = tell(allocation, fromThereOn);
      CHECK(point.wrong == "");
      if (point.failures == 0) break;
      ++points;
    }
  }
  std::printf("%4d points: %s, %s\n", points, function, story);
  return points;
}

struct QueryStory {
  std::string name;
  std::function<void(Stage&)> prepare;
  int code = 0;           // with memory
  bool allocates = true;  // a silent hit without signers does not
  bool hasAnswer = true;  // a cache-only miss has none
};

// Judges a query that ran out of memory; "" if it behaved as promised.
std::string Judge(const QueryStory& story, const Stage& stage, int code,
                  const metadata_output_s& out, const std::vector<std::string>& before,
                  int failures) {
  if (code != 2 && code != story.code) return "gave " + std::to_string(code);
  const bool canDoWithout = stage.indexMayGiveUp || (stage.in.queryFlags & QUERY_SIGNERS) != 0;
  if (code == 0 && failures > 0 && !canDoWithout) return "0 although memory ran out";
  // One cache may store while the other cannot.
  const bool asksBoth =
      (stage.in.queryFlags & QUERY_FILE_TYPE) != 0 && stage.in.queryFlags != QUERY_FILE_TYPE;
  if (code == 2 && !asksBoth && Contents() != before) return "a failed store changed the cache";
  if (out.resultReady == 1 && code != kNullPathThrown && !IsComplete(stage.in, out)) {
    return "said to be ready and is not complete";
  }
  if (code == 0 && story.hasAnswer && !IsComplete(stage.in, out)) return "0 without the answer";
  return BrokenInvariantOfIdleCaches();
}

Point TellQuery(const QueryStory& story, int allocation, bool fromThereOn) {
  const CountedSleep pauses;
  Point point;
  const long liveBefore = LiveAllocations();
  {
    Stage stage;
    story.prepare(stage);
    const std::vector<std::string> before = Contents();
    {
      Answer out;
      int code = 0;
      try {
        FailingNew failing(allocation, fromThereOn);
        code = stage.Ask(out);
        point.failures = failing.failures;
      } catch (const std::bad_alloc&) {
        point.wrong = "bad_alloc left the library";
        point.failures = 1;
        return point;
      }
      point.wrong = Judge(story, stage, code, out, before, point.failures);
    }
    const auto again = [&] {
      Answer out;
      const int code = stage.Ask(out);
      return code == story.code && (code != 0 || !story.hasAnswer || IsComplete(stage.in, out));
    };
    if (point.wrong.empty() && !again()) point.wrong = "the same call failed with memory";
    if (point.wrong.empty() && !std::async(std::launch::async, again).get()) {
      point.wrong = "another thread got no answer";
    }
    if (point.wrong.empty()) point.wrong = BrokenInvariantOfIdleCaches();
  }
  if (point.wrong.empty() && pauses.sleeps != 0) point.wrong = "somebody was still counted";
  if (point.wrong.empty() && LiveAllocations() != liveBefore) {
    point.wrong = "leaked " + std::to_string(LiveAllocations() - liveBefore);
  }
  return point;
}

void CacheAnother(Stage& stage, uint32_t parts) {
  metadata_input_s other = InputFor(kOther);
  other.queryFlags = parts;
  Answer out;
  stage.engine.Query(other, out);
}

// As many files with equal numbers as the index takes.
void CacheLinks(Stage& stage) {
  for (int i = 0; i < 128; ++i) {
    const std::string path = "/" + std::to_string(i);
    metadata_input_s other = InputFor(path.c_str());
    other.queryFlags = QUERY_DIGEST32;
    Answer out;
    stage.engine.Query(other, out);
  }
}

// An older version of the file is cached, found because mtime is not in the key.
void CacheOlderSelf(Stage& stage, uint32_t parts) {
  stage.in.fileOperation = KEY_PATH;
  stage.Cache(parts);
  stage.in.mtime = 6;
}

const std::vector<QueryStory> kQueryStories = {
    {"hash miss, kept", [](Stage&) {}},
    {"hash miss, not kept", [](Stage& stage) { stage.in.invOperation = 0; }},
    {"hash miss of a very long path, not kept",
     [](Stage& stage) {
       stage.in.path = kVeryLongPath.c_str();
       stage.in.invOperation = 0;
     }},
    {"hash miss with signers, kept",
     [](Stage& stage) {
       stage.givesSigners = true;
       stage.in.queryFlags |= QUERY_SIGNERS;
     }},
    {"hash miss that evicts",
     [](Stage& stage) {
       orvex_set_cache_capacity(ORVEX_HASH_CACHE, 1);
       CacheAnother(stage, kAllDigests);
     }},
    {"hash miss whose host fails", [](Stage& stage) { stage.hostCode = 77; }, 77},
    {"hash miss among links to one file",
     [](Stage& stage) {
       CacheLinks(stage);
       stage.indexMayGiveUp = true;
     }},
    {"hash miss under another mask",
     [](Stage& stage) {
       CacheAnother(stage, kAllDigests);
       stage.in.fileOperation = KEY_PATH;
     }},
    {"file type miss under another mask",
     [](Stage& stage) {
       stage.in.queryFlags = QUERY_FILE_TYPE;
       CacheAnother(stage, QUERY_FILE_TYPE);
       stage.in.fileOperation = KEY_PATH;
     }},
    {"hash hit", [](Stage& stage) { stage.Cache(stage.in.queryFlags); }, 0, false},
    {"hash hit with signers",
     [](Stage& stage) {
       stage.givesSigners = true;
       stage.in.queryFlags |= QUERY_SIGNERS;
       stage.Cache(stage.in.queryFlags);
     }},
    {"hash partial hit, kept",
     [](Stage& stage) {
       stage.Cache(kAllDigests);
       stage.givesSigners = true;
       stage.in.queryFlags |= QUERY_SIGNERS;
     }},
    {"hash partial hit that holds signers, kept",
     [](Stage& stage) {
       stage.givesSigners = true;
       stage.engine.host.onHash = [](metadata_input_s& in, metadata_output_s& out) {
         const bool isFirst = in.queryFlags == QUERY_SIGNERS;
         HostGivesSigner(out);
         return isFirst ? 0 : Host::AnswerHash(in, out);
       };
       stage.Cache(QUERY_SIGNERS);
       stage.in.queryFlags |= QUERY_SIGNERS;
     }},
    {"hash out of date, kept", [](Stage& stage) { CacheOlderSelf(stage, kAllDigests); }, 0, false},
    {"hash out of date, not kept",
     [](Stage& stage) {
       CacheOlderSelf(stage, kAllDigests);
       stage.in.invOperation = 0;
     },
     0, false},
    {"hash update under a longer path",
     [](Stage& stage) {
       stage.in.fileOperation = KEY_FILE_ID;
       stage.in.path = "/a";
       stage.Cache(QUERY_DIGEST32);
       stage.in.path = kPath;
       stage.in.mtime = 6;
     }},
    {"cache-only miss", [](Stage& stage) { stage.in.invOperation = INV_CACHE_ONLY; }, 0, false,
     false},
    {"cache-only hit with signers",
     [](Stage& stage) {
       stage.givesSigners = true;
       stage.in.queryFlags |= QUERY_SIGNERS;
       stage.Cache(stage.in.queryFlags);
       stage.in.invOperation = INV_CACHE_ONLY;
     },
     0, true, false},
    {"hash query without a path", [](Stage& stage) { stage.in.path = nullptr; }, kNullPathThrown},
    {"file type miss, kept", [](Stage& stage) { stage.in.queryFlags = QUERY_FILE_TYPE; }},
    {"file type miss, not kept",
     [](Stage& stage) {
       stage.in.queryFlags = QUERY_FILE_TYPE;
       stage.in.invOperation = 0;
     },
     0, false},
    {"file type miss that evicts",
     [](Stage& stage) {
       stage.in.queryFlags = QUERY_FILE_TYPE;
       orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, 1);
       CacheAnother(stage, QUERY_FILE_TYPE);
     }},
    {"file type hit",
     [](Stage& stage) {
       stage.in.queryFlags = QUERY_FILE_TYPE;
       stage.Cache(QUERY_FILE_TYPE);
     },
     0, false},
    {"file type out of date, kept",
     [](Stage& stage) {
       stage.in.queryFlags = QUERY_FILE_TYPE;
       CacheOlderSelf(stage, QUERY_FILE_TYPE);
     },
     0, false},
    {"both caches, both miss", [](Stage& stage) { stage.in.queryFlags |= QUERY_FILE_TYPE; }},
    {"both caches, both hit",
     [](Stage& stage) {
       stage.in.queryFlags |= QUERY_FILE_TYPE;
       stage.Cache(stage.in.queryFlags);
     },
     0, false},
};

}  // namespace

TEST_CASE("a query that runs out of memory anywhere gives 2 and leaves nothing behind") {
  const TalkativeLibrary talkative;
  int total = 0;
  for (const ORVEX_LOG level : {ORVEX_LOG_INFO, ORVEX_LOG_DEBUG}) {
    ORVEX_LOG_BASE::LogLevel = level;
    const bool tellsSteps = level == ORVEX_LOG_DEBUG;
    orvex_profiling_set_enable(tellsSteps);
    for (const QueryStory& story : kQueryStories) {
      CAPTURE(tellsSteps);
      CAPTURE(story.name);
      const int points =
          CountPoints(tellsSteps ? "orvex_query at DEBUG" : "orvex_query", story.name.c_str(),
                      [&story](int allocation, bool fromThereOn) {
                        return TellQuery(story, allocation, fromThereOn);
                      });
      CHECK((points > 0) == story.allocates);
      total += points;
    }
  }
  std::printf("%4d points in all: orvex_query\n", total);
}

TEST_CASE(
    "a thread that waits for a path and runs out of memory gives 2 and wakes nobody wrongly") {
  const TalkativeLibrary talkative;
  for (const bool leaderFails : {false, true}) {
    CAPTURE(leaderFails);
    const char* const name = leaderFails ? "waits, then calculates" : "waits, then hits";
    const int points = CountPoints("orvex_query", name, [&](int allocation, bool fromThereOn) {
      Point point;
      const long liveBefore = LiveAllocations();
      {
        Stage stage;
        stage.in.queryFlags |= QUERY_FILE_TYPE;
        const HeldHost::Callback answer = stage.engine.host.onHash;
        const HeldHost::Callback fail = [](metadata_input_s&, metadata_output_s&) { return 77; };
        HeldHost held(stage.engine.host.onHash, leaderFails ? fail : answer);
        onMessage = [&held](const char* message) { held.AnswerOnceWaitedFor(message); };
        std::thread leader([&stage] {
          Answer out;
          stage.Ask(out);
        });
        held.entered.Wait();
        Answer out;
        int code = 0;
        {
          const FailingNew failing(allocation, fromThereOn);
          code = stage.Ask(out);
          point.failures = failing.failures;
        }
        held.mayAnswer.Open();
        leader.join();
        onMessage = nullptr;
        if (code != 2 && !(code == 0 && IsComplete(stage.in, out))) point.wrong = "no answer";
        if (out.resultReady == 1 && !IsComplete(stage.in, out)) point.wrong = "half an answer";
        Answer again;
        if (stage.Ask(again) != 0) point.wrong = "the same call failed with memory";
        if (point.wrong.empty()) point.wrong = BrokenInvariantOfIdleCaches();
      }
      if (point.wrong.empty() && LiveAllocations() != liveBefore) point.wrong = "leaked";
      return point;
    });
    CHECK(points > 0);
  }
}

TEST_CASE("a calculating thread that runs out of memory releases those that wait for it") {
  const TalkativeLibrary talkative;
  const int points = CountPoints(
      "orvex_query", "calculates while another waits", [](int allocation, bool fromThereOn) {
        Point point;
        const long liveBefore = LiveAllocations();
        {
          Stage stage;
          HeldHost held(stage.engine.host.onHash);
          onMessage = [&held](const char* message) { held.AnswerOnceWaitedFor(message); };
          bool waiterAnswered = false;
          std::thread waiter([&] {
            held.entered.Wait();
            Answer out;
            waiterAnswered = stage.Ask(out) == 0 && IsComplete(stage.in, out);
          });
          int code = 0;
          Answer out;
          {
            const FailingNew failing(allocation, fromThereOn);
            code = stage.Ask(out);
            point.failures = failing.failures;
          }
          // If the leader never got so far, the waiter is the first.
          held.mayAnswer.Open();
          held.entered.Open();
          waiter.join();
          onMessage = nullptr;
          if (code != (point.failures == 0 ? 0 : 2)) point.wrong = "gave " + std::to_string(code);
          if (!waiterAnswered) point.wrong = "the waiter got no answer";
          if (point.wrong.empty()) point.wrong = BrokenInvariantOfIdleCaches();
        }
        if (point.wrong.empty() && LiveAllocations() != liveBefore) point.wrong = "leaked";
        return point;
      });
  CHECK(points > 0);
}

namespace {

struct UpdateStory {
  const char* name;
  std::function<void(Stage&)> prepare;
  bool withSigners;
  bool allocates = true;
};

// With signers a success may be a store without them.
Point TellUpdate(const UpdateStory& story, int allocation, bool fromThereOn) {
  Point point;
  const long liveBefore = LiveAllocations();
  {
    Stage stage;
    story.prepare(stage);
    Answer out;
    Host::AnswerHash(stage.in, out);
    if (story.withSigners) GiveSigners(out, {kSigner});
    LRUCacheMetrics_s& counters = OpenedHash::Counters(HashCache());
    const std::vector<std::string> before = Contents();
    int code = 0;
    {
      const FailingNew failing(allocation, fromThereOn);
      code = orvex_update_metadata(&stage.in, &out);
      point.failures = failing.failures;
    }
    if (code != 0) point.wrong = "gave " + std::to_string(code);
    const long long stored = counters.numOfCacheUpdateMetaDataSuccess;
    const long long failed = counters.numOfCacheUpdateMetaDataFailure;
    if (stored + failed != 1) point.wrong = "one call is not counted once";
    if (failed == 1 && Contents() != before) point.wrong = "a failed store changed the cache";
    if (stored == 1 && point.failures > 0 && !story.withSigners)
      point.wrong = "stored all the same";
    if (point.wrong.empty()) point.wrong = BrokenInvariantOfIdleCaches();
    orvex_update_metadata(&stage.in, &out);
    if (counters.numOfCacheUpdateMetaDataSuccess != stored + 1) point.wrong = "not stored later";
    // Stopped stays stopped; a running engine has the entry for everybody.
    if (orvex_get_status() == ORVEX_INITIALISED) {
      const bool hit = std::async(std::launch::async, [&stage] {
                         Answer answer;
                         return stage.Ask(answer) == 0 && IsComplete(stage.in, answer) &&
                                stage.engine.host.hashCalls == 0;
                       }).get();
      if (!hit) point.wrong = "another thread got no hit";
    }
    orvex_flush_cache(ORVEX_HASH_CACHE);
  }
  if (point.wrong.empty() && LiveAllocations() != liveBefore) point.wrong = "leaked";
  return point;
}

void Push(Stage& stage, const char* path, bool withSigners) {
  metadata_input_s in = stage.in;
  in.path = path;
  Answer out;
  GiveDigests(out, QUERY_DIGEST16, 1);
  if (withSigners) GiveSigners(out, {"Other"});
  HashCache().UpdateCache(&in, &out);
}

const UpdateStory kUpdateStories[] = {
    {"new entry", [](Stage&) {}, false},
    {"new entry with a name", [](Stage& stage) { stage.in.name = kOther; }, false},
    {"new entry with signers", [](Stage&) {}, true},
    {"new entry that evicts",
     [](Stage& stage) {
       orvex_set_cache_capacity(ORVEX_HASH_CACHE, 1);
       Push(stage, kOther, false);
     },
     false},
    {"cached entry", [](Stage& stage) { Push(stage, kPath, false); }, false, false},
    {"cached entry with signers", [](Stage& stage) { Push(stage, kPath, true); }, true},
    {"stopped engine", [](Stage&) { orvex_deinit(); }, false},
};

}  // namespace

TEST_CASE("pushing metadata without memory gives 0, counts a failure and changes nothing") {
  const TalkativeLibrary talkative;
  const CountedSleep pauses;
  int total = 0;
  for (const UpdateStory& story : kUpdateStories) {
    CAPTURE(story.name);
    const int points = CountPoints("orvex_update_metadata", story.name,
                                   [&story](int allocation, bool fromThereOn) {
                                     return TellUpdate(story, allocation, fromThereOn);
                                   });
    CHECK((points > 0) == story.allocates);
    total += points;
  }
  std::printf("%4d points in all: orvex_update_metadata\n", total);
}

TEST_CASE("a node that cannot be inserted stays the caller's whichever allocation fails") {
  const TalkativeLibrary talkative;
  for (const bool evicts : {false, true}) {
    const int points = CountPoints(
        "LRUCache::InsertCacheNode", evicts ? "evicts" : "new", [&](int allocation, bool always) {
          Point point;
          const long liveBefore = LiveAllocations();
          {
            Stage stage;
            orvex_set_cache_capacity(ORVEX_HASH_CACHE, 1);
            if (evicts) Push(stage, kOther, true);
            const std::vector<std::string> before = Contents();
            Answer out;
            LRUCacheKey key(stage.in);
            auto node = std::make_unique<LRUCacheNode>(stage.in, out);
            int code = 0;
            {
              const FailingNew failing(allocation, always);
              code = HashCache().InsertCacheNode(key, node.get());
              point.failures = failing.failures;
            }
            if (code != (point.failures == 0 ? 0 : 2)) point.wrong = "gave " + std::to_string(code);
            if (code == 2 && Contents() != before) point.wrong = "the cache changed";
            if (code == 2 && HashCache().InsertCacheNode(key, node.get()) != 0) {
              point.wrong = "not inserted with memory";
            }
            node.release();  // Owned by the cache by now.
            if (point.wrong.empty()) point.wrong = BrokenInvariantOfIdleCaches();
          }
          if (point.wrong.empty() && LiveAllocations() != liveBefore) point.wrong = "leaked";
          return point;
        });
    CHECK(points > 0);
  }
}

namespace {

// A file whose entries the configuration does not hold yet.
void WriteFreshConfig(const char* settings) {
  static int number = 0;
  ++number;
  std::ofstream file("orvexeng.ini");
  for (int entry = 0; entry < 3; ++entry) {
    file << "a_key_of_more_characters_than_a_string_holds_" << number << "_" << entry
         << " = and_a_value_of_more_characters_than_a_string_holds\n";
  }
  file << settings;
}

bool StartsAndAnswers() {
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  Host host;
  metadata_input_s in = InputFor(kPath);
  in.queryFlags = kAllDigests;
  Answer out;
  return orvex_init(&callbacks) == 0 && orvex_query(&in, &out, &host) == 0 && IsComplete(in, out) &&
         orvex_deinit() == 0;
}

Point TellStart(const char* settings, int allocation, bool fromThereOn) {
  Point point;
  WriteFreshConfig(settings);
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  errorsOpeningConfig = 0;
  int code = 0;
  {
    const FailingNew failing(allocation, fromThereOn);
    code = orvex_init(&callbacks);
    point.failures = failing.failures;
  }
  // A file that cannot be opened for lack of memory never keeps the engine from
  // starting.
  const bool mayStart = point.failures == 0 || errorsOpeningConfig == 1;
  if (code != 2 && !(code == 0 && mayStart)) point.wrong = "gave " + std::to_string(code);
  if (orvex_get_status() != (code == 0 ? 101 : 100)) point.wrong = "code and status disagree";
  if (point.wrong.empty()) point.wrong = BrokenInvariantOfIdleCaches();
  if (code == 0) orvex_deinit();
  if (!std::async(std::launch::async, StartsAndAnswers).get()) point.wrong = "no start with memory";
  return point;
}

}  // namespace

TEST_CASE("an engine that runs out of memory while it starts gives 2 and starts with memory") {
  const TalkativeLibrary talkative;
  const CountedSleep pauses;
  ORVEX_Config::ConfigFilePath = "./././././././././././orvexeng.ini";
  const struct {
    const char* name;
    const char* settings;
  } stories[] = {{"entries without effect", ""},
                 {"all settings",
                  "LogEnable = 1\nLogLevel = 4\nDatabaseEnable = 1\nProfilingEnable = 1\n"
                  "CacheCapacity = 7\n"}};
  int total = 0;
  for (const auto& story : stories) {
    CAPTURE(story.name);
    // What one start with memory adds to the configuration, which keeps everything.
    TellStart(story.settings, 0, false);
    const long liveBefore = LiveAllocations();
    TellStart(story.settings, 0, false);
    const long kept = LiveAllocations() - liveBefore;
    CHECK(kept > 0);
    const int points = CountPoints("orvex_init", story.name, [&](int allocation, bool fromThereOn) {
      const long live = LiveAllocations();
      Point point = TellStart(story.settings, allocation, fromThereOn);
      if (point.wrong.empty() && LiveAllocations() - live != kept) point.wrong = "leaked";
      return point;
    });
    CHECK(points > 0);
    total += points;
  }
  std::printf("%4d points in all: orvex_init\n", total);
}

TEST_CASE("no other function needs memory at all") {
  const TalkativeLibrary talkative;
  const CountedSleep pauses;
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  orvex_metrics_s metrics{};
  unsigned int written = 0;
  bool enabled = false;
  const struct {
    const char* function;
    std::function<int(Stage&)> call;
    int code;
  } rows[] = {
      {"orvex_init (again)", [&](Stage&) { return orvex_init(&callbacks); }, 101},
      {"orvex_deinit", [](Stage&) { return orvex_deinit(); }, 0},
      {"orvex_get_status", [](Stage&) { return orvex_get_status(); }, 101},
      {"orvex_query (no record)", [](Stage&) { return orvex_query(nullptr, nullptr, nullptr); }, 3},
      {"orvex_get_metrics",
       [&](Stage&) { return orvex_get_metrics(&metrics, sizeof metrics, &written); }, 0},
      {"orvex_dump_metrics", [](Stage&) { return orvex_dump_metrics(), 0; }, 0},
      {"orvex_reset_metrics", [](Stage&) { return orvex_reset_metrics(); }, 0},
      {"orvex_update_metadata (no record)",
       [](Stage&) { return orvex_update_metadata(nullptr, nullptr); }, 0},
      {"orvex_dump_cache", [](Stage&) { return orvex_dump_cache(), 0; }, 0},
      {"orvex_flush_cache (hash)", [](Stage&) { return orvex_flush_cache(0); }, 0},
      {"orvex_flush_cache (file type)", [](Stage&) { return orvex_flush_cache(1); }, 0},
      {"orvex_set_cache_capacity (hash)", [](Stage&) { return orvex_set_cache_capacity(0, 1); }, 0},
      {"orvex_set_cache_capacity (file type)",
       [](Stage&) { return orvex_set_cache_capacity(1, 1); }, 0},
      {"orvex_register_log_cb", [](Stage&) { return orvex_register_log_cb(DropMessage); }, 0},
      {"orvex_profiling_set_enable", [](Stage&) { return orvex_profiling_set_enable(true); }, 0},
      {"orvex_profiling_get_enable", [&](Stage&) { return orvex_profiling_get_enable(&enabled); },
       0},
      {"orvex_db_init", [](Stage&) { return orvex_db_init(); }, 312},
      {"orvex_db_set_enable", [](Stage&) { return orvex_db_set_enable(true); }, 312},
      {"orvex_db_get_enable", [&](Stage&) { return orvex_db_get_enable(&enabled); }, 312},
      {"orvex_db_get_status", [](Stage&) { return orvex_db_get_status(nullptr); }, 312},
  };
  for (const auto& row : rows) {
    CAPTURE(std::string(row.function));
    const long liveBefore = LiveAllocations();
    int code = 0;
    int allocations = 0;
    std::string broken;
    {
      Stage stage;
      for (const char* path : {kPath, kOther}) {
        stage.in.path = path;
        stage.Cache(QUERY_DIGEST32 | QUERY_FILE_TYPE);
      }
      {
        const FailingNew failing(1);
        code = row.call(stage);
        allocations = failing.allocations;
      }
      broken = BrokenInvariantOfIdleCaches();
    }
    const long leaked = LiveAllocations() - liveBefore;
    CHECK(code == row.code);
    CHECK(allocations == 0);
    CHECK(broken == "");
    CHECK(leaked == 0);
    std::printf("   0 points: %s needs no memory\n", row.function);
  }
}

// What a single failure leaves of an answer, which no story above checks.

TEST_CASE("signers that cannot be stored leave the node without any") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveSigners(out, {"Kelda"});
  LRUCacheNode node(in, out);
  {
    const FailingNew failing(1);
    node.SetDataToCacheNode(in, out);
  }
  CHECK(node.signerCount == 0);
  CHECK(node.signers == nullptr);
  CHECK((node.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("signers that cannot be assigned leave the node without any") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveSigners(out, {"Kelda"});
  const LRUCacheNode source(in, out);
  Answer others;
  GiveSigners(others, {"Other"});
  LRUCacheNode target(in, others);
  {
    const FailingNew failing(1);
    target = source;
  }
  CHECK(target.signerCount == 0);
  CHECK((target.queryFlags & QUERY_SIGNERS) == 0);
}

TEST_CASE("signers that cannot be copied out give 2 and leave feedback alone") {
  metadata_input_s in = InputFor("/a");
  Answer out;
  GiveSigners(out, {"Kelda"});
  GiveDigests(out, kAllDigests, 1);
  LRUCacheNode node(in, out);
  Answer back;
  GiveSigners(back, {"stale"});
  back.feedback = 9;
  unsigned int code = 0;
  {
    const FailingNew failing(1);
    code = node.GetDataFromCacheNode(back);
  }
  CHECK(code == 2);
  CHECK(back.signers == nullptr);
  CHECK(back.signerCount == 0);
  CHECK((back.queryFlags & (QUERY_SIGNERS | QUERY_FEEDBACK)) == 0);
  CHECK((back.queryFlags & kAllDigests) == kAllDigests);
  CHECK(back.feedback == 9);
}

TEST_CASE("a hit whose signers cannot be copied is a partial hit") {
  OpenHashCache cache;
  Answer stored;
  GiveSigners(stored, {"Kelda"});
  metadata_input_s in = InputFor("/a");
  in.queryFlags = QUERY_SIGNERS;
  cache.Store(in, stored);
  Answer out;
  int result = 0;
  {
    const FailingNew failing(1);
    result = cache.Look(in, out);
  }
  CHECK(result == 3);
  CHECK(cache.metrics.PartialHit == 1);
}

TEST_CASE("an answer that cannot be kept is still in the record") {
  const TalkativeLibrary talkative;
  EngineUnderTest engine;
  for (const uint32_t part : {QUERY_FILE_TYPE, QUERY_DIGEST32}) {
    metadata_input_s in = InputFor("/a");
    in.queryFlags = part;
    Answer out;
    int code = 0;
    // The short path is copied without memory; the path set's element is the
    // first allocation of a hash query, the node comes after it.
    {
      const FailingNew failing(part == QUERY_FILE_TYPE ? 1 : 2);
      code = engine.Query(in, out);
    }
    CHECK(code == 2);
    CHECK(out.resultReady == 1);
    CHECK((out.queryFlags & part) == part);
  }
}

TEST_CASE("a path that cannot be marked gives 2 before the host is asked") {
  const TalkativeLibrary talkative;
  EngineUnderTest engine;
  metadata_input_s in = InputFor("/a");
  Answer out;
  int code = 0;
  {
    const FailingNew failing(1);
    code = engine.Query(in, out);
  }
  CHECK(code == 2);
  CHECK(out.resultReady == 0);
  CHECK(engine.host.hashCalls == 0);
  CHECK(engine.Query("/a") == 0);
}

TEST_CASE("a query without a path that runs out of memory gives 2 and is not ready") {
  const TalkativeLibrary talkative;
  EngineUnderTest engine;
  // A hash query without a path needs memory for its exception, a file type needs no path.
  metadata_input_s in = InputFor(nullptr);
  in.queryFlags = QUERY_FILE_TYPE;
  Answer first;
  REQUIRE(engine.Query(in, first) == 0);
  for (const uint32_t cached : {uint32_t{0}, uint32_t{QUERY_FILE_TYPE}}) {
    CAPTURE(cached);
    in.queryFlags = kAllDigests | cached;
    Answer out;
    int code = 0;
    {
      const FailingNew failing(1);
      code = engine.Query(in, out);
    }
    CHECK(code == 2);
    CHECK(out.resultReady == 0);
    CHECK(out.queryFlags == (cached != 0 ? cached | QUERY_MTIME : 0));
  }
}

namespace {

// Asks for a path whose copy fails as that of a text too long for a string does.
int AskTooLong(EngineUnderTest& engine, metadata_output_s& out) {
  metadata_input_s in = InputFor(kPath);
  FailingNew failing(1);
  failing.throwsLengthError = true;
  try {
    return engine.Query(in, out);
  } catch (const std::length_error&) {
    return 1000;
  }
}

}  // namespace

TEST_CASE("a path too long to be waited for gives 2 before the host is asked") {
  EngineUnderTest engine;
  RecordedLog quiet(ORVEX_LOG_FATAL);
  Answer out;
  out.resultReady = 9;
  int code = 0;
  engine.host.onHash = [&](metadata_input_s&, metadata_output_s&) {
    code = AskTooLong(engine, out);  // Its path is being calculated, by this thread.
    return 0;
  };
  CHECK(engine.Query(kPath) == 0);
  CHECK(code == 2);
  CHECK(out.resultReady == 0);
  CHECK(engine.host.hashCalls == 1);
  CHECK(engine.Query("/b") == 0);
}

TEST_CASE("a path too long to be copied gives 2 at every level of the log") {
  for (const ORVEX_LOG level : {ORVEX_LOG_FATAL, ORVEX_LOG_DEBUG}) {
    EngineUnderTest engine;
    RecordedLog log(level);
    Answer out;
    out.resultReady = 9;
    CHECK(AskTooLong(engine, out) == 2);
    CHECK(out.resultReady == 0);
    CHECK(engine.host.hashCalls == 0);
    CHECK(engine.Query(kPath) == 0);
  }
}
