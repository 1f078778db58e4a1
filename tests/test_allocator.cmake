# A fresh-process probe: allocation from static constructors, static destructors
# and exit handlers; test_allocator runs it and reads its lines.
add_executable(allocator_probe ${CMAKE_CURRENT_SOURCE_DIR}/allocator_probe/allocator_probe.cpp)
target_link_libraries(allocator_probe PRIVATE zoutils::zoutils zoutils_warnings)
add_dependencies(${test_name} allocator_probe)
target_compile_definitions(${test_name} PRIVATE ALLOCATOR_PROBE="$<TARGET_FILE:allocator_probe>")
