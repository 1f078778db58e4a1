# spdlog (Debian's packaged build) is the peer of the logging benchmarks.
find_package(spdlog REQUIRED)
target_link_libraries(bench_log PRIVATE spdlog::spdlog)
