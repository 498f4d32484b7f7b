// Output that somebody relies on.
#pragma once

#include <cstdio>
#include <string>

namespace orvexscan {

// Writes the text and makes sure that it is out. Throws as Finish does.
void Print(const std::string& text, std::FILE* stream);

// Makes sure that what was written to the stream is out: a full disk is no success.
// Throws std::system_error if it is not, std::runtime_error if that was so before.
void Finish(std::FILE* stream);

// Says the text on standard error, after the tool's name. When that fails, nothing is left
// to say it on.
void Say(const std::string& text);

}  // namespace orvexscan
