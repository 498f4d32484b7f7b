#include "report/baseline.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "file/private_file.h"

namespace orvexscan {
namespace {

using Json = nlohmann::json;

constexpr int kDeepest = 8;  // more than any report

BaselineFile FileFrom(const Answer& answer) {
  const Identity& identity = answer.identity;
  return {LongestDigestOf(answer).digits,
          static_cast<int64_t>(identity.mtimeNs),
          identity.permissions,
          identity.owner,
          identity.group,
          identity.links};
}

std::string PathFrom(const Json& file) {
  if (!file.contains("pathHex")) return file.at("path");
  const std::string digits = file.at("pathHex");
  std::string path;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    path += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return path;
}

Baseline FromJson(const std::string& content, const std::string& digest) {
  // Depth is bounded, since walking through the result recurses for each level.
  const auto bounded = [](int depth, Json::parse_event_t, const Json&) {
    if (depth > kDeepest) throw std::runtime_error("it nests too deeply");
    return true;
  };
  const Json report = Json::parse(content, bounded);
  Baseline baseline;
  for (const Json& file : report.at("files")) {
    const Json& answer = file.at("answer");
    if (answer.is_null()) continue;
    if (!answer.contains(digest)) throw std::runtime_error("it has no " + digest);
    const Json& mtime = answer.at("mtime");
    baseline[PathFrom(file)] = {
        answer.at(digest),
        mtime.at("seconds").get<int64_t>() * 1000000000 + mtime.at("nanoseconds").get<int64_t>(),
        std::stoull(answer.at("permissions").get<std::string>(), nullptr, 8),
        answer.at("owner"),
        answer.at("group"),
        answer.at("links")};
  }
  return baseline;
}

bool IsBelow(const std::string& path, const std::vector<std::string>& roots) {
  return roots.empty() || std::any_of(roots.begin(), roots.end(), [&path](std::string root) {
           while (root.size() > 1 && root.back() == '/') root.pop_back();
           if (path == root) return true;
           if (root != "/") root += '/';
           return path.compare(0, root.size(), root) == 0;
         });
}

auto MetadataOf(const BaselineFile& file) {
  return std::tie(file.mtimeNs, file.permissions, file.owner, file.group, file.links);
}

}  // namespace

Baseline ReadBaseline(const std::string& path, const SnapshotRules& rules) {
  const std::optional<std::string> content = ReadPrivateFile(path, kMostSnapshotBytes);
  if (!content) throw std::runtime_error("there is no such file");
  if (!content->empty() && content->front() == '{') {
    return FromJson(*content, NamesOf(rules.parts.digests).back());
  }
  Snapshot snapshot(rules);
  snapshot.Parse(*content);
  Baseline baseline;
  for (const auto& [name, entry] : snapshot.entries()) baseline[name] = FileFrom(entry.answer);
  return baseline;
}

std::vector<Difference> Compare(const Baseline& baseline, const Inventory& inventory,
                                const std::vector<std::string>& roots) {
  std::map<std::string, Difference> differences;
  // By content, to recognise a file under its new name.
  std::multimap<std::string, std::string> gone;
  for (const auto& [path, file] : baseline) {
    const std::optional<size_t> record = inventory.Find(path);
    const bool there = record && !inventory.records()[*record].IsForgotten() &&
                       !(inventory.records()[*record].failure &&
                         inventory.records()[*record].failure->reason == FailureReason::kVanished);
    if (there || !IsBelow(path, roots)) continue;
    differences[path] = {"gone", path, ""};
    gone.emplace(file.digest, path);
  }
  for (const FileRecord& record : inventory.records()) {
    if (!record.answer) continue;
    const BaselineFile now = FileFrom(*record.answer);
    const auto before = baseline.find(record.path);
    const auto origin = gone.find(now.digest);
    if (before == baseline.end() && origin != gone.end()) {
      differences[record.path] = {"moved", record.path, origin->second};
      differences.erase(origin->second);
      gone.erase(origin);
    } else if (before == baseline.end()) {
      differences[record.path] = {"new", record.path, ""};
    } else if (before->second.digest != now.digest) {
      differences[record.path] = {"changed", record.path, ""};
    } else if (MetadataOf(before->second) != MetadataOf(now)) {
      differences[record.path] = {"metadata", record.path, ""};
    }
  }
  std::vector<Difference> inOrder;
  inOrder.reserve(differences.size());
  for (const auto& [path, difference] : differences) inOrder.push_back(difference);
  return inOrder;
}

}  // namespace orvexscan
