// What a cache must provide to be counted and timed next to the engine.
#pragma once

#include <memory>

#include "counts/host.h"
#include "counts/keys.h"

namespace cost {

// A contender has a kName, kExact (it holds exactly as many entries as it is told
// to), a constructor from a capacity, and
//   void Query(metadata_input_s& in, metadata_output_s& out);
// which copies the record out on a hit, and on a miss calls AnswerHash and keeps
// what it answered. Any number of threads may query at once.

// A contender that holds the first `files` files, all of them. One that is not
// exact gets more room, as it would otherwise evict a few on the way.
template <class C>
std::unique_ptr<C> Holding(size_t files) {
  auto cache = std::make_unique<C>(C::kExact ? files : files * 2 + 512);
  metadata_output_s out{};
  for (size_t file = 0; file < files; ++file) {
    out.queryFlags = 0;
    cache->Query(AllFiles()[file], out);
  }
  return cache;
}

}  // namespace cost
