// One step of a random story, decoded from sixteen bytes.
#include "model/operation.h"

#include <algorithm>
#include <sstream>

namespace {

constexpr unsigned int kPaths = 8192;

// The first few are hard on keys and on log lines; one is null.
const std::vector<std::string>& PathsOfStories() {
  static const std::vector<std::string> paths = [] {
    std::vector<std::string> all = {
        "/bin/true",           "",      "/bin/tru", "/bin/true\x80", "/bin/true\x7f", "%s%n",
        std::string(600, 'a'), "(null)"};
    for (size_t i = all.size(); i < kPaths; ++i) all.push_back("/f/" + std::to_string(i));
    return all;
  }();
  return paths;
}

template <typename T, size_t kCount>
T Pick(const T (&values)[kCount], unsigned int choice) {
  return values[choice % kCount];
}

}  // namespace

Operation::Operation(const uint8_t* source) : bytes{} {
  std::copy(source, source + kBytes, bytes.begin());
}

Action Operation::GetAction() const {
  const uint8_t code = bytes[place::kAction] & 0x7f;
  if (code < kActions) return static_cast<Action>(code);
  return code % 5 == 0 ? Action::kUpdateMetadata : Action::kQuery;
}

uint64_t Operation::Number(unsigned int nibble) {
  static constexpr uint64_t kNumbers[16] = {0,           1,
                                            2,           3,
                                            4,           5,
                                            6,           7,
                                            8,           0x7fffffff,
                                            0x80000000,  0x100000000,
                                            0x100000001, 0x8000000000000000,
                                            0xffffffff,  0xffffffffffffffff};
  return kNumbers[nibble & 15];
}

const char* Operation::Path() const {
  const uint32_t choice = Word(place::kPath) % (kPaths + 1);
  return choice == kPaths ? nullptr : PathsOfStories()[choice].c_str();
}

metadata_input_s Operation::Input() const {
  metadata_input_s in{};
  in.reserved0 = 11;
  in.reserved1 = 12;
  in.reserved2 = 13;
  in.name = (bytes[place::kPath] & 1) != 0 ? "a name" : nullptr;
  in.path = Path();
  in.size = Number(bytes[place::kSizeAndMtime]);
  in.mtime = Number(bytes[place::kSizeAndMtime] >> 4);
  in.deviceID = Number(bytes[place::kIDs]);
  in.fileID = Number(bytes[place::kIDs] >> 4);
  in.fileOperation = (bytes[place::kKeyMask] & 0x7fU) | (bytes[place::kKeyMask] & 0x80U) << 24;
  in.invOperation = bytes[place::kInv];
  in.queryFlags = (Word(place::kWanted) & 0x7fffU) | (Word(place::kWanted) & 0x8000U) << 16;
  return in;
}

int Operation::Capacity() const {
  static constexpr int kCapacities[] = {1,  2,    3,    4,    5,  7,          16,
                                        64, 1000, 4095, 4096, 0,  4097,       -1,
                                        8,  6,    2,    1,    -5, 2147483647, -2147483647 - 1};
  return Pick(kCapacities, bytes[2]);
}

int Operation::Level() const {
  static constexpr int kLevels[] = {4, 3, 2, 1, 0, -1, 5, 2147483647, -2147483647 - 1, 4, 4, 3};
  return Pick(kLevels, bytes[1]);
}

std::string Operation::ConfigFile() const {
  static const std::string kKeys[] = {"LogEnable",        "LogLevel",      "DatabaseEnable",
                                      "ProfilingEnable",  "CacheCapacity", "CacheCapacity",
                                      "Unknown",          "#LogLevel",     "loglevel",
                                      " ProfilingEnable", "LogLevel",      "\tLogLevel"};
  static const std::string kBetween[] = {"=", " = ", "=", " ", "==", "= #", " =\t", "=\r", "  =  "};
  static const std::string kValues[] = {"1",
                                        "0",
                                        "4",
                                        "3",
                                        "2",
                                        "true",
                                        "-1",
                                        "9",
                                        "100000",
                                        "1024",
                                        "8",
                                        "99999999999",
                                        "18446744073709551617",
                                        "",
                                        "4 5",
                                        "3 # more",
                                        "#",
                                        "0x4",
                                        "+1",
                                        "1\r",
                                        "04",
                                        std::string("1\0 4", 4),
                                        std::string(300, '1'),
                                        "4294967299"};
  static const std::string kEnds[] = {"\n", "\n", "\n", " = \n", "\n\n", "\r\n", "", "="};
  std::string content;
  for (size_t line = 1; line + 3 < kBytes; line += 3) {
    if (bytes[line] == 0xff) break;
    content += Pick(kKeys, bytes[line]) + Pick(kBetween, bytes[line + 1] & 31U) +
               Pick(kValues, bytes[line + 2]) + Pick(kEnds, bytes[line + 1] / 32U);
  }
  // A filler that makes one line just short enough, just too long or far too long.
  const unsigned int filler = bytes[15];
  if (filler >= 0xc0) {
    content.insert((filler & 1U) != 0 ? 0 : content.size(),
                   "#" + std::string(252U + (filler >> 1U) % 4U, '=') + "\n");
  }
  return content;
}

Operations OperationsFrom(const uint8_t* bytes, size_t count) {
  Operations operations;
  for (size_t at = 0; at + Operation::kBytes <= count; at += Operation::kBytes) {
    operations.emplace_back(bytes + at);
  }
  return operations;
}

std::string HexOf(const Operations& operations) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const Operation& operation : operations) {
    for (const uint8_t byte : operation.bytes) {
      text += kDigits[byte >> 4];
      text += kDigits[byte & 15];
    }
    text += '\n';
  }
  return text;
}

Operations OperationsFromHex(const std::string& text) {
  std::vector<uint8_t> bytes;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    line.erase(std::min(line.find('#'), line.size()));
    for (size_t at = 0; at + 1 < line.size(); at += 2) {
      bytes.push_back(static_cast<uint8_t>(std::stoul(line.substr(at, 2), nullptr, 16)));
    }
  }
  return OperationsFrom(bytes.data(), bytes.size());
}
