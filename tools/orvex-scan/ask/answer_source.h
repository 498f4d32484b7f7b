// Whoever answers what the engine's caches do not hold.
#pragma once

#include "orvexeng.h"

namespace orvexscan {

// The context of a query, which the engine hands back to the callbacks.
//
// Ownership: borrowed by the engine for as long as the query runs.
// Threads: one at a time; the engine calls back on the thread that asks.
class AnswerSource {
 public:
  AnswerSource(const AnswerSource&) = delete;
  AnswerSource& operator=(const AnswerSource&) = delete;

  /// The callbacks that the engine is started with. Each takes context() as context.
  static metadata_query_fptrs_s Callbacks();
  void* context() { return this; }

 protected:
  AnswerSource() = default;
  ~AnswerSource() = default;

 private:
  // Each does what a query callback does, and returns what it returns.
  virtual int AnswerHash(metadata_input_s* in, metadata_output_s* out) noexcept = 0;
  virtual int AnswerFileType(metadata_input_s* in, metadata_output_s* out) noexcept = 0;
};

}  // namespace orvexscan
