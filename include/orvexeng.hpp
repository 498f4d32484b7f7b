// liborvexeng for C++17: answers that free themselves, callables as callbacks, and an
// engine that runs as long as its object lives.
//
// Header-only; everything that orvexeng.h promises holds here too.
#ifndef ORVEXENG_HPP
#define ORVEXENG_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
#if defined(__GLIBCXX__)
#include <cxxabi.h>
#endif

#include "orvexeng.h"

namespace orvexeng {

// What a query returns if its callback threw. std::bad_alloc gives ORVEX_NO_MEMORY instead.
inline constexpr int callback_threw = -1;

// Thrown with a code of the library where none can be returned.
class error : public std::runtime_error {
 public:
  error(const std::string& what, int code)
      : std::runtime_error(what + ": code " + std::to_string(code)), code_(code) {}
  int code() const noexcept { return code_; }

 private:
  int code_;
};

// An output record that owns its signers and starts zeroed.
//
// Ownership: signers is null or an array from new[].
class answer : public metadata_output_s {
 public:
  answer() noexcept : metadata_output_s() {}
  ~answer() { delete[] signers; }
  answer(answer&& other) noexcept : metadata_output_s(other) { other.forget(); }
  answer& operator=(answer&& other) noexcept {
    if (this != &other) {
      delete[] signers;
      record() = other;
      other.forget();
    }
    return *this;
  }
  answer(const answer&) = delete;
  answer& operator=(const answer&) = delete;

  // Whether all of these parts, QUERY_*, are present.
  bool has(std::uint32_t parts) const noexcept { return (parts & ~queryFlags) == 0; }

  // The names, valid until the answer is changed or destroyed. Empty if there are none.
  std::vector<std::string_view> signer_names() const {
    std::vector<std::string_view> names;
    if (!has(QUERY_SIGNERS) || signers == nullptr) return names;
    names.reserve(signerCount);
    for (std::uint32_t i = 0; i < signerCount; ++i) {
      const char* const slot = signers + std::size_t{i} * ORVEX_SIGNER_SLOT;
      names.emplace_back(slot, ::strnlen(slot, ORVEX_SIGNER_SLOT));
    }
    return names;
  }

  // For a callback that filled these parts.
  void add(std::uint32_t parts) noexcept { queryFlags |= parts; }

  // For a callback: replaces the signers and adds their bit. A name is cut to 256
  // characters. If it throws std::bad_alloc, the signers are unchanged.
  void set_signers(const std::vector<std::string_view>& names) {
    char* const slots = names.empty() ? nullptr : new char[names.size() * ORVEX_SIGNER_SLOT]();
    for (std::size_t i = 0; i < names.size(); ++i) {
      names[i].copy(slots + i * ORVEX_SIGNER_SLOT, ORVEX_SIGNER_SLOT - 1);
    }
    delete[] signers;
    signers = slots;
    signerCount = static_cast<std::uint32_t>(names.size());
    add(QUERY_SIGNERS);
  }

  // Frees the signers and zeroes the record.
  void reset() noexcept {
    delete[] signers;
    forget();
  }

 private:
  metadata_output_s& record() noexcept { return *this; }
  void forget() noexcept { record() = metadata_output_s(); }
};

// Computes parts of an answer and returns 0, or a code that the query then returns.
// Exceptions become codes.
using callback = std::function<int(metadata_input_s& in, answer& out)>;

// One callable for each part of an answer. Calling an empty one counts as a throw.
struct callbacks {
  callback hash;
  callback file_type;
};

// The engine of the process, initialised from construction to destruction.
//
// Ownership: owns its callbacks. May live in a global: if it is destroyed after the
// library's own objects, its entries are not freed.
// Threads: query from any number at once. All must have returned before the engine is
// destroyed. While it lives, do not call orvex_query directly: ctx carries the callables.
class engine {
 public:
  // For hosts that pass callables with every query. Throws error with ORVEX_INITIALISED if an
  // engine is already running and with ORVEX_NO_MEMORY.
  engine() { start(); }
  // Throws error as above, and with ORVEX_INVALID_CALLBACKS for an empty callable.
  engine(callback hash, callback file_type) : callbacks_{std::move(hash), std::move(file_type)} {
    if (!callbacks_.hash || !callbacks_.file_type) {
      throw error("orvexeng::engine", ORVEX_INVALID_CALLBACKS);
    }
    start();
  }
  ~engine() { orvex_deinit(); }
  engine(const engine&) = delete;
  engine& operator=(const engine&) = delete;

  // Resets out and answers as orvex_query does. The input is a copy: a callback that clears
  // INV_KEEP_IN_CACHE does not change the caller's.
  //
  // Returns: as orvex_query, or callback_threw. Throws std::logic_error for a hash query
  // without a path.
  [[nodiscard]] int query(metadata_input_s in, answer& out) { return ask(in, out, callbacks_); }

  // The same, but what the caches lack is calculated by these callables, which need to live
  // no longer than the call.
  [[nodiscard]] int query(metadata_input_s in, answer& out, const callbacks& calculate) {
    return ask(in, out, calculate);
  }

  // Throws error.
  orvex_metrics_s metrics() const {
    orvex_metrics_s metrics{};
    unsigned int size = 0;
    if (const int code = orvex_get_metrics(&metrics, sizeof metrics, &size); code != ORVEX_OK) {
      throw error("orvex_get_metrics", code);
    }
    return metrics;
  }

 private:
  static void start() {
    metadata_query_fptrs_s functions{call<&callbacks::hash>, call<&callbacks::file_type>};
    if (const int code = orvex_init(&functions); code != ORVEX_OK) {
      throw error("orvex_init", code);
    }
  }

  static int ask(metadata_input_s& in, answer& out, const callbacks& calculate) {
    out.reset();
    // The library passes ctx back unchanged; call() casts it back.
    return orvex_query(&in, &out, const_cast<callbacks*>(&calculate));
  }

  template <callback callbacks::*Which>
  static int call(metadata_input_s* in, metadata_output_s* out, void* ctx) {
    try {
      // Every query passes an answer and callables; see above.
      return (static_cast<const callbacks*>(ctx)->*Which)(*in, static_cast<answer&>(*out));
    } catch (const std::bad_alloc&) {
      return ORVEX_NO_MEMORY;
#if defined(__GLIBCXX__)
    } catch (const abi::__forced_unwind&) {
      throw;  // Thread cancellation: swallowing it aborts the process.
#endif
    } catch (...) {
      return callback_threw;
    }
  }

  const callbacks callbacks_;
};

}  // namespace orvexeng

#endif  // ORVEXENG_HPP
