// An engine with a host behind it, for short tests.
#pragma once

#include <atomic>
#include <functional>
#include <future>

#include "harness/records.h"
#include "orvexeng.h"

// Counts its calls and answers them. Tests override what they are about.
struct Host {
  using Callback = std::function<int(metadata_input_s&, metadata_output_s&)>;

  // Gives every digest, filled with the length of the path.
  static int AnswerHash(metadata_input_s& in, metadata_output_s& out);
  // Gives major 3, minor 4.
  static int AnswerFileType(metadata_input_s& in, metadata_output_s& out);
  // For orvex_init. The callbacks find their host in ctx.
  static metadata_query_fptrs_s Callbacks();

  std::atomic<int> hashCalls{0};
  std::atomic<int> fileTypeCalls{0};
  Callback onHash = AnswerHash;
  Callback onFileType = AnswerFileType;
};

// orvex_init here, orvex_deinit when it goes.
class EngineUnderTest {
 public:
  EngineUnderTest();
  ~EngineUnderTest();
  EngineUnderTest(const EngineUnderTest&) = delete;
  EngineUnderTest& operator=(const EngineUnderTest&) = delete;

  int Query(metadata_input_s& in, metadata_output_s& out);
  // Asks for the path as InputFor does and returns the code.
  int Query(const char* path);
  std::future<int> QueryFromAnotherThread(const char* path);
  orvex_metrics_s Metrics() const;

  Host host;
};
