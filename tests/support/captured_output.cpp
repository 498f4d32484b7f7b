// What a test's program writes to standard output, in place of the screen.
#include "support/captured_output.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

CapturedOutput::CapturedOutput() : screen(-1), file(memfd_create("captured output", MFD_CLOEXEC)) {
  std::fflush(stdout);
  screen = dup(STDOUT_FILENO);
  dup2(file, STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput() {
  std::fflush(stdout);
  dup2(screen, STDOUT_FILENO);
  close(screen);
  close(file);
}

// The stream is not flushed here: the library flushes what it writes, and a test
// would not notice if it did not.
std::string CapturedOutput::Take() {
  const off_t size = lseek(file, 0, SEEK_END);
  std::string text(static_cast<size_t>(size), '\0');
  if (pread(file, text.data(), text.size(), 0) != size) return "unreadable";
  if (ftruncate(file, 0) != 0) return "uncuttable";
  lseek(file, 0, SEEK_SET);
  return text;
}
