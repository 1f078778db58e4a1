// Log hubs made by a test program read the configuration of its process. Including
// this header empties that configuration before any test runs, so that a developer's
// own settings or files never change what a test sees.
#pragma once

#include <stdlib.h>

namespace zotest {

struct QuietLogConfiguration {
    QuietLogConfiguration() {
        for (char const* key : {"ZOUTILS_LOG_LEVEL", "ZOUTILS_LOG_VERBOSITY", "ZOUTILS_LOG_ENABLED",
                                "ZOUTILS_LOG_CATEGORIES", "ZOUTILS_LOG_LOGGER", "ZOUTILS_LOG_FILENAME",
                                "ZOUTILS_LOG_FILEOPENMODE", "ZOSYS_CONFIG"})
            unsetenv(key);
        setenv("XDG_CONFIG_HOME", "/nonexistent-zoutils-test", 1);
        setenv("XDG_CONFIG_DIRS", "/nonexistent-zoutils-test", 1);
    }
};

// One per program, made during static initialisation.
inline QuietLogConfiguration gQuietLogConfiguration;

}  // namespace zotest
