#include "counts/engine_cases.h"

#include "counts/host.h"

namespace cost {

EngineInCase::EngineInCase(const EngineCase& asked) : engine_(kFiles) {
  orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, static_cast<int>(kFiles));
  NewFiles unknown('u');
  paths_.reserve(kFiles);
  for (size_t file = 0; file < kFiles; ++file) {
    metadata_input_s query = AllFiles()[file];
    AnswerWithSigners(&query, &out_, nullptr);
    orvex_update_metadata(&query, &out_);
    query.queryFlags = QUERY_FILE_TYPE;
    orvex_query(&query, &out_, nullptr);

    if (!asked.known) {
      query = unknown.Next();
      query.path = paths_.emplace_back(query.path).c_str();
    }
    query.queryFlags = asked.queryFlags;
    query.invOperation = asked.invOperation;
    queries_.push_back(query);
  }
}

}  // namespace cost
