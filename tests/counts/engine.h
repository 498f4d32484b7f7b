// The engine itself, through its exported functions only.
#pragma once

#include <stdexcept>

#include "counts/host.h"
#include "orvexeng.h"

namespace cost {

// A host that keeps the messages would pay for writing them, too.
struct DroppedMessages {
  DroppedMessages() {
    orvex_register_log_cb(
        [](unsigned int, unsigned int, const char*, const char*, const char*, unsigned int) {});
  }
};

// One at a time: there is one engine in a process.
class Engine {
 public:
  static constexpr const char* kName = "engine";
  static constexpr bool kExact = true;

  explicit Engine(size_t capacity) {
    if (orvex_init(&hostCallbacks) != 0) throw std::runtime_error("counts: orvex_init");
    orvex_set_cache_capacity(ORVEX_HASH_CACHE, static_cast<int>(capacity));
  }
  ~Engine() { orvex_deinit(); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void Query(metadata_input_s& in, metadata_output_s& out) { orvex_query(&in, &out, nullptr); }

 private:
  DroppedMessages dropped_;
};

}  // namespace cost
