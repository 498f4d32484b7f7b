#include "inventory/process_maps.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

namespace orvexscan {
namespace {

constexpr const char kDeleted[] = " (deleted)";
constexpr size_t kDeletedLength = sizeof kDeleted - 1;

bool EndsInDeleted(const std::string& path) {
  return path.size() > kDeletedLength &&
         path.compare(path.size() - kDeletedLength, kDeletedLength, kDeleted) == 0;
}

std::set<uint64_t> ProcessNumbers(const std::string& proc) {
  std::set<uint64_t> numbers;
  for (const auto& entry : std::filesystem::directory_iterator(proc)) {
    const std::string name = entry.path().filename().string();
    const bool isNumber = std::all_of(name.begin(), name.end(),
                                      [](char digit) { return digit >= '0' && digit <= '9'; });
    if (isNumber && name.size() < 19) numbers.insert(std::stoull(name));
  }
  return numbers;
}

enum class Kind { kRegular, kOther, kDeletedSince };

// Looks at each path once, however many processes map it.
class Kinds {
 public:
  Kind Of(const std::string& path) {
    const auto [entry, isNew] = known_.emplace(path, Kind::kRegular);
    if (isNew) entry->second = Look(path);
    return entry->second;
  }

 private:
  static Kind Look(const std::string& path) {
    try {
      IdentityOf(path, false);
    } catch (const FileFailure& failure) {
      if (failure.reason() == FailureReason::kNotRegular) return Kind::kOther;
      if (EndsInDeleted(path)) return Kind::kDeletedSince;
      // The scan meets it again and tells why it cannot be read.
    }
    return Kind::kRegular;
  }

  std::map<std::string, Kind> known_;
};

// The paths a process maps, each once, in the order of its memory; false when its maps
// may not be read.
bool MappedPaths(const std::string& mapsFile, std::vector<std::string>* paths) {
  errno = 0;
  std::ifstream maps(mapsFile);
  std::set<std::string> seen;
  std::string line;
  while (std::getline(maps, line)) {
    const std::string path = PathInMapsLine(line);
    if (!path.empty() && seen.insert(path).second) paths->push_back(path);
  }
  return errno != EACCES && errno != EPERM;
}

}  // namespace

void AddMappedFiles(const std::string& proc, Inventory* inventory) {
  Kinds kinds;
  std::set<std::string> deleted;
  size_t refused = 0;
  size_t processes = 0;
  for (const uint64_t number : ProcessNumbers(proc)) {
    std::vector<std::string> paths;
    if (!MappedPaths(fmt::format("{}/{}/maps", proc, number), &paths)) ++refused;
    if (!paths.empty()) ++processes;
    for (const std::string& path : paths) {
      const Kind kind = kinds.Of(path);
      if (kind == Kind::kRegular) inventory->AddVisit(path);
      if (kind == Kind::kDeletedSince) deleted.insert(path);
    }
  }
  inventory->AddNote(fmt::format("{} processes map files", processes));
  if (refused != 0) {
    inventory->AddNote(fmt::format("{} processes may not be looked at by this user", refused));
  }
  if (!deleted.empty()) {
    inventory->AddNote(
        fmt::format("{} mapped files have been deleted and are left out", deleted.size()));
  }
}

std::string PathInMapsLine(const std::string& line) {
  // address permissions offset device inode, then blanks, then the path to the end.
  size_t at = 0;
  for (int field = 0; field < 5; ++field) {
    at = line.find_first_of(' ', at);
    if (at == std::string::npos) return {};
    at = line.find_first_not_of(' ', at);
    if (at == std::string::npos) return {};
  }
  if (line[at] != '/') return {};  // [heap], anon_inode:...
  std::string path = line.substr(at);
  // The one character that the system writes in another way here.
  for (size_t mark = path.find("\\012"); mark != std::string::npos;
       mark = path.find("\\012", mark + 1)) {
    path.replace(mark, 4, "\n");
  }
  return path;
}

}  // namespace orvexscan
