#include "content/pe_certificates.h"

#include <fmt/format.h>

#include <cstdint>

#include "content/faults.h"

namespace orvexscan {
namespace {

constexpr size_t kDosHeaderSize = 64;
constexpr size_t kPeOffsetAt = 60;        // in the DOS header
constexpr size_t kPeHeaderSize = 4 + 20;  // the signature and the COFF header
constexpr size_t kOptionalSizeAt = 4 + 16;
constexpr uint16_t kPe32 = 0x10b;
constexpr uint16_t kPe32Plus = 0x20b;
constexpr size_t kDirectoriesAt32 = 96;  // in the optional header; their count is just before
constexpr size_t kDirectoriesAt32Plus = 112;
constexpr size_t kChecksumAt = 64;  // in the optional header of both formats
constexpr size_t kDirectorySize = 8;
constexpr size_t kCertificateDirectory = 4;
constexpr size_t kEntryHeaderSize = 8;
constexpr size_t kEntryAlignment = 8;
constexpr uint16_t kRevision1 = 0x0100;
constexpr uint16_t kRevision2 = 0x0200;
constexpr uint16_t kPkcs7 = 2;
// Real tables are some ten kilobytes.
constexpr int kMostEntries = 256;
constexpr uint32_t kMostTableBytes = 1 << 20;

uint16_t U16(const unsigned char* bytes) { return static_cast<uint16_t>(bytes[0] | bytes[1] << 8); }

uint32_t U32(const unsigned char* bytes) {
  return U16(bytes) | static_cast<uint32_t>(U16(bytes + 2)) << 16;
}

// Without a table its offset and size are 0.
PeLayout FindTable(FileReader* file) {
  unsigned char dos[kDosHeaderSize];
  if (file->ReadAt(0, dos, sizeof dos) < sizeof dos || dos[0] != 'M' || dos[1] != 'Z') return {};

  const uint64_t peOffset = U32(dos + kPeOffsetAt);
  unsigned char pe[kPeHeaderSize];
  if (file->ReadAt(peOffset, pe, sizeof pe) < sizeof pe || pe[0] != 'P' || pe[1] != 'E' ||
      pe[2] != 0 || pe[3] != 0) {
    return {};  // a plain DOS program, or another format with that beginning
  }

  constexpr size_t kEnough = kDirectoriesAt32Plus + (kCertificateDirectory + 1) * kDirectorySize;
  unsigned char optional[kEnough] = {};
  const size_t length = file->ReadAt(peOffset + kPeHeaderSize, optional, sizeof optional);
  const uint16_t magic = U16(optional);
  if (magic != kPe32 && magic != kPe32Plus) return {};

  const size_t directories = magic == kPe32 ? kDirectoriesAt32 : kDirectoriesAt32Plus;
  const size_t entry = directories + kCertificateDirectory * kDirectorySize;
  const bool present = U32(optional + directories - 4) > kCertificateDirectory &&
                       U16(pe + kOptionalSizeAt) >= entry + kDirectorySize &&
                       length >= entry + kDirectorySize;
  if (!present) return {};
  const uint64_t optionalAt = peOffset + kPeHeaderSize;
  return {optionalAt + kChecksumAt, optionalAt + entry, U32(optional + entry),
          U32(optional + entry + 4)};
}

// A fault in an entry's length, which makes everything after it unreadable.
std::string FaultOfLength(uint32_t length, size_t left) {
  if (length == 0) return "has zero length";
  if (length < kEntryHeaderSize) return fmt::format("has a length of {}, below its header", length);
  if (length > left) return fmt::format("is truncated: {} bytes of {}", left, length);
  return {};
}

void SplitTable(const std::vector<unsigned char>& table, PeCertificates* found) {
  size_t at = 0;
  for (int number = 1; at < table.size(); ++number) {
    if (number > kMostEntries) {
      AddFault(fmt::format("there are more than {} entries", kMostEntries), &found->faults);
      return;
    }
    const size_t left = table.size() - at;
    if (left < kEntryHeaderSize) {
      AddFault(
          fmt::format("entry {} is truncated: {} bytes are too few for a header", number, left),
          &found->faults);
      return;
    }
    const unsigned char* entry = table.data() + at;
    const uint32_t length = U32(entry);
    const std::string fault = FaultOfLength(length, left);
    if (!fault.empty()) {
      AddFault(fmt::format("entry {} {}", number, fault), &found->faults);
      return;
    }
    const uint16_t revision = U16(entry + 4);
    const uint16_t type = U16(entry + 6);
    if (revision != kRevision1 && revision != kRevision2) {
      AddFault(fmt::format("entry {} has the unknown revision {:#06x}", number, revision),
               &found->faults);
    } else if (type == kPkcs7) {
      found->signatures.emplace_back(entry + kEntryHeaderSize, entry + length);
    } else {
      AddFault(fmt::format("entry {} is of type {}, not PKCS#7", number, type), &found->faults);
    }
    at += (length + kEntryAlignment - 1) / kEntryAlignment * kEntryAlignment;
  }
}

}  // namespace

PeCertificates ReadPeCertificates(FileReader* file) {
  PeCertificates found;
  const PeLayout place = FindTable(file);
  found.layout = place;
  if (place.tableAt == 0 && place.tableSize == 0) return found;
  if (place.tableSize == 0) {
    AddFault("the table has zero length", &found.faults);
    return found;
  }
  const uint64_t end = place.tableAt + place.tableSize;
  if (end > file->size()) {
    AddFault(fmt::format("the table ends at {}, past the end of the file at {}", end, file->size()),
             &found.faults);
    return found;
  }
  if (place.tableSize > kMostTableBytes) {
    AddFault(fmt::format("the table has {} bytes, more than any real one", place.tableSize),
             &found.faults);
    return found;
  }
  std::vector<unsigned char> table(static_cast<size_t>(place.tableSize));
  table.resize(file->ReadAt(place.tableAt, table.data(), table.size()));
  SplitTable(table, &found);
  return found;
}

}  // namespace orvexscan
