// The memory report: counters by colour with their names, and the census of the
// blocks, for a private arena, a page allocator and the process allocator; the
// exit report of a child process, read back and parsed.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>
#include <sys/wait.h>
#include <unistd.h>

#include "knobs.h"
#include "region_source.h"
#include "utils/allocator.h"
#include "utils/string.h"

using Utils::Allocator;
using Utils::BSDAllocator;
using Utils::MemoryAllocator;
using Utils::String;

namespace {

std::string reportOf(Allocator* a, char const* title = nullptr) {
    String s;
    Utils::writeMemoryReport(a, s, title);
    return s.text();
}

// The report's lines, parsed: "key" -> first number after it, per section.
struct Parsed {
    std::string title;
    std::map<std::string, unsigned long> figures;  // allocated, free, regions, ...
    unsigned long obtained = 0, busy = 0, freeBlocks = 0;
    double fragmentation = -1;
    struct Row {
        std::string name;
        unsigned long allocated = 0, free = 0;
    };
    std::map<unsigned, Row> colors;
    std::map<std::string, std::pair<unsigned long, unsigned long>> classes;
};

Parsed parse(std::string const& text) {
    Parsed p;
    std::istringstream in(text);
    std::string line;
    enum { Head, Colors, Classes } part = Head;
    while (std::getline(in, line)) {
        if (line.rfind("memory report: ", 0) == 0) {
            p.title = line.substr(15);
            continue;
        }
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first == "colour") {
            part = Colors;
            continue;
        }
        if (first == "block") {
            part = Classes;
            continue;
        }
        if (part == Head) {
            unsigned long n = 0;
            if (first == "fragmentation") {
                words >> p.fragmentation;
            } else if (first == "blocks") {
                std::string busyWord, freeCount;
                words >> p.busy >> busyWord >> p.freeBlocks;
            } else if (first == "regions") {
                std::string open;
                words >> n >> open;
                p.figures[first] = n;
                p.obtained = std::strtoul(open.c_str() + 1, nullptr, 10);
            } else if (first == "largest") {
                std::string freeWord;
                words >> freeWord >> n;
                p.figures["largest"] = n;
            } else if (words >> n) {
                p.figures[first] = n;
            }
        } else if (part == Colors) {
            Parsed::Row row;
            unsigned color = static_cast<unsigned>(std::stoul(first));
            std::string rest;
            std::getline(words, rest);
            std::istringstream r(rest);
            std::string word;
            std::vector<std::string> all;
            while (r >> word) all.push_back(word);
            if (all.size() < 2) {
                ADD_FAILURE() << "short colour row: " << line;
                continue;
            }
            row.allocated = std::stoul(all[all.size() - 2]);
            row.free = all.back() == "unknown" ? ~0ul : std::stoul(all.back());
            for (std::size_t i = 0; i + 2 < all.size(); ++i) row.name += (i ? " " : "") + all[i];
            p.colors[color] = row;
        } else {
            std::string cls = first;
            std::string unit;
            unsigned long busy = 0, free = 0;
            words >> unit;
            cls += " " + unit;
            if (first != ">" && first != "<=") continue;
            std::string more;
            words >> more;  // "B", "KiB" or "MiB"
            cls += " " + more;
            words >> busy >> free;
            p.classes[cls] = {busy, free};
        }
    }
    return p;
}

