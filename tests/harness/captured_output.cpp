// Captures what a test program writes to standard output.
#include "harness/captured_output.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

CapturedOutput::CapturedOutput()
    : screen_(-1), file_(memfd_create("captured output", MFD_CLOEXEC)) {
  std::fflush(stdout);
  screen_ = dup(STDOUT_FILENO);
  dup2(file_, STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput() {
  std::fflush(stdout);
  dup2(screen_, STDOUT_FILENO);
  close(screen_);
  close(file_);
}

// The stream is not flushed here: the library flushes what it writes, and a test
// would not notice if it did not.
std::string CapturedOutput::Take() {
  const off_t size = lseek(file_, 0, SEEK_END);
  std::string text(static_cast<size_t>(size), '\0');
  if (pread(file_, text.data(), text.size(), 0) != size) return "unreadable";
  if (ftruncate(file_, 0) != 0) return "uncuttable";
  lseek(file_, 0, SEEK_SET);
  return text;
}
