# The process sweep runs the tour and a small program under memory limits.
add_executable(faults_probe ${CMAKE_CURRENT_SOURCE_DIR}/faults_probe/faults_probe.cpp)
target_link_libraries(faults_probe PRIVATE zoutils::zoutils zoutils_warnings)
add_dependencies(${test_name} faults_probe)
target_compile_definitions(${test_name} PRIVATE FAULTS_PROBE="$<TARGET_FILE:faults_probe>")
if(TARGET zoutils_tour)
  add_dependencies(${test_name} zoutils_tour)
  target_compile_definitions(${test_name} PRIVATE ZOUTILS_TOUR="$<TARGET_FILE:zoutils_tour>")
endif()
