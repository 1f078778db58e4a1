# The memory probe: a program with known memory mistakes that test_memcheck runs
# under valgrind.
include(${CMAKE_CURRENT_SOURCE_DIR}/memory_probe/memory_probe.cmake)
add_dependencies(${test_name} memory_probe)
target_compile_definitions(${test_name} PRIVATE MEMORY_PROBE="$<TARGET_FILE:memory_probe>")
