// How threads that ask for one path wait for each other, in every order in which
// their locking and waiting can happen with a bounded number of preemptions.
//
// Three threads with three preemptions take a while: ORVEXENG_DEEP=1 asks for that.
#include <doctest/doctest.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cache/orvex_lru_cache_file_type.h"
#include "harness/engine_under_test.h"
#include "harness/every_schedule.h"
#include "harness/open_hash_cache.h"
#include "harness/opened_caches.h"

namespace {

constexpr int kFailed = 77;
constexpr int kThrew = -1;

int Preemptions(size_t threads) {
  return threads < 3 || std::getenv("ORVEXENG_DEEP") != nullptr ? 3 : 2;
}

// Whether every byte of the array is this one.
template <size_t kLength>
bool IsFilledWith(const uint8_t (&bytes)[kLength], int byte) {
  for (const uint8_t each : bytes) {
    if (each != byte) return false;
  }
  return true;
}

// Some threads sharing one cache.
class Scene {
 public:
  explicit Scene(const char* name) : name_(name) { ORVEX_LOG_BASE::LogEnable = false; }

  // A thread that asks for the path.
  void Ask(const char* path = "/a", uint32_t invOperation = INV_KEEP_IN_CACHE) {
    const size_t number = bodies_.size();
    bodies_.emplace_back([this, number, path, invOperation] {
      Asker& asker = askers_[number];
      metadata_input_s in = InputFor(path);
      in.invOperation = invOperation;
      in.reserved0 = static_cast<uint32_t>(number);
      try {
        asker.code = cache->Ask(in, *asker.answer);
      } catch (const std::runtime_error&) {
        asker.code = kThrew;
      }
      if (afterAsking) afterAsking();
    });
  }
  // A thread that does something else.
  void Concurrently(std::function<void()> action) { bodies_.push_back(std::move(action)); }

  // Runs them in every order; checks after each.
  template <typename Check>
  void InEveryOrder(Check check) {
    const int preemptions = Preemptions(bodies_.size());
    EverySchedule schedules(preemptions, bodies_);
    for (Begin(); schedules.RunNext(); Begin()) {
      INFO(schedules.Description());
      CheckAtRest();
      check();
      mostWaits = std::max(mostWaits, static_cast<int>(cache->metrics.numOfWaitInHashCalculation));
      mostCalls = std::max(mostCalls, calls);
    }
    std::printf("%s: %ld schedules of %zu threads, each with up to %d preemptions\n", name_,
                schedules.Count(), bodies_.size(), preemptions);
  }

  int Code(size_t asker) const { return askers_[asker].code; }
  bool IsReady(size_t asker) const { return askers_[asker].answer->resultReady == 1; }
  // Whether that thread's answer is whole and of one calculation.
  bool HasOneAnswer(size_t asker) const {
    const Answer& out = *askers_[asker].answer;
    const int stamp = out.digest16[0];
    return stamp >= 1 && stamp <= calls && IsFilledWith(out.digest16, stamp) &&
           IsFilledWith(out.digest20, stamp) && IsFilledWith(out.digest32, stamp) &&
           IsFilledWith(out.auxDigest20, stamp);
  }
  // How often that thread called the host.
  int CallsOf(size_t asker) const { return askers_[asker].calls; }

  std::optional<OpenHashCache> cache;
  // What the host does; its answer is stamped with the number of the call.
  std::function<int()> onHash = [] { return 0; };
  // What is done before each schedule, and by each asker at its end.
  std::function<void()> beforehand;
  std::function<void()> afterAsking;
  int calls = 0;
  // Over all schedules so far: to see that they differ.
  int mostCalls = 0;
  int mostWaits = 0;

 private:
  struct Asker {
    int code = 0;
    int calls = 0;
    std::optional<Answer> answer;
  };

  void Begin() {
    if (beforehand) beforehand();
    calls = 0;
    for (Asker& asker : askers_) {
      asker.code = asker.calls = 0;
      asker.answer.emplace();
    }
    cache.emplace();
    cache->InitLRUCache();
    cache->onHash = [this](metadata_input_s& in, metadata_output_s& out) {
      ++askers_[in.reserved0].calls;
      const int stamp = ++calls;
      GiveDigests(out, kAllDigests, stamp);
      return onHash();
    };
  }

  // What holds once nobody is inside, whatever happened.
  void CheckAtRest() {
    REQUIRE(cache->calHashSet.paths.empty());
    const LRUCacheMetrics_s counted = cache->Counters();
    REQUIRE(counted.Query == counted.Miss + counted.Hit + counted.PartialHit + counted.OutOfDate);
    REQUIRE(counted.numOfHelpFuncCalled <= calls);
    REQUIRE(BrokenInvariant(*cache) == "");
  }

  const char* name_;
  std::array<Asker, 3> askers_;
  std::vector<EverySchedule::Body> bodies_;
};

}  // namespace

