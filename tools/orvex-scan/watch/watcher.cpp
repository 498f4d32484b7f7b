#include "watch/watcher.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <asio/signal_set.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <utility>

#include "file/file_failure.h"
#include "terminal/output.h"
#include "terminal/printable.h"
#include "terminal/utc_time.h"

namespace orvexscan {
namespace {

namespace fs = std::filesystem;

const char* NameOf(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::kNone:
      return "";
    case ChangeKind::kNew:
      return "new";
    case ChangeKind::kChanged:
      return "changed";
    case ChangeKind::kSame:
      return "same";
    case ChangeKind::kGone:
      return "gone";
    case ChangeKind::kFailed:
      return "failed";
  }
  return "";
}

int Duplicate(int descriptor) {
  const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) throw std::system_error(errno, std::generic_category(), "inotify");
  return duplicate;
}

}  // namespace

Watcher::Watcher(orvexeng::engine* engine, const ReadingRules& reading,
                 const std::vector<std::string>& paths, const WalkRules& walking, bool jsonLines)
    : paths_(paths),
      walking_(walking),
      jsonLines_(jsonLines),
      events_(context_),
      watches_(std::make_unique<DirectoryWatches>(walking.followLinks)),
      asker_(engine, reading) {
  // Before a directory is read: whatever appears in it afterwards gives a hint.
  walking_.entering = [this](const std::string& directory) {
    ReportLimit(!watches_->AddDirectory(directory));
  };
}

void Watcher::Gather(Inventory* inventory) { Gather(paths_, inventory); }

void Watcher::Run(Inventory* inventory, std::vector<PassReport>* passes) {
  known_ = std::make_unique<KnownFiles>(*inventory);
  inventory_ = inventory;
  pass_ = static_cast<int>(passes->size()) + 1;
  PassMeasurement measurement;
  asio::signal_set signals(context_, SIGINT, SIGTERM);
  bool ended = false;
  signals.async_wait([&ended](const std::error_code&, int) { ended = true; });
  events_.assign(Duplicate(watches_->descriptor()));
  const size_t count = watches_->count();
  Say(fmt::format("watching {} {}", count, count == 1 ? "directory" : "directories"));
  while (!ended) {
    if (!listening_) Listen();
    // One file at a time, so that a signal between two of them is noticed.
    if (waiting_.empty()) {
      context_.run_one();
    } else {
      LookAtNext();
      context_.poll();
    }
  }
  measurement.Add(asker_.TakeTally());
  measurement.Finish(passes);
  passes->back().watching = true;
}

void Watcher::Gather(const std::vector<std::string>& paths, Inventory* inventory) {
  std::error_code ignored;
  for (const std::string& path : paths) {
    if (!fs::is_directory(path, ignored)) WatchName(path);
  }
  Walk(paths, walking_, inventory);
  if (!walking_.followLinks) return;
  for (const FileRecord& record : inventory->records()) {
    if (fs::is_symlink(record.path, ignored)) WatchName(record.path);
  }
}

// By its directory: an editor replaces the old file with a new one.
void Watcher::WatchName(const std::string& path) {
  const fs::path given(path);
  const std::string parent = given.has_parent_path() ? given.parent_path().string() : ".";
  ReportLimit(!watches_->AddName(parent, given.filename().string(), path));
  std::error_code error;
  if (!walking_.followLinks || !fs::is_symlink(given, error)) return;
  const fs::path target = fs::canonical(given, error);
  if (error) return;
  ReportLimit(!watches_->AddName(target.parent_path().string(), target.filename().string(), path));
}

void Watcher::ReportLimit(bool full) {
  if (!full || limitReported_) return;
  limitReported_ = true;
  Say("some directories are not watched: the limit fs.inotify.max_user_watches is reached");
}

void Watcher::Listen() {
  listening_ = true;
  events_.async_wait(asio::posix::stream_descriptor::wait_read,
                     [this](const std::error_code& error) {
                       listening_ = false;
                       if (error) throw std::system_error(error, "inotify");
                       for (const Hint& hint : watches_->Read()) Follow(hint);
                     });
}

void Watcher::Follow(const Hint& hint) {
  switch (hint.kind) {
    case Hint::Kind::kFile:
      Enqueue(hint.path);
      break;
    case Hint::Kind::kDirectoryCame:
      LookThrough({hint.path});
      break;
    case Hint::Kind::kDirectoryWent:
      watches_->RemoveTree(hint.path);
      AskAllStartingWith(PathIn(hint.path, ""));
      break;
    case Hint::Kind::kLost:
      StartAnew();
      break;
  }
}

void Watcher::LookThrough(const std::vector<std::string>& paths) {
  Inventory found;
  Gather(paths, &found);
  for (const FileRecord& record : found.records()) {
    if (record.visits != 0) Enqueue(record.path);
    if (record.failure) {
      const FileFailure failure(record.failure->reason, record.failure->detail);
      Print(record.path, known_->Learn(record.path, failure));
    }
  }
}

void Watcher::AskAllStartingWith(const std::string& prefix) {
  for (const std::string& path : known_->StartingWith(prefix)) Enqueue(path);
}

// Starts over with a new inotify instance: after an overflow the old watch state cannot be trusted.
void Watcher::StartAnew() {
  events_.close();
  watches_ = std::make_unique<DirectoryWatches>(walking_.followLinks);
  events_.assign(Duplicate(watches_->descriptor()));
  AskAllStartingWith("");
  LookThrough(paths_);
}

void Watcher::Print(const std::string& path, const Change& change) const {
  if (change.kind == ChangeKind::kNone) return;
  const std::string time = UtcText(std::chrono::system_clock::now());
  if (jsonLines_) {
    using Json = nlohmann::ordered_json;
    const Json line = {{"time", time},
                       {"change", NameOf(change.kind)},
                       {"path", path},
                       {"before", change.before},
                       {"after", change.after}};
    fmt::print("{}\n", line.dump(-1, ' ', false, Json::error_handler_t::replace));
  } else {
    // Tab-separated: a printable path has no tabs.
    fmt::print("{}\t{}\t{}\t{} -> {}\n", time, NameOf(change.kind), Printable(path), change.before,
               change.after);
  }
  Finish(stdout);
}

void Watcher::Enqueue(const std::string& path) {
  if (isWaiting_.insert(path).second) waiting_.push_back(path);
}

void Watcher::LookAtNext() {
  const std::string path = waiting_.front();
  waiting_.pop_front();
  isWaiting_.erase(path);
  Print(path, LookAt(path));
}

Change Watcher::LookAt(const std::string& path) {
  try {
    Reply reply = asker_.Ask(path);
    Change change = known_->Learn(path, reply.answer);
    inventory_->StoreAnswer(inventory_->Add(path), std::move(reply.answer),
                            std::move(reply.certificates));
    return change;
  } catch (const FileFailure& failure) {
    Change change = known_->Learn(path, failure);
    const std::optional<size_t> record = inventory_->Find(path);
    if (record && change.kind == ChangeKind::kGone) inventory_->Forget(*record);
    if (record && change.kind == ChangeKind::kFailed) {
      inventory_->StoreFailure(*record, pass_, failure);
    }
    return change;
  }
}

}  // namespace orvexscan
