// Every contender that this machine has, in the order of the tables.
#pragma once

#include <memory>

#include "contenders/engine.h"
#include "contenders/floor.h"
#include "contenders/textbook.h"
#ifdef ORVEXENG_BENCH_ABSL
#include "contenders/absl.h"
#endif
#ifdef ORVEXENG_BENCH_BOOST
#include "contenders/boost.h"
#endif
#ifdef ORVEXENG_BENCH_LEVELDB
#include "contenders/leveldb.h"
#endif
#ifdef ORVEXENG_BENCH_ROCKSDB
#include "contenders/rocksdb.h"
#endif
#ifdef ORVEXENG_BENCH_TBB
#include "contenders/tbb.h"
#endif
#include "keys.h"

namespace bench {

// A contender has a kName, kExact (it holds exactly as many entries as it is told
// to), a constructor from a capacity, and
//   void Query(metadata_input_s& in, metadata_output_s& out);
// which copies the record out on a hit, and on a miss calls AnswerHash and keeps
// what it answered. Any number of threads may query at once.
template <class C>
struct Type {
  using Contender = C;
};

// Calls action with the Type of each one that is a cache.
template <class Action>
void ForEachCache(const Action& action) {
  action(Type<Engine>());
  action(Type<Textbook>());
#ifdef ORVEXENG_BENCH_ABSL
  action(Type<Absl>());
#endif
#ifdef ORVEXENG_BENCH_BOOST
  action(Type<Boost>());
#endif
#ifdef ORVEXENG_BENCH_LEVELDB
  action(Type<LevelDb>());
#endif
#ifdef ORVEXENG_BENCH_ROCKSDB
  action(Type<RocksDbLru<0>>());
  action(Type<RocksDbLru<4>>());
  action(Type<RocksDbClock>());
#endif
#ifdef ORVEXENG_BENCH_TBB
  action(Type<Tbb>());
#endif
}

// And with the floors.
template <class Action>
void ForEachContender(const Action& action) {
  ForEachCache(action);
  action(Type<FloorWithLock>());
  action(Type<FloorWithoutLock>());
}

// A contender that holds the first `files` files, all of them. One that is not
// exact is given room, since otherwise a few would be evicted on the way.
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

}  // namespace bench
