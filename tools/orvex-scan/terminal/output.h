// Output that somebody relies on.
#pragma once

#include <cstdio>

namespace orvexscan {

/// Makes sure that what was written to the stream is out: a full disk is no success.
/// Throws std::system_error if it is not.
void Finish(std::FILE* stream);

}  // namespace orvexscan
