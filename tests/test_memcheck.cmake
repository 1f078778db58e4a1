# The memory probe, built for test_allocator_report, runs here under valgrind.
add_dependencies(${test_name} memory_probe)
target_compile_definitions(${test_name} PRIVATE MEMORY_PROBE="$<TARGET_FILE:memory_probe>")