TEST_CASE("threads that ask for one path all get one answer, whatever their order") {
  for (const size_t threads : {2u, 3u}) {
    Scene scene("answers kept");
    for (size_t i = 0; i < threads; ++i) scene.Ask();
    scene.InEveryOrder([&] {
      for (size_t i = 0; i < threads; ++i) {
        REQUIRE(scene.Code(i) == 0);
        REQUIRE(scene.IsReady(i));
        REQUIRE(scene.HasOneAnswer(i));
      }
      const LRUCacheMetrics_s counted = scene.cache->Counters();
      REQUIRE(counted.Query == static_cast<int>(threads));
      REQUIRE(counted.Miss == scene.calls);
      REQUIRE(counted.numOfHelpFuncCalled == scene.calls);
      // The waiting thread found the answer.
      REQUIRE(counted.numOfWaitInHashCalculation + scene.calls <= static_cast<int>(threads));
      REQUIRE(scene.cache->ThreadsInside() == 0);
      REQUIRE(scene.cache->PathsInOrder() == Paths{"/a"});
    });
    // Some waited for the others, and in another order all got in at once.
    CHECK(scene.mostWaits == static_cast<int>(threads) - 1);
    CHECK(scene.mostCalls == static_cast<int>(threads));
  }
}

TEST_CASE("threads whose answers are not kept all ask the host, whatever their order" *
          doctest::test_suite("slow")) {
  for (const size_t threads : {2u, 3u}) {
    Scene scene("answers not kept");
    for (size_t i = 0; i < threads; ++i) scene.Ask("/a", 0);
    scene.InEveryOrder([&] {
      for (size_t i = 0; i < threads; ++i) {
        REQUIRE(scene.Code(i) == 0);
        REQUIRE(scene.IsReady(i));
        REQUIRE(scene.HasOneAnswer(i));
        REQUIRE(scene.CallsOf(i) == 1);
      }
      REQUIRE(scene.cache->metrics.numOfHelpFuncCalled == static_cast<int>(threads));
      REQUIRE(scene.cache->ThreadsInside() == 0);
      REQUIRE(scene.cache->PathsInOrder().empty());
    });
    CHECK(scene.mostWaits == static_cast<int>(threads) - 1);
  }
}

TEST_CASE("a host that fails or throws blocks nobody, whatever the order of threads" *
          doctest::test_suite("slow")) {
  for (const bool throws : {false, true}) {
    CAPTURE(throws);
    for (const size_t threads : {2u, 3u}) {
      Scene scene(throws ? "the host throws" : "the host fails");
      if (throws) {
        scene.onHash = []() -> int { throw std::runtime_error("no disk"); };
      } else {
        scene.onHash = [] { return kFailed; };
      }
      for (size_t i = 0; i < threads; ++i) scene.Ask();
      scene.InEveryOrder([&] {
        for (size_t i = 0; i < threads; ++i) {
          REQUIRE(scene.Code(i) == (throws ? kThrew : kFailed));
          REQUIRE_FALSE(scene.IsReady(i));
          REQUIRE(scene.CallsOf(i) == 1);
        }
        REQUIRE(scene.cache->metrics.numOfHelpFuncCalled == static_cast<int>(threads));
        REQUIRE(scene.cache->ThreadsInside() == 0);
        REQUIRE(scene.cache->PathsInOrder().empty());
      });
      CHECK(scene.mostWaits == static_cast<int>(threads) - 1);
    }
  }
}

TEST_CASE("threads that ask for another path are woken in vain and sleep on, whatever the order") {
  Scene scene("two paths");
  scene.Ask("/a");
  scene.Ask("/b");
  scene.Ask("/a");
  scene.InEveryOrder([&] {
    for (const size_t i : {0u, 1u, 2u}) {
      REQUIRE(scene.Code(i) == 0);
      REQUIRE(scene.HasOneAnswer(i));
    }
    REQUIRE(scene.CallsOf(1) == 1);
    REQUIRE(scene.cache->metrics.numOfWaitInHashCalculation + scene.calls <= 3);
    REQUIRE(scene.cache->ThreadsInside() == 0);
    REQUIRE(scene.cache->entries_.Size() == 2);
  });
  CHECK(scene.mostWaits == 1);
}

