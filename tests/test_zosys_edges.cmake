# A fresh-process probe over the internal system layer; test_zosys_edges runs it.
zoutils_add_probe(zosys_edges_probe ${test_name} zoutils::zosys_internal)
