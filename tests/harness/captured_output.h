// Captures what a test program writes to standard output.
#pragma once

#include <string>

// Catches standard output, the stream and the descriptor, while it lives.
class CapturedOutput {
 public:
  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // All that was written so far, once.
  std::string Take();

 private:
  int screen_;
  int file_;
};
