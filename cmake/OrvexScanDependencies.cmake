# What orvex-scan is made of besides the engine, found for the width being built.
#
# Sets OrvexScanDependencies_FOUND. If it is true there is the interface target
# orvex_scan_dependencies; if not, OrvexScanDependencies_MISSING names what is not
# there. The engine and its tests need nothing of this.
#
# The 64-bit libraries come from the system. The 32-bit ones come from a directory
# that scripts/sysroot-i386 fills, and only if that fails from the system, since
# the two widths of a package rarely have equal versions to be installed together.

set(ORVEXENG_SYSROOT_I386 ${PROJECT_SOURCE_DIR}/build/sysroot-i386 CACHE PATH
  "Where the 32-bit development files of orvex-scan are kept")
option(ORVEXENG_FETCH_SYSROOT "Let the configure step fetch them (apt-get download)" OFF)

set(orvexScanPaths)
if(ORVEXENG_BITS EQUAL 32)
  if(ORVEXENG_FETCH_SYSROOT)
    execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/sysroot-i386 ${ORVEXENG_SYSROOT_I386}
      RESULT_VARIABLE orvexScanFetch)
    if(NOT orvexScanFetch EQUAL 0)
      message(STATUS "The 32-bit development files could not be fetched; looking in the system")
    endif()
  endif()
  set(orvexScanPaths
    NO_DEFAULT_PATH
    PATHS
      ${ORVEXENG_SYSROOT_I386}/usr/include ${ORVEXENG_SYSROOT_I386}/usr/lib/i386-linux-gnu
      /usr/include /usr/lib/i386-linux-gnu)
endif()

# Not in the cache: a sysroot that appears later is found by the next configure.
set(orvexScanIncludes)
set(orvexScanLibraries)
set(OrvexScanDependencies_MISSING)
macro(orvex_scan_need package header)
  find_path(orvexScanHeader ${header} NO_CACHE ${orvexScanPaths})
  if(orvexScanHeader)
    list(APPEND orvexScanIncludes ${orvexScanHeader})
  else()
    list(APPEND OrvexScanDependencies_MISSING ${package})
  endif()
  unset(orvexScanHeader)
  if(${ARGC} GREATER 2)
    find_library(orvexScanLibrary ${ARGV2} NO_CACHE ${orvexScanPaths})
    if(orvexScanLibrary)
      list(APPEND orvexScanLibraries ${orvexScanLibrary})
    else()
      list(APPEND OrvexScanDependencies_MISSING ${package})
    endif()
    unset(orvexScanLibrary)
  endif()
endmacro()

# Headers only, the same for either width.
orvex_scan_need(libasio-dev asio/thread_pool.hpp)
orvex_scan_need(libcli11-dev CLI/CLI.hpp)
orvex_scan_need(libfmt-dev fmt/format.h)
orvex_scan_need(nlohmann-json3-dev nlohmann/json.hpp)
# With a library behind them.
orvex_scan_need(libmagic-dev magic.h magic)
orvex_scan_need(libsmartcols-dev libsmartcols/libsmartcols.h smartcols)
orvex_scan_need(libssl-dev openssl/evp.h crypto)

list(REMOVE_DUPLICATES OrvexScanDependencies_MISSING)
if(OrvexScanDependencies_MISSING)
  set(OrvexScanDependencies_FOUND FALSE)
  return()
endif()
set(OrvexScanDependencies_FOUND TRUE)

add_library(orvex_scan_dependencies INTERFACE)
target_link_libraries(orvex_scan_dependencies INTERFACE ${orvexScanLibraries} Threads::Threads)
target_compile_definitions(orvex_scan_dependencies INTERFACE
  ASIO_NO_DEPRECATED ASIO_STANDALONE FMT_HEADER_ONLY)
# The compiler searches /usr/include by itself, last; naming it would bring it
# forward, before the C++ library's own headers.
list(REMOVE_DUPLICATES orvexScanIncludes)
list(REMOVE_ITEM orvexScanIncludes /usr/include)
if(ORVEXENG_BITS EQUAL 32)
  target_include_directories(orvex_scan_dependencies SYSTEM INTERFACE
    ${orvexScanIncludes} ${ORVEXENG_SYSROOT_I386}/usr/include/i386-linux-gnu)
  # Files beyond 2 GiB, inodes of 64 bits, times beyond 2038.
  target_compile_definitions(orvex_scan_dependencies INTERFACE
    _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  # In the build tree they are found without LD_LIBRARY_PATH; what is installed uses
  # the system's. The older kind of tag, as it also holds for what these libraries
  # need themselves.
  set_target_properties(orvex_scan_dependencies PROPERTIES ORVEX_SCAN_BUILD_RPATH
    "${ORVEXENG_SYSROOT_I386}/usr/lib/i386-linux-gnu;${ORVEXENG_SYSROOT_I386}/lib/i386-linux-gnu")
  target_link_options(orvex_scan_dependencies INTERFACE
    LINKER:--disable-new-dtags
    LINKER:-rpath-link,${ORVEXENG_SYSROOT_I386}/lib/i386-linux-gnu)
else()
  set_target_properties(orvex_scan_dependencies PROPERTIES ORVEX_SCAN_BUILD_RPATH "")
  target_include_directories(orvex_scan_dependencies SYSTEM INTERFACE ${orvexScanIncludes})
endif()
