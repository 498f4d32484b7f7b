#include "exec/exec_watch.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "ask/threads.h"
#include "file/file_failure.h"
#include "file/interruption.h"
#include "terminal/output.h"
#include "terminal/printable.h"
#include "terminal/utc_time.h"

namespace orvexscan {
namespace {

using Json = nlohmann::ordered_json;

int Duplicate(int descriptor) {
  const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) throw std::system_error(errno, std::generic_category(), "fanotify");
  return duplicate;
}

std::string TextOf(const Json& line) {
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Joined(const std::vector<std::string>& names) {
  return names.empty() ? "-" : Printable(fmt::format("{}", fmt::join(names, "; ")));
}

}  // namespace

ExecWatch::ExecWatch(orvexeng::engine* engine, const ReadingRules& reading,
                     const std::vector<std::string>& paths, int threads, bool jsonLines)
    : paths_(paths), jsonLines_(jsonLines), events_(paths), readable_(context_) {
  for (int i = 0; i < threads; ++i) askers_.emplace_back(engine, reading);
}

void ExecWatch::Run(Inventory* inventory, std::vector<PassReport>* passes) {
  inventory_ = inventory;
  PassMeasurement measurement;
  asio::signal_set signals(context_, SIGINT, SIGTERM);
  bool ended = Interrupted();
  signals.async_wait([&ended](const std::error_code&, int) { ended = true; });
  readable_.assign(Duplicate(events_.descriptor()));
  {
    Threads threads;
    // On every way out, before the threads are joined.
    struct Closing {
      ~Closing() { queue->Close(); }
      ExecQueue* const queue;
    } const closing{&queue_};
    for (size_t i = 0; i < askers_.size(); ++i) {
      try {
        threads.Start([this, asker = &askers_[i]] { AskAboutAll(asker); });
      } catch (const std::system_error& failure) {
        if (i == 0) throw;
        inventory->AddNote(
            fmt::format("{} threads instead of {}: {}", i, askers_.size(), failure.what()));
        break;
      }
    }
    Say(fmt::format("watching for executions on {}",
                    Printable(fmt::format("{}", fmt::join(paths_, ", ")))));
    Listen();
    while (!ended && !context_.stopped()) context_.run_one();
    // More signals change nothing: timeout(1) sends two.
    events_.Stop();
    while (!context_.stopped() && ReadSome()) {
    }
  }
  AddNotes();
  for (Asker& asker : askers_) measurement.Add(asker.TakeTally());
  measurement.Finish(passes);
  passes->back().watching = true;
  if (failure_) std::rethrow_exception(failure_);
}

void ExecWatch::Listen() {
  readable_.async_wait(asio::posix::stream_descriptor::wait_read,
                       [this](const std::error_code& error) {
                         if (error) throw std::system_error(error, "fanotify");
                         ReadSome();
                         Listen();
                       });
}

bool ExecWatch::ReadSome() {
  const uint64_t losses = events_.losses();
  std::vector<Execution> executions = events_.Read();
  for (Execution& execution : executions) queue_.Push(std::move(execution));
  return !executions.empty() || events_.losses() != losses;
}

void ExecWatch::AskAboutAll(Asker* asker) {
  try {
    while (const std::optional<Execution> execution = queue_.Take()) AskAbout(*execution, asker);
  } catch (...) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (!failure_) failure_ = std::current_exception();
    // No asker may be left to empty the queue, so Run must notice.
    queue_.Close();
    context_.stop();
  }
}

void ExecWatch::AskAbout(const Execution& execution, Asker* asker) {
  const int descriptor = execution.file->get();
  std::error_code error;
  const std::string path =
      std::filesystem::read_symlink(fmt::format("/proc/self/fd/{}", descriptor), error).string();
  if (error) throw std::system_error(error, "/proc/self/fd");
  try {
    Learn(execution, path, asker->Ask(path, descriptor));
  } catch (const FileFailure& failure) {
    Learn(execution, path, failure);
  }
}

void ExecWatch::Learn(const Execution& execution, const std::string& path, Reply reply) {
  const std::lock_guard<std::mutex> guard(lock_);
  if (reply.answer.identity.links == 0) ++gone_;
  const ChangeKind kind = known_.Learn(path, reply.answer).kind;
  if (kind == ChangeKind::kNew || kind == ChangeKind::kChanged) Print(execution, path, reply);
  inventory_->StoreAnswer(inventory_->Add(path), std::move(reply.answer),
                          std::move(reply.certificates));
}

void ExecWatch::Learn(const Execution& execution, const std::string& path,
                      const FileFailure& failure) {
  const std::lock_guard<std::mutex> guard(lock_);
  const size_t record = inventory_->Add(path);
  const std::optional<Failure>& before = inventory_->records()[record].failure;
  if (!before || before->detail != failure.what()) Print(execution, path, failure);
  inventory_->StoreFailure(record, 1, failure);
}

void ExecWatch::Print(const Execution& execution, const std::string& path,
                      const Reply& reply) const {
  const std::string time = UtcText(execution.time);
  const NamedDigest digest = LongestDigestOf(reply.answer);
  if (jsonLines_) {
    fmt::print("{}\n", TextOf({{"time", time},
                               {"pid", execution.pid},
                               {"path", path},
                               {digest.name, digest.digits},
                               {"unverifiedSigners", reply.answer.signers},
                               {"cached", !reply.read}}));
  } else {
    // Tab-separated: printable text has no tabs.
    fmt::print("{}\t{}\t{}\t{}\t{}\t{}\n", time, execution.pid, Printable(path), digest.digits,
               Joined(reply.answer.signers), reply.read ? "read" : "cached");
  }
  Finish(stdout);
}

void ExecWatch::Print(const Execution& execution, const std::string& path,
                      const FileFailure& failure) const {
  const std::string time = UtcText(execution.time);
  if (jsonLines_) {
    fmt::print(
        "{}\n",
        TextOf(
            {{"time", time}, {"pid", execution.pid}, {"path", path}, {"failure", failure.what()}}));
  } else {
    fmt::print("{}\t{}\t{}\t-\t-\tfailed: {}\n", time, execution.pid, Printable(path),
               Printable(failure.what()));
  }
  Finish(stdout);
}

void ExecWatch::AddNotes() const {
  if (events_.losses() != 0) {
    inventory_->AddNote(fmt::format(
        "Overflows of the system's queue, each of which lost one or more executions: {}",
        events_.losses()));
  }
  if (gone_ != 0) {
    inventory_->AddNote(
        fmt::format("Executed files deleted or replaced before they were asked about, and read all "
                    "the same: {}",
                    gone_));
  }
}

}  // namespace orvexscan
