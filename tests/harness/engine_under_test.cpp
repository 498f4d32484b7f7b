// An engine with a host behind it, for short tests.
#include "harness/engine_under_test.h"

#include <cstring>

namespace {

Host& HostIn(void* ctx) { return *static_cast<Host*>(ctx); }

int CallHash(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  ++HostIn(ctx).hashCalls;
  return HostIn(ctx).onHash(*in, *out);
}

int CallFileType(metadata_input_s* in, metadata_output_s* out, void* ctx) {
  ++HostIn(ctx).fileTypeCalls;
  return HostIn(ctx).onFileType(*in, *out);
}

}  // namespace

int Host::AnswerHash(metadata_input_s& in, metadata_output_s& out) {
  GiveDigests(out, kAllDigests, static_cast<int>(std::strlen(in.path)));
  return 0;
}

int Host::AnswerFileType(metadata_input_s& /*in*/, metadata_output_s& out) {
  out.major = 3;
  out.minor = 4;
  out.queryFlags |= QUERY_FILE_TYPE;
  return 0;
}

metadata_query_fptrs_s Host::Callbacks() { return {CallHash, CallFileType}; }

EngineUnderTest::EngineUnderTest() {
  metadata_query_fptrs_s callbacks = Host::Callbacks();
  orvex_init(&callbacks);
}

EngineUnderTest::~EngineUnderTest() { orvex_deinit(); }

int EngineUnderTest::Query(metadata_input_s& in, metadata_output_s& out) {
  return orvex_query(&in, &out, &host);
}

int EngineUnderTest::Query(const char* path) {
  metadata_input_s in = InputFor(path);
  Answer out;
  return Query(in, out);
}

std::future<int> EngineUnderTest::QueryFromAnotherThread(const char* path) {
  return std::async(std::launch::async, [this, path] { return Query(path); });
}

orvex_metrics_s EngineUnderTest::Metrics() const {
  orvex_metrics_s metrics{};
  unsigned int size = 0;
  orvex_get_metrics(&metrics, sizeof metrics, &size);
  return metrics;
}
