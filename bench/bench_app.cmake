# bench_app is the library's program (linked with libzoutils, on its arena);
# bench_app_std is the same source without the library: std types on glibc malloc.
target_compile_definitions(bench_app PRIVATE ZOUTILS_LINKED=1)
add_executable(bench_app_std ${CMAKE_CURRENT_SOURCE_DIR}/bench_app.cpp)
target_link_libraries(bench_app_std PRIVATE Threads::Threads)
