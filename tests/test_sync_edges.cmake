# A program over the installed library; test_sync_edges runs it.
zoutils_add_probe(sync_probe ${test_name} zoutils::zoutils)