TEST_CASE("every thread leaves a cache that is stopped, whatever the order") {
  for (const size_t askers : {1u, 2u}) {
    Scene scene("stopped concurrently");
    for (size_t i = 0; i < askers; ++i) scene.Ask();
    int code = -1;
    int refused = 0;
    scene.Concurrently([&] { code = scene.cache->DeinitLRUCache(); });
    scene.InEveryOrder([&] {
      REQUIRE(code == 0);
      for (size_t i = 0; i < askers; ++i) {
        if (scene.Code(i) == ORVEX_CACHE_NOT_INITIALISED) {
          ++refused;
          REQUIRE_FALSE(scene.IsReady(i));
        } else {
          REQUIRE(scene.Code(i) == 0);
          REQUIRE(scene.HasOneAnswer(i));
        }
      }
      REQUIRE(scene.cache->ThreadsInside() == 0);
      REQUIRE_FALSE(scene.cache->IsInit());
      REQUIRE_FALSE(scene.cache->calHashSet.active);
      // It starts afresh, with any answer that came too late for the stop.
      scene.cache->InitLRUCache();
      REQUIRE(scene.cache->entries_.Size() <= 1);
      REQUIRE(scene.cache->Ask("/a") == 0);
    });
    CHECK(refused > 0);
  }
}

TEST_CASE("sleepers leave a cache that is stopped, however long the host takes") {
  Scene scene("stopped while the host is busy");
  std::mutex lock;
  std::condition_variable changed;
  int others = 0;  // The stop, and the other thread once it has left or calculates too.
  const auto another = [&] {
    const std::lock_guard guard(lock);
    ++others;
    changed.notify_all();
  };
  scene.onHash = [&] {
    if (scene.calls > 1) {
      another();
      return 0;
    }
    std::unique_lock guard(lock);
    changed.wait(guard, [&] { return others >= 2; });
    return 0;
  };
  int refused = 0;
  scene.Ask();
  scene.Ask();
  scene.Concurrently([&] {
    scene.cache->DeinitLRUCache();
    another();
  });
  scene.afterAsking = another;
  scene.beforehand = [&] { others = 0; };
  scene.InEveryOrder([&] {
    for (const size_t i : {0u, 1u}) {
      if (scene.Code(i) == 0) continue;
      REQUIRE(scene.Code(i) == ORVEX_CACHE_NOT_INITIALISED);
      ++refused;
    }
    REQUIRE(scene.cache->ThreadsInside() == 0);
  });
  CHECK(refused > 0);
}

TEST_CASE("nobody is left behind in a cache that is stopped and started, whatever the order") {
  Scene scene("stopped and started concurrently");
  scene.Ask();
  scene.Ask();
  scene.Concurrently([&] {
    scene.cache->DeinitLRUCache();
    scene.cache->InitLRUCache();
  });
  scene.InEveryOrder([&] {
    for (const size_t i : {0u, 1u}) {
      if (scene.Code(i) == ORVEX_CACHE_NOT_INITIALISED) continue;
      REQUIRE(scene.Code(i) == 0);
      REQUIRE(scene.HasOneAnswer(i));
    }
    REQUIRE(scene.cache->IsInit());
    REQUIRE(scene.cache->Ask("/a") == 0);
  });
}

TEST_CASE("a flush takes no answer from those that ask, whatever the order") {
  for (const size_t askers : {1u, 2u}) {
    Scene scene("flushed concurrently");
    for (size_t i = 0; i < askers; ++i) scene.Ask();
    scene.Concurrently([&] { scene.cache->FlushCache(); });
    scene.InEveryOrder([&] {
      for (size_t i = 0; i < askers; ++i) {
        REQUIRE(scene.Code(i) == 0);
        REQUIRE(scene.IsReady(i));
        REQUIRE(scene.HasOneAnswer(i));
      }
      REQUIRE(scene.cache->metrics.numOfHelpFuncCalled == scene.calls);
      REQUIRE(scene.cache->ThreadsInside() == 0);
      REQUIRE(scene.cache->entries_.Size() <= 1);
    });
    CHECK(scene.mostCalls == static_cast<int>(askers));
  }
}

TEST_CASE("a thread that asks the cache only neither waits nor calls, whatever the order") {
  for (const size_t askers : {1u, 2u}) {
    Scene scene("cache only, concurrently");
    for (size_t i = 0; i < askers; ++i) scene.Ask();
    scene.Ask("/a", INV_CACHE_ONLY);
    int answered = 0;
    int unanswered = 0;
    scene.InEveryOrder([&] {
      for (size_t i = 0; i < askers; ++i) {
        REQUIRE(scene.Code(i) == 0);
        REQUIRE(scene.HasOneAnswer(i));
      }
      REQUIRE(scene.Code(askers) == 0);
      REQUIRE(scene.CallsOf(askers) == 0);
      if (scene.IsReady(askers)) REQUIRE(scene.HasOneAnswer(askers));
      ++(scene.IsReady(askers) ? answered : unanswered);
      REQUIRE(scene.cache->metrics.numOfHelpFuncCalled == scene.calls);
      REQUIRE(scene.cache->ThreadsInside() == 0);
    });
    CHECK(scene.mostWaits == static_cast<int>(askers) - 1);
    CHECK(answered > 0);
    CHECK(unanswered > 0);
  }
}

