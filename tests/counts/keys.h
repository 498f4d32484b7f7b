// The files that every contender is asked about.
#pragma once

#include <string>
#include <vector>

#include "orvexeng.h"

namespace cost {

constexpr uint32_t kAllKeyBits = KEY_PATH | KEY_SIZE | KEY_MTIME | KEY_DEVICE_ID | KEY_FILE_ID;
// Everything the hash cache answers but signers, which cost an allocation each.
constexpr uint32_t kPartsWanted = QUERY_SIZE | QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_DIGEST16 |
                                  QUERY_AUX_DIGEST20 | QUERY_FEEDBACK | QUERY_MTIME;
// Files in paths.txt, and what a full cache holds.
constexpr size_t kFiles = 4096;

// One query record for each path of paths.txt, in a fixed shuffled order.
// The identity fields look like those of a file system: one device, file numbers
// that are close to each other, sizes and times that are not.
//
// Ownership: the records borrow their paths from here.
class Files {
 public:
  Files();
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  metadata_input_s& operator[](size_t number) { return queries_[number]; }

 private:
  std::vector<std::string> paths_;
  std::vector<metadata_input_s> queries_;
};

// The one set that the process works on.
Files& AllFiles();

// A query for a file that no earlier one was for: a known path with its end
// replaced by a count.
//
// Threads: an object belongs to one thread; give each its own series.
class NewFiles {
 public:
  explicit NewFiles(char series);

  // Valid until the next call.
  metadata_input_s& Next();

 private:
  std::string path_;
  metadata_input_s query_{};
  char series_;
  uint32_t count_ = 0;
};

// An endless sequence of files to ask for.
//
// Over fewer files than all, take the number modulo a power of two.
class Order {
 public:
  // Each as often as any other.
  static Order Uniform(unsigned seed);
  // The file of rank r in proportion to 1 / r^0.99.
  static Order Zipf(unsigned seed);

  size_t operator[](size_t step) const { return numbers_[step % kLength]; }

 private:
  static constexpr size_t kLength = 1U << 16;

  std::vector<uint16_t> numbers_;
};

}  // namespace cost
