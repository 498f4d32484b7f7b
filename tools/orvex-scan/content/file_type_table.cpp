#include "content/file_type_table.h"

#include <cstring>
#include <iterator>

namespace orvexscan {
namespace {

enum Major : int32_t {
  kUnknown,
  kProgram,
  kScript,
  kArchive,
  kDocument,
  kText,
  kImage,
  kAudio,
  kVideo,
  kFont,
  kStoredValues,
  kEmpty
};

constexpr const char* kMajorNames[] = {"unknown",  "program", "script",        "archive",
                                       "document", "text",    "image",         "audio",
                                       "video",    "font",    "stored values", "empty"};
static_assert(std::size(kMajorNames) == kEmpty + 1, "name each major number");

struct Row {
  const char* mime;
  FileType type;
};

constexpr Row kWholeNames[] = {
    {"application/x-executable", {kProgram, 1}},
    {"application/x-pie-executable", {kProgram, 2}},
    {"application/x-sharedlib", {kProgram, 3}},
    {"application/x-object", {kProgram, 4}},
    {"application/x-coredump", {kProgram, 5}},
    {"application/x-dosexec", {kProgram, 6}},
    {"application/vnd.microsoft.portable-executable", {kProgram, 6}},
    {"application/x-mach-binary", {kProgram, 7}},
    {"application/x-java-applet", {kProgram, 8}},
    {"application/wasm", {kProgram, 9}},
    {"text/x-shellscript", {kScript, 1}},
    {"text/x-script.python", {kScript, 2}},
    {"text/x-python", {kScript, 2}},
    {"text/x-perl", {kScript, 3}},
    {"text/x-ruby", {kScript, 4}},
    {"text/x-php", {kScript, 5}},
    {"application/javascript", {kScript, 6}},
    {"text/javascript", {kScript, 6}},
    {"text/x-awk", {kScript, 7}},
    {"text/x-gawk", {kScript, 7}},
    {"text/x-nawk", {kScript, 7}},
    {"text/x-tcl", {kScript, 8}},
    {"text/x-lua", {kScript, 9}},
    {"application/zip", {kArchive, 1}},
    {"application/x-tar", {kArchive, 2}},
    {"application/gzip", {kArchive, 3}},
    {"application/x-bzip2", {kArchive, 4}},
    {"application/x-xz", {kArchive, 5}},
    {"application/zstd", {kArchive, 6}},
    {"application/x-7z-compressed", {kArchive, 7}},
    {"application/x-archive", {kArchive, 8}},
    {"application/vnd.debian.binary-package", {kArchive, 9}},
    {"application/x-rpm", {kArchive, 10}},
    {"application/x-cpio", {kArchive, 11}},
    {"application/java-archive", {kArchive, 12}},
    {"application/vnd.ms-cab-compressed", {kArchive, 13}},
    {"application/x-iso9660-image", {kArchive, 14}},
    {"application/x-qemu-disk", {kArchive, 14}},
    {"application/pdf", {kDocument, 1}},
    {"application/postscript", {kDocument, 2}},
    {"application/CDFV2", {kDocument, 3}},
    {"application/x-ole-storage", {kDocument, 3}},
    {"application/msword", {kDocument, 3}},
    {"text/rtf", {kDocument, 6}},
    {"text/plain", {kText, 1}},
    {"text/html", {kText, 2}},
    {"text/xml", {kText, 3}},
    {"application/json", {kText, 4}},
    {"text/x-c", {kText, 5}},
    {"text/x-c++", {kText, 6}},
    {"text/troff", {kText, 7}},
    {"text/x-tex", {kText, 8}},
    {"image/png", {kImage, 1}},
    {"image/jpeg", {kImage, 2}},
    {"image/gif", {kImage, 3}},
    {"image/svg+xml", {kImage, 4}},
    {"image/webp", {kImage, 5}},
    {"image/tiff", {kImage, 6}},
    {"image/bmp", {kImage, 7}},
    {"image/vnd.microsoft.icon", {kImage, 8}},
    {"application/vnd.sqlite3", {kStoredValues, 1}},
    {"application/x-sqlite3", {kStoredValues, 1}},
    {"application/x-gettext-translation", {kStoredValues, 2}},
    {"application/x-dbm", {kStoredValues, 3}},
    {"application/x-empty", {kEmpty, 0}},
    {"inode/x-empty", {kEmpty, 0}},
};

// Tried only if no whole name matches.
constexpr Row kBeginnings[] = {
    {"application/vnd.openxmlformats-", {kDocument, 4}},
    {"application/vnd.oasis.opendocument", {kDocument, 5}},
    {"application/vnd.ms-", {kDocument, 0}},
    {"application/font", {kFont, 0}},
    {"application/vnd.font", {kFont, 0}},
    {"font/", {kFont, 0}},
    {"text/", {kText, 0}},
    {"image/", {kImage, 0}},
    {"audio/", {kAudio, 0}},
    {"video/", {kVideo, 0}},
};

}  // namespace

FileType FileTypeFor(const std::string& mime) {
  for (const Row& row : kWholeNames) {
    if (mime == row.mime) return row.type;
  }
  for (const Row& row : kBeginnings) {
    if (mime.compare(0, std::strlen(row.mime), row.mime) == 0) return row.type;
  }
  return {kUnknown, 0};
}

const char* NameOfMajor(int32_t major) {
  return major < 0 || major > kEmpty ? kMajorNames[kUnknown] : kMajorNames[major];
}

}  // namespace orvexscan
