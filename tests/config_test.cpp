// The configuration file.
#include <doctest/doctest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "cache/orvex_lru_cache.h"
#include "cache/orvex_lru_cache_file_type.h"
#include "harness/engine_under_test.h"
#include "harness/recorded_log.h"
#include "support/orvex_config.h"
#include "support/orvex_log.h"
#include "support/orvex_profiling.h"

namespace {

// Writes the file, reads it and applies it, as the engine does when it starts.
unsigned int Configure(const std::string& text, ORVEX_Config& config) {
  std::ofstream("test.ini", std::ios::binary) << text;
  const unsigned int result = config.ReadConfig("test.ini");
  config.SetConfig();
  return result;
}

// What a line stores under a key, or "-" for nothing.
std::string Stored(std::string line, const char* key = "Key") {
  ORVEX_Config config;
  config.ParseLine(line.data());
  std::string value;
  return config.GetConfigString(key, value) == 0 ? value : "-";
}

std::string SetConfigLine(const std::string& text) {
  return "INFO SetConfig orvex_config: Set config " + text;
}

std::string CapacityLine(int capacity) {
  return "INFO SetCapacity orvex_lru_cache: Set max cache capacity to " + std::to_string(capacity);
}

}  // namespace

TEST_CASE("the configuration file is orvexeng.ini in the working directory") {
  CHECK(ORVEX_Config::ConfigFilePath == "orvexeng.ini");
}

TEST_CASE("a file that cannot be opened returns 7 and logs one ERROR line") {
  RecordedLog log;
  ORVEX_Config config;
  CHECK(config.ReadConfig("missing.ini") == 7);
  CHECK(log.TakeTranscript() ==
        Lines({"ERROR ReadConfig orvex_config: Open config file missing.ini failed"}));
}

