// A run of the engine in which everything happens once.
#include "harness/whole_life.h"

namespace {

constexpr int kHostFailure = 77;

metadata_input_s Wanting(const char* path, uint32_t parts) {
  metadata_input_s in = InputFor(path);
  in.fileOperation = KEY_PATH;  // A changed file finds its older entry.
  in.queryFlags = parts;
  return in;
}

metadata_input_s Newer(metadata_input_s in) {
  ++in.mtime;
  return in;
}

metadata_input_s With(metadata_input_s in, uint32_t invOperation) {
  in.invOperation = invOperation;
  return in;
}

}  // namespace

WholeLife::WholeLife() {
  host_.onHash = [this](metadata_input_s& in, metadata_output_s& out) {
    if (onHostCall) onHostCall();
    if (in.path[1] == 'f') return kHostFailure;
    if ((in.queryFlags & QUERY_SIGNERS) != 0) GiveSigners(out, {"Kelda"});
    GiveDigests(out, in.queryFlags & kAllDigests, 1);
    return 0;
  };
  host_.onFileType = [this](metadata_input_s& in, metadata_output_s& out) {
    if (onHostCall) onHostCall();
    return in.path[1] == 'f' ? kHostFailure : Host::AnswerFileType(in, out);
  };
}

Steps WholeLife::Tell() {
  steps_.clear();
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  Step("init", [&] { return orvex_init(&callbacks); });
  Step("init again", [&] { return orvex_init(&callbacks); });
  Step("status", orvex_get_status);
  Step("capacity hash", [] { return orvex_set_cache_capacity(ORVEX_HASH_CACHE, 2); });
  Step("capacity type", [] { return orvex_set_cache_capacity(ORVEX_FILE_TYPE_CACHE, 2); });

  const metadata_input_s one = Wanting("/1", QUERY_DIGEST32);
  Ask("miss, not kept", With(one, 0));
  Ask("miss", one);
  Ask("hit", one);
  Ask("partial", Wanting("/1", QUERY_DIGEST32 | QUERY_DIGEST16));
  Ask("signers", Wanting("/1", QUERY_SIGNERS));
  Ask("signers hit", Wanting("/1", QUERY_SIGNERS));
  Ask("out of date, not kept", With(Newer(one), 0));
  Ask("out of date", Newer(one));
  Ask("second", Wanting("/2", QUERY_DIGEST32));
  Ask("evicts", Wanting("/3", QUERY_DIGEST32));
  Ask("cache-only miss", With(one, INV_CACHE_ONLY));
  Ask("cache-only hit", With(Wanting("/3", QUERY_DIGEST32), INV_CACHE_ONLY));
  Ask("host fails", Wanting("/f", QUERY_DIGEST32));

  const metadata_input_s type = Wanting("/1", QUERY_FILE_TYPE);
  Ask("type miss, not kept", With(type, 0));
  Ask("type miss", type);
  Ask("type hit", type);
  Ask("type out of date", Newer(type));
  Ask("type second", Wanting("/2", QUERY_FILE_TYPE));
  Ask("type evicts", Wanting("/3", QUERY_FILE_TYPE));
  Ask("type host fails", Wanting("/f", QUERY_FILE_TYPE));
  Ask("both", Wanting("/4", QUERY_FILE_TYPE | QUERY_DIGEST20));
  Ask("both fail", Wanting("/f", QUERY_FILE_TYPE | QUERY_DIGEST20));
  Ask("nothing", Wanting("/1", 0));

  metadata_input_s pushed = Wanting("/5", 0);
  Answer answer;
  GiveDigests(answer, kAllDigests, 2);
  GiveSigners(answer, {"Kelda"});
  Step("push", [&] { return orvex_update_metadata(&pushed, &answer); });
  Step("push again", [&] { return orvex_update_metadata(&pushed, &answer); });
  Step("push nothing", [&] { return orvex_update_metadata(nullptr, &answer); });
  Step("dump cache", [] { return orvex_dump_cache(), 0; });
  Step("dump metrics", [] { return orvex_dump_metrics(), 0; });
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  Step("metrics", [&] { return orvex_get_metrics(&metrics, sizeof metrics, &size); });
  for (const int64_t* counter = &metrics.cacheQuery; counter <= &metrics.cacheWaitInHashCalculation;
       ++counter) {
    steps_.push_back("counter=" + std::to_string(*counter));
  }
  Step("reset", orvex_reset_metrics);
  Step("flush hash", [] { return orvex_flush_cache(ORVEX_HASH_CACHE); });
  Step("flush type", [] { return orvex_flush_cache(ORVEX_FILE_TYPE_CACHE); });
  Ask("after flush", one);
  Step("deinit", orvex_deinit);
  Ask("after stop", one);
  return steps_;
}

void WholeLife::Step(const char* name, const std::function<int()>& call) {
  std::string result;
  try {
    result = std::to_string(call());
  } catch (...) {
    result = "thrown";
  }
  steps_.push_back(std::string(name) + "=" + result);
  if (afterStep) afterStep(name);
}

void WholeLife::Ask(const char* name, const metadata_input_s& in) {
  metadata_input_s asked = in;
  Answer out;
  Step(name, [&] { return orvex_query(&asked, &out, &host_); });
  steps_.back() += " ready=" + std::to_string(out.resultReady) +
                   " bits=" + std::to_string(out.queryFlags) +
                   " signers=" + std::to_string(out.signerCount);
}
