// Answers that show which calculation they come from.
#include "harness/stamped_answer.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kAllDigests =
    QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_AUX_DIGEST20;

uint32_t CountOfSigners(const Stamp& stamp) { return stamp.serial % 3; }

// The stamp again and again, as far as it goes.
template <size_t kLength>
void Fill(uint8_t (&digest)[kLength], const Stamp& stamp) {
  for (size_t at = 0; at < kLength; at += sizeof stamp) {
    std::memcpy(digest + at, &stamp, std::min(sizeof stamp, kLength - at));
  }
}

template <size_t kLength>
bool IsFilled(const uint8_t (&digest)[kLength], const Stamp& stamp) {
  uint8_t expected[kLength];
  Fill(expected, stamp);
  return std::memcmp(digest, expected, kLength) == 0;
}

// One signer's slot: a letter to its end.
void FillSlot(char* slot, const Stamp& stamp, uint32_t number) {
  std::memset(slot, static_cast<int>('a' + (stamp.serial / 3 + number) % 26),
              ORVEX_SIGNER_SLOT - 1);
  slot[ORVEX_SIGNER_SLOT - 1] = '\0';
}

bool IsSlotFilled(const char* slot, const Stamp& stamp, uint32_t number) {
  char expected[ORVEX_SIGNER_SLOT];
  FillSlot(expected, stamp, number);
  return std::memcmp(slot, expected, sizeof expected) == 0;
}

}  // namespace

void FillStamped(metadata_output_s& out, const Stamp& stamp, bool signersWanted) {
  Fill(out.digest16, stamp);
  Fill(out.digest20, stamp);
  Fill(out.digest32, stamp);
  Fill(out.auxDigest20, stamp);
  out.queryFlags |= kAllDigests;
  delete[] out.signers;
  out.signers = nullptr;
  out.signerCount = 0;
  out.queryFlags &= ~uint32_t{QUERY_SIGNERS};
  if (!signersWanted) return;
  out.queryFlags |= QUERY_SIGNERS;
  out.signerCount = CountOfSigners(stamp);
  if (out.signerCount == 0) return;
  out.signers = new char[size_t{out.signerCount} * ORVEX_SIGNER_SLOT];
  for (uint32_t i = 0; i < out.signerCount; ++i) {
    FillSlot(out.signers + size_t{i} * ORVEX_SIGNER_SLOT, stamp, i);
  }
}

std::string WrongInStamped(const metadata_output_s& out, uint16_t file, uint16_t mtime) {
  const uint32_t digests = out.queryFlags & kAllDigests;
  if (digests == 0) {
    return (out.queryFlags & QUERY_SIGNERS) == 0 ? "" : "signers without digests";
  }
  if (digests != kAllDigests) return "some digests only";
  Stamp stamp;
  std::memcpy(&stamp, out.digest16, sizeof stamp);
  if (stamp.file != file) return "the digests of another file";
  if (stamp.mtime != mtime) return "the digests of another mtime";
  if (!IsFilled(out.digest16, stamp) || !IsFilled(out.digest20, stamp) ||
      !IsFilled(out.digest32, stamp) || !IsFilled(out.auxDigest20, stamp)) {
    return "digests of several calculations";
  }
  if ((out.queryFlags & QUERY_SIGNERS) == 0) return "";
  if (out.signerCount != CountOfSigners(stamp)) return "the signers of another calculation";
  for (uint32_t i = 0; i < out.signerCount; ++i) {
    if (!IsSlotFilled(out.signers + size_t{i} * ORVEX_SIGNER_SLOT, stamp, i)) return "torn signers";
  }
  return "";
}

void FillStampedType(metadata_output_s& out, const Stamp& stamp) {
  out.major = stamp.file * 65536 + stamp.mtime;
  out.minor = ~out.major;
  out.queryFlags |= QUERY_FILE_TYPE;
}

std::string WrongInStampedType(const metadata_output_s& out, uint16_t file, uint16_t mtime) {
  if ((out.queryFlags & QUERY_FILE_TYPE) == 0) return "";
  if (out.minor != ~out.major) return "a torn file type";
  return out.major == file * 65536 + mtime ? "" : "the type of another file or mtime";
}
