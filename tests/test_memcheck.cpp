// valgrind's memcheck sees into arena memory: a probe with known mistakes runs
// under memcheck, one mistake per process, and every mistake must be reported
// with the probe's function on its stack; the clean probe must get no report.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "child.h"
#include "knobs.h"

namespace {

std::string findValgrind() {
    char const* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    std::size_t from = 0;
    while (from <= dirs.size()) {
        std::size_t to = dirs.find(':', from);
        if (to == std::string::npos) to = dirs.size();
        std::string candidate = dirs.substr(from, to - from) + "/valgrind";
        if (to > from && access(candidate.c_str(), X_OK) == 0) return candidate;
        from = to + 1;
    }
    return {};
}

// Why memcheck cannot be asked here, or empty when it can.
std::string cannotRun() {
    if (zotest::sanitizerOwnsOperatorNew()) return "a sanitizer build cannot run under valgrind";
    if (zotest::underValgrind()) return "already under valgrind";
    if (findValgrind().empty()) return "valgrind is not installed (apt-get install -y valgrind)";
    return {};
}

// memcheck's report of one probe case (its standard error, with the probe's own).
std::string memcheck(std::string const& which) {
    std::string command = findValgrind() +
                          " --tool=memcheck --leak-check=full --num-callers=30 --error-exitcode=0 " MEMORY_PROBE " " +
                          which + " 2>&1";
    return zotest::runCommand(command);
}

// True when some report that starts with `kind` names `function` before the
// blank line that ends it.
bool reported(std::string const& out, std::string const& kind, std::string const& function) {
    for (std::size_t at = out.find(kind); at != std::string::npos; at = out.find(kind, at + 1)) {
        std::size_t end = out.find("== \n", at);
        std::string report = out.substr(at, end == std::string::npos ? std::string::npos : end - at);
        if (report.find(function) != std::string::npos) return true;
    }
    return false;
}

void expectFourMistakesReported(char const* path) {
    std::string why = cannotRun();
    if (!why.empty()) GTEST_SKIP() << why;
    struct {
        char const* mistake;
        char const* kind;
    } const cases[] = {
        {"overrun", "Invalid write of size"},
        {"stale", "Invalid read of size"},
        {"undefined", "Conditional jump or move depends on uninitialised value"},
        {"leak", "are definitely lost in loss record"},
    };
    int seen = 0;
    for (auto const& c : cases) {
        std::string function = std::string("mistake_") + c.mistake + "_" + path;
        std::string out = memcheck(function);
        bool ok = reported(out, c.kind, function);
        EXPECT_TRUE(ok) << function << ": no \"" << c.kind << "\" report naming it in:\n" << out;
        seen += ok;
    }
    EXPECT_EQ(seen, 4);
}

TEST(Memcheck, ReportsFourMistakesThroughTheProcessAllocator) { expectFourMistakesReported("alloc"); }

TEST(Memcheck, ReportsFourMistakesThroughAStringBuffer) { expectFourMistakesReported("string"); }

TEST(Memcheck, ReportsFourMistakesThroughAPageAllocator) { expectFourMistakesReported("page"); }

TEST(Memcheck, CleanProbeGetsNoReport) {
    std::string why = cannotRun();
    if (!why.empty()) GTEST_SKIP() << why;
    std::string out = memcheck("clean");
    EXPECT_NE(out.find("\ndone\n"), std::string::npos) << out;
    EXPECT_NE(out.find("ERROR SUMMARY: 0 errors from 0 contexts"), std::string::npos) << out;
    EXPECT_EQ(out.find("definitely lost in loss record"), std::string::npos) << out;
}

}  // namespace
