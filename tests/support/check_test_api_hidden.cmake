# Every entry point declared ZO_TEST_API or ZOSYS_TEST_API in the sources is
# exported by the internal libraries the tests link and by neither installed
# library. The names are read from the declarations, so a new seam is covered
# without being listed here.
#
# Inputs (-D): SOURCE_DIR, NM, PRODUCTION (;-list of libraries), INTERNAL (;-list).
cmake_minimum_required(VERSION 3.25)

file(GLOB_RECURSE sources ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/src/*.cpp ${SOURCE_DIR}/syslayer/*.h
     ${SOURCE_DIR}/syslayer/*.c ${SOURCE_DIR}/syslayer/*.cpp ${SOURCE_DIR}/include/*.h)
set(names "")
foreach(source ${sources})
  file(STRINGS ${source} lines REGEX "^[ \t]*(ZO_TEST_API|ZOSYS_TEST_API)[ \t]")
  foreach(line ${lines})
    # The declared name is the last identifier before the parameter list.
    if(line MATCHES "([A-Za-z_][A-Za-z_0-9]*)[ \t]*\\(")
      list(APPEND names ${CMAKE_MATCH_1})
    endif()
  endforeach()
endforeach()
list(REMOVE_DUPLICATES names)
if(NOT names)
  message(FATAL_ERROR "no ZO_TEST_API declarations found under ${SOURCE_DIR}")
endif()

function(exports out)
  set(all "")
  foreach(lib ${ARGN})
    execute_process(COMMAND ${NM} -DC --defined-only ${lib} RESULT_VARIABLE rc OUTPUT_VARIABLE text)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "${NM} failed on ${lib}")
    endif()
    string(APPEND all "${text}")
  endforeach()
  set(${out} "${all}" PARENT_SCOPE)
endfunction()
exports(production ${PRODUCTION})
exports(internal ${INTERNAL})

set(leaked "")
set(unreachable "")
foreach(name ${names})
  # A demangled C++ name ends "name(", a C one ends the line.
  set(pattern "[ :]${name}(\\(|\n)")
  if(production MATCHES "${pattern}")
    list(APPEND leaked ${name})
  endif()
  if(NOT internal MATCHES "${pattern}")
    list(APPEND unreachable ${name})
  endif()
endforeach()
if(leaked)
  message(FATAL_ERROR "test-only entry points exported by the installed libraries: ${leaked}")
endif()
if(unreachable)
  message(FATAL_ERROR "test-only entry points missing from the internal libraries: ${unreachable}")
endif()
list(LENGTH names count)
message(STATUS "${count} test-only entry points, hidden from the installed libraries: ${names}")
