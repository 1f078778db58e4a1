// The installed library's locks and events, and its load-time reports about its
// settings, seen from a program that links the installed form.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "child.h"

namespace {

// Runs the probe in an environment of its own (no settings from the caller's, no
// configuration files) plus the assignments `environment` (shell words), and
// returns what it wrote to standard error and standard output.
std::string runProbe(std::string const& environment) {
    std::string command = "env -i HOME=/nonexistent-zoutils-dir XDG_CONFIG_DIRS=/nonexistent-zoutils-dir ";
    for (char const* pass : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "LD_LIBRARY_PATH"})
        if (char const* v = std::getenv(pass)) command += std::string(pass) + "='" + v + "' ";
    command += environment + " " SYNC_PROBE " 2>&1";
    return zotest::runCommand(command);
}

TEST(InstalledSync, CriticalSectionsAndCooperativeEventsBehaveAsInTheInternalBuild) {
    EXPECT_EQ(runProbe(""),
              "section: enter=0 again=0 exit=0 exit=0 extra-exit=EPERM locker-entered=yes\n"
              "section after locker: exit=EPERM\n"
              "coop event: first=1 second=0 set=0 wait=0 after=0\n");
}

TEST(InstalledSync, TheLibraryReportsUnusableSettingsAtLoadAndStillWorks) {
    // Which setting is read first at load depends on the build (the allocator may
    // read its own before the log hub), so the two reports are taken in either order.
    std::string named = "/nonexistent-zoutils-dir/named.conf";
    std::string out = runProbe("ZOSYS_CONFIG=" + named + " ZOUTILS_LOG_LEVEL=loud");
    std::string const level =
        "zosys: config: environment variable ZOUTILS_LOG_LEVEL: value \"loud\" of ZoUtils.Log.Level is not a "
        "number (decimal or 0x hex, 32 bits); ignored\n";
    std::string const file =
        "zosys: config: cannot read the file named by ZOSYS_CONFIG, " + named + ": No such file or directory\n";
    std::string const work = "section: enter=0 again=0 exit=0 exit=0 extra-exit=EPERM locker-entered=yes\n"
                             "section after locker: exit=EPERM\n"
                             "coop event: first=1 second=0 set=0 wait=0 after=0\n";
    EXPECT_TRUE(out == level + file + work || out == file + level + work) << out;
}

}  // namespace