TEST(MemoryReport, ArenaReportShowsCountersColoursAndBlocks) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    ASSERT_EQ(Utils::setMemoryColorName(3, "cache"), 0u);
    ASSERT_EQ(Utils::setMemoryColorName(7, "parser"), 0u);
    void* cache[20];
    void* parser[4];
    for (auto& p : cache) p = arena.alloc(100, 3);
    for (auto& p : parser) p = arena.alloc(5000, 7);
    for (int i = 0; i < 20; i += 2) arena.free(cache[i]);  // ten free holes

    Parsed r = parse(reportOf(&arena, "test arena"));
    EXPECT_EQ(r.title, "test arena");
    EXPECT_EQ(r.figures["allocated"], arena.allocatedMemory());
    EXPECT_EQ(r.figures["free"], arena.internalFree());
    EXPECT_EQ(r.figures["regions"], 1u);
    EXPECT_GE(r.obtained, arena.allocatedMemory() + arena.internalFree());
    ASSERT_EQ(r.colors.count(3), 1u);
    EXPECT_EQ(r.colors[3].name, "cache");
    EXPECT_EQ(r.colors[3].allocated, arena.allocatedColorMemory(3));
    EXPECT_EQ(r.colors[3].free, arena.freeColorMemory(3));
    ASSERT_EQ(r.colors.count(7), 1u);
    EXPECT_EQ(r.colors[7].name, "parser");
    EXPECT_EQ(r.colors[7].allocated, arena.allocatedColorMemory(7));
    EXPECT_EQ(r.colors.count(9), 0u) << "a colour without bytes has no row";
    // 100-byte requests take 128-byte blocks; the holes do not touch each other.
    EXPECT_EQ(r.classes["<= 256 B"].first, 10u);
    EXPECT_EQ(r.classes["<= 256 B"].second, 10u);
    EXPECT_EQ(r.classes["<= 16 KiB"].first, 4u);
    EXPECT_EQ(r.busy, 14u);
    EXPECT_EQ(r.freeBlocks, 11u) << "ten holes and the rest of the region";
    EXPECT_GT(r.figures["largest"], 100000u);
    double expected = 100.0 * (1.0 - static_cast<double>(r.figures["largest"]) / arena.internalFree());
    EXPECT_NEAR(r.fragmentation, expected, 0.06);
    EXPECT_GT(r.fragmentation, 0.0);
    for (auto p : parser) arena.free(p);
    for (int i = 1; i < 20; i += 2) arena.free(cache[i]);
    Parsed empty = parse(reportOf(&arena));
    EXPECT_EQ(empty.title, "allocator");
    EXPECT_EQ(empty.busy, 0u);
    EXPECT_EQ(empty.freeBlocks, 1u);
    EXPECT_EQ(empty.fragmentation, 0.0) << "one free block is no fragmentation";
    Utils::setMemoryColorName(3, nullptr);
    Utils::setMemoryColorName(7, nullptr);
}

TEST(MemoryReport, FileAndStringFormsAgree) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    void* p = arena.alloc(777, 2);
    std::string viaString = reportOf(&arena, "same");
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    Utils::writeMemoryReport(&arena, f, "same");
    std::rewind(f);
    std::string viaFile;
    char buffer[512];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) viaFile.append(buffer, n);
    std::fclose(f);
    EXPECT_EQ(viaFile, viaString);
    arena.free(p);
}

TEST(MemoryReport, PageAllocatorReportCountsChunksAndRuns) {
    zotest::RegionSource source(1ul << 20);
    BSDAllocator pages(&source);
    pages.init();
    void* chunks[10];
    for (auto& c : chunks) c = pages.alloc(100, 4);  // 128-byte chunks in one page
    void* run = pages.alloc(3 * 4096, 4);
    Parsed r = parse(reportOf(&pages));
    EXPECT_EQ(r.figures["allocated"], pages.allocatedMemory());
    EXPECT_EQ(r.figures["free"], pages.internalFree());
    EXPECT_EQ(r.figures["regions"], 1u);
    ASSERT_EQ(r.colors.count(4), 1u);
    EXPECT_EQ(r.colors[4].allocated, pages.allocatedColorMemory(4));
    EXPECT_EQ(r.colors[4].free, pages.freeColorMemory(4));
    EXPECT_EQ(r.classes["<= 256 B"].first, 10u);
    EXPECT_EQ(r.classes["<= 256 B"].second, 32u - 10u);
    EXPECT_GE(r.classes["<= 16 KiB"].first, 1u);  // the run (and the directory page)
    for (auto c : chunks) pages.free(c);
    pages.free(run);
}

