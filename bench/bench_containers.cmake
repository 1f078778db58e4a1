# absl::btree_map is the B-tree peer of the AVL map (Debian's abseil package).
find_package(absl REQUIRED)
target_link_libraries(bench_containers PRIVATE absl::btree)
