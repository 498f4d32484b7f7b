// The engine in this process, started as the tool starts it.
#pragma once

#include <doctest/doctest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

#include "ask/calculation.h"
#include "ask/engine_log.h"
#include "file/identity.h"
#include "file/settling.h"

constexpr std::chrono::seconds kDefaultSettling(2);

using Sha256 = std::array<uint8_t, 32>;

// A running engine and one worker's tools. Keeps everything unless
// told how long a file takes to settle.
class CalculatingHost {
 public:
  explicit CalculatingHost(std::chrono::nanoseconds settling = {})
      : CalculatingHost(orvexscan::Settling(settling)) {}
  explicit CalculatingHost(const orvexscan::Settling& settling) : rules{false, settling} {}

  int Query(const std::string& path, const orvexscan::Identity& identity,
            orvexscan::Calculation* calculation) {
    return Ask(orvexscan::QueryFor(path, identity), calculation->Callbacks());
  }
  int Ask(const metadata_input_s& in, const orvexeng::callbacks& calculate) {
    orvexeng::answer out;
    const int code = engine.query(in, out, calculate);
    std::memcpy(digest.data(), out.digest32, digest.size());
    ready_ = out.resultReady;
    return code;
  }

  // Whether the hash cache holds an answer; digest is set to it.
  bool IsCached(const std::string& path, const orvexscan::Identity& identity) {
    metadata_input_s in = orvexscan::QueryFor(path, identity);
    in.invOperation |= INV_CACHE_ONLY;
    in.queryFlags = QUERY_DIGEST32;
    CHECK(Ask(in, {}) == 0);
    return ready_ != 0;
  }

  struct Silence {
    Silence() { orvexscan::TakeEngineLog(false); }
  } silence;  // before the engine, which speaks when it starts
  orvexeng::engine engine;
  orvexscan::Tools tools;
  const orvexscan::ReadingRules rules;
  Sha256 digest{};  // of the last answer

 private:
  uint32_t ready_ = 0;
};
