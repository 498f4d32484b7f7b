# The peers as one target, bench_peers: their libraries, and a definition that says
# that a peer takes part.
add_library(bench_peers INTERFACE)

set(peersLeftOut)
# Warnings in the headers of others are theirs.
function(orvexeng_add_peer name)
  foreach(library IN LISTS ARGN)
    if(NOT TARGET ${library})
      set(peersLeftOut ${peersLeftOut} ${name} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  target_link_libraries(bench_peers INTERFACE ${ARGN})
  string(TOUPPER ${name} macro)
  target_compile_definitions(bench_peers INTERFACE ORVEXENG_BENCH_${macro})
endfunction()

# What another library finds on its own account is not looked for twice.
find_package(absl QUIET)
find_package(Boost 1.74 QUIET)
find_package(leveldb QUIET)
find_package(RocksDB QUIET)
find_package(TBB QUIET)

orvexeng_add_peer(absl absl::flat_hash_map)
orvexeng_add_peer(boost Boost::headers)
orvexeng_add_peer(leveldb leveldb::leveldb)
orvexeng_add_peer(rocksdb RocksDB::rocksdb-shared)
orvexeng_add_peer(tbb TBB::tbb)
if(peersLeftOut)
  list(JOIN peersLeftOut ", " peersLeftOut)
  message(STATUS "Benchmark: left out, since not found for ${ORVEXENG_BITS} bits: ${peersLeftOut}")
endif()
