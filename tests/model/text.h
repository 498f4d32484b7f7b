// Traces as text: cheap enough to write one for every step.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

// FNV-1a, so that long byte strings take little room in a trace.
inline uint64_t Fingerprint(std::string_view bytes, uint64_t start = 0xcbf29ce484222325U) {
  uint64_t print = start;
  for (const char byte : bytes) {
    print = (print ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
  }
  return print;
}

// An empty string prints as 0, to stand out.
inline uint32_t Print(std::string_view bytes) {
  return bytes.empty() ? 0 : static_cast<uint32_t>(Fingerprint(bytes));
}

template <typename Piece>
void AppendPiece(std::string& text, const Piece& piece) {
  if constexpr (std::is_convertible_v<const Piece&, std::string_view>) {
    text.append(std::string_view(piece));
  } else {
    char digits[24];
    const std::to_chars_result end = [&] {
      if constexpr (std::is_same_v<Piece, bool>) {
        return std::to_chars(digits, digits + sizeof digits, static_cast<int>(piece));
      } else {
        return std::to_chars(digits, digits + sizeof digits, piece);
      }
    }();
    text.append(digits, end.ptr);
  }
}

template <typename... Pieces>
void Append(std::string& text, const Pieces&... pieces) {
  (AppendPiece(text, pieces), ...);
}