TEST(MemoryReport, AllocatorWithoutCensusSaysSo) {
    Utils::SimpleAllocator simple;
    void* p = simple.alloc(100);
    std::string text = reportOf(&simple);
    EXPECT_NE(text.find("free           unknown"), std::string::npos) << text;
    EXPECT_NE(text.find("not walked"), std::string::npos) << text;
    Parsed r = parse(text);
    EXPECT_EQ(r.figures["allocated"], simple.allocatedMemory());
    simple.free(p);
    EXPECT_NE(reportOf(nullptr).find("no allocator"), std::string::npos);
}

TEST(MemoryReport, ColourNamesAreCopiedTruncatedAndRemovable) {
    char buffer[64];
    EXPECT_EQ(Utils::setMemoryColorName(300, "x"), 0x80000003u);
    std::string longName(50, 'n');
    ASSERT_EQ(Utils::setMemoryColorName(200, longName.c_str()), 0u);
    EXPECT_EQ(Utils::memoryColorName(200, buffer, sizeof buffer), 31u);
    EXPECT_EQ(std::string(buffer), longName.substr(0, 31));
    EXPECT_EQ(Utils::memoryColorName(200, buffer, 4), 31u);
    EXPECT_STREQ(buffer, "nnn");
    Utils::setMemoryColorName(200, "");
    EXPECT_EQ(Utils::memoryColorName(200, buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
}

TEST(MemoryReport, EmptyTitleIsTheDefaultAndAFreeOnlyColourHasARow) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    void* keep = arena.alloc(300, 1);
    void* gone = arena.alloc(300, 4);
    arena.free(gone);
    ASSERT_EQ(arena.allocatedColorMemory(4), 0u);
    ASSERT_GT(arena.freeColorMemory(4), 0u);
    Parsed r = parse(reportOf(&arena, ""));
    EXPECT_EQ(r.title, "allocator");
    ASSERT_EQ(r.colors.count(4), 1u) << "free bytes alone give a colour its row";
    EXPECT_EQ(r.colors[4].allocated, 0u);
    EXPECT_EQ(r.colors[4].free, arena.freeColorMemory(4));
    arena.free(keep);
}

TEST(MemoryReport, ColourRowsOfAnAllocatorWithoutFreeCountsSayUnknown) {
    Utils::SimpleAllocator simple;
    ASSERT_EQ(Utils::setMemoryColorName(77, "scratch"), 0u);
    void* p = simple.alloc(100, static_cast<char>(77));
    Parsed r = parse(reportOf(&simple));
    ASSERT_EQ(r.colors.count(77), 1u);
    EXPECT_EQ(r.colors[77].name, "scratch");
    EXPECT_EQ(r.colors[77].allocated, simple.allocatedColorMemory(77));
    EXPECT_EQ(r.colors[77].free, ~0ul) << "printed as unknown";
    simple.free(p);
    Utils::setMemoryColorName(77, nullptr);
}

TEST(MemoryReport, ProcessAllocatorReportWalksItsArenas) {
    Allocator* a = Allocator::theAllocator();
    void* p = a->alloc(5000);
    ASSERT_NE(p, nullptr);
    Parsed r = parse(reportOf(a, "process"));
    EXPECT_EQ(r.title, "process");
    EXPECT_GE(r.figures["regions"], 1u);
    EXPECT_GE(r.busy, 1u);
    EXPECT_GE(r.figures["allocated"], 5000u);
    a->free(p);
}

TEST(MemoryReport, NamesOfColoursAbove255AreEmptyAndTheLengthNeedsNoBuffer) {
    ASSERT_EQ(Utils::setMemoryColorName(12, "twelve"), 0u);
    EXPECT_EQ(Utils::memoryColorName(12, nullptr, 0), 6u);
    char buffer[8] = "xxxxxxx";
    EXPECT_EQ(Utils::memoryColorName(12, buffer, 0), 6u);
    EXPECT_STREQ(buffer, "xxxxxxx") << "a zero-size buffer is not written";
    EXPECT_EQ(Utils::memoryColorName(300, buffer, sizeof buffer), 0u);
    EXPECT_STREQ(buffer, "");
    Utils::setMemoryColorName(12, nullptr);
}

TEST(MemoryReport, NullFileWritesNothing) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    void* p = arena.alloc(100);
    unsigned long before = arena.allocatedMemory();
    Utils::writeMemoryReport(&arena, static_cast<FILE*>(nullptr), "x");
    EXPECT_EQ(arena.allocatedMemory(), before);
    EXPECT_EQ(arena.verify(), nullptr);
    arena.free(p);
}

