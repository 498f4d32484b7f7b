// The file types that the tool tells apart, as the engine's (major, minor) numbers.
//
// major                 minor
// 0 unknown             0
// 1 program             1 executable, 2 position-independent executable, 3 shared
//                       library, 4 object, 5 core dump, 6 PE, 7 Mach-O, 8 Java class,
//                       9 WebAssembly
// 2 script              1 shell, 2 Python, 3 Perl, 4 Ruby, 5 PHP, 6 JavaScript,
//                       7 awk, 8 Tcl, 9 Lua
// 3 archive             1 zip, 2 tar, 3 gzip, 4 bzip2, 5 xz, 6 zstd, 7 7-Zip, 8 ar,
//                       9 Debian package, 10 rpm, 11 cpio, 12 jar, 13 cabinet,
//                       14 disk image
// 4 document            1 PDF, 2 PostScript, 3 OLE compound, 4 Office Open XML,
//                       5 OpenDocument, 6 rich text
// 5 text                1 plain, 2 HTML, 3 XML, 4 JSON, 5 C, 6 C++, 7 troff, 8 TeX
// 6 image               1 PNG, 2 JPEG, 3 GIF, 4 SVG, 5 WebP, 6 TIFF, 7 BMP, 8 icon
// 7 audio               0
// 8 video               0
// 9 font                0
// 10 stored values      1 SQLite, 2 GNU message catalogue, 3 Berkeley DB
// 11 empty file         0
//
// minor 0 is any other kind of that major. Numbers are never given a new meaning.
#pragma once

#include <cstdint>
#include <string>

namespace orvexscan {

struct FileType {
  int32_t major = 0;
  int32_t minor = 0;
};

// The type for what libmagic calls mime, such as "application/x-sharedlib".
FileType FileTypeFor(const std::string& mime);

// The name of a major number: "program", "script", ... "unknown" for any other number.
const char* NameOfMajor(int32_t major);

}  // namespace orvexscan
