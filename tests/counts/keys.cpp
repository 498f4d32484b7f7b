#include "counts/keys.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <random>
#include <stdexcept>

namespace cost {
namespace {

// The standard's distributions differ between libraries; these are the same
// everywhere, so that counts repeat.
size_t Below(std::mt19937_64& random, size_t bound) {
  return static_cast<size_t>(random() % bound);
}

double UnitInterval(std::mt19937_64& random) {
  return static_cast<double>(random() >> 11) * 0x1p-53;
}

template <class Items>
void Shuffle(Items& items, std::mt19937_64& random) {
  for (size_t i = items.size(); i > 1; --i) std::swap(items[i - 1], items[Below(random, i)]);
}

}  // namespace

Files::Files() {
  std::ifstream list(ORVEXENG_COUNTS_PATHS);
  for (std::string path; std::getline(list, path);) paths_.push_back(path);
  if (paths_.size() != kFiles) throw std::runtime_error("counts: no list of 4,096 paths");
  std::mt19937_64 random(1);
  Shuffle(paths_, random);
  for (const std::string& path : paths_) {
    metadata_input_s query{};
    query.name = "";
    query.path = path.c_str();
    query.size = 100 + Below(random, 1U << 20);
    query.mtime = 1700000000000000000U + random() % 30000000000000000U;
    query.deviceID = 0xfe01;
    query.fileID = 262144 + queries_.size() * 3 + Below(random, 3);
    query.fileOperation = kAllKeyBits;
    query.invOperation = INV_KEEP_IN_CACHE;
    query.queryFlags = kPartsWanted;
    queries_.push_back(query);
  }
}

Files& AllFiles() {
  static Files files;
  return files;
}

NewFiles::NewFiles(char series) : series_(series) {}

metadata_input_s& NewFiles::Next() {
  const metadata_input_s& like = AllFiles()[count_ % kFiles];
  query_ = like;
  path_.assign(like.path);
  // Every path is longer than this, and none in the list ends in such a name.
  size_t at = path_.size() - 9;
  path_[at++] = series_;
  for (unsigned shift = 32; shift > 0; shift -= 4) {
    path_[at++] = "0123456789abcdef"[count_ >> (shift - 4) & 0xF];
  }
  query_.path = path_.c_str();
  query_.fileID = 1000000 + count_;
  ++count_;
  return query_;
}

Order Order::Uniform(unsigned seed) {
  std::mt19937_64 random(seed);
  Order order;
  for (size_t i = 0; i < kLength; ++i) {
    order.numbers_.push_back(static_cast<uint16_t>(Below(random, kFiles)));
  }
  return order;
}

Order Order::Zipf(unsigned seed) {
  std::vector<double> upTo;
  double sum = 0;
  for (size_t rank = 1; rank <= kFiles; ++rank) {
    upTo.push_back(sum += 1 / std::pow(static_cast<double>(rank), 0.99));
  }
  std::mt19937_64 random(seed);
  Order order;
  for (size_t i = 0; i < kLength; ++i) {
    const auto rank = std::lower_bound(upTo.begin(), upTo.end() - 1, UnitInterval(random) * sum);
    order.numbers_.push_back(static_cast<uint16_t>(rank - upTo.begin()));
  }
  return order;
}

}  // namespace cost
