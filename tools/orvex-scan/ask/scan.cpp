#include "ask/scan.h"

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_future.hpp>
#include <atomic>
#include <deque>
#include <future>
#include <utility>

#include "ask/asker.h"
#include "file/interruption.h"

namespace orvexscan {
namespace {

// One worker's share of a pass: takes the next visit until none is left.
//
// Threads: each has its own; they share the next visit, the inventory and the progress.
class Worker {
 public:
  Worker(orvexeng::engine* engine, const ReadingRules& rules, Inventory* inventory,
         Progress* progress)
      : asker_(engine, rules), inventory_(inventory), progress_(progress) {}

  Tally Run(int pass, std::atomic<size_t>* nextVisit) {
    for (;;) {
      const size_t visit = nextVisit->fetch_add(1, std::memory_order_relaxed);
      if (visit >= inventory_->visitCount() || Interrupted()) return asker_.TakeTally();
      const size_t record = inventory_->RecordOfVisit(visit);
      const uint64_t before = asker_.bytesHashed();
      try {
        Reply reply = asker_.Ask(inventory_->PathOf(record));
        inventory_->StoreAnswer(record, std::move(reply.answer), std::move(reply.certificates));
      } catch (const FileFailure& failure) {
        if (failure.reason() == FailureReason::kInterrupted) return asker_.TakeTally();
        inventory_->StoreFailure(record, pass, failure);
      }
      progress_->Step(asker_.bytesHashed() - before);
    }
  }

 private:
  Asker asker_;
  Inventory* const inventory_;
  Progress* const progress_;
};

// Runs one pass and adds its report to *passes.
void RunPass(std::deque<Worker>* workers, asio::thread_pool* pool,
             std::vector<PassReport>* passes) {
  const int number = static_cast<int>(passes->size()) + 1;
  PassMeasurement measurement;
  std::atomic<size_t> nextVisit{0};
  std::vector<std::future<Tally>> tallies;
  for (Worker& worker : *workers) {
    tallies.push_back(asio::post(*pool, asio::use_future([&worker, number, &nextVisit] {
      return worker.Run(number, &nextVisit);
    })));
  }
  // All of them, before one that threw is asked: they share this function's variables.
  for (const auto& tally : tallies) tally.wait();
  for (auto& tally : tallies) measurement.Add(tally.get());
  measurement.Finish(passes);
}

}  // namespace

std::vector<PassReport> Scan(orvexeng::engine* engine, const ScanningRules& rules,
                             Inventory* inventory, Progress* progress) {
  std::deque<Worker> workers;
  for (int i = 0; i < rules.threads; ++i) {
    workers.emplace_back(engine, rules.reading, inventory, progress);
  }
  asio::thread_pool pool(static_cast<size_t>(rules.threads));

  std::vector<PassReport> passes;
  for (int number = 1; number <= rules.passes && (number == 1 || !Interrupted()); ++number) {
    progress->StartPass(number, rules.passes, inventory->visitCount());
    RunPass(&workers, &pool, &passes);
    progress->EndPass();
  }
  pool.join();
  return passes;
}

}  // namespace orvexscan
