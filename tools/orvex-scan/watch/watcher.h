// Reports changes as they happen.
#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ask/asker.h"
#include "ask/pass_report.h"
#include "inventory/inventory.h"
#include "inventory/walk.h"
#include "watch/directory_watches.h"
#include "watch/known_files.h"

namespace orvexscan {

// Watches the directories of a scan from the moment they are walked, and asks the engine
// about every file that may have changed since the passes.
//
// Ownership: borrows the engine.
// Threads: one; it looks at one file after another, since events are far apart.
class Watcher {
 public:
  // Throws std::runtime_error if the system does not let it watch.
  Watcher(orvexeng::engine* engine, const ReadingRules& reading,
          const std::vector<std::string>& paths, const WalkRules& walking, bool jsonLines);

  // Gathers the files as a walk does. Changes from now on will be reported.
  void Gather(Inventory* inventory);

  // Prints a line for each change to the files of *inventory and keeps it up to date, until the
  // process is interrupted or terminated. Adds its measurements to *passes.
  void Run(Inventory* inventory, std::vector<PassReport>* passes);

 private:
  void Gather(const std::vector<std::string>& paths, Inventory* inventory);
  void WatchName(const std::string& path);
  void ReportLimit(bool full);

  void Listen();
  void Follow(const Hint& hint);
  void LookThrough(const std::vector<std::string>& paths);
  void AskAllStartingWith(const std::string& prefix);
  void StartAnew();
  void Print(const std::string& path, const Change& change) const;
  void Enqueue(const std::string& path);
  void LookAtNext();
  Change LookAt(const std::string& path);

  const std::vector<std::string> paths_;
  WalkRules walking_;
  const bool jsonLines_;
  bool limitReported_ = false;
  bool listening_ = false;
  asio::io_context context_;
  asio::posix::stream_descriptor events_;  // a duplicate of the watches' descriptor
  std::unique_ptr<DirectoryWatches> watches_;
  std::unique_ptr<KnownFiles> known_;
  // Files to ask about, oldest first and each once: a busy file must not keep others waiting.
  std::deque<std::string> waiting_;
  std::set<std::string> isWaiting_;
  Inventory* inventory_ = nullptr;  // while running
  int pass_ = 0;
  Asker asker_;
};

}  // namespace orvexscan
