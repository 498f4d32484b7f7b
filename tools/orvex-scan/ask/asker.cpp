#include "ask/asker.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "file/file_failure.h"

namespace orvexscan {
namespace {

Answer AnswerIn(const orvexeng::answer& output, const Identity& identity, bool settled) {
  Answer answer;
  answer.identity = identity;
  answer.settled = settled;
  std::copy(std::begin(output.digest16), std::end(output.digest16), answer.digest16.begin());
  std::copy(std::begin(output.digest20), std::end(output.digest20), answer.digest20.begin());
  std::copy(std::begin(output.digest32), std::end(output.digest32), answer.digest32.begin());
  const auto signers = output.signer_names();
  answer.signers.assign(signers.begin(), signers.end());
  answer.type = {output.major, output.minor};
  return answer;
}

}  // namespace

Asker::Asker(orvexeng::engine* engine, const ReadingRules& rules)
    : engine_(engine), rules_(rules), tools_(rules.parts.digests) {}

Reply Asker::Ask(const std::string& path) {
  ++tally_.visits;
  try {
    return Query(path, IdentityOf(path, rules_.followLinks, rules_.identity), "");
  } catch (const FileFailure&) {
    ++tally_.failed;
    throw;
  }
}

Reply Asker::Ask(const std::string& path, int descriptor) {
  ++tally_.visits;
  try {
    return Query(path, IdentityOf(descriptor, rules_.identity),
                 fmt::format("/proc/self/fd/{}", descriptor));
  } catch (const FileFailure&) {
    ++tally_.failed;
    throw;
  }
}

Tally Asker::TakeTally() { return std::exchange(tally_, Tally()); }

Reply Asker::Query(const std::string& path, const Identity& identity, const std::string& source) {
  metadata_input_s query = QueryFor(path, identity);
  query.queryFlags &= ~kAllDigestParts | PartsOf(rules_.parts.digests);
  if (!rules_.parts.type) query.queryFlags &= ~static_cast<uint32_t>(QUERY_FILE_TYPE);
  if (!rules_.parts.signers) query.queryFlags &= ~static_cast<uint32_t>(QUERY_SIGNERS);
  orvexeng::answer output;
  Calculation calculation(&tools_, identity, rules_, source);
  const int code = engine_->query(query, output, calculation.Callbacks());
  if (calculation.failure()) throw FileFailure(*calculation.failure());
  if (code != ORVEX_OK) {
    throw FileFailure(FailureReason::kEngine, fmt::format("the engine returns {}", code));
  }
  Count(calculation, identity);
  Reply reply;
  reply.answer = AnswerIn(output, identity, calculation.settled());
  reply.answer.parts = rules_.parts;
  reply.read = calculation.hashed();
  if (calculation.hashed() || calculation.fromSnapshot())
    reply.certificates = calculation.certificates();
  return reply;
}

void Asker::Count(const Calculation& calculation, const Identity& identity) {
  if (!calculation.settled()) ++tally_.unsettled;
  if (calculation.fromSnapshot()) ++tally_.fromSnapshot;
  if (!calculation.hashed()) tally_.bytesSaved += identity.size;
  tally_.bytesHashed += calculation.bytesHashed();
  tally_.hashTime += calculation.hashTime();
  const PartTimes& parts = calculation.partTimes();
  tally_.parts.reading += parts.reading;
  tally_.parts.digests += parts.digests;
  tally_.parts.type += parts.type;
  tally_.parts.signers += parts.signers;
}

}  // namespace orvexscan
