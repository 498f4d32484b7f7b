// The messages of either engine as text, without their line numbers.
#pragma once

#include <string>

// Collects what is logged through Hear while it lives; one at a time.
//
// Threads: one.
class CapturedMessages {
 public:
  CapturedMessages();
  ~CapturedMessages();
  CapturedMessages(const CapturedMessages&) = delete;
  CapturedMessages& operator=(const CapturedMessages&) = delete;

  static void Hear(unsigned int level, unsigned int line, const char* function, const char* file,
                   const char* message, unsigned int length);
  // One line for each so far, once.
  std::string Take();

 private:
  std::string text_;
};
