// The messages of either engine as text, without their line numbers.
#include "model/captured_messages.h"

#include <utility>

#include "model/text.h"

namespace {

std::string* currentText = nullptr;

}  // namespace

CapturedMessages::CapturedMessages() { currentText = &text_; }

CapturedMessages::~CapturedMessages() { currentText = nullptr; }

void CapturedMessages::Hear(unsigned int level, unsigned int /*line*/, const char* function,
                            const char* file, const char* message, unsigned int /*length*/) {
  if (currentText != nullptr) {
    Append(*currentText, level, " ", function, " ", file, ": ", message, "\n");
  }
}

std::string CapturedMessages::Take() { return std::exchange(text_, {}); }
