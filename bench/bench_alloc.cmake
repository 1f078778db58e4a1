# bench_alloc runs on the library's arena (it links libzoutils, which defines the
# global operators); bench_alloc_plain is the same source without the library, run
# on glibc malloc or on a peer preloaded by bench/run_alloc.sh.
target_compile_definitions(bench_alloc PRIVATE ZOUTILS_LINKED=1)
add_executable(bench_alloc_plain ${CMAKE_CURRENT_SOURCE_DIR}/bench_alloc.cpp)
target_link_libraries(bench_alloc_plain PRIVATE benchmark::benchmark Threads::Threads)
