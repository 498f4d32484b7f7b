// Reports what runs, as it runs.
#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "ask/asker.h"
#include "ask/pass_report.h"
#include "exec/exec_events.h"
#include "exec/exec_queue.h"
#include "inventory/inventory.h"
#include "watch/known_files.h"

namespace orvexscan {

// Asks the engine about every file that is executed on some mounts, and prints a line when the
// answer differs from the last one reported for it.
//
// Ownership: borrows the engine.
// Threads: Run listens on its own thread and asks on others.
// Locking: lock_ guards what the askers share: what is known and counted, and the output.
class ExecWatch {
 public:
  // Throws std::runtime_error if the system does not let it listen on the mounts of all paths, or
  // if libmagic or OpenSSL cannot be started.
  ExecWatch(orvexeng::engine* engine, const ReadingRules& reading,
            const std::vector<std::string>& paths, int threads, bool jsonLines);

  // Listens until the process is interrupted or terminated, then asks about what was executed
  // before that. Adds the files to *inventory, problems to its notes, and its measurements to
  // *passes. Throws what an asker threw, for example on a full disk.
  void Run(Inventory* inventory, std::vector<PassReport>* passes);

 private:
  void Listen();
  bool ReadSome();
  void AskAboutAll(Asker* asker);
  void AskAbout(const Execution& execution, Asker* asker);
  void Learn(const Execution& execution, const std::string& path, Reply reply);
  void Learn(const Execution& execution, const std::string& path, const FileFailure& failure);
  void Print(const Execution& execution, const std::string& path, const Reply& reply) const;
  void Print(const Execution& execution, const std::string& path, const FileFailure& failure) const;
  void AddNotes() const;

  const std::vector<std::string> paths_;
  const bool jsonLines_;
  ExecEvents events_;
  asio::io_context context_;
  asio::posix::stream_descriptor readable_;  // a duplicate of the events' descriptor
  std::deque<Asker> askers_;
  ExecQueue queue_;

  std::mutex lock_;
  KnownFiles known_{Inventory()};
  uint64_t gone_ = 0;
  std::exception_ptr failure_;
  Inventory* inventory_ = nullptr;  // while running
};

}  // namespace orvexscan
