# What `cmake --install` lays out, and how others find it.
#
# Directories are those of GNUInstallDirs, below a prefix that may be moved
# afterwards: nothing installed names it. The library goes to lib/, and where Debian
# keeps several widths in one /usr, to lib/i386-linux-gnu or lib/x86_64-linux-gnu.
# To put both widths into another prefix, name CMAKE_INSTALL_LIBDIR for one of them.
#
# Three components: Runtime (the library), Development (headers, link, CMake package,
# pkg-config file, manual of the functions, guides, examples) and Tools (orvex-scan and its
# manual).

include(CMakePackageConfigHelpers)
# A 64-bit compiler with -m32 does not tell this.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
endif()
include(GNUInstallDirs)

install(TARGETS orvexeng EXPORT orvexengTargets
  LIBRARY
    DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime
    NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "orvexeng.h" PATTERN "orvexeng.hpp")

# Side by side as in the source tree, so that links between them work.
install(FILES docs/abi.md docs/examples.md docs/languages.md docs/logging.md docs/using.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT Development)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development
  PATTERN "CMakeLists.txt" EXCLUDE)

# find_package(orvexeng). The version file refuses a library of another width.
set(orvexengPackageDir ${CMAKE_INSTALL_LIBDIR}/cmake/orvexeng)
install(EXPORT orvexengTargets NAMESPACE orvexeng:: FILE orvexeng-config.cmake
  DESTINATION ${orvexengPackageDir} COMPONENT Development)
write_basic_package_version_file(orvexeng-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvexeng-config-version.cmake
  DESTINATION ${orvexengPackageDir} COMPONENT Development)

# pkg-config finds the rest from where its file lies. Directories outside the prefix
# stay where they are.
foreach(dir INCLUDEDIR LIBDIR DOCDIR)
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
    set(orvexengPc${dir} ${CMAKE_INSTALL_${dir}})
  else()
    set(orvexengPc${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(orvexengPcPrefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH orvexengPcPrefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" orvexengPcPrefix "\${pcfiledir}/${orvexengPcPrefix}")
endif()
configure_file(cmake/orvexeng.pc.in orvexeng.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvexeng.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

foreach(section 3 5)
  file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    COMPONENT Development)
endforeach()

if(TARGET orvex-scan)
  # It finds the library that it was installed with, wherever both are moved.
  if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
    file(RELATIVE_PATH toLibraries /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(orvex-scan PROPERTIES INSTALL_RPATH "$ORIGIN/${toLibraries}")
  endif()
  install(TARGETS orvex-scan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  install(FILES docs/man/orvex-scan.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/orvex-scan/orvex-scan.bash RENAME orvex-scan
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT Tools)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/orvex-scan.schema.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/orvex-scan COMPONENT Tools)
endif()
