#include "report/file_lines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "terminal/printable.h"

namespace orvexscan {
namespace {

template <typename Digest>
std::string HexDigits(const Digest& digest) {
  return Hex(digest.data(), digest.size());
}

std::string Quoted(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char character : text) quoted += character == '"' ? "\"\"" : std::string(1, character);
  return quoted + "\"";
}

}  // namespace

std::string Sha256sumLine(const FileRecord& record) {
  if (!record.answer) return {};
  // A backslash in front tells that there are some in the name.
  std::string name;
  for (const char character : record.path) {
    name += character == '\\'   ? "\\\\"
            : character == '\n' ? "\\n"
            : character == '\r' ? "\\r"
                                : std::string(1, character);
  }
  return fmt::format("{}{}  {}\n", name == record.path ? "" : "\\",
                     HexDigits(record.answer->sha256), name);
}

std::string CsvHeader() {
  return "path,size,mtimeNs,md5,sha1,sha256,type,signature,unverifiedSigners,failure\r\n";
}

std::string CsvLine(const FileRecord& record) {
  std::vector<std::string> cells(10);
  cells[0] = record.path;
  if (record.answer) {
    const Answer& answer = *record.answer;
    cells[1] = fmt::format("{}", answer.identity.size);
    cells[2] = fmt::format("{}", static_cast<int64_t>(answer.identity.mtimeNs));
    cells[3] = HexDigits(answer.md5);
    cells[4] = HexDigits(answer.sha1);
    cells[5] = HexDigits(answer.sha256);
    if (answer.parts.type) cells[6] = NameOfMajor(answer.type.major);
    cells[7] = NameOf(record.certificates.signature);
    cells[8] = fmt::format("{}", fmt::join(answer.signers, "; "));
  }
  if (record.failure) cells[9] = record.failure->detail;
  std::transform(cells.begin(), cells.end(), cells.begin(), Quoted);
  return fmt::format("{}\r\n", fmt::join(cells, ","));
}

}  // namespace orvexscan
