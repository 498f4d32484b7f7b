// The records of a query, as tests fill and read them.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "orvexeng.h"

constexpr uint32_t kAllKeyBits = KEY_PATH | KEY_SIZE | KEY_MTIME | KEY_DEVICE_ID | KEY_FILE_ID;
constexpr uint32_t kAllDigests =
    QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_AUX_DIGEST20;

// An output record that frees the signers it was given.
struct Answer : metadata_output_s {
  Answer() : metadata_output_s() {}
  ~Answer() { delete[] signers; }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
};

// What a query asks unless a test says otherwise: size and all digests, to be
// kept, of a file of size 1000 and mtime 5 whose every identity field is in the
// key.
metadata_input_s InputFor(const char* path);

// Fills those digests with one byte and adds their bits.
void GiveDigests(metadata_output_s& out, uint32_t parts, int byte);

// Stores names the way a callback does.
void GiveSigners(metadata_output_s& out, std::initializer_list<std::string> names);

using Names = std::vector<std::string>;
using Paths = std::vector<std::string>;
Names SignersIn(const metadata_output_s& out);
