#include "ask/running_engine.h"

#include <fmt/format.h>

#include <stdexcept>

#include "ask/answer_source.h"
#include "orvexeng.h"

namespace orvexscan {

RunningEngine::RunningEngine(int capacity) {
  metadata_query_fptrs_s callbacks = AnswerSource::Callbacks();
  const int code = orvex_init(&callbacks);
  if (code != ORVEX_OK) throw std::runtime_error(fmt::format("orvex_init returns {}", code));
  // After the start, which may have read another capacity from orvexeng.ini.
  orvex_set_cache_capacity(ORVEX_HASH_CACHE, capacity);
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, capacity);
}

RunningEngine::~RunningEngine() { orvex_deinit(); }

}  // namespace orvexscan