TEST_CASE("every thread leaves an engine that is stopped, whatever the order") {
  ORVEX_LOG_BASE::LogEnable = false;
  for (const size_t askers : {1u, 2u}) {
    metadata_query_fptrs_s callbacks = Host::Callbacks();
    Host host;
    std::array<int, 2> codes{};
    std::vector<EverySchedule::Body> bodies;
    for (size_t i = 0; i < askers; ++i) {
      bodies.emplace_back([&host, &code = codes[i]] {
        metadata_input_s in = InputFor("/a");
        Answer out;
        code = orvex_query(&in, &out, &host);
      });
    }
    int stopped = -1;
    bodies.emplace_back([&stopped] { stopped = orvex_deinit(); });
    const int preemptions = Preemptions(bodies.size());
    EverySchedule schedules(preemptions, bodies);
    orvex_init(&callbacks);
    while (schedules.RunNext()) {
      INFO(schedules.Description());
      REQUIRE(stopped == 0);
      for (size_t i = 0; i < askers; ++i) {
        CAPTURE(codes[i]);
        REQUIRE((codes[i] == 0 || codes[i] == ORVEX_CACHE_NOT_INITIALISED ||
                 codes[i] == ORVEX_NOT_INITIALISED));
      }
      REQUIRE(orvex_get_status() == ORVEX_NOT_INITIALISED);
      // An answer that came too late for the stop would shorten the next schedule.
      orvex_flush_cache(ORVEX_HASH_CACHE);
      REQUIRE(orvex_init(&callbacks) == 0);
    }
    orvex_deinit();
    std::printf(
        "engine stopped concurrently: %ld schedules of %zu threads, each with up to %d "
        "preemptions\n",
        schedules.Count(), bodies.size(), preemptions);
  }
}

TEST_CASE("every thread leaves a file type cache that is stopped, whatever the order") {
  ORVEX_LOG_BASE::LogEnable = false;
  struct Asked {
    int code = 0;
    int calls = 0;
    std::optional<Answer> answer;
  };
  std::optional<FileTypeCache> cache;
  const auto ask = [&cache](Asked& asked) {
    metadata_input_s in = InputFor("/a");
    in.queryFlags = QUERY_FILE_TYPE;
    asked.calls = 0;
    asked.answer.emplace();
    asked.code = cache->Query(&in, &*asked.answer, &asked.calls);
  };
  for (const size_t askers : {1u, 2u}) {
    // Each asks twice; the type is in the cache before the stop.
    std::array<std::array<Asked, 2>, 2> asked;
    std::vector<EverySchedule::Body> bodies;
    for (size_t i = 0; i < askers; ++i) {
      bodies.emplace_back([&ask, &twice = asked[i]] {
        for (Asked& each : twice) ask(each);
      });
    }
    int stopped = -1;
    bodies.emplace_back([&] { stopped = cache->DeinitLRUCache(); });
    const auto begin = [&] {
      if (cache) cache->FlushCache();
      cache.emplace();
      cache->RegisterMetaQueryCallback([](metadata_input_s*, metadata_output_s* out, void* ctx) {
        ++*static_cast<int*>(ctx);
        out->major = 3;
        out->minor = 4;
        out->queryFlags |= QUERY_FILE_TYPE;
        return 0;
      });
      cache->InitLRUCache();
      Asked beforehand;
      ask(beforehand);
    };
    int refused = 0;
    int found = 0;
    int missed = 0;
    const int preemptions = Preemptions(bodies.size());
    EverySchedule schedules(preemptions, bodies);
    for (begin(); schedules.RunNext(); begin()) {
      INFO(schedules.Description());
      REQUIRE(stopped == 0);
      for (size_t i = 0; i < askers; ++i) {
        for (const Asked& each : asked[i]) {
          if (each.code == ORVEX_CACHE_NOT_INITIALISED) {
            ++refused;
            REQUIRE(each.calls == 0);
            REQUIRE(each.answer->queryFlags == 0);
            continue;
          }
          REQUIRE(each.code == 0);
          REQUIRE(each.answer->resultReady == 1);
          REQUIRE(each.answer->major == 3);
          REQUIRE(each.answer->minor == 4);
          ++(each.calls == 0 ? found : missed);
        }
        // What it missed was flushed, and the cache refused queries before that.
        const auto& [first, second] = asked[i];
        if (first.code != 0 || first.calls != 0) {
          REQUIRE(second.code == ORVEX_CACHE_NOT_INITIALISED);
        }
      }
      REQUIRE_FALSE(cache->IsInit());
    }
    cache->FlushCache();
    CHECK(refused > 0);
    CHECK(found > 0);
    CHECK(missed > 0);
    std::printf(
        "file type cache stopped concurrently: %ld schedules of %zu threads, each with up to %d "
        "preemptions\n",
        schedules.Count(), bodies.size(), preemptions);
  }
}
