// The engine's messages, kept for a test to look at.
#include "harness/recorded_log.h"

#include <algorithm>

namespace {

std::string LineOf(const LogRecord& record) {
  return std::string(ORVEX_LOG_BASE::LogLevelToString(record.level)) + " " + record.function + " " +
         record.file + ": " + record.text + "\n";
}

bool Holds(const LogRecord& record, const std::string& text) {
  return record.text.find(text) != std::string::npos;
}

}  // namespace

RecordedLog* RecordedLog::current_ = nullptr;

RecordedLog::RecordedLog(ORVEX_LOG level)
    : enabledBefore_(ORVEX_LOG_BASE::LogEnable), levelBefore_(ORVEX_LOG_BASE::LogLevel) {
  ORVEX_LOG_BASE::LogLevel = level;
  current_ = this;
  orvex_register_log_cb(&RecordedLog::Receive);
}

RecordedLog::~RecordedLog() {
  current_ = nullptr;
  ORVEX_LOG_BASE::LogEnable = enabledBefore_;
  ORVEX_LOG_BASE::LogLevel = levelBefore_;
}

std::vector<LogRecord> RecordedLog::Records() const {
  const std::lock_guard guard(lock_);
  return records_;
}

std::string RecordedLog::TakeTranscript() {
  const std::lock_guard guard(lock_);
  std::string transcript;
  for (const LogRecord& record : records_) transcript += LineOf(record);
  records_.clear();
  return transcript;
}

std::string RecordedLog::TakeTranscriptOf(std::thread::id thread) {
  const std::lock_guard guard(lock_);
  std::string transcript;
  const auto isOther = [thread](const LogRecord& record) { return record.thread != thread; };
  const auto own = std::stable_partition(records_.begin(), records_.end(), isOther);
  for (auto record = own; record != records_.end(); ++record) transcript += LineOf(*record);
  records_.erase(own, records_.end());
  return transcript;
}

int RecordedLog::CountOf(const std::string& text) const {
  const std::lock_guard guard(lock_);
  return static_cast<int>(
      std::count_if(records_.begin(), records_.end(),
                    [&text](const LogRecord& record) { return Holds(record, text); }));
}

void RecordedLog::WaitFor(const std::string& text) const {
  std::unique_lock guard(lock_);
  received_.wait(guard, [&] {
    return std::any_of(records_.begin(), records_.end(),
                       [&text](const LogRecord& record) { return Holds(record, text); });
  });
}

void RecordedLog::Receive(unsigned int level, unsigned int line, const char* function,
                          const char* file, const char* message, unsigned int length) {
  if (current_ == nullptr) return;
  const LogRecord record{level, line, function, file, message, length, std::this_thread::get_id()};
  {
    const std::lock_guard guard(current_->lock_);
    current_->records_.push_back(record);
  }
  current_->received_.notify_all();
  if (current_->onMessage) current_->onMessage(record);
}

std::string Lines(std::initializer_list<std::string> lines) {
  std::string transcript;
  for (const std::string& line : lines) transcript += line + "\n";
  return transcript;
}
