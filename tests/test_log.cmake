# The configuration tests run the probe in child processes with a prepared
# environment, since a hub reads its configuration once, when it is built.
zoutils_add_probe(log_probe ${test_name} zoutils::zoutils)

# log.h holds what users call: none of the hub's locking reaches their code.
add_test(NAME LogHeader.PullsInNoMutex
  COMMAND ${CMAKE_COMMAND} -DCXX=${CMAKE_CXX_COMPILER} -DINCLUDE=${PROJECT_SOURCE_DIR}/include -DHEADER=utils/log.h
          -DFORBIDDEN=mutex -P ${CMAKE_CURRENT_SOURCE_DIR}/support/check_header_alone.cmake)
