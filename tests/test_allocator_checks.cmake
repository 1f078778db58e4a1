# The checks compiled into the library depend on its debug level.
target_compile_definitions(${test_name} PRIVATE ZO_TEST_DEBUG_LEVEL=${ZOUTILS_DEBUG_LEVEL})
