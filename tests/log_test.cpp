// The logger: levels, switches, format and callback.
#include <doctest/doctest.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "harness/cancelled_thread.h"
#include "harness/captured_output.h"
#include "harness/real_function.h"
#include "harness/recorded_log.h"
#include "support/orvex_log.h"

namespace {

void LogText(ORVEX_LOG level, const char* text) {
  ORVEX_LOGGER::GetInstance()->Log(level, 7, "Function", "file", "%s", text);
}

bool localTimeFails = false;

}  // namespace

// As the system's does when the year would not fit.
extern "C" tm* localtime_r(const time_t* when, tm* local) noexcept {
  static auto* const real = RealFunction<tm*(const time_t*, tm*)>("localtime_r");
  return localTimeFails ? nullptr : real(when, local);
}

TEST_CASE("messages up to the level are kept and more detailed ones dropped") {
  RecordedLog log(ORVEX_LOG_INFO);
  LogText(ORVEX_LOG_FATAL, "fatal");
  LogText(ORVEX_LOG_ERROR, "error");
  LogText(ORVEX_LOG_WARNING, "warning");
  LogText(ORVEX_LOG_INFO, "info");
  LogText(ORVEX_LOG_DEBUG, "debug");
  CHECK(log.TakeTranscript() ==
        Lines({"FATAL Function file: fatal", "ERROR Function file: error",
               "WARNING Function file: warning", "INFO Function file: info"}));
}

TEST_CASE("the level is INFO and logging is on unless somebody changes it") {
  CHECK(ORVEX_LOG_BASE::LogLevel == ORVEX_LOG_INFO);
  CHECK(ORVEX_LOG_BASE::LogEnable);
}

TEST_CASE("switching logging off drops every message") {
  RecordedLog log;
  ORVEX_LOG_BASE::LogEnable = false;
  LogText(ORVEX_LOG_FATAL, "fatal");
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a level below FATAL drops every message") {
  RecordedLog log(static_cast<ORVEX_LOG>(-1));
  LogText(ORVEX_LOG_FATAL, "fatal");
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a level above DEBUG keeps messages of levels that have no name") {
  RecordedLog log(static_cast<ORVEX_LOG>(9));
  LogText(static_cast<ORVEX_LOG>(9), "nine");
  LogText(static_cast<ORVEX_LOG>(10), "ten");
  CHECK(log.TakeTranscript() == Lines({" Function file: nine"}));
}

TEST_CASE("a message carries level, line, function, file, text and length") {
  RecordedLog log;
  ORVEX_LOGGER::GetInstance()->Log(ORVEX_LOG_WARNING, 42, "Function", "file", "%d of %s", 3, "x");
  REQUIRE(log.Records().size() == 1);
  const LogRecord record = log.Records().front();
  CHECK(record.level == 2);
  CHECK(record.line == 42);
  CHECK(record.function == "Function");
  CHECK(record.file == "file");
  CHECK(record.text == "3 of x");
  CHECK(record.length == 6);
}

TEST_CASE("a message of 511 characters arrives whole") {
  RecordedLog log;
  LogText(ORVEX_LOG_INFO, std::string(511, 'a').c_str());
  CHECK(log.Records().front().text == std::string(511, 'a'));
  CHECK(log.Records().front().length == 511);
}

TEST_CASE("a message of 600 characters arrives cut to 511 with its whole length") {
  RecordedLog log;
  LogText(ORVEX_LOG_INFO, std::string(600, 'a').c_str());
  CHECK(log.Records().front().text == std::string(511, 'a'));
  CHECK(log.Records().front().length == 600);
}

TEST_CASE("the result of a text that cannot be formatted is passed on as its length") {
  RecordedLog log;
  const wchar_t noCharacter[] = {0x7fffffff, 0};
  ORVEX_LOGGER::GetInstance()->Log(ORVEX_LOG_INFO, 7, "Function", "file", "%ls", noCharacter);
  CHECK(log.Records().front().length == static_cast<unsigned int>(-1));
}

TEST_CASE("a null text in a message reads (null)") {
  RecordedLog log;
  LogText(ORVEX_LOG_INFO, nullptr);
  CHECK(log.Records().front().text == "(null)");
}

TEST_CASE(
    "a text is cut to what its sentence leaves of 511 characters, and its whole length told") {
  RecordedLog log;
  for (const size_t length : {507U, 508U, 509U}) {
    ORVEX_LOGGER::GetInstance()->Log(ORVEX_LOG_INFO, 7, "Function", "file", "of %s",
                                     std::string(length, 'a').c_str());
    CHECK(log.Records().back().text == "of " + std::string(std::min<size_t>(length, 508), 'a'));
    CHECK(log.Records().back().length == length + 3);
  }
}

TEST_CASE("a message without a format is empty, and the failure to format it is its length") {
  RecordedLog log;
  const char* volatile none = nullptr;
  ORVEX_LOGGER::GetInstance()->Log(ORVEX_LOG_INFO, 7, "Function", "file", none, 0);
  CHECK(log.Records().front().text.empty());
  CHECK(log.Records().front().length == static_cast<unsigned int>(-1));
}

TEST_CASE("levels have names and unknown ones the empty name") {
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(0)) == "FATAL");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(1)) == "ERROR");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(2)) == "WARNING");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(3)) == "INFO");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(4)) == "DEBUG");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(5)) == "");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(7)) == "");
  CHECK(std::string(ORVEX_LOG_BASE::LogLevelToString(4294967295u)) == "");
}