TEST_CASE("a file that can be opened returns 0 whatever it holds") {
  RecordedLog log;
  ORVEX_Config config;
  CHECK(Configure("", config) == 0);
  CHECK(Configure("nonsense\n= = =\n\n\n#\n", config) == 0);
  CHECK(config.ReadConfig("/") == 0);  // Opens, though there is nothing to read.
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("every known key is applied in its order and logged at INFO") {
  RecordedLog log;
  ORVEX_Config config;
  Configure("CacheCapacity=100\nProfilingEnable=0\nDatabaseEnable=1\nLogLevel=4\nLogEnable=1\n",
            config);
  CHECK(log.TakeTranscript() ==
        Lines({SetConfigLine("LogEnable to 1"), SetConfigLine("LogLevel to 4"),
               SetConfigLine("DatabaseEnable to 1"), SetConfigLine("ProfilingEnable to 0"),
               CapacityLine(100), SetConfigLine("CacheCapacity to 100")}));
  CHECK(ORVEX_LOG_BASE::LogLevel == ORVEX_LOG_DEBUG);
}

TEST_CASE("the configured capacity is the hash cache's and not the file type cache's") {
  RecordedLog quiet(ORVEX_LOG_ERROR);
  ORVEX_Config config;
  Configure("CacheCapacity=2\n", config);
  RecordedLog log;
  HashCache().DumpCache();
  TypeCache().DumpCache();
  CHECK(log.CountOf("Cache capacity = 2") == 1);
  CHECK(log.CountOf("Cache capacity = 4096") == 1);
}

TEST_CASE("turning logging off is not logged") {
  RecordedLog log;
  ORVEX_Config config;
  Configure("LogEnable=0\nCacheCapacity=5\n", config);
  CHECK_FALSE(ORVEX_LOG_BASE::LogEnable);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("any level is accepted and a line about it is kept if it allows") {
  RecordedLog log;
  ORVEX_Config config;
  Configure("LogLevel=9\n", config);
  CHECK(ORVEX_LOG_BASE::LogLevel == 9);
  CHECK(log.TakeTranscript() == Lines({SetConfigLine("LogLevel to 9")}));
  Configure("LogLevel=2\n", config);
  CHECK(ORVEX_LOG_BASE::LogLevel == ORVEX_LOG_WARNING);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a negative level is malformed and the level stays") {
  RecordedLog log(ORVEX_LOG_INFO);
  ORVEX_Config config;
  Configure("LogLevel=-1\n", config);
  CHECK(ORVEX_LOG_BASE::LogLevel == ORVEX_LOG_INFO);
  CHECK(log.TakeTranscript() == "");
}

TEST_CASE("a capacity out of range sets 4096 and is logged as written") {
  for (const char* written : {"0", "100000", "99999999999999999999"}) {
    CAPTURE(written);
    RecordedLog log;
    ORVEX_Config config;
    Configure("CacheCapacity=" + std::string(written) + "\n", config);
    const std::string told = std::string(written).size() > 10 ? "2147483647" : written;
    CHECK(log.TakeTranscript() ==
          Lines({CapacityLine(4096), SetConfigLine("CacheCapacity to " + told)}));
  }
}

TEST_CASE("a file with carriage returns sets no number and no switch") {
  RecordedLog log;
  ORVEX_Config config;
  Configure("LogEnable=0\r\nLogLevel=4\r\nProfilingEnable=1\r\nCacheCapacity=5\r\n", config);
  CHECK(log.TakeTranscript() == "");
  CHECK(ORVEX_LOG_BASE::LogEnable);
  CHECK_FALSE(ORVEX_Profiling::EnableProfiling);
  std::string value;
  CHECK(config.GetConfigString("LogLevel", value) == 0);
  CHECK(value == "4\r");
}

TEST_CASE("a switch is 0 or 1 and no word") {
  RecordedLog log;
  ORVEX_Config config;
  for (const char* word : {"true", "on", "yes", "2", "00", "01", "1x"}) {
    Configure("ProfilingEnable=" + std::string(word) + "\n", config);
    CHECK_FALSE(ORVEX_Profiling::EnableProfiling);
  }
  Configure("ProfilingEnable=1\n", config);
  CHECK(ORVEX_Profiling::EnableProfiling);
  Configure("ProfilingEnable=0\n", config);
  CHECK_FALSE(ORVEX_Profiling::EnableProfiling);
}

TEST_CASE("the later of two lines with one key applies") {
  RecordedLog log;
  ORVEX_Config config;
  Configure("CacheCapacity=5\nCacheCapacity=6\n", config);
  CHECK(log.TakeTranscript() == Lines({CapacityLine(6), SetConfigLine("CacheCapacity to 6")}));
}

TEST_CASE("a line is a key, an equals sign and a value with blanks anywhere") {
  CHECK(Stored("Key=1024") == "1024");
  CHECK(Stored("Key = 1024") == "1024");
  CHECK(Stored("Key 1024 =") == "1024");
  CHECK(Stored("  = Key == 1024  ") == "1024");
  CHECK(Stored("Key=4 #comment") == "4");
  CHECK(Stored("Key=4 # 5 6") == "4");
  CHECK(Stored("Key=4#5") == "4#5");
  CHECK(Stored("Key\t=4", "Key\t") == "4");
}

TEST_CASE("a line that is no assignment stores nothing") {
  CHECK(Stored("Key = 4 5") == "-");
  CHECK(Stored("Key = 4 5 # comment") == "-");
  CHECK(Stored("Key = 4 5 6") == "-");
  CHECK(Stored("Key = alone =") == "alone");
  CHECK(Stored("Key =") == "-");
  CHECK(Stored("Key 1024") == "-");
  CHECK(Stored("#Key=4", "#Key") == "-");
  CHECK(Stored("  # Key=4") == "-");
  CHECK(Stored("Key = #4") == "-");
  CHECK(Stored("=") == "-");
  CHECK(Stored("") == "-");
}

TEST_CASE("a last line without a newline is read") {
  RecordedLog log;
  ORVEX_Config config;
  Configure("LogEnable=1\nCacheCapacity=5", config);
  CHECK(log.CountOf("Set config CacheCapacity to 5") == 1);
}

TEST_CASE("a line of 254 characters is read and one of 255 ends the reading") {
  for (const bool withNewline : {true, false}) {
    for (const size_t length : {size_t{254}, size_t{255}, size_t{256}, size_t{300}}) {
      CAPTURE(withNewline);
      CAPTURE(length);
      const std::string longLine = "Long=" + std::string(length - 5, 'x');
      const std::string after = withNewline ? "\nAfter=1\n" : "";
      ORVEX_Config config;
      Configure("Before=1\n" + longLine + after, config);
      std::string value;
      CHECK(config.GetConfigString("Before", value) == 0);
      CHECK((config.GetConfigString("Long", value) == 0) == (length == 254));
      CHECK((config.GetConfigString("After", value) == 0) == (length == 254 && withNewline));
    }
  }
}

TEST_CASE("a comment line of 300 characters ends the reading") {
  ORVEX_Config config;
  Configure("Before=1\n#" + std::string(299, 'x') + "\nAfter=1\n", config);
  std::string value;
  CHECK(config.GetConfigString("Before", value) == 0);
  CHECK(config.GetConfigString("After", value) == 600);
}

TEST_CASE("a line ends at a zero byte and one that begins with it is skipped") {
  using namespace std::string_literals;
  ORVEX_Config config;
  Configure("\0Skipped=1\nCut=1\0"s + "2\nAfter=1\n", config);
  std::string value;
  CHECK(config.GetConfigString("Skipped", value) == 600);
  CHECK(config.GetConfigString("Cut", value) == 0);
  CHECK(value == "1");
  CHECK(config.GetConfigString("After", value) == 0);
}

TEST_CASE("reading another file overwrites its keys and keeps the others") {
  ORVEX_Config config;
  Configure("First=1\nBoth=1\n", config);
  Configure("Both=2\nSecond=2\n", config);
  std::string value;
  CHECK(config.GetConfigString("First", value) == 0);
  CHECK(value == "1");
  CHECK(config.GetConfigString("Both", value) == 0);
  CHECK(value == "2");
  CHECK(config.GetConfigString("Second", value) == 0);
}

TEST_CASE("an integer is decimal digits only and at most 2147483647") {
  ORVEX_Config config;
  const struct {
    const char* text;
    unsigned int code;
    unsigned int value;
  } rows[] = {{"0", 0, 0},
              {"007", 0, 7},
              {"2147483647", 0, 2147483647},
              {"2147483648", 0, 2147483647},
              {"4294967296", 0, 2147483647},
              {"99999999999999999999999", 0, 2147483647},
              {"-1", 601, 77},
              {"+1", 601, 77},
              {"0x10", 601, 77},
              {"1\t", 601, 77},
              {"4#5", 601, 77}};
  for (const auto& row : rows) {
    CAPTURE(row.text);
    std::string line = "Key=" + std::string(row.text);
    config.ParseLine(line.data());
    unsigned int value = 77;
    CHECK(config.GetConfigInteger("Key", value) == row.code);
    CHECK(value == row.value);
  }
}

TEST_CASE("a key that was never read returns 600 and leaves the value") {
  ORVEX_Config config;
  unsigned int number = 77;
  bool flag = true;
  std::string text = "before";
  CHECK(config.GetConfigInteger("Key", number) == 600);
  CHECK(config.GetConfigBool("Key", flag) == 600);
  CHECK(config.GetConfigString("Key", text) == 600);
  CHECK(number == 77);
  CHECK(flag);
  CHECK(text == "before");
}

TEST_CASE("a malformed switch returns 601 and leaves the value") {
  ORVEX_Config config;
  char line[] = "Key=true";
  config.ParseLine(line);
  bool flag = true;
  CHECK(config.GetConfigBool("Key", flag) == 601);
  CHECK(flag);
}

TEST_CASE("the entries are dumped in key order at DEBUG") {
  ORVEX_Config config;
  Configure("b=2\na=1\nB=3\n", config);
  RecordedLog log;
  config.Dump();
  CHECK(log.TakeTranscript() ==
        Lines({"DEBUG Dump orvex_config: Dump config map ...",
               "DEBUG Dump orvex_config: [CONFIG] B=3", "DEBUG Dump orvex_config: [CONFIG] a=1",
               "DEBUG Dump orvex_config: [CONFIG] b=2"}));
}

namespace {

constexpr size_t kMebibyte = 1024 * 1024;

// A pseudo-terminal; path is the side that programs open.
class Terminal {
 public:
  Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    REQUIRE(grantpt(master_) == 0);
    REQUIRE(unlockpt(master_) == 0);
    path = ptsname(master_);
  }
  ~Terminal() { close(master_); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  std::string path;

 private:
  const int master_;
};

void MakeSocket(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
  const int socketFile = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  REQUIRE(bind(socketFile, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
  close(socketFile);
}

int StartEngine() {
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  return orvex_init(&callbacks);
}

}  // namespace

TEST_CASE("anything but a file or directory counts as a file that cannot be opened") {
  const Terminal terminal;
  REQUIRE(mkfifo("pipe", 0600) == 0);
  MakeSocket("socket");
  const std::string targets[] = {"pipe",      "socket",    terminal.path,
                                 "/dev/ptmx", "/dev/null", "/dev/zero"};
  for (const std::string& target : targets) {
    CAPTURE(target);
    std::filesystem::create_symlink(target, "orvexeng.ini");
    RecordedLog log;
    CHECK(StartEngine() == 0);
    CHECK(log.CountOf("Open config file orvexeng.ini failed") == 1);
    CHECK(orvex_deinit() == 0);
    std::filesystem::remove("orvexeng.ini");
  }
}

TEST_CASE("what waits in a pipe is not taken from it") {
  REQUIRE(mkfifo("orvexeng.ini", 0600) == 0);
  const int pipeFile = open("orvexeng.ini", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  const std::string text = "CacheCapacity=7\n";
  REQUIRE(write(pipeFile, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  RecordedLog log;
  CHECK(StartEngine() == 0);
  CHECK(log.CountOf("Set config CacheCapacity") == 0);
  std::string left(100, ' ');
  CHECK(read(pipeFile, left.data(), left.size()) == static_cast<ssize_t>(text.size()));
  CHECK(orvex_deinit() == 0);
  close(pipeFile);
  std::filesystem::remove("orvexeng.ini");
}

TEST_CASE("a terminal at the file's path does not become that of the process") {
  const Terminal terminal;
  std::filesystem::create_symlink(terminal.path, "orvexeng.ini");
  const pid_t child = fork();
  if (child == 0) {
    // The first terminal that a process without one opens becomes its own.
    setsid();
    const bool started = StartEngine() == 0;
    _exit(started && open("/dev/tty", O_RDONLY | O_CLOEXEC) == -1 ? 0 : 1);
  }
  int status = -1;
  REQUIRE(waitpid(child, &status, 0) == child);
  CHECK(status == 0);
}

TEST_CASE("the reading ends after the first mebibyte and at a line that goes beyond it") {
  const std::string filling(kMebibyte - 14, '\n');
  const struct {
    const char* name;
    std::string text;
    const char* last;
    const char* after;
  } rows[] = {{"a line that ends the mebibyte", "Last=12345678\n", "12345678", "-"},
              {"a mebibyte without a final newline", "Last=123456789", "123456789", "-"},
              {"a line after the mebibyte", "Last=12345678\nAfter=1\n", "12345678", "-"},
              {"a line that goes beyond the mebibyte", "Last=1234567890\n", "-", "-"}};
  for (const auto& row : rows) {
    CAPTURE(row.name);
    ORVEX_Config config;
    CHECK(Configure(filling + row.text, config) == 0);
    std::string last = "-";
    std::string after = "-";
    config.GetConfigString("Last", last);
    config.GetConfigString("After", after);
    CHECK(last == row.last);
    CHECK(after == row.after);
  }
}

TEST_CASE("a file of more bytes than 32 bits count is read like any other") {
  std::ofstream("test.ini") << "Key=1\n";
  std::filesystem::resize_file("test.ini", uintmax_t{5} << 30);
  ORVEX_Config config;
  CHECK(config.ReadConfig("test.ini") == 0);
  std::string value;
  CHECK(config.GetConfigString("Key", value) == 0);
}
