// The messages of either engine as text, without their line numbers.
#include "model/captured_messages.h"

#include <utility>

#include "model/text.h"

namespace {

std::string* current = nullptr;

}  // namespace

CapturedMessages::CapturedMessages() { current = &text_; }

CapturedMessages::~CapturedMessages() { current = nullptr; }

void CapturedMessages::Hear(unsigned int level, unsigned int /*line*/, const char* function,
                            const char* file, const char* message, unsigned int /*length*/) {
  if (current != nullptr) {
    Append(*current, level, " ", function, " ", file, ": ", message, "\n");
  }
}

std::string CapturedMessages::Take() { return std::exchange(text_, {}); }
