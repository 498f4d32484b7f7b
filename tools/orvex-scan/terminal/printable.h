// Text from the outside, made safe for a terminal.
#pragma once

#include <string>

namespace orvexscan {

// Whether bytes are well-formed UTF-8 (as JSON text must be).
bool IsUtf8(const std::string& bytes);

// The text as it may be shown: a byte that is a control character, or not part of well-formed
// UTF-8, becomes \xNN, and a backslash becomes two. A file's name can hold anything, escape
// sequences for the terminal too.
std::string Printable(const std::string& bytes);

// The bytes as lower-case hexadecimal digits.
std::string Hex(const unsigned char* bytes, size_t count);

}  // namespace orvexscan
