// Whether somebody wants the tool to come to its end.
#pragma once

namespace orvexscan {

// From now on SIGINT and SIGTERM only set a mark, so that what is known by then can be
// reported and kept. A second signal of the same number ends the process at once.
void HearInterruptions();

// Whether a signal has come. Any thread may ask.
bool Interrupted();

}  // namespace orvexscan
