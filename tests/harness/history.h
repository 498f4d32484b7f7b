// What concurrent callers saw of a cache, and whether its guarantees explain it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The numbers of a clock that ticks once for each event of a history, so that no two
// share one. Begins are taken before the event, ends after it.
struct EventSpan {
  uint32_t begin;
  uint32_t end;
};

// An answer from when it existed until it was stored, or discarded. Its begin is also its
// serial.
struct StoredAnswer {
  EventSpan span;
  uint16_t file;
  uint16_t mtime;
  bool kept;
};

// One query, as far as one cache is concerned.
struct AskedAnswer {
  EventSpan span;
  uint16_t file;
  uint16_t mtime;
  // Of what the cache returned; 0 for nothing.
  uint32_t serial;
  bool hostWasCalled;
  // Every answer of the file would have sufficed.
  bool anyWillDo;
  int code;
};

struct Calculation {
  EventSpan query;
  EventSpan callback;
  uint16_t file;
};

// An orvex_deinit and the orvex_init after it.
struct EngineStop {
  EventSpan stop;
  EventSpan start;
};

struct CacheHistory {
  void Append(const CacheHistory& other);

  std::vector<StoredAnswer> stored;
  std::vector<AskedAnswer> asked;
  // Empty where the cache does not promise to let one thread calculate for all.
  std::vector<Calculation> calculations;
  std::vector<EventSpan> flushes;
  std::vector<EngineStop> stops;
  // What is stored stays until a flush or a stop: there is room for all of it, and nobody
  // finds it out of date.
  bool keepsAll = false;
};

// The first thing that no order of these calls explains, or "".
std::string WrongInHistory(const CacheHistory& history);
