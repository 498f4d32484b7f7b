#include "scan.h"

#include <fmt/format.h>

#include <algorithm>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_future.hpp>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>

#include "calculation.h"
#include "signer_names.h"
#include "warm_start.h"

namespace orvexscan {
namespace {

using Seconds = std::chrono::duration<double>;

void Require(int code, const char* call) {
  if (code != ORVEX_OK) throw std::runtime_error(fmt::format("{} returns {}", call, code));
}

// The engine, running while this lives.
class RunningEngine {
 public:
  explicit RunningEngine(int capacity) {
    metadata_query_fptrs_s callbacks = Calculation::Callbacks();
    Require(orvex_init(&callbacks), "orvex_init");
    // After the start, which may have read another capacity from orvexeng.ini.
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, capacity);
    orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, capacity);
  }
  ~RunningEngine() { orvex_deinit(); }
  RunningEngine(const RunningEngine&) = delete;
  RunningEngine& operator=(const RunningEngine&) = delete;
};

// An output record that frees the signer array the engine leaves in it.
struct Output : metadata_output_s {
  Output() : metadata_output_s() {}
  ~Output() { delete[] signers; }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
};

Answer AnswerIn(const Output& output, const Identity& identity, bool settled) {
  Answer answer;
  answer.identity = identity;
  answer.settled = settled;
  std::copy(std::begin(output.digest16), std::end(output.digest16), answer.md5.begin());
  std::copy(std::begin(output.digest20), std::end(output.digest20), answer.sha1.begin());
  std::copy(std::begin(output.digest32), std::end(output.digest32), answer.sha256.begin());
  answer.signers = NamesInSlots(output.signers, output.signerCount);
  answer.type = {output.major, output.minor};
  return answer;
}

// What one worker counts, added to the pass when it is done.
struct Tally {
  uint64_t failed = 0;
  uint64_t unsettled = 0;
  uint64_t bytesHashed = 0;
  uint64_t bytesSaved = 0;
  std::chrono::nanoseconds hashTime{0};
};

// One worker's share of a pass: takes the next visit until none is left.
//
// Threads: each has its own; they share the next visit, the inventory and the progress.
class Worker {
 public:
  Worker(const Options& options, Tools* tools, Inventory* inventory, Progress* progress)
      : identityMode_(options.identity),
        rules_{options.followLinks, Settling(std::chrono::seconds(options.settleSeconds))},
        tools_(tools),
        inventory_(inventory),
        progress_(progress) {}

  Tally Run(int pass, std::atomic<size_t>* nextVisit) {
    tally_ = Tally();
    for (;;) {
      const size_t visit = nextVisit->fetch_add(1, std::memory_order_relaxed);
      if (visit >= inventory_->visitCount()) return tally_;
      const size_t record = inventory_->RecordOfVisit(visit);
      const uint64_t before = tally_.bytesHashed;
      try {
        Ask(record);
      } catch (const FileFailure& failure) {
        ++tally_.failed;
        inventory_->StoreFailure(record, pass, failure);
      }
      progress_->Step(tally_.bytesHashed - before);
    }
  }

 private:
  void Ask(size_t record) {
    const std::string& path = inventory_->PathOf(record);
    const Identity identity = IdentityOf(path, rules_.followLinks, identityMode_);
    metadata_input_s query = QueryFor(path, identity);
    Output output;
    Calculation calculation(tools_, identity, rules_);
    const int code = orvex_query(&query, &output, calculation.context());
    if (calculation.failure()) throw *calculation.failure();
    if (code != ORVEX_OK) {
      throw FileFailure(FailureReason::kEngine, fmt::format("orvex_query returns {}", code));
    }
    Count(calculation, identity);
    if (calculation.hashed()) {
      inventory_->StoreCertificateFaults(record, calculation.certificateFaults());
    }
    inventory_->StoreAnswer(record, AnswerIn(output, identity, calculation.settled()));
  }

  void Count(const Calculation& calculation, const Identity& identity) {
    if (!calculation.settled()) ++tally_.unsettled;
    if (!calculation.hashed()) tally_.bytesSaved += identity.size;
    tally_.bytesHashed += calculation.bytesHashed();
    tally_.hashTime += calculation.hashTime();
  }

  const IdentityMode identityMode_;
  const ReadingRules rules_;
  Tools* const tools_;
  Inventory* const inventory_;
  Progress* const progress_;
  Tally tally_;
};

// Seconds of hashing for each byte, over all passes so far.
double SecondsPerByte(const std::vector<PassReport>& passes) {
  double seconds = 0;
  double bytes = 0;
  for (const PassReport& pass : passes) {
    seconds += pass.hashSeconds;
    bytes += static_cast<double>(pass.bytesHashed);
  }
  return bytes > 0 ? seconds / bytes : 0;
}

PassReport RunPass(int number, std::vector<Worker>* workers, asio::thread_pool* pool) {
  PassReport report;
  report.number = number;
  orvex_reset_metrics();
  std::atomic<size_t> nextVisit{0};
  std::vector<std::future<Tally>> tallies;
  const auto start = std::chrono::steady_clock::now();
  for (Worker& worker : *workers) {
    tallies.push_back(asio::post(*pool, asio::use_future([&worker, number, &nextVisit] {
      return worker.Run(number, &nextVisit);
    })));
  }
  // All of them, before one that threw is asked: they share this function's variables.
  for (const auto& tally : tallies) tally.wait();
  report.wallSeconds = Seconds(std::chrono::steady_clock::now() - start).count();
  for (auto& pending : tallies) {
    const Tally tally = pending.get();
    report.failed += tally.failed;
    report.unsettled += tally.unsettled;
    report.bytesHashed += tally.bytesHashed;
    report.bytesSaved += tally.bytesSaved;
    report.hashSeconds += Seconds(tally.hashTime).count();
  }
  unsigned int written = 0;
  Require(orvex_get_metrics(&report.engine, sizeof report.engine, &written), "orvex_get_metrics");
  return report;
}

}  // namespace

std::vector<PassReport> Scan(const Options& options, Inventory* inventory, Progress* progress) {
  std::vector<std::unique_ptr<Tools>> tools;
  std::vector<Worker> workers;
  for (int i = 0; i < options.threads; ++i) {
    tools.push_back(std::make_unique<Tools>());
    workers.emplace_back(options, tools.back().get(), inventory, progress);
  }
  const RunningEngine engine(options.capacity);
  if (!options.snapshot.empty()) WarmStart(options, inventory);
  asio::thread_pool pool(static_cast<size_t>(options.threads));

  std::vector<PassReport> passes;
  for (int number = 1; number <= options.passes; ++number) {
    progress->StartPass(number, options.passes, inventory->visitCount());
    PassReport report = RunPass(number, &workers, &pool);
    progress->EndPass();
    report.visits = inventory->visitCount();
    passes.push_back(report);
    passes.back().savedSeconds = static_cast<double>(report.bytesSaved) * SecondsPerByte(passes);
  }
  pool.join();
  return passes;
}

}  // namespace orvexscan
