// What kind of file something is, by its content.
#pragma once

#include <magic.h>

#include <memory>

#include "content/file_type_table.h"

namespace orvexscan {

// libmagic with its compiled table loaded.
//
// Threads: one at a time; each worker has its own, as a magic_t may not be shared.
class FileTypeReader {
 public:
  // Throws std::runtime_error if libmagic finds no table.
  FileTypeReader();

  // Reads the beginning of an open file without moving its position. Throws FileFailure.
  FileType Read(int descriptor);

 private:
  struct Close {
    void operator()(magic_t magic) const { magic_close(magic); }
  };
  std::unique_ptr<magic_set, Close> magic_;
};

}  // namespace orvexscan
