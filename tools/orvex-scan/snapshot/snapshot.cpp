#include "snapshot/snapshot.h"

#include <fmt/format.h>
#include <magic.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "content/signer_names.h"
#include "file/private_file.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

// Lines and fields, nothing that nests: no file can make the parser recurse.
//
// The first line names the layout, the second what the answers depend on. Then one line
// for each file with a tab between its fields, texts as hexadecimal digits, and at the end
// the digest of all that comes before.
constexpr std::string_view kFirstLine = "orvex-scan snapshot 3\n";
constexpr std::string_view kChecksumMark = "sha256 ";
constexpr size_t kChecksumLine = kChecksumMark.size() + 64 + 1;

constexpr char kField = '\t';
constexpr char kListMark = ':';  // before each text of a list

std::runtime_error Malformed() { return std::runtime_error("it is malformed"); }

template <typename Bytes>
std::string ToHex(const Bytes& bytes) {
  return Hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

template <typename Bytes>
void FromHex(std::string_view digits, Bytes* bytes) {
  if (digits.size() != bytes->size() * 2) throw Malformed();
  for (size_t i = 0; i < bytes->size(); ++i) {
    uint8_t byte = 0;
    const char* const end = digits.data() + 2 * i + 2;
    const auto result = std::from_chars(end - 2, end, byte, 16);
    if (result.ec != std::errc() || result.ptr != end) throw Malformed();
    (*bytes)[i] = static_cast<typename Bytes::value_type>(byte);
  }
}

std::string TextFromHex(std::string_view digits) {
  std::string text(digits.size() / 2, '\0');
  FromHex(digits, &text);
  return text;
}

std::string ListToHex(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts) list += kListMark + ToHex(text);
  return list;
}

std::vector<std::string> ListFromHex(std::string_view list, size_t most) {
  std::vector<std::string> texts;
  while (!list.empty()) {
    if (list[0] != kListMark || texts.size() == most) throw Malformed();
    list.remove_prefix(1);
    const size_t end = std::min(list.find(kListMark), list.size());
    texts.push_back(TextFromHex(list.substr(0, end)));
    list.remove_prefix(end);
  }
  return texts;
}

// Removes and returns the text before the next mark, and removes the mark. Without a mark that is
// all of it, once.
std::string_view Take(std::string_view* text, char mark) {
  if (text->data() == nullptr) throw Malformed();
  const size_t end = text->find(mark);
  const std::string_view taken = text->substr(0, end);
  *text = end == std::string_view::npos ? std::string_view() : text->substr(end + 1);
  return taken;
}

template <typename Number>
Number TakeNumber(std::string_view* line) {
  const std::string_view digits = Take(line, kField);
  Number number{};
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (result.ec != std::errc() || result.ptr != digits.data() + digits.size()) throw Malformed();
  return number;
}

constexpr uint64_t Identity::*kIdentityFields[] = {
    &Identity::size,        &Identity::mtimeNs,    &Identity::ctimeNs, &Identity::device,
    &Identity::inode,       &Identity::generation, &Identity::birthNs, &Identity::mount,
    &Identity::permissions, &Identity::owner,      &Identity::group,   &Identity::links};

std::string IdentityText(const Identity& identity) {
  std::string text;
  for (const auto field : kIdentityFields) text += fmt::format("{}\t", identity.*field);
  text.pop_back();
  return text;
}

Identity TakeIdentity(std::string_view* line, IdentityMode mode) {
  Identity identity;
  identity.mode = mode;
  for (const auto field : kIdentityFields) identity.*field = TakeNumber<uint64_t>(line);
  return identity;
}

// Empty for one that was not asked for.
template <typename Digest>
std::string DigestToHex(int algorithm, const Digest& digest) {
  return algorithm == NID_undef ? "" : ToHex(digest);
}

template <typename Digest>
void TakeDigest(int algorithm, std::string_view* line, Digest* digest) {
  const std::string_view digits = Take(line, kField);
  if (algorithm != NID_undef) return FromHex(digits, digest);
  if (!digits.empty()) throw Malformed();
}

std::string LineOf(const std::string& path, const SnapshotEntry& entry) {
  const Answer& answer = entry.answer;
  const DigestChoice& algorithms = answer.parts.digests;
  return fmt::format(
      "{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\n", ToHex(path), IdentityText(answer.identity),
      DigestToHex(algorithms[0], answer.digest16), DigestToHex(algorithms[1], answer.digest20),
      DigestToHex(algorithms[2], answer.digest32), answer.type.major, answer.type.minor,
      ListToHex(answer.signers), ListToHex(entry.certificates.faults),
      static_cast<int>(entry.certificates.signature));
}

SnapshotEntry TakeEntry(std::string_view* line, const SnapshotRules& rules) {
  SnapshotEntry entry;
  Answer& answer = entry.answer;
  answer.identity = TakeIdentity(line, rules.identity);
  answer.parts = rules.parts;
  TakeDigest(rules.parts.digests[0], line, &answer.digest16);
  TakeDigest(rules.parts.digests[1], line, &answer.digest20);
  TakeDigest(rules.parts.digests[2], line, &answer.digest32);
  answer.type.major = TakeNumber<int32_t>(line);
  answer.type.minor = TakeNumber<int32_t>(line);
  answer.signers = ListFromHex(Take(line, kField), kMostSigners);
  entry.certificates.faults = ListFromHex(Take(line, kField), std::numeric_limits<uint8_t>::max());
  const int signature = TakeNumber<int>(line);
  if (signature < 0 || signature > static_cast<int>(SignatureMatch::kDoesNotMatch)) {
    throw Malformed();
  }
  entry.certificates.signature = static_cast<SignatureMatch>(signature);
  if (line->data() != nullptr) throw Malformed();
  return entry;
}

