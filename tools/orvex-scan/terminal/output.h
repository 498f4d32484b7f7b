// Output that somebody relies on.
#pragma once

#include <cstdio>
#include <string>

namespace orvexscan {

// Makes sure that what was written to the stream is out: a full disk is no success.
// Throws std::system_error if it is not.
void Finish(std::FILE* stream);

// Says the text on standard error, after the tool's name. When that fails, nothing is left
// to say it on.
void Say(const std::string& text);

}  // namespace orvexscan
