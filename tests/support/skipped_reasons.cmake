# Run by ctest after the tests (CTEST_CUSTOM_POST_TEST): prints every skipped
# test of the last run with the reason it gave, under ctest's own summary, which
# names skipped tests but not why.
#
# Inputs (-D): LOG (Testing/Temporary/LastTest.log of the build directory).
# While ctest runs, and so when this script runs, the log of the current run is
# still LOG.tmp; ctest renames it to LOG when it finishes.
cmake_minimum_required(VERSION 3.25)
if(EXISTS "${LOG}.tmp")
  set(LOG "${LOG}.tmp")
elseif(NOT EXISTS "${LOG}")
  return()
endif()
file(READ "${LOG}" text)
# One block per test, each closed by its "<end of output>" and result lines.
string(REPLACE ";" "\\;" text "${text}")
string(REGEX REPLACE "\n[0-9]+/[0-9]+ Testing: " ";" blocks "${text}")
set(lines "")
foreach(block ${blocks})
  if(NOT block MATCHES "\nTest Skipped\\.|\\[  SKIPPED \\]")
    continue()
  endif()
  string(REGEX MATCH "^[^\n]*" name "${block}")
  # GoogleTest writes "file:line: Skipped" and then the message, up to the
  # "[  SKIPPED ]" line.
  set(reason "")
  if(block MATCHES ": Skipped\n(.*)\n\\[  SKIPPED \\]")
    string(REGEX REPLACE "\n\\[  SKIPPED \\].*" "" reason "${CMAKE_MATCH_1}")
    string(STRIP "${reason}" reason)
    string(REPLACE "\n" " " reason "${reason}")
  endif()
  if(reason STREQUAL "")
    set(reason "(no reason given)")
  endif()
  string(APPEND lines "\t${name}: ${reason}\n")
endforeach()
if(lines)
  message("Why they were skipped:\n${lines}")
endif()
