// The model's reading of orvexeng.ini.
#include "model/model_config.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

constexpr size_t kMebibyte = 1 << 20;

}  // namespace

void ModelConfig::Read(const std::string& content) {
  size_t start = 0;
  while (start < content.size()) {
    size_t end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    // An overlong line ends the reading, and so does one that crosses the first mebibyte.
    if (end - start >= 255 || end + (end < content.size()) > kMebibyte) return;
    const std::string line = content.substr(start, end - start);
    ReadLine(line.substr(0, line.find('\0')));
    start = end + 1;
  }
}

void ModelConfig::ReadLine(const std::string& line) {
  if (line.find('=') == std::string::npos) return;
  std::vector<std::string> words;
  std::string word;
  for (const char letter : line + "=") {
    if (letter != ' ' && letter != '=') {
      word += letter;
    } else if (!word.empty()) {
      words.push_back(word);
      word.clear();
    }
  }
  const auto comment = std::find_if(words.begin(), words.end(),
                                    [](const std::string& text) { return text[0] == '#'; });
  words.erase(comment, words.end());
  if (words.size() != 2) return;
  for (auto& [key, value] : entries_) {
    if (key != words[0]) continue;
    value = words[1];
    return;
  }
  entries_.emplace_back(words[0], words[1]);
}

const std::string* ModelConfig::Text(const std::string& key) const {
  for (const auto& entry : entries_) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

std::optional<unsigned int> ModelConfig::Integer(const std::string& key) const {
  const std::string* const text = Text(key);
  if (text == nullptr) return std::nullopt;
  constexpr uint64_t kLimit = 2147483647;
  uint64_t value = 0;
  for (const char digit : *text) {
    if (digit < '0' || digit > '9') return std::nullopt;
    value = std::min(kLimit, value * 10 + static_cast<uint64_t>(digit - '0'));
  }
  return static_cast<unsigned int>(value);
}

std::optional<bool> ModelConfig::Bool(const std::string& key) const {
  const std::string* const text = Text(key);
  if (text == nullptr || (*text != "0" && *text != "1")) return std::nullopt;
  return *text == "1";
}

std::vector<std::pair<std::string, std::string>> ModelConfig::Sorted() const {
  auto sorted = entries_;
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

std::optional<std::string> ContentOf(const std::string& path) {
  std::error_code failed;
  const auto kind = std::filesystem::status(path, failed).type();
  if (kind == std::filesystem::file_type::directory) return "";
  if (kind != std::filesystem::file_type::regular) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}
