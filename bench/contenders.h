// Every contender available on this machine, in the order of the tables.
#pragma once

#include "contenders/floor.h"
#include "contenders/textbook.h"
#include "counts/engine.h"
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

namespace cost {

template <class C>
struct Type {
  using Contender = C;
};

// Calls action with the Type of each cache.
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

}  // namespace cost
