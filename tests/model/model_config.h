// The model's reading of orvexeng.ini.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

// Keys and values in the order of their first appearance.
class ModelConfig {
 public:
  // Takes the content of a file as its lines say.
  void Read(const std::string& content);

  // The value as a number or a switch, if it is there and acceptable.
  std::optional<unsigned int> Integer(const std::string& key) const;
  std::optional<bool> Bool(const std::string& key) const;
  const std::string* Text(const std::string& key) const;
  // Sorted by key.
  std::vector<std::pair<std::string, std::string>> Sorted() const;

 private:
  void ReadLine(const std::string& line);

  std::vector<std::pair<std::string, std::string>> entries_;
};

// What the file holds, or nothing if it cannot be opened or is neither a regular file
// nor a directory. A directory opens and holds nothing.
std::optional<std::string> ContentOf(const std::string& path);
