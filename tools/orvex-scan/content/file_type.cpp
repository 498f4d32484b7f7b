#include "content/file_type.h"

#include <stdexcept>
#include <string>

#include "file/file_failure.h"

namespace orvexscan {
namespace {

std::string WordsOf(magic_t magic) {
  const char* words = magic_error(magic);
  return words == nullptr ? "libmagic fails without a word" : words;
}

}  // namespace

FileTypeReader::FileTypeReader() : magic_(magic_open(MAGIC_MIME_TYPE | MAGIC_ERROR)) {
  if (!magic_) throw std::runtime_error("libmagic cannot be opened");
  if (magic_load(magic_.get(), nullptr) != 0) throw std::runtime_error(WordsOf(magic_.get()));
}

FileType FileTypeReader::Read(int descriptor) {
  const char* mime = magic_descriptor(magic_.get(), descriptor);
  if (mime == nullptr) {
    if (const int error = magic_errno(magic_.get())) throw FileFailure::OfSystem(error, "read");
    throw FileFailure(FailureReason::kType, WordsOf(magic_.get()));
  }
  return FileTypeFor(mime);
}

}  // namespace orvexscan
