#include "ask/scan.h"

#include <fmt/format.h>

#include <atomic>
#include <deque>
#include <exception>
#include <future>
#include <system_error>
#include <utility>

#include "ask/asker.h"
#include "ask/threads.h"
#include "file/interruption.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

// One worker's share of a pass: takes the next visit until none is left.
//
// Threads: each has its own; they share the next visit, the inventory and the progress.
class Worker {
 public:
  Worker(orvexeng::engine* engine, const ScanningRules& rules, Inventory* inventory,
         Progress* progress)
      : rules_(rules), asker_(engine, rules.reading), inventory_(inventory), progress_(progress) {}

  Tally Run(int pass, std::atomic<size_t>* nextVisit) {
    for (;;) {
      const size_t visit = nextVisit->fetch_add(1, std::memory_order_relaxed);
      if (visit >= inventory_->visitCount() || Interrupted()) return asker_.TakeTally();
      const size_t record = inventory_->RecordOfVisit(visit);
      const uint64_t before = asker_.bytesSaved();
      try {
        Reply reply = asker_.Ask(inventory_->PathOf(record));
        if (rules_.onFile && reply.certificates) Report(record, reply);
        inventory_->StoreAnswer(record, std::move(reply.answer), std::move(reply.certificates));
      } catch (const FileFailure& failure) {
        if (failure.reason() == FailureReason::kInterrupted) return asker_.TakeTally();
        inventory_->StoreFailure(record, pass, failure);
        if (rules_.onFile) Report(record, pass, failure);
      }
      progress_->Step(asker_.bytesSaved() - before);
    }
  }

 private:
  void Report(size_t record, const Reply& reply) const {
    FileRecord visited(inventory_->PathOf(record));
    visited.visits = 1;
    visited.answer = reply.answer;
    visited.certificates = *reply.certificates;
    rules_.onFile(visited);
  }
  void Report(size_t record, int pass, const FileFailure& failure) const {
    FileRecord visited(inventory_->PathOf(record));
    visited.visits = 1;
    visited.failure = Failure{pass, failure.reason(), failure.what()};
    rules_.onFile(visited);
  }

  const ScanningRules& rules_;
  Asker asker_;
  Inventory* const inventory_;
  Progress* const progress_;
};

// As many workers as memory allows, at least one: each loads tables of its own.
void MakeWorkers(orvexeng::engine* engine, const ScanningRules& rules, Inventory* inventory,
                 Progress* progress, std::deque<Worker>* workers) {
  workers->emplace_back(engine, rules, inventory, progress);
  try {
    for (int i = 1; i < rules.threads; ++i) {
      workers->emplace_back(engine, rules, inventory, progress);
    }
  } catch (const std::exception& failure) {
    inventory->AddNote(fmt::format("{} workers instead of {}: {}", workers->size(), rules.threads,
                                   Printable(failure.what())));
  }
}

// Runs one pass and adds its report to *passes. Workers for which the system grants no thread are
// dropped, with a note.
void RunPass(std::deque<Worker>* workers, Inventory* inventory, std::vector<PassReport>* passes) {
  const int number = static_cast<int>(passes->size()) + 1;
  PassMeasurement measurement;
  std::atomic<size_t> nextVisit{0};
  std::vector<std::future<Tally>> tallies;
  Threads threads;
  // The first one runs here: it needs no grant.
  for (size_t i = 1; i < workers->size(); ++i) {
    std::packaged_task<Tally()> task(
        [worker = &(*workers)[i], number, &nextVisit] { return worker->Run(number, &nextVisit); });
    std::future<Tally> tally = task.get_future();
    try {
      threads.Start(std::move(task));
    } catch (const std::system_error& failure) {
      inventory->AddNote(
          fmt::format("{} threads instead of {}: {}", i, workers->size(), failure.what()));
      while (workers->size() > i) workers->pop_back();
      break;
    }
    tallies.push_back(std::move(tally));
  }
  measurement.Add(workers->front().Run(number, &nextVisit));
  threads.Join();
  for (auto& tally : tallies) measurement.Add(tally.get());
  measurement.Finish(passes);
}

}  // namespace

std::vector<PassReport> Scan(orvexeng::engine* engine, const ScanningRules& rules,
                             Inventory* inventory, Progress* progress) {
  std::deque<Worker> workers;
  MakeWorkers(engine, rules, inventory, progress, &workers);
  std::vector<PassReport> passes;
  for (int number = 1; number <= rules.passes && (number == 1 || !Interrupted()); ++number) {
    progress->StartPass(number, rules.passes, inventory->visitCount(), inventory->visitBytes());
    RunPass(&workers, inventory, &passes);
    progress->EndPass();
  }
  return passes;
}

}  // namespace orvexscan
