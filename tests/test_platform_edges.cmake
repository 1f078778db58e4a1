# The platform layer is internal to the library (nothing of it is exported), so
# its tests compile it in.
target_sources(${test_name} PRIVATE ${PROJECT_SOURCE_DIR}/src/platform/platform.cpp)
