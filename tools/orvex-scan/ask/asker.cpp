#include "ask/asker.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "content/signer_names.h"
#include "file/file_failure.h"
#include "orvexeng.h"

namespace orvexscan {
namespace {

// An output record that frees the signer array the engine leaves in it.
struct Output : metadata_output_s {
  Output() : metadata_output_s() {}
  ~Output() { delete[] signers; }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
};

Answer AnswerIn(const Output& output, const Identity& identity, bool settled) {
  Answer answer;
  answer.identity = identity;
  answer.settled = settled;
  std::copy(std::begin(output.digest16), std::end(output.digest16), answer.md5.begin());
  std::copy(std::begin(output.digest20), std::end(output.digest20), answer.sha1.begin());
  std::copy(std::begin(output.digest32), std::end(output.digest32), answer.sha256.begin());
  answer.signers = NamesInSlots(output.signers, output.signerCount);
  answer.type = {output.major, output.minor};
  return answer;
}

}  // namespace

Asker::Asker(const Options& options)
    : identityMode_(options.identity),
      rules_{options.followLinks, Settling(std::chrono::seconds(options.settleSeconds))} {}

Reply Asker::Ask(const std::string& path) {
  ++tally_.visits;
  try {
    return Query(path);
  } catch (const FileFailure&) {
    ++tally_.failed;
    throw;
  }
}

Tally Asker::TakeTally() { return std::exchange(tally_, Tally()); }

Reply Asker::Query(const std::string& path) {
  const Identity identity = IdentityOf(path, rules_.followLinks, identityMode_);
  metadata_input_s query = QueryFor(path, identity);
  Output output;
  Calculation calculation(&tools_, identity, rules_);
  const int code = orvex_query(&query, &output, calculation.context());
  if (calculation.failure()) throw FileFailure(*calculation.failure());
  if (code != ORVEX_OK) {
    throw FileFailure(FailureReason::kEngine, fmt::format("orvex_query returns {}", code));
  }
  Count(calculation, identity);
  Reply reply;
  reply.answer = AnswerIn(output, identity, calculation.settled());
  if (calculation.hashed()) reply.certificateFaults = calculation.certificateFaults();
  return reply;
}

void Asker::Count(const Calculation& calculation, const Identity& identity) {
  if (!calculation.settled()) ++tally_.unsettled;
  if (!calculation.hashed()) tally_.bytesSaved += identity.size;
  tally_.bytesHashed += calculation.bytesHashed();
  tally_.hashTime += calculation.hashTime();
}

}  // namespace orvexscan
