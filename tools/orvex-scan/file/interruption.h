// Whether the tool has been asked to stop.
#pragma once

namespace orvexscan {

// From now on SIGINT and SIGTERM only set a flag, so that the results so far can be reported and
// kept. A second signal of the same number ends the process at once.
void HearInterruptions();

// Whether a signal has come. Any thread may call it.
bool Interrupted();

}  // namespace orvexscan
