// How often the host computes when many files are asked about at once.
#include <doctest/doctest.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "harness/engine_under_test.h"
#include "harness/latch.h"
#include "harness/recorded_log.h"

namespace {

constexpr size_t kPaths = 200;

// Paths whose first caller, the leader, stays in the host's callback until released,
// while a second one, the follower, asks for the same.
class LedPaths {
 public:
  explicit LedPaths(EngineUnderTest& engine) : engine_(engine), mayAnswer_(kPaths) {
    for (size_t i = 0; i < kPaths; ++i) {
      paths_.push_back("/usr/lib/file-" + std::to_string(i));
      numbers_[paths_.back()] = i;
    }
    engine.host.onHash = [this](metadata_input_s& in, metadata_output_s& out) {
      if (NoteCall(in.path) == 1) mayAnswer_[numbers_.at(in.path)].Wait();
      return Host::AnswerHash(in, out);
    };
    log_.onMessage = [this](const LogRecord& record) {
      const std::string before = "wait for signal: ";
      const size_t at = record.text.find(before);
      if (at != std::string::npos) NoteWait(record.text.substr(at + before.size()));
    };
  }

  // Returns once the leader is in the callback.
  void Lead(size_t number) {
    leaders_.push_back(engine_.QueryFromAnotherThread(paths_[number].c_str()));
    Until([this, number] { return calls_[paths_[number]] > 0; });
  }

  // Returns once the follower sleeps, or is in the callback where it does not belong.
  void Follow(size_t number) {
    followers_.push_back(engine_.QueryFromAnotherThread(paths_[number].c_str()));
    Until([this, number] { return waits_[paths_[number]] > 0 || calls_[paths_[number]] > 1; });
  }

  // Releases the first leader, and waits until it and its follower return.
  void LetGo(size_t number) {
    mayAnswer_[number].Open();
    failures_ += leaders_.front().get() != 0;
    failures_ += followers_.front().get() != 0;
    leaders_.pop_front();
    followers_.pop_front();
  }

  // The paths for which the host was not called exactly once.
  std::string NotCalledOnce() const {
    std::string paths;
    for (const std::string& path : paths_) {
      const auto call = calls_.find(path);
      if (call == calls_.end() || call->second != 1) paths += path + " ";
    }
    return paths;
  }
  int Failures() const { return failures_; }

 private:
  int NoteCall(const std::string& path) {
    const std::lock_guard guard(lock_);
    const int calls = ++calls_[path];
    noted_.notify_all();
    return calls;
  }
  void NoteWait(const std::string& path) {
    const std::lock_guard guard(lock_);
    ++waits_[path];
    noted_.notify_all();
  }
  template <typename Condition>
  void Until(Condition condition) {
    std::unique_lock guard(lock_);
    noted_.wait(guard, condition);
  }

  EngineUnderTest& engine_;
  RecordedLog log_{ORVEX_LOG_INFO};
  std::vector<std::string> paths_;
  std::map<std::string, size_t> numbers_;
  std::deque<Latch> mayAnswer_;
  std::mutex lock_;
  std::condition_variable noted_;
  std::map<std::string, int> calls_;
  std::map<std::string, int> waits_;
  std::deque<std::future<int>> leaders_;
  std::deque<std::future<int>> followers_;
  int failures_ = 0;
};

// Keeps so many leaders in their callbacks at a time. A follower comes when every leader
// before its own has left: what those took with them would leave it without a mark.
void CheckEachIsCalculatedOnce(size_t leadersAtATime) {
  EngineUnderTest engine;
  // Twice: the second round would find anything that the first left behind.
  for (const int round : {1, 2}) {
    CAPTURE(round);
    LedPaths paths(engine);
    for (size_t next = 0; next < kPaths + leadersAtATime - 1; ++next) {
      if (next < kPaths) paths.Lead(next);
      if (next + 1 < leadersAtATime) continue;
      paths.Follow(next + 1 - leadersAtATime);
      paths.LetGo(next + 1 - leadersAtATime);
    }
    CHECK(paths.NotCalledOnce() == "");
    CHECK(paths.Failures() == 0);
    const orvex_metrics_s m = engine.Metrics();
    CHECK(m.cacheWaitInHashCalculation == int64_t{kPaths} * round);
    CHECK(m.cacheHit == int64_t{kPaths} * round);
    orvex_flush_cache(ORVEX_HASH_CACHE);
  }
}

}  // namespace

TEST_CASE("one of two threads calculates for both, for 200 paths in turn") {
  CheckEachIsCalculatedOnce(1);
}

TEST_CASE("one of two threads calculates for both while 31 other paths are calculated") {
  CheckEachIsCalculatedOnce(32);
}
