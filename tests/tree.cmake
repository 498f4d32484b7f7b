# Tests of the source tree, with the same result in every build: its documents, and what
# hosts and packagers do with it.

# usage: orvexeng_add_tree_test(SENTENCE [SLOW] COMMAND...)
function(orvexeng_add_tree_test sentence)
  cmake_parse_arguments(PARSE_ARGV 1 "" SLOW "" COMMAND)
  set(name "${ORVEXENG_TEST_PREFIX}/${sentence}")
  add_test(NAME "${name}" COMMAND ${_COMMAND})
  if(_SLOW)
    set_tests_properties("${name}" PROPERTIES LABELS slow)
  endif()
endfunction()

# Both compilers and both widths where available.
find_program(ORVEXENG_CLANG clang)
find_program(ORVEXENG_CLANGXX clang++)
set(headerCompilers ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
if(ORVEXENG_CLANG AND ORVEXENG_CLANGXX)
  list(APPEND headerCompilers ${ORVEXENG_CLANG} ${ORVEXENG_CLANGXX})
endif()
set(headerBits 64)
if(ORVEXENG_BITS EQUAL 32)
  list(APPEND headerBits 32)
endif()
foreach(bits IN LISTS headerBits)
  orvexeng_add_tree_test(
    "header_alone_test: the public headers compile alone as C99 to C17 and C++11 to C++20 with ${bits} bits"
    SLOW COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/header_alone_test.sh ${PROJECT_SOURCE_DIR}/include
      -m${bits} ${headerCompilers})
endforeach()

orvexeng_add_tree_test("layers_test: each layer uses those below it and none above"
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/layers_test.sh ${PROJECT_SOURCE_DIR}/src)
orvexeng_add_tree_test("reproducible_test: the library is the same wherever it is built"
  SLOW COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/reproducible_test.sh ${PROJECT_SOURCE_DIR} ${ORVEXENG_BITS}
    ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
orvexeng_add_tree_test("consumer_test: add_subdirectory gives hosts in C and in C++ the library"
  SLOW COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/consumer_test.sh add ${PROJECT_SOURCE_DIR} ${ORVEXENG_BITS}
    ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
orvexeng_add_tree_test(
  "consumer_test: a release is hardened as far as the environment asks and no less"
  SLOW COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/consumer_test.sh harden ${PROJECT_SOURCE_DIR}
    ${ORVEXENG_BITS} ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
if(ORVEXENG_BITS EQUAL 32)
  orvexeng_add_tree_test("readme_test: the README's commands bring a host to life"
    SLOW COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/readme_test.sh ${PROJECT_SOURCE_DIR})
endif()

# The documents show what the code does.
file(GLOB documents CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/*.md ${PROJECT_SOURCE_DIR}/bench/*.md ${PROJECT_SOURCE_DIR}/docs/*.md)
foreach(document IN LISTS documents)
  orvexeng_add_tree_test("document_test: every block of ${document} is as it says"
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/document_test.sh ${PROJECT_SOURCE_DIR}/${document}
      ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/examples)
endforeach()
orvexeng_add_tree_test("using_document_test: each section of docs/using.md names the test that shows it"
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/using_document_test.sh ${PROJECT_SOURCE_DIR}/docs/using.md
    ${CMAKE_CURRENT_SOURCE_DIR}/using_test.cpp)

set(scan)
if(TARGET orvex-scan)
  set(scan $<TARGET_FILE:orvex-scan>)
endif()
orvexeng_add_tree_test("documented_test: the manual pages describe everything there is and nothing else"
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/documented_test.sh ${PROJECT_SOURCE_DIR} ${scan})
find_program(ORVEXENG_MANDOC mandoc)
if(ORVEXENG_MANDOC)
  orvexeng_add_tree_test("documented_test: mandoc has nothing to say about the manual pages"
    COMMAND sh -euc "cd '${PROJECT_SOURCE_DIR}/docs/man' # where they find each other
      grep -L '^\\.so ' *.[0-9] | xargs '${ORVEXENG_MANDOC}' -T lint")
endif()
find_program(ORVEXENG_DOXYGEN doxygen)
if(ORVEXENG_DOXYGEN)
  orvexeng_add_tree_test("documented_test: doxygen finds everything in the public header described"
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/doxygen_test.sh ${ORVEXENG_DOXYGEN} ${PROJECT_SOURCE_DIR})
endif()
