# The memcheck probe: a program with known memory mistakes that test_memcheck runs
# under valgrind.
add_executable(memcheck_probe ${CMAKE_CURRENT_SOURCE_DIR}/memcheck_probe/memcheck_probe.cpp)
target_link_libraries(memcheck_probe PRIVATE zoutils::zoutils zoutils_warnings)
add_dependencies(${test_name} memcheck_probe)
target_compile_definitions(${test_name} PRIVATE MEMCHECK_PROBE="$<TARGET_FILE:memcheck_probe>")
