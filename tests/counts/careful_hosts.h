// A full hit for a careful host, which zeroes its record and lets callbacks change only a
// copy of the input: by hand, and through orvexeng.hpp.
#pragma once

#include "counts/engine.h"
#include "counts/host.h"
#include "counts/keys.h"
#include "orvexeng.h"
#include "orvexeng.hpp"

namespace cost {

class HandWrittenHost {
 public:
  static constexpr const char* kName = "hand-written-hit";

  HandWrittenHost() : engine_(kFiles) {}
  ~HandWrittenHost() { delete[] out_.signers; }
  HandWrittenHost(const HandWrittenHost&) = delete;
  HandWrittenHost& operator=(const HandWrittenHost&) = delete;

  void Query(size_t number) {
    metadata_input_s in = AllFiles()[number];
    delete[] out_.signers;
    out_ = metadata_output_s();
    orvex_query(&in, &out_, nullptr);
  }

 private:
  Engine engine_;
  metadata_output_s out_{};
};

class HppHost {
 public:
  static constexpr const char* kName = "hpp-hit";

  HppHost() : engine_(Hash, FileType) {
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, static_cast<int>(kFiles));
  }

  void Query(size_t number) { static_cast<void>(engine_.query(AllFiles()[number], out_)); }

 private:
  static int Hash(metadata_input_s& in, orvexeng::answer& out) {
    return AnswerHash(&in, &out, nullptr);
  }
  static int FileType(metadata_input_s& in, orvexeng::answer& out) {
    return AnswerFileType(&in, &out, nullptr);
  }

  DroppedMessages dropped_;
  orvexeng::engine engine_;
  orvexeng::answer out_;
};

}  // namespace cost
