// The five identity fields, as the contenders that need a key type of their own
// hash and compare them.
#pragma once

#include <cstring>
#include <functional>
#include <string_view>

#include "orvexeng.h"

namespace cost {

// Borrows the path from the record or entry it was made from.
struct Identity {
  explicit Identity(const metadata_input_s& in)
      : path(in.path), size(in.size), mtime(in.mtime), deviceID(in.deviceID), fileID(in.fileID) {}

  // The same identity with its path in longer-lived storage.
  Identity(const Identity& other, std::string_view longerLivedPath) : Identity(other) {
    path = longerLivedPath;
  }

  // Numbers first: they tell most files apart without touching the path.
  friend bool operator==(const Identity& a, const Identity& b) {
    return a.fileID == b.fileID && a.mtime == b.mtime && a.size == b.size &&
           a.deviceID == b.deviceID && a.path == b.path;
  }

  // What absl hashes with.
  template <class State>
  friend State AbslHashValue(State state, const Identity& id) {
    return State::combine(std::move(state), id.path, id.size, id.mtime, id.deviceID, id.fileID);
  }

  std::string_view path;
  uint64_t size;
  uint64_t mtime;
  uint64_t deviceID;
  uint64_t fileID;
};

// The standard library's hash of the path, with the numbers mixed in.
struct StandardHash {
  size_t operator()(const Identity& id) const {
    uint64_t hash = std::hash<std::string_view>()(id.path);
    for (const uint64_t number : {id.size, id.mtime, id.deviceID, id.fileID}) {
      hash = (hash ^ number) * 0x9E3779B97F4A7C15U;
    }
    return static_cast<size_t>(hash ^ hash >> 32);
  }
};

}  // namespace cost
