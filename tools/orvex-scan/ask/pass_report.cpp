#include "ask/pass_report.h"

#include <fmt/format.h>

#include <stdexcept>

namespace orvexscan {
namespace {

using Seconds = std::chrono::duration<double>;

// Seconds of hashing per byte, over all passes so far.
double SecondsPerByte(const std::vector<PassReport>& passes) {
  double seconds = 0;
  double bytes = 0;
  for (const PassReport& pass : passes) {
    seconds += pass.hashSeconds;
    bytes += static_cast<double>(pass.bytesHashed);
  }
  return bytes > 0 ? seconds / bytes : 0;
}

}  // namespace

PassMeasurement::PassMeasurement() : start_(std::chrono::steady_clock::now()) {
  orvex_reset_metrics();
}

void PassMeasurement::Add(const Tally& tally) {
  report_.visits += tally.visits;
  report_.failed += tally.failed;
  report_.unsettled += tally.unsettled;
  report_.fromSnapshot += tally.fromSnapshot;
  report_.bytesHashed += tally.bytesHashed;
  report_.bytesSaved += tally.bytesSaved;
  report_.readingSeconds += Seconds(tally.parts.reading).count();
  report_.digestSeconds += Seconds(tally.parts.digests).count();
  report_.typeSeconds += Seconds(tally.parts.type).count();
  report_.signerSeconds += Seconds(tally.parts.signers).count();
  report_.hashSeconds += Seconds(tally.hashTime).count();
}

void PassMeasurement::Finish(std::vector<PassReport>* passes) {
  report_.number = static_cast<int>(passes->size()) + 1;
  report_.wallSeconds = Seconds(std::chrono::steady_clock::now() - start_).count();
  unsigned int written = 0;
  const int code = orvex_get_metrics(&report_.engine, sizeof report_.engine, &written);
  if (code != ORVEX_OK) throw std::runtime_error(fmt::format("orvex_get_metrics returns {}", code));
  passes->push_back(report_);
  passes->back().savedSeconds = static_cast<double>(report_.bytesSaved) * SecondsPerByte(*passes);
}

}  // namespace orvexscan
