#include "terminal/output.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace orvexscan {

namespace {

[[noreturn]] void Fail(int error) {
  throw std::system_error(error, std::generic_category(), "the report cannot be written");
}

}  // namespace

void Print(const std::string& text, std::FILE* stream) {
  if (std::fwrite(text.data(), 1, text.size(), stream) != text.size()) Fail(errno);
  Finish(stream);
}

void Finish(std::FILE* stream) {
  if (std::fflush(stream) != 0) Fail(errno);
  // An earlier write failed; errno no longer says why.
  if (std::ferror(stream) != 0) throw std::runtime_error("the report was not written completely");
}

void Say(const std::string& text) { std::fputs(("orvex-scan: " + text + "\n").c_str(), stderr); }

}  // namespace orvexscan
