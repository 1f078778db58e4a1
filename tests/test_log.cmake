# The configuration tests run the probe in child processes with a prepared
# environment, since a hub reads its configuration once, when it is built.
add_executable(log_probe ${CMAKE_CURRENT_SOURCE_DIR}/helpers/log_probe.cpp)
target_link_libraries(log_probe PRIVATE zoutils::zoutils zoutils_warnings)
add_dependencies(test_log log_probe)
target_compile_definitions(test_log PRIVATE ZOUTILS_LOG_PROBE="$<TARGET_FILE:log_probe>")