TEST_CASE("a second callback replaces the first") {
  static int firstCalls = 0;
  static int secondCalls = 0;
  CHECK(orvex_register_log_cb([](unsigned int, unsigned int, const char*, const char*, const char*,
                                 unsigned int) { ++firstCalls; }) == 0);
  CHECK(orvex_register_log_cb([](unsigned int, unsigned int, const char*, const char*, const char*,
                                 unsigned int) { ++secondCalls; }) == 0);
  LogText(ORVEX_LOG_INFO, "text");
  CHECK(firstCalls == 0);
  CHECK(secondCalls == 1);
}

TEST_CASE("a null callback is refused with 3 and the earlier one stays") {
  RecordedLog log;
  CHECK(orvex_register_log_cb(nullptr) == 3);
  LogText(ORVEX_LOG_INFO, "text");
  CHECK(log.TakeTranscript() == Lines({"INFO Function file: text"}));
}

TEST_CASE("the logger itself refuses a null callback with 1") {
  RecordedLog log;
  CHECK(ORVEX_LOGGER::GetInstance()->RegisterLogCallback(nullptr) == 1);
  LogText(ORVEX_LOG_INFO, "text");
  CHECK(log.TakeTranscript() == Lines({"INFO Function file: text"}));
}

TEST_CASE("with a callback nothing goes to standard output") {
  RecordedLog log;
  CapturedOutput output;
  LogText(ORVEX_LOG_INFO, "text");
  CHECK(output.Take() == "");
}

TEST_CASE("without a callback a message is one flushed line on standard output") {
  // A zone that cannot be mistaken for the machine's.
  setenv("TZ", "XYZ-05:47", 1);
  CapturedOutput output;
  const time_t before = time(nullptr);
  LogText(ORVEX_LOG_ERROR, "the text");
  const time_t after = time(nullptr);
  const std::string line = output.Take();
  const auto lineAt = [](time_t second) {
    char when[128] = {};
    strftime(when, sizeof when, "%Y %m %d %X ", localtime(&second));
    return std::string(when) + " [ERROR] the text file|7|Function\n";
  };
  bool matches = false;
  for (time_t second = before; second <= after; ++second) matches |= line == lineAt(second);
  CAPTURE(line);
  CHECK(matches);
}

TEST_CASE("the number of a line is printed without a sign") {
  CapturedOutput output;
  ORVEX_LOGGER::GetInstance()->Log(ORVEX_LOG_ERROR, 4294967295u, "Function", "file", "the text");
  CHECK(output.Take().find(" the text file|4294967295|Function\n") != std::string::npos);
}

TEST_CASE("a time that has no local form leaves its place in the line empty") {
  CapturedOutput output;
  localTimeFails = true;
  LogText(ORVEX_LOG_ERROR, "the text");
  localTimeFails = false;
  CHECK(output.Take() == " [ERROR] the text file|7|Function\n");
}

TEST_CASE("a message longer than 511 characters is printed cut") {
  CapturedOutput output;
  LogText(ORVEX_LOG_INFO, std::string(600, 'a').c_str());
  const std::string line = output.Take();
  CHECK(line.find(" " + std::string(511, 'a') + " file|7|Function\n") != std::string::npos);
}

TEST_CASE("a standard output that cannot be written to is ignored") {
  CapturedOutput output;
  close(STDOUT_FILENO);
  CHECK_NOTHROW(LogText(ORVEX_LOG_INFO, "lost"));
}

TEST_CASE("an exception of the log callback ends in the logger") {
  RecordedLog log;
  log.onMessage = [](const LogRecord&) { throw std::runtime_error("from the callback"); };
  CHECK_NOTHROW(LogText(ORVEX_LOG_INFO, "text"));
  CHECK(log.CountOf("text") == 1);
}

TEST_CASE("a pending cancellation does not interrupt a message, printed or handed to a callback") {
  {
    CapturedOutput output;
    CHECK(OutlastsCancellation([] { LogText(ORVEX_LOG_INFO, "printed"); }));
    CHECK(output.Take().find("printed file|7|Function\n") != std::string::npos);
  }
  RecordedLog log;
  log.onMessage = [](const LogRecord&) { pthread_testcancel(); };
  CHECK(OutlastsCancellation([] { LogText(ORVEX_LOG_INFO, "handed over"); }));
  CHECK(log.CountOf("handed over") == 1);
}

TEST_CASE("a dropped message does not evaluate its arguments") {
  RecordedLog log(ORVEX_LOG_INFO);
  int evaluations = 0;
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, "file", "%d", ++evaluations);
  CHECK(evaluations == 0);
  ORVEX_LOG_MESSAGE(ORVEX_LOG_INFO, __func__, "file", "%d", ++evaluations);
  CHECK(evaluations == 1);
}

TEST_CASE("a logger has no settings of its own to read") {
  char settings[] = "LogLevel=4";
  CHECK(ORVEX_LOGGER::GetInstance()->ReadConfig(settings) == 0);
  CHECK(ORVEX_LOG_BASE::LogLevel == ORVEX_LOG_INFO);
}

TEST_CASE("there is one logger") {
  CHECK(ORVEX_LOGGER::GetInstance() == ORVEX_LOGGER::GetInstance());
}
