#include "content/file_type.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "file/file_failure.h"

namespace orvexscan {
namespace {

// error is errno as libmagic left it.
std::string WordsOf(magic_t magic, int error) {
  const char* words = magic == nullptr ? nullptr : magic_error(magic);
  return "libmagic: " + (words == nullptr ? std::generic_category().message(error) : words);
}

}  // namespace

FileTypeReader::FileTypeReader() : magic_(magic_open(MAGIC_MIME_TYPE | MAGIC_ERROR)) {
  if (!magic_) throw std::runtime_error(WordsOf(nullptr, errno));
  if (magic_load(magic_.get(), nullptr) != 0) {
    throw std::runtime_error(WordsOf(magic_.get(), errno));
  };
}

FileType FileTypeReader::Read(int descriptor) {
  const char* mime = magic_descriptor(magic_.get(), descriptor);
  if (mime == nullptr) {
    if (const int error = magic_errno(magic_.get())) throw FileFailure::OfSystem(error, "read");
    throw FileFailure(FailureReason::kType, WordsOf(magic_.get(), 0));
  }
  return FileTypeFor(mime);
}

}  // namespace orvexscan
