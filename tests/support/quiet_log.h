// Log hubs made by a test program read the configuration of its process. Including
// this header empties that configuration before any test runs, so that a developer's
// own settings or files never change what a test sees; ConfigurationFor sets some of
// it for one scope.
#pragma once

#include <stdlib.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

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

// Sets configuration variables of this process for the hubs built in its scope and
// takes them away again, so that later hubs see the quiet configuration.
struct ConfigurationFor {
    ConfigurationFor(std::initializer_list<std::pair<char const*, std::string>> vars) : set(vars) {
        for (auto const& v : set) setenv(v.first, v.second.c_str(), 1);
    }
    ~ConfigurationFor() {
        for (auto const& v : set) unsetenv(v.first);
    }
    ConfigurationFor(ConfigurationFor const&) = delete;
    ConfigurationFor& operator=(ConfigurationFor const&) = delete;
    std::vector<std::pair<char const*, std::string>> set;
};

}  // namespace zotest
