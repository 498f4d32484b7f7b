#include "report/report_file.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "file/private_file.h"
#include "terminal/output.h"

namespace orvexscan {

namespace fs = std::filesystem;

ReportFile::ReportFile(const std::string& path) : path_(path) {
  std::error_code ignored;
  if (fs::exists(path, ignored) && !fs::is_regular_file(path, ignored)) {
    stream_.reset(std::fopen(path.c_str(), "we"));
    if (!stream_) throw std::system_error(errno, std::generic_category(), path);
    return;
  }
  // A link stays; its target is replaced.
  if (fs::is_symlink(path, ignored)) path_ = fs::canonical(path).string();
  CheckReplaceable(path_);
}

void ReportFile::Write(const std::string& report) {
  if (!stream_) {
    ReplaceFile(path_, report, Access::kAsUsual);
    return;
  }
  Print(report, stream_.get());
}

}  // namespace orvexscan
