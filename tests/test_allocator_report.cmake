# The exit report is read back from the memory probe's standard error.
include(${CMAKE_CURRENT_SOURCE_DIR}/memory_probe/memory_probe.cmake)
add_dependencies(${test_name} memory_probe)
target_compile_definitions(${test_name} PRIVATE MEMORY_PROBE="$<TARGET_FILE:memory_probe>")
