#include "content/answer.h"

#include "terminal/printable.h"

namespace orvexscan {

std::vector<NamedDigest> DigestsOf(const Answer& answer) {
  const std::array<const uint8_t*, kDigestPlaces> places = {
      answer.digest16.data(), answer.digest20.data(), answer.digest32.data()};
  std::vector<NamedDigest> digests;
  for (size_t place = 0; place < kDigestPlaces; ++place) {
    const int algorithm = answer.parts.digests[place];
    if (algorithm == NID_undef) continue;
    digests.push_back({NameOfDigest(algorithm), Hex(places[place], kDigestBytes[place])});
  }
  return digests;
}

NamedDigest LongestDigestOf(const Answer& answer) { return DigestsOf(answer).back(); }

}  // namespace orvexscan
