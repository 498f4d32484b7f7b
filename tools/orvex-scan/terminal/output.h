// Output that must not be lost unnoticed.
#pragma once

#include <cstdio>
#include <string>

namespace orvexscan {

// Writes the text and finishes the stream. Throws like Finish.
void Print(const std::string& text, std::FILE* stream);

// Flushes the stream, so that a full disk does not pass for success. Throws std::system_error if
// that fails, std::runtime_error if an earlier write did.
void Finish(std::FILE* stream);

// Prints the text on standard error, after the tool's name. If that fails, there is nowhere left to
// report it.
void Say(const std::string& text);

}  // namespace orvexscan
