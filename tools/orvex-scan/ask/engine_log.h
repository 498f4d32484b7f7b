// Where the engine's own messages go.
#pragma once

namespace orvexscan {

// Sends the engine's messages to standard error if verbose is set, and nowhere otherwise. Without
// this call the engine prints them into the tool's output.
void TakeEngineLog(bool verbose);

}  // namespace orvexscan