// The versions that must match for old answers to hold.
std::string Writer() { return fmt::format("{}\t{}", ORVEX_SCAN_VERSION, magic_version()); }

const char* NameOfParts(const WantedParts& parts) {
  if (!parts.type) return parts.signers ? "no type" : "no type, no signers";
  return parts.signers ? "all" : "no signers";
}

std::string ListOf(const DigestChoice& choice) {
  return fmt::format("{}", fmt::join(NamesOf(choice), ","));
}

void CheckOrigin(std::string_view line, const SnapshotRules& rules) {
  const std::string writer = fmt::format("{}\t", Writer());
  if (line.substr(0, writer.size()) != writer) {
    throw std::runtime_error("another version of the tool wrote it");
  }
  line.remove_prefix(writer.size());
  if (Take(&line, kField) != NameOf(rules.identity)) {
    throw std::runtime_error("it was written with another --identity");
  }
  if (TakeNumber<int>(&line) < rules.settleSeconds) {
    throw std::runtime_error("it was written with a shorter --settle");
  }
  if (Take(&line, kField) != NameOfParts(rules.parts)) {
    throw std::runtime_error("it was written with another --no-type or --no-signers");
  }
  if (Take(&line, kField) != ListOf(rules.parts.digests)) {
    throw std::runtime_error("it was written with other --digests");
  }
  if (line.data() != nullptr) throw Malformed();
}

bool StillHolds(const std::string& path, const SnapshotEntry& entry) {
  try {
    // A path that was no link has the same identity either way.
    const Identity& known = entry.answer.identity;
    return IdentityOf(path, true, known.mode) == known;
  } catch (const FileFailure&) {
    return false;
  }
}

}  // namespace

void Snapshot::Read(const std::string& path) {
  const std::optional<std::string> content = ReadPrivateFile(path, kMostSnapshotBytes);
  if (content) Parse(*content);
}

void Snapshot::Parse(const std::string& content) {
  if (content.compare(0, kFirstLine.size(), kFirstLine) != 0) {
    throw std::runtime_error("it is not a snapshot, or was written by another version of the tool");
  }
  if (content.size() < kFirstLine.size() + kChecksumLine) throw std::runtime_error("it is cut off");
  const std::string text = content.substr(0, content.size() - kChecksumLine);
  if (WithChecksum(text) != content) throw std::runtime_error("its checksum is wrong");

  std::string_view rest = text;
  rest.remove_prefix(kFirstLine.size());
  CheckOrigin(Take(&rest, '\n'), rules_);
  if (static_cast<size_t>(std::count(rest.begin(), rest.end(), '\n')) > kMostSnapshotFiles) {
    throw std::runtime_error("it holds too many files");
  }
  std::map<std::string, SnapshotEntry> entries;
  while (!rest.empty()) {
    std::string_view line = Take(&rest, '\n');
    const std::string path = TextFromHex(Take(&line, kField));
    entries[path] = TakeEntry(&line, rules_);
  }
  entries_ = std::move(entries);
}

const SnapshotEntry* Snapshot::Find(const std::string& path, const Identity& identity) const {
  const auto found = entries_.find(path);
  if (found == entries_.end() || found->second.answer.identity != identity) return nullptr;
  return &found->second;
}

void Snapshot::Update(const Inventory& inventory) {
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    const std::optional<size_t> record = inventory.Find(entry->first);
    const bool asked = record && inventory.records()[*record].WasAsked();
    entry = asked || !StillHolds(entry->first, entry->second) ? entries_.erase(entry) : ++entry;
  }
  for (const FileRecord& record : inventory.records()) {
    if (entries_.size() == kMostSnapshotFiles) return;
    if (record.answer && record.answer->settled) {
      entries_[record.path] = {*record.answer, record.certificates};
    }
  }
}

void Snapshot::Write(const std::string& path) const {
  ReplaceFile(path, Text(), Access::kOwnerAlone);
}

std::string Snapshot::Text() const {
  std::string text(kFirstLine);
  text +=
      fmt::format("{}\t{}\t{}\t{}\t{}\n", Writer(), NameOf(rules_.identity), rules_.settleSeconds,
                  NameOfParts(rules_.parts), ListOf(rules_.parts.digests));
  for (const auto& [path, entry] : entries_) {
    const std::string line = LineOf(path, entry);
    if (text.size() + line.size() + kChecksumLine > kMostSnapshotBytes) break;
    text += line;
  }
  return WithChecksum(text);
}

std::string WithChecksum(const std::string& text) {
  std::array<unsigned char, 32> digest{};
  if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("OpenSSL cannot calculate a digest");
  }
  return fmt::format("{}{}{}\n", text, kChecksumMark, ToHex(digest));
}

}  // namespace orvexscan
