# The configuration tests run the probe in child processes with a prepared
# environment, since a hub reads its configuration once, when it is built.
zoutils_add_probe(log_probe ${test_name} zoutils::zoutils)
