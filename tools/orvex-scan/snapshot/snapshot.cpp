#include "snapshot/snapshot.h"

#include <magic.h>

#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "content/signer_names.h"
#include "snapshot/private_file.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

using Json = nlohmann::ordered_json;

// What of the tool must not have changed: the layout of the file, and what an answer
// about the same content would be today.
Json Writer() {
  return {{"snapshot", 1}, {"tool", ORVEX_SCAN_VERSION}, {"libmagic", magic_version()}};
}

std::runtime_error Malformed() { return std::runtime_error("it is malformed"); }

// Bytes as digits, since JSON knows nothing but UTF-8.
template <typename Bytes>
std::string ToHex(const Bytes& bytes) {
  return Hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

template <typename Bytes>
void FromHex(const std::string& digits, Bytes* bytes) {
  if (digits.size() != bytes->size() * 2) throw Malformed();
  for (size_t i = 0; i < bytes->size(); ++i) {
    uint8_t byte = 0;
    const char* const end = digits.data() + 2 * i + 2;
    const auto result = std::from_chars(end - 2, end, byte, 16);
    if (result.ec != std::errc() || result.ptr != end) throw Malformed();
    (*bytes)[i] = static_cast<typename Bytes::value_type>(byte);
  }
}

std::string TextFromHex(const std::string& digits) {
  std::string text(digits.size() / 2, '\0');
  FromHex(digits, &text);
  return text;
}

Json JsonOf(const Identity& identity) {
  return {{"size", identity.size},       {"mtimeNs", identity.mtimeNs},
          {"ctimeNs", identity.ctimeNs}, {"device", identity.device},
          {"inode", identity.inode},     {"generation", identity.generation},
          {"birthNs", identity.birthNs}, {"mount", identity.mount}};
}

Identity IdentityFrom(const Json& json, IdentityMode mode) {
  Identity identity;
  identity.mode = mode;
  json.at("size").get_to(identity.size);
  json.at("mtimeNs").get_to(identity.mtimeNs);
  json.at("ctimeNs").get_to(identity.ctimeNs);
  json.at("device").get_to(identity.device);
  json.at("inode").get_to(identity.inode);
  json.at("generation").get_to(identity.generation);
  json.at("birthNs").get_to(identity.birthNs);
  json.at("mount").get_to(identity.mount);
  return identity;
}

Json JsonOf(const FileRecord& record) {
  const Answer& answer = *record.answer;
  Json signers = Json::array();
  for (const std::string& name : answer.signers) signers.push_back(ToHex(name));
  return {{"path", ToHex(record.path)},
          {"identity", JsonOf(answer.identity)},
          {"md5", ToHex(answer.md5)},
          {"sha1", ToHex(answer.sha1)},
          {"sha256", ToHex(answer.sha256)},
          {"signers", signers},
          {"major", answer.type.major},
          {"minor", answer.type.minor},
          {"certificateFaults", record.certificateFaults}};
}

SnapshotEntry EntryFrom(const Json& json, IdentityMode mode) {
  SnapshotEntry entry;
  entry.path = TextFromHex(json.at("path"));
  Answer& answer = entry.answer;
  answer.identity = IdentityFrom(json.at("identity"), mode);
  FromHex(json.at("md5"), &answer.md5);
  FromHex(json.at("sha1"), &answer.sha1);
  FromHex(json.at("sha256"), &answer.sha256);
  for (const Json& name : json.at("signers")) answer.signers.push_back(TextFromHex(name));
  if (answer.signers.size() > kMostSigners) throw Malformed();
  json.at("major").get_to(answer.type.major);
  json.at("minor").get_to(answer.type.minor);
  json.at("certificateFaults").get_to(entry.certificateFaults);
  return entry;
}

void CheckOrigin(const Json& snapshot, const Options& options) {
  if (snapshot.at("writer") != Writer()) {
    throw std::runtime_error("another version of the tool wrote it");
  }
  if (snapshot.at("identity") != NameOf(options.identity)) {
    throw std::runtime_error("it was written with another --identity");
  }
  if (snapshot.at("settleSeconds").get<int>() < options.settleSeconds) {
    throw std::runtime_error("it was written with a shorter --settle");
  }
}

}  // namespace

std::vector<SnapshotEntry> ReadSnapshot(const Options& options) {
  std::vector<SnapshotEntry> entries;
  const std::optional<std::string> content = ReadPrivateFile(options.snapshot);
  if (!content) return entries;
  try {
    const Json snapshot = Json::parse(*content);
    CheckOrigin(snapshot, options);
    for (const Json& answer : snapshot.at("answers")) {
      entries.push_back(EntryFrom(answer, options.identity));
    }
  } catch (const Json::exception&) {
    throw Malformed();
  }
  return entries;
}

void WriteSnapshot(const Options& options, const Inventory& inventory) {
  Json answers = Json::array();
  for (const FileRecord& record : inventory.records()) {
    if (answers.size() == static_cast<size_t>(options.capacity)) break;
    if (record.answer && record.answer->settled) answers.push_back(JsonOf(record));
  }
  const Json snapshot = {{"writer", Writer()},
                         {"identity", NameOf(options.identity)},
                         {"settleSeconds", options.settleSeconds},
                         {"answers", answers}};
  ReplacePrivateFile(options.snapshot, snapshot.dump(1) + "\n");
}

}  // namespace orvexscan
