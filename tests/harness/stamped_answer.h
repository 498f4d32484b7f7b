// Answers that show which calculation they come from.
#pragma once

#include <string>

#include "orvexeng.h"

// One calculation. Every byte of its answer follows from these numbers, so that an
// answer mixed from two of them is detected.
struct Stamp {
  uint16_t file;
  uint16_t mtime;
  uint32_t serial;
};

// Fills all four digests and, if they are wanted, signers; without them the record
// has none afterwards.
void FillStamped(metadata_output_s& out, const Stamp& stamp, bool signersWanted);

// What is wrong with the digests and signers that the record holds; empty when they
// are those of one calculation of this file and mtime, or when there are none.
std::string WrongInStamped(const metadata_output_s& out, uint16_t file, uint16_t mtime);

// The same for a file type.
void FillStampedType(metadata_output_s& out, const Stamp& stamp);
std::string WrongInStampedType(const metadata_output_s& out, uint16_t file, uint16_t mtime);