// The process allocator's report at exit, from a child with the key set in its
// environment or in a ZOSYS_CONFIG file, parsed back.
struct ProbeRun {
    int status = 0;
    std::string err;
};

ProbeRun runProbe(std::map<std::string, std::string> const& env, char const* mode = "colors") {
    int pipefd[2];
    ProbeRun run;
    if (pipe(pipefd) != 0) return run;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(pipefd[1], 2);
        close(pipefd[0]);
        close(pipefd[1]);
        unsetenv("ZOUTILS_MEMORY_REPORTATEXIT");
        unsetenv("ZOSYS_CONFIG");
        for (auto const& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        dup2(2, 1);
        execl(MEMORY_PROBE, MEMORY_PROBE, mode, static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipefd[1]);
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipefd[0], buffer, sizeof buffer)) > 0) run.err.append(buffer, static_cast<std::size_t>(n));
    close(pipefd[0]);
    waitpid(pid, &run.status, 0);
    return run;
}

void expectExitReport(ProbeRun const& run) {
    ASSERT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.err;
    std::size_t at = run.err.find("memory report: process allocator at exit");
    ASSERT_NE(at, std::string::npos) << run.err;
    Parsed r = parse(run.err.substr(at));
    ASSERT_EQ(r.colors.count(5), 1u) << run.err;
    EXPECT_EQ(r.colors[5].name, "cache");
    EXPECT_GE(r.colors[5].allocated, 40u * 1000u);
    ASSERT_EQ(r.colors.count(9), 1u) << run.err;
    EXPECT_EQ(r.colors[9].name, "parser");
    EXPECT_GE(r.colors[9].allocated, 10u * 3000u);
    EXPECT_GE(r.figures["allocated"], r.colors[5].allocated + r.colors[9].allocated);
    EXPECT_GE(r.figures["regions"], 1u);
    EXPECT_GE(r.busy, 50u);
}

// The probe's blocks come from theAllocator()->alloc, the arena in every build.
TEST(MemoryReport, ExitReportFromTheEnvironment) {
    expectExitReport(runProbe({{"ZOUTILS_MEMORY_REPORTATEXIT", "1"}}));
    ProbeRun off = runProbe({{"ZOUTILS_MEMORY_REPORTATEXIT", "0"}});
    EXPECT_EQ(off.err.find("memory report:"), std::string::npos) << off.err;
    ProbeRun unset = runProbe({});
    EXPECT_EQ(unset.err.find("memory report:"), std::string::npos) << unset.err;
}

TEST(MemoryReport, ExitReportFromAConfigurationFileWithProvenance) {
    char path[] = "/tmp/zoutils_report_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string text = "# exit report\nZoUtils.Memory.ReportAtExit = 1\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    ProbeRun run = runProbe({{"ZOSYS_CONFIG", path}, {"ZOSYS_CONFIG_DEBUG", "1"}});
    unlink(path);
    expectExitReport(run);
    std::size_t trace = run.err.find("ZoUtils.Memory.ReportAtExit");
    ASSERT_NE(trace, std::string::npos) << run.err;
    std::string traceLine = run.err.substr(trace, run.err.find('\n', trace) - trace);
    EXPECT_NE(traceLine.find(path), std::string::npos) << "provenance names the file: " << traceLine;
}

}  // namespace

