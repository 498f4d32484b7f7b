#include "terminal/printable.h"

#include <fmt/format.h>

#include <cstdint>

namespace orvexscan {
namespace {

// One character of UTF-8; length 0 if the bytes are not one.
struct Character {
  uint32_t code;
  size_t length;
};

Character CharacterAt(const std::string& text, size_t at) {
  const auto first = static_cast<unsigned char>(text[at]);
  if (first < 0x80) return {first, 1};
  const size_t length = first >= 0xf0 && first < 0xf8   ? 4
                        : first >= 0xe0 && first < 0xf0 ? 3
                        : first >= 0xc2 && first < 0xe0 ? 2
                                                        : 0;
  if (length == 0 || text.size() - at < length) return {0, 0};
  uint32_t code = first & (0xffu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xc0) != 0x80) return {0, 0};
    code = code << 6 | (next & 0x3fu);
  }
  const bool tooLong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
  const bool surrogate = code >= 0xd800 && code < 0xe000;
  return tooLong || surrogate || code > 0x10ffff ? Character{0, 0} : Character{code, length};
}

// Both blocks of control characters, line separators, and changes of text direction.
bool IsControl(uint32_t code) {
  return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x200e || code == 0x200f ||
         (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

bool IsUtf8(const std::string& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    const size_t length = CharacterAt(bytes, at).length;
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string Printable(const std::string& bytes) {
  std::string shown;
  for (size_t at = 0; at < bytes.size();) {
    const Character character = CharacterAt(bytes, at);
    const size_t length = character.length == 0 ? 1 : character.length;
    if (character.length == 0 || IsControl(character.code)) {
      for (size_t i = 0; i < length; ++i) {
        shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes[at + i]));
      }
    } else if (character.code == '\\') {
      shown += "\\\\";
    } else {
      shown.append(bytes, at, length);
    }
    at += length;
  }
  return shown;
}

std::string Hex(const unsigned char* bytes, size_t count) {
  std::string digits;
  digits.reserve(2 * count);
  for (size_t i = 0; i < count; ++i) digits += fmt::format("{:02x}", bytes[i]);
  return digits;
}

}  // namespace orvexscan
