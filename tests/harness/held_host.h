// A host that stays inside its callback until a test lets it answer.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <utility>

#include "harness/latch.h"
#include "orvexeng.h"

// Replaces a callback. Its first call opens one latch, waits at the other and answers;
// later calls are answered at once, as before.
//
// Threads: any. Declare it between the host and the threads that ask.
class HeldHost {
 public:
  using Callback = std::function<int(metadata_input_s&, metadata_output_s&)>;

  explicit HeldHost(Callback& callback) : HeldHost(callback, callback) {}
  // The first call ends with this code and without an answer.
  HeldHost(Callback& callback, int code)
      : HeldHost(callback, [code](metadata_input_s&, metadata_output_s&) { return code; }) {}
  // The first call ends in this way.
  HeldHost(Callback& callback, Callback heldAnswer) {
    callback = [this, before = callback, held = std::move(heldAnswer)](metadata_input_s& in,
                                                                       metadata_output_s& out) {
      if (calls++ != 0) return before(in, out);
      entered.Open();
      mayAnswer.Wait();
      return held(in, out);
    };
  }
  HeldHost(const HeldHost&) = delete;
  HeldHost& operator=(const HeldHost&) = delete;

  // For a log callback: the host may answer once another thread is about to sleep on it.
  void AnswerOnceWaitedFor(const char* message) {
    if (std::strstr(message, "wait for signal") != nullptr) mayAnswer.Open();
  }

  Latch entered, mayAnswer;
  std::atomic<int> calls{0};
};