namespace {

std::map<std::string, unsigned long> facts(std::string const& out) {
    std::map<std::string, unsigned long> f;
    std::istringstream in(out);
    std::string word;
    while (in >> word) {
        std::size_t eq = word.find('=');
        if (eq != std::string::npos) f[word.substr(0, eq)] = std::strtoul(word.c_str() + eq + 1, nullptr, 10);
    }
    return f;
}

// ZoUtils.Memory.SystemAllocator: operator new's blocks come from malloc, and the
// process allocator (string buffers, theAllocator()->alloc) stays the arena.
TEST(SystemAllocatorSwitch, OperatorNewUsesMallocAndTheArenaStays) {
    if (zotest::foreignOperatorNew()) GTEST_SKIP() << zotest::foreignOperatorNew();
    ProbeRun on = runProbe({{"ZOUTILS_MEMORY_SYSTEMALLOCATOR", "1"}}, "operators");
    ASSERT_TRUE(WIFEXITED(on.status) && WEXITSTATUS(on.status) == 0) << on.err;
    auto f = facts(on.err);
    EXPECT_EQ(f["new-size"], 0u) << on.err;
    EXPECT_EQ(f["counted"], 0u) << on.err;
    EXPECT_GE(f["malloc-usable"], 3000u) << on.err;
    EXPECT_GE(f["arena-size"], 3000u) << on.err;

    ProbeRun off = runProbe({{"ZOUTILS_MEMORY_SYSTEMALLOCATOR", "0"}}, "operators");
    ASSERT_TRUE(WIFEXITED(off.status) && WEXITSTATUS(off.status) == 0) << off.err;
    auto g = facts(off.err);
    EXPECT_GE(g["new-size"], 3000u) << off.err;
    EXPECT_GE(g["counted"], 3000u) << off.err;
    EXPECT_GE(g["arena-size"], 3000u) << off.err;
}

TEST(SystemAllocatorSwitch, GlibcCatchesADoubleDeleteOfTheProgram) {
    if (zotest::foreignOperatorNew()) GTEST_SKIP() << zotest::foreignOperatorNew();
    ProbeRun run = runProbe({{"ZOUTILS_MEMORY_SYSTEMALLOCATOR", "1"}}, "double-delete");
    ASSERT_TRUE(WIFSIGNALED(run.status)) << run.err;
    EXPECT_EQ(WTERMSIG(run.status), SIGABRT) << run.err;
    EXPECT_NE(run.err.find("double free"), std::string::npos) << run.err;
}

}  // namespace

TEST(MemoryReport, EmptyOrNullTitleGivesTheDefaultHeading) {
    Utils::SimpleAllocator simple;
    EXPECT_EQ(parse(reportOf(&simple, "")).title, "allocator");
    EXPECT_EQ(parse(reportOf(&simple, nullptr)).title, "allocator");
    EXPECT_EQ(parse(reportOf(&simple, "mine")).title, "mine");
}

TEST(MemoryReport, ColourNameQueriesOutsideTheRangeOrWithoutABuffer) {
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(Utils::memoryColorName(256, buffer, sizeof buffer), 0u);  // no colour above 255 has a name
    EXPECT_STREQ(buffer, "");
    ASSERT_EQ(Utils::setMemoryColorName(201, "named"), 0u);
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(Utils::memoryColorName(201, nullptr, 0), 5u);
    EXPECT_EQ(Utils::memoryColorName(201, buffer, 0), 5u);
    EXPECT_EQ(buffer[0], 'x');  // a size of 0 writes nothing
    EXPECT_EQ(Utils::memoryColorName(201, buffer, 1), 5u);
    EXPECT_STREQ(buffer, "");
    Utils::setMemoryColorName(201, nullptr);
    EXPECT_EQ(Utils::memoryColorName(201, buffer, sizeof buffer), 0u);
}
