# Fails when a public header, compiled alone, pulls in a standard header it must
# not (users pay for every header a public one includes).
# Inputs (-D): CXX, INCLUDE (the public include folder), HEADER (as included, e.g.
# utils/log.h), FORBIDDEN (a standard header name, e.g. mutex).
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/header_alone.cpp "#include <${HEADER}>\n")
execute_process(COMMAND ${CXX} -std=c++17 -I${INCLUDE} -H -fsyntax-only ${CMAKE_CURRENT_BINARY_DIR}/header_alone.cpp
                RESULT_VARIABLE rc ERROR_VARIABLE trace OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${HEADER} does not compile alone:\n${trace}")
endif()
if(NOT trace MATCHES "atomic")
  message(FATAL_ERROR "no include trace read for ${HEADER}:\n${trace}")
endif()
if(trace MATCHES "/${FORBIDDEN}\n")
  message(FATAL_ERROR "${HEADER} pulls in <${FORBIDDEN}>:\n${trace}")
endif()
