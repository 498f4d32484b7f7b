// Texts for people: escaping and error messages.
#include <doctest/doctest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "terminal/output.h"
#include "terminal/printable.h"

using orvexscan::IsUtf8;
using orvexscan::Printable;

namespace {

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Nothing can be written to it while *error is set: that is why.
Stream FailingStream(int* error) {
  const auto write = [](void* cookie, const char*, size_t count) -> ssize_t {
    errno = *static_cast<int*>(cookie);
    return errno == 0 ? static_cast<ssize_t>(count) : -1;
  };
  Stream stream(fopencookie(error, "w", {nullptr, write, nullptr, nullptr}), std::fclose);
  REQUIRE(stream);
  return stream;
}

}  // namespace

TEST_CASE("text for a terminal keeps its letters and shows all else as bytes") {
  const struct {
    std::string bytes;
    std::string shown;
  } rows[] = {{"", ""},
              {"plain /path-1.x", "plain /path-1.x"},
              {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
               "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"},
              {"a\nb\tc\x7f", "a\\x0ab\\x09c\\x7f"},
              {"\x1b[2J", "\\x1b[2J"},
              {std::string("a\0b", 3), "a\\x00b"},
              {"back\\slash", "back\\\\slash"},
              {"\xff\xfe", "\\xff\\xfe"},
              {"\xc2\x9b", "\\xc2\\x9b"},           // a control character of two bytes
              {"\xe2\x80\xae", "\\xe2\\x80\\xae"},  // reverses the text
              {"cut \xe2\x82", "cut \\xe2\\x82"},
              {"\xc0\xaf", "\\xc0\\xaf"},            // an overlong slash
              {"\xed\xa0\x80", "\\xed\\xa0\\x80"}};  // half a surrogate pair
  for (const auto& row : rows) {
    CAPTURE(row.shown);
    CHECK(Printable(row.bytes) == row.shown);
  }
}

TEST_CASE("only well-formed UTF-8 counts as text") {
  for (const char* text : {"", "plain", "\xc3\xbc", "\xe2\x82\xac", "\xf4\x8f\xbf\xbf"}) {
    CAPTURE(text);
    CHECK(IsUtf8(text));
  }
  for (const char* bytes : {"\xff", "\x80", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80",
                            "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"}) {
    CHECK_FALSE(IsUtf8(bytes));
  }
}

TEST_CASE("bytes are written as two digits each") {
  const unsigned char bytes[] = {0x00, 0x0f, 0xa5, 0xff};
  CHECK(orvexscan::Hex(bytes, 4) == "000fa5ff");
  CHECK(orvexscan::Hex(bytes, 0).empty());
}

TEST_CASE("output that cannot be written is reported with its reason") {
  int error = ENOSPC;
  const Stream stream = FailingStream(&error);
  std::fputs("text", stream.get());
  errno = ENOENT;
  CHECK_THROWS_WITH(orvexscan::Finish(stream.get()),
                    "the report cannot be written: No space left on device");
}

TEST_CASE("output that failed earlier is reported without an unrelated reason") {
  int error = ENOSPC;
  const Stream stream = FailingStream(&error);
  std::fputs("text", stream.get());
  CHECK(std::fflush(stream.get()) != 0);
  error = 0;
  errno = ENOENT;
  CHECK_THROWS_WITH(orvexscan::Finish(stream.get()), "the report was not written completely");
}
