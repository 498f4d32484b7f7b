// What the caches hold, as both engines expose it for comparison.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A key of a cache's map.
struct KeyState {
  uint32_t flags = 0;
  std::string_view path;
  uint64_t size = 0;
  uint64_t mtime = 0;
  uint64_t deviceID = 0;
  uint64_t fileID = 0;

  bool operator==(const KeyState& other) const;
  void AppendTo(std::string& text) const;
};

// A node of either cache. The file type cache leaves most of it at zero.
struct NodeState {
  bool hasEntry = false;  // one in the map, its own or a shared one
  uint32_t queryFlags = 0;
  uint32_t fileOperation = 0;
  uint32_t invOperation = 0;
  uint64_t recordTime = 0;
  std::string_view path;
  uint64_t size = 0;
  uint64_t mtime = 0;
  uint32_t signerCount = 0;
  std::string_view signers;
  std::string_view digest16;
  std::string_view digest20;
  std::string_view digest32;
  std::string_view auxDigest20;
  uint64_t deviceID = 0;
  uint64_t fileID = 0;
  bool feedback = false;
  int64_t major = 0;
  int64_t minor = 0;

  bool operator==(const NodeState& other) const;
  void AppendTo(std::string& text) const;
};

struct CacheState {
  bool active = false;
  unsigned int capacity = 0;
  std::vector<NodeState> nodes;  // most recently used first
  std::vector<KeyState> keys;    // in map order

  bool operator==(const CacheState& other) const;
  void AppendTo(std::string& text) const;
};

// The hash cache's view of the calls in flight.
struct CallState {
  int threads = 0;
  bool setActive = false;
  std::vector<std::string_view> pathsBeingCalculated;

  bool operator==(const CallState& other) const;
  void AppendTo(std::string& text) const;
};

struct EngineState {
  bool logEnable = true;
  int logLevel = 0;
  bool profiling = false;
  CacheState hash;
  CacheState fileType;
  // Those of the hash cache, then those of the file type cache, in their own order.
  std::array<int64_t, 15> counters{};
  CallState calls;
  // Empty, or what is wrong with the structures themselves.
  std::string broken;

  bool operator==(const EngineState& other) const;
  void AppendTo(std::string& text) const;
};
