#include "ask/answer_source.h"

namespace orvexscan {

metadata_query_fptrs_s AnswerSource::Callbacks() {
  metadata_query_fptrs_s callbacks{};
  callbacks.metaQueryCallback = [](metadata_input_s* in, metadata_output_s* out, void* context) {
    return static_cast<AnswerSource*>(context)->AnswerHash(in, out);
  };
  callbacks.fileTypeQueryCallback = [](metadata_input_s* in, metadata_output_s* out,
                                       void* context) {
    return static_cast<AnswerSource*>(context)->AnswerFileType(in, out);
  };
  return callbacks;
}

}  // namespace orvexscan
