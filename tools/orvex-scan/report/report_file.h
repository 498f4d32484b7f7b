// A file that a report goes to.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace orvexscan {

// Replaces a regular file as a whole, so that an old report survives any failure. Anything else,
// such as a pipe, is written to directly.
//
// Threads: one at a time.
class ReportFile {
 public:
  // Throws std::system_error if it cannot be written, before hours of work are done.
  explicit ReportFile(const std::string& path);

  // To be called once. Throws std::system_error.
  void Write(const std::string& report);

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::string path_;
  std::unique_ptr<std::FILE, Close> stream_;  // for anything but a regular file
};

}  // namespace orvexscan
