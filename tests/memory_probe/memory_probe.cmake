# Built once, for test_memcheck and test_allocator_report.
if(NOT TARGET memory_probe)
  add_executable(memory_probe ${CMAKE_CURRENT_SOURCE_DIR}/memory_probe/memory_probe.cpp)
  target_link_libraries(memory_probe PRIVATE zoutils::zoutils zoutils_warnings)
endif()
