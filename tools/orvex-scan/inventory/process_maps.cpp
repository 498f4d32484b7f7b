#include "inventory/process_maps.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>

namespace orvexscan {
namespace {

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

using File = std::tuple<uint64_t, uint64_t, std::vector<std::string>>;

// These report other device numbers for a file than its mappings show.
bool NumbersDevicesItself(const std::string& path) {
  constexpr int64_t kOverlay = 0x794c7630;
  constexpr int64_t kBtrfs = 0x9123683e;
  struct statfs status {};
  if (statfs(path.c_str(), &status) != 0) return false;
  const auto type = static_cast<int64_t>(static_cast<uint32_t>(status.f_type));
  return type == kOverlay || type == kBtrfs;
}

enum class Lead { kNowhere, kToIt, kToNoRegularFile };

// Whether path names the mapped file. Does not open it: opening a device can have side effects.
Lead WhereLeads(const std::string& path, const MappedFile& file) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || status.st_ino != file.inode) return Lead::kNowhere;
  if (status.st_dev != file.device && !NumbersDevicesItself(path)) return Lead::kNowhere;
  return S_ISREG(status.st_mode) ? Lead::kToIt : Lead::kToNoRegularFile;
}

// How a file is reached, if it is.
struct Place {
  Lead lead = Lead::kNowhere;
  bool throughProcess = false;
  std::string path;
};

Place Find(const std::string& root, const MappedFile& file) {
  for (const bool throughProcess : {false, true}) {
    for (const std::string& name : file.names) {
      const std::string path = (throughProcess ? root : "") + name;
      const Lead lead = WhereLeads(path, file);
      if (lead != Lead::kNowhere) return {lead, throughProcess, path};
    }
  }
  return {};
}

// The files a process maps, each once, in address order; false if its maps may not be read.
bool ReadMaps(const std::string& process, std::vector<MappedFile>* files) {
  errno = 0;
  std::ifstream maps(process + "/maps");
  std::set<File> seen;
  std::string line;
  while (std::getline(maps, line)) {
    MappedFile file = ParseMapsLine(line);
    // If the name is ambiguous, its map_files link may give the real one.
    if (file.names.size() > 1) {
      std::error_code refused;
      const auto link = process + "/map_files/" + line.substr(0, line.find(' '));
      const auto name = std::filesystem::read_symlink(link, refused);
      if (!refused) file.names.insert(file.names.begin(), name.string());
    }
    if (!file.names.empty() && seen.emplace(file.device, file.inode, file.names).second) {
      files->push_back(std::move(file));
    }
  }
  return errno != EACCES && errno != EPERM;
}

void NoteIfAny(size_t count, const char* what, Inventory* inventory) {
  if (count != 0) inventory->AddNote(fmt::format("{}: {}", what, count));
}

std::optional<uint64_t> Number(const std::string& digits, int base) {
  uint64_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto result = std::from_chars(digits.data(), end, number, base);
  if (digits.empty() || result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

}  // namespace

void AddMappedFiles(const std::string& proc, Inventory* inventory) {
  // Each is searched for once: one path for all processes that map it.
  std::map<File, Place> places;
  size_t refused = 0;
  size_t processes = 0;
  for (const uint64_t number : ProcessNumbers(proc)) {
    const std::string process = fmt::format("{}/{}", proc, number);
    std::vector<MappedFile> files;
    if (!ReadMaps(process, &files)) ++refused;
    if (!files.empty()) ++processes;
    for (const MappedFile& file : files) {
      const auto [entry, isNew] =
          places.emplace(File{file.device, file.inode, file.names}, Place());
      if (isNew) entry->second = Find(process + "/root", file);
      if (entry->second.lead == Lead::kToIt) inventory->AddVisit(entry->second.path);
    }
  }
  const auto count = [&places](auto&& which) {
    return static_cast<size_t>(std::count_if(
        places.begin(), places.end(), [&which](const auto& entry) { return which(entry.second); }));
  };
  inventory->AddNote(fmt::format("Processes that map files: {}", processes));
  NoteIfAny(refused, "Processes that this user may not inspect", inventory);
  NoteIfAny(count([](const Place& place) { return place.throughProcess; }),
            "Mapped files with another name here, or none, read through a process", inventory);
  NoteIfAny(count([](const Place& place) { return place.lead == Lead::kNowhere; }),
            "Mapped files deleted or replaced since, left out", inventory);
}

MappedFile ParseMapsLine(const std::string& line) {
  // address permissions offset device inode, then blanks, then the path to the end.
  std::string fields[5];
  size_t at = 0;
  for (std::string& field : fields) {
    const size_t end = line.find(' ', at);
    if (end == std::string::npos) return {};
    field = line.substr(at, end - at);
    at = line.find_first_not_of(' ', end);
    if (at == std::string::npos) return {};
  }
  if (line[at] != '/') return {};  // [heap], anon_inode:...
  const size_t colon = fields[3].find(':');
  const auto major = Number(fields[3].substr(0, colon), 16);
  const auto minor =
      colon == std::string::npos ? std::nullopt : Number(fields[3].substr(colon + 1), 16);
  const auto inode = Number(fields[4], 10);
  if (!major || !minor || !inode) return {};

  MappedFile file;
  file.device = gnu_dev_makedev(static_cast<unsigned>(*major), static_cast<unsigned>(*minor));
  file.inode = *inode;
  std::string name = line.substr(at);
  file.names.push_back(name);
  for (size_t mark = name.find("\\012"); mark != std::string::npos;
       mark = name.find("\\012", mark + 1)) {
    name.replace(mark, 4, "\n");
  }
  if (name != file.names.front()) file.names.push_back(name);
  return file;
}

}  // namespace orvexscan
