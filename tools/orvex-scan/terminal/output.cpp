#include "terminal/output.h"

#include <cerrno>
#include <system_error>

namespace orvexscan {

void Finish(std::FILE* stream) {
  if (std::fflush(stream) != 0 || std::ferror(stream) != 0) {
    throw std::system_error(errno, std::generic_category(), "the report cannot be written");
  }
}

void Say(const std::string& text) { std::fputs(("orvex-scan: " + text + "\n").c_str(), stderr); }

}  // namespace orvexscan
