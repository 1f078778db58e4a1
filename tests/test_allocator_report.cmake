# The memory probe (tests/probes/memory_probe.cpp): the exit report and the
# system-allocator switch are read back from it; test_memcheck runs it too.
zoutils_add_probe(memory_probe ${test_name} zoutils::zoutils)
