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

// The engine with the tool's callbacks, and one worker's tools. Keeps everything unless
// told how long a file takes to settle.
class CalculatingHost {
 public:
  explicit CalculatingHost(std::chrono::nanoseconds settling = {})
      : CalculatingHost(orvexscan::Settling(settling)) {}
  explicit CalculatingHost(const orvexscan::Settling& settling) : rules{false, settling} {
    orvexscan::TakeEngineLog(false);
    metadata_query_fptrs_s callbacks = orvexscan::Calculation::Callbacks();
    REQUIRE(orvex_init(&callbacks) == 0);
  }
  ~CalculatingHost() { orvex_deinit(); }
  CalculatingHost(const CalculatingHost&) = delete;
  CalculatingHost& operator=(const CalculatingHost&) = delete;

  int Query(const std::string& path, const orvexscan::Identity& identity,
            orvexscan::Calculation* calculation) {
    return Ask(orvexscan::QueryFor(path, identity), calculation->context());
  }
  int Ask(metadata_input_s in, void* context) {
    metadata_output_s out{};
    const int code = orvex_query(&in, &out, context);
    std::memcpy(digest.data(), out.digest32, digest.size());
    ready_ = out.resultReady;
    delete[] out.signers;
    return code;
  }

  /// Whether the hash cache holds an answer, which is digest then.
  bool IsCached(const std::string& path, const orvexscan::Identity& identity) {
    metadata_input_s in = orvexscan::QueryFor(path, identity);
    in.invOperation |= INV_CACHE_ONLY;
    in.queryFlags = QUERY_DIGEST32;
    CHECK(Ask(in, nullptr) == 0);
    return ready_ != 0;
  }

  orvexscan::Tools tools;
  const orvexscan::ReadingRules rules;
  Sha256 digest{};  ///< of the last answer

 private:
  uint32_t ready_ = 0;
};
