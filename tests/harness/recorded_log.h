// The engine's messages, kept for a test to look at.
#pragma once

#include <condition_variable>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvexeng.h"
#include "support/orvex_log.h"

struct LogRecord {
  unsigned int level;
  unsigned int line;
  std::string function;
  std::string file;
  std::string text;
  unsigned int length;
  std::thread::id thread;
};

// Receives every message of the library while it lives. Its destructor restores the
// log's switch and level.
//
// One at a time: the library knows a callback, not an object.
// Threads: messages may come from any.
class RecordedLog {
 public:
  explicit RecordedLog(ORVEX_LOG level = ORVEX_LOG_DEBUG);
  ~RecordedLog();
  RecordedLog(const RecordedLog&) = delete;
  RecordedLog& operator=(const RecordedLog&) = delete;

  std::vector<LogRecord> Records() const;
  // One line per message: "INFO Init orvex_engine: the text". Removes them.
  std::string TakeTranscript();
  std::string TakeTranscriptOf(std::thread::id thread);
  // How many messages hold this text.
  int CountOf(const std::string& text) const;
  // Blocks until a message that holds this text has come.
  void WaitFor(const std::string& text) const;

  // Called for each message, without a lock of this class.
  std::function<void(const LogRecord&)> onMessage;

 private:
  static void Receive(unsigned int level, unsigned int line, const char* function, const char* file,
                      const char* message, unsigned int length);

  static RecordedLog* current_;

  const bool enabledBefore_;
  const ORVEX_LOG levelBefore_;

  mutable std::mutex lock_;
  mutable std::condition_variable received_;
  std::vector<LogRecord> records_;
};

// The transcript that holds exactly these lines.
std::string Lines(std::initializer_list<std::string> lines);
