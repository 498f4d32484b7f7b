// Counts what the peers' operations cost, as tests/counts does for the engine.
#include <type_traits>

#include "contenders.h"
#include "counts/counts.h"

int main() {
  using namespace cost;
  AllFiles();
  ForEachContender([](auto type) {
    using C = typename decltype(type)::Contender;
    if constexpr (!std::is_same_v<C, Engine>) CountHits<C>();
  });
  ForEachCache([](auto type) {
    using C = typename decltype(type)::Contender;
    if constexpr (!std::is_same_v<C, Engine>) {
      CountInsertions<C>();
      CountMemory<C>();
    }
  });
}
