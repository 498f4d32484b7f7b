#include "report/file_lines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace orvexscan {
namespace {

std::string Quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char character : text) quoted += character == '"' ? "\"\"" : std::string(1, character);
  return quoted + "\"";
}

}  // namespace

std::string Sha256sumLine(const FileRecord& record) {
  if (!record.answer) return {};
  // A leading backslash says that the name is escaped.
  std::string name;
  for (const char character : record.path) {
    name += character == '\\'   ? "\\\\"
            : character == '\n' ? "\\n"
            : character == '\r' ? "\\r"
                                : std::string(1, character);
  }
  return fmt::format("{}{}  {}\n", name == record.path ? "" : "\\",
                     LongestDigestOf(*record.answer).digits, name);
}

std::string CsvHeader(const DigestChoice& digests) {
  return fmt::format("path,size,mtimeNs,{},type,signature,unverifiedSigners,failure\r\n",
                     fmt::join(NamesOf(digests), ","));
}

std::string CsvLine(const FileRecord& record, const DigestChoice& digests) {
  std::vector<std::string> cells = {record.path};
  if (record.answer) {
    const Answer& answer = *record.answer;
    cells.push_back(fmt::format("{}", answer.identity.size));
    cells.push_back(fmt::format("{}", static_cast<int64_t>(answer.identity.mtimeNs)));
    for (const NamedDigest& digest : DigestsOf(answer)) cells.push_back(digest.digits);
    cells.emplace_back(answer.parts.type ? NameOfMajor(answer.type.major) : "");
    cells.emplace_back(NameOf(record.certificates.signature));
    cells.push_back(fmt::format("{}", fmt::join(answer.signers, "; ")));
  }
  cells.resize(6 + NamesOf(digests).size());
  cells.push_back(record.failure ? record.failure->detail : "");
  std::transform(cells.begin(), cells.end(), cells.begin(), Quoted);
  return fmt::format("{}\r\n", fmt::join(cells, ","));
}

}  // namespace orvexscan
