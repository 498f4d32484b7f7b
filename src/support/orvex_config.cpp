// The configuration file.
#include "support/orvex_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "support/orvex_cancellation.h"
#include "support/orvex_log.h"

namespace {

constexpr char kConfigSourceFile[] = "orvex_config";

// The longest line that is read, its terminator included.
constexpr int kLineSize = 255;

// The most that is read: a bound on what anyone who can write to the host's directory can cost
// it in memory and time.
constexpr size_t kMostBytes = size_t{1024} * 1024;

// A file opened for reading, unless it is of a kind that could block or never end.
class OpenedFile {
 public:
  // Checks before opening, since opening a pipe or a device can have side effects; IsUsable checks
  // again what was opened.
  explicit OpenedFile(const std::string& path)
      : file_(IsReadable(AT_FDCWD, path.c_str(), 0) ? open(path.c_str(), kOpening) : -1) {}
  ~OpenedFile() {
    const ORVEX_CancellationHold hold;
    if (file_ >= 0) close(file_);
  }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  bool IsUsable() const { return file_ >= 0 && IsReadable(file_, "", AT_EMPTY_PATH); }

  // Empty for a directory.
  std::string FirstBytes() const {
    std::string content;
    char piece[4096];
    while (content.size() <= kMostBytes) {
      const ssize_t count = read(file_, piece, sizeof piece);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) break;
      content.append(piece, static_cast<size_t>(count));
    }
    // Drop a line that the limit cuts off.
    if (content.size() > kMostBytes) content.erase(content.rfind('\n', kMostBytes - 1) + 1);
    return content;
  }

 private:
  // NOLINTNEXTLINE(misc-redundant-expression): O_LARGEFILE is 0 on one target only.
  static constexpr int kOpening = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_LARGEFILE;

  // statx: no size, inode number or time overflows it on 32 bits.
  static bool IsReadable(int directory, const char* path, int flags) {
    struct statx status {};
    if (statx(directory, path, flags, STATX_TYPE, &status) != 0) return false;
    return S_ISREG(status.stx_mode) || S_ISDIR(status.stx_mode);
  }

  const int file_;
};

}  // namespace

template class ORVEX_Singleton<ORVEX_Config>;

std::string ORVEX_Config::ConfigFilePath = "orvexeng.ini";

ORVEX_Config::ORVEX_Config() = default;

ORVEX_Config::~ORVEX_Config() = default;

unsigned int ORVEX_Config::ReadConfig(std::string path) {
  const OpenedFile file(path);
  if (!file.IsUsable()) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_ERROR, __func__, kConfigSourceFile, "Open config file %s failed",
                      path.c_str());
    return ORVEX_CONFIG_NOT_OPENED;
  }
  std::istringstream lines(file.FirstBytes());
  char line[kLineSize] = {};
  while (lines.getline(line, kLineSize)) {
    if (line[0] != '\0') ParseLine(line);
  }
  return ORVEX_OK;
}

void ORVEX_Config::ParseLine(char* line) {
  if (std::strchr(line, '=') == nullptr) return;
  const char* key = nullptr;
  const char* value = nullptr;
  char* rest = nullptr;
  for (const char* token = strtok_r(line, " =", &rest); token != nullptr && token[0] != '#';
       token = strtok_r(nullptr, " =", &rest)) {
    if (key == nullptr) {
      key = token;
    } else if (value == nullptr) {
      value = token;
    } else {
      return;  // A third word: not an assignment.
    }
  }
  if (value != nullptr) entries_.insert_or_assign(key, value);
}

unsigned int ORVEX_Config::GetConfigInteger(const char* key, unsigned int& value) {
  const std::string* text = Find(key);
  if (text == nullptr) return ORVEX_CONFIG_ABSENT;
  if (text->find_first_not_of("0123456789") != std::string::npos) return ORVEX_CONFIG_MALFORMED;
  // The limit of the 32-bit product's long, on every target.
  constexpr long kLargest = 2147483647;
  value = static_cast<unsigned int>(std::min(std::strtol(text->c_str(), nullptr, 10), kLargest));
  return ORVEX_OK;
}

unsigned int ORVEX_Config::GetConfigString(const char* key, std::string& value) {
  const std::string* text = Find(key);
  if (text == nullptr) return ORVEX_CONFIG_ABSENT;
  value = *text;
  return ORVEX_OK;
}

unsigned int ORVEX_Config::GetConfigBool(const char* key, bool& value) {
  const std::string* text = Find(key);
  if (text == nullptr) return ORVEX_CONFIG_ABSENT;
  if (*text != "0" && *text != "1") return ORVEX_CONFIG_MALFORMED;
  value = *text == "1";
  return ORVEX_OK;
}

void ORVEX_Config::Dump() const {
  ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kConfigSourceFile, "Dump config map ...");
  for (const auto& [key, value] : entries_) {
    ORVEX_LOG_MESSAGE(ORVEX_LOG_DEBUG, __func__, kConfigSourceFile, "[CONFIG] %s=%s", key.c_str(),
                      value.c_str());
  }
}

const std::string* ORVEX_Config::Find(const char* key) const {
  const auto entry = entries_.find(key);
  return entry == entries_.end() ? nullptr : &entry->second;
}
