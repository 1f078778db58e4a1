# A fresh-process probe: allocation from static constructors, static destructors
# and exit handlers; test_allocator runs it and reads its lines.
zoutils_add_probe(allocator_probe ${test_name} zoutils::zoutils)
