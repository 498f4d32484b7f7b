# Registers the cases of a test program with ctest: each runs in its own process and is
# named after its source and its sentence. Cases of the test suite "slow" carry that label
# and may take ten minutes, all others one.
#
# usage: cmake -DPROGRAM=... -DPREFIX=... -DPROPERTIES=... -DFILE=... -P register_cases.cmake
execute_process(COMMAND ${PROGRAM} --reporters=xml --list-test-cases
  OUTPUT_VARIABLE listed COMMAND_ERROR_IS_FATAL ANY)
# A template's name includes its types.
string(REPLACE "&lt;" "<" listed "${listed}")
if(listed MATCHES "<TestCase name=\"([^\"]*[&;][^\"]*)\"")
  message(FATAL_ERROR "A test's sentence may hold none of these: & ; \"\n${CMAKE_MATCH_1}")
endif()
string(REGEX MATCHALL "<TestCase [^\n]*" cases "${listed}")
if(NOT cases)
  message(FATAL_ERROR "${PROGRAM} lists no test case")
endif()

set(script)
foreach(case IN LISTS cases)
  string(REGEX REPLACE ".* name=\"([^\"]*)\".*" "\\1" name "${case}")
  string(REGEX REPLACE ".* filename=\"([^\"]*/)?([^\"]*)\\.cpp\".*" "\\2" source "${case}")
  set(limits "TIMEOUT 60")
  if(case MATCHES " testsuite=\"slow\"")
    # COST: they start first, so that none is left running alone at the end.
    set(limits "TIMEOUT 600 LABELS slow COST 10")
  endif()
  # doctest splits filters at commas.
  string(REPLACE "," "\\," filter "${name}")
  set(test "[==[${PREFIX}/${source}: ${name}]==]")
  string(APPEND script
    "add_test(${test} [==[${PROGRAM}]==] [==[--test-case=${filter}]==] --source-file=*/${source}.cpp)\n"
    "set_tests_properties(${test} PROPERTIES ${limits} ${PROPERTIES})\n")
endforeach()
file(WRITE ${FILE} "${script}")
