// One step of a random story: sixteen bytes that mean something whatever they are,
// so that generators, fuzzers and the corpus speak of the same steps.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "orvexeng.h"

enum class Action : uint8_t {
  kInit,
  kDeinit,
  kGetStatus,
  kGetMetrics,
  kDumpMetrics,
  kResetMetrics,
  kDumpCache,
  kFlushCache,
  kSetCacheCapacity,
  kRegisterLogCallback,
  kProfilingSetEnable,
  kProfilingGetEnable,
  kDbInit,
  kDbSetEnable,
  kDbGetEnable,
  kDbGetStatus,
  kSetLogEnable,
  kSetLogLevel,
  kSetConfigFilePath,
  kWriteConfigFile,
  kRemoveConfigFile,
  kUpdateMetadata,
  kQuery,
};
constexpr uint8_t kActions = static_cast<uint8_t>(Action::kQuery) + 1;

// What a callback leaves behind.
enum class Outcome : uint8_t { kReturns, kThrowsInt, kThrowsBadAlloc };

// The bytes' places.
namespace place {
enum : size_t {
  kAction = 0,        // Actions; the rest of 127 are queries. Bit 7: inside a callback
  kPath = 1,          // two bytes
  kSizeAndMtime = 3,  // a nibble each
  kIDs = 4,           // a nibble each
  kKeyMask = 5,       // bit 7 is mapped to bit 31
  kInv = 6,           //
  kWanted = 7,        // two bytes; bit 15 is mapped to bit 31
  kRecords = 9,       // which output record, whether it is zeroed, null ones
  kHashOutcome = 10,  // low nibble for the hash callback, high for file types
  kNested = 11,       // how many following nested steps a callback takes, low two bits
  kParts = 12,        // what the hash callback or an update provides
  kSigners = 13,      // low nibble how many; high nibble what the bytes are
  kMutation = 14,     // what the callback does to its input
  kFileType = 15,     // what the file type callback provides
};
}  // namespace place

class Operation {
 public:
  static constexpr size_t kBytes = 16;

  Operation() : bytes{} {}
  explicit Operation(const uint8_t* source);

  Action GetAction() const;
  // Runs inside the callback of a query before it, if there is one.
  bool IsNested() const { return (bytes[place::kAction] & 0x80) != 0; }
  uint32_t Word(size_t at) const { return bytes[at] | uint32_t{bytes[at + 1]} << 8; }
  // A number for one of the identity fields: often small, sometimes huge.
  static uint64_t Number(unsigned int nibble);
  // Borrowed from a table; null for one of them.
  const char* Path() const;
  // Points into tables: good for ever.
  metadata_input_s Input() const;
  int Capacity() const;
  int Level() const;
  std::string ConfigFile() const;

  std::array<uint8_t, kBytes> bytes;
};

using Operations = std::vector<Operation>;

// Whole operations; a rest is dropped.
Operations OperationsFrom(const uint8_t* bytes, size_t count);
// One line of hexadecimal digits each; "#" starts a comment.
std::string HexOf(const Operations& operations);
Operations OperationsFromHex(const std::string& text);
