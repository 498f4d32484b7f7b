# The peers as one target, bench_peers: their headers and libraries, and a definition
# for each that takes part.
add_library(bench_peers INTERFACE)
set(peersLeftOut)

# Warnings in the headers of others are theirs, hence SYSTEM. Found by file, since
# the packages' own CMake files ask for all that their authors built with.
function(orvexeng_add_peer name header)
  string(TOUPPER ${name} macro)
  find_path(ORVEXENG_BENCH_${macro}_INCLUDE ${header})
  set(found ${ORVEXENG_BENCH_${macro}_INCLUDE})
  foreach(library IN LISTS ARGN)
    find_library(ORVEXENG_BENCH_${macro}_LIBRARY ${library})
    if(NOT ORVEXENG_BENCH_${macro}_LIBRARY)
      set(found)
    endif()
    target_link_libraries(bench_peers INTERFACE $<$<BOOL:${found}>:${ORVEXENG_BENCH_${macro}_LIBRARY}>)
  endforeach()
  if(NOT found)
    set(peersLeftOut ${peersLeftOut} ${name} PARENT_SCOPE)
    return()
  endif()
  target_compile_definitions(bench_peers INTERFACE ORVEXENG_BENCH_${macro})
  target_include_directories(bench_peers SYSTEM INTERFACE ${found})
endfunction()

orvexeng_add_peer(boost boost/multi_index_container.hpp)
orvexeng_add_peer(leveldb leveldb/cache.h leveldb)
orvexeng_add_peer(rocksdb rocksdb/cache.h rocksdb)
orvexeng_add_peer(tbb tbb/concurrent_lru_cache.h tbb)

# Many small libraries, which its own package sorts out.
find_package(absl QUIET)
if(TARGET absl::flat_hash_map)
  target_link_libraries(bench_peers INTERFACE absl::flat_hash_map)
  target_compile_definitions(bench_peers INTERFACE ORVEXENG_BENCH_ABSL)
else()
  list(APPEND peersLeftOut absl)
endif()

# Peers outside the system's own directories find their own libraries next to them.
target_link_options(bench_peers INTERFACE LINKER:--disable-new-dtags)

if(peersLeftOut)
  list(JOIN peersLeftOut ", " peersLeftOut)
  message(STATUS "Benchmark: left out, since not found for ${ORVEXENG_BITS} bits: ${peersLeftOut}")
endif()
