// The system layer at its edges: handles outside the table, bulk reuse of handles,
// the fault table's corner cases, the memory seams at their limits, file calls that
// the system interrupts or refuses, configuration corners and the diagnostics'
// once-only table. Cases that exhaust something process-wide run in a forked child.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "files.h"
#include "eventually.h"
#include "knobs.h"
#include "zosys.h"
#include "zosys_faults.h"

namespace {

using zotest::readFile;
using zotest::writeFile;
using zotest::makeTempDir;

constexpr unsigned long kGranule = 1ul << 20;

void removeTree(std::string const& dir) {
    if (!dir.empty()) std::system(("rm -rf '" + dir + "'").c_str());
}

// Runs `body` in a forked child, which writes its findings to `out` (a pipe) and
// returns its exit code. Returns what the child wrote; *code gets its exit code, or
// -1 when it did not exit normally.
std::string inChild(std::function<int(int out)> const& body, int* code) {
    int fds[2];
    if (pipe(fds) != 0) return "pipe failed";
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) return "fork failed";
    if (pid == 0) {
        close(fds[0]);
        int rc = body(fds[1]);
        close(fds[1]);
        zotest::exitChild(rc);
    }
    close(fds[1]);
    int status = 0;
    std::string report = zotest::collectChildReport(fds[0], pid, &status);
    *code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return report;
}

// Writes text to a descriptor without allocating.
void say(int fd, char const* text) {
    ssize_t ignored = write(fd, text, std::strlen(text));
    (void)ignored;
}

// ---------------------------------------------------------------------------
// Threads blocked in a system call, and signals that interrupt them
// ---------------------------------------------------------------------------

// True when the thread or process described under `base` (a /proc directory)
// sleeps inside system call `number`.
bool sleepsInSyscall(std::string const& base, long number) {
    std::string stat = readFile(base + "/stat");
    std::string::size_type close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] != 'S') return false;
    std::string call = readFile(base + "/syscall");
    return !call.empty() && std::strtol(call.c_str(), nullptr, 10) == number;
}

std::atomic<int> gInterrupts{0};
void countInterrupt(int) { gInterrupts.fetch_add(1); }

// Installs a handler for SIGUSR1 without SA_RESTART, so that a blocking call it
// interrupts returns EINTR; the previous action comes back at the end of scope.
class InterruptingSignal {
public:
    InterruptingSignal() {
        gInterrupts.store(0);
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = countInterrupt;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;
        sigaction(SIGUSR1, &sa, &old_);
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &old_, nullptr); }
    InterruptingSignal(InterruptingSignal const&) = delete;
    InterruptingSignal& operator=(InterruptingSignal const&) = delete;

private:
    struct sigaction old_;
};

// ---------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------

TEST(HandleEdges, HandlesBeyondTheTableOrInAnUnusedPartOfItAreRefused) {
    // 4000000 lies inside the table's range, in a part no object has ever used.
    for (ZoIF_Handle h : {4000000u, 0x7FFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        SCOPED_TRACE(h);
        EXPECT_EQ(ZoIF_EnterMutex(h), EINVAL);
        EXPECT_EQ(ZoIF_ExitMutex(h), EINVAL);
        EXPECT_EQ(ZoIF_DestroyMutex(h), EINVAL);
        EXPECT_EQ(ZoIF_EnterCriticalSection(h), EINVAL);
        EXPECT_EQ(ZoIF_DestroyCriticalSection(h), EINVAL);
        EXPECT_EQ(ZoIF_SetEvent(h), EINVAL);
        EXPECT_EQ(ZoIF_ResetEventCoop(h), EINVAL);
        EXPECT_EQ(ZoIF_WaitEvent(h), EINVAL);
        EXPECT_EQ(ZoIF_WaitEventTimedCoop(h, 0.0), 0);
        EXPECT_EQ(ZoIF_DestroyEvent(h), EINVAL);
    }
}

TEST(HandleEdges, HandlesDestroyedInBulkAreHandedOutAgainAndWork) {
    constexpr int kCount = 300;  // several times what the layer's first list of free handles holds
    std::vector<ZoIF_Handle> first;
    for (int i = 0; i < kCount; ++i) first.push_back(ZoIF_CreateMutex());
    std::set<ZoIF_Handle> firstSet(first.begin(), first.end());
    EXPECT_EQ(firstSet.size(), static_cast<size_t>(kCount));
    EXPECT_EQ(firstSet.count(0u), 0u);
    for (ZoIF_Handle h : first) EXPECT_EQ(ZoIF_DestroyMutex(h), 0);

    std::vector<ZoIF_Handle> second;
    for (int i = 0; i < kCount; ++i) second.push_back(ZoIF_CreateEvent(0, 1));
    EXPECT_EQ(std::set<ZoIF_Handle>(second.begin(), second.end()), firstSet);
    for (ZoIF_Handle h : second) {
        EXPECT_EQ(ZoIF_WaitEventTimed(h, -1.0), 1);  // each is a fresh, signalled event
        EXPECT_EQ(ZoIF_WaitEventTimed(h, -1.0), 0);
        EXPECT_EQ(ZoIF_DestroyEvent(h), 0);
    }
}

TEST(HandleEdges, DestroyingAHeldLockReportsBusyAndStillDestroysIt) {
    ZoIF_Handle m = ZoIF_CreateMutex();
    ASSERT_NE(m, 0u);
    ASSERT_EQ(ZoIF_EnterMutex(m), 0);
    EXPECT_EQ(ZoIF_DestroyMutex(m), EBUSY);
    EXPECT_EQ(ZoIF_EnterMutex(m), EINVAL);
    EXPECT_EQ(ZoIF_DestroyMutex(m), EINVAL);

    ZoIF_Handle c = ZoIF_CreateCriticalSection();
    ASSERT_NE(c, 0u);
    ASSERT_EQ(ZoIF_EnterCriticalSection(c), 0);
    ASSERT_EQ(ZoIF_EnterCriticalSection(c), 0);
    ASSERT_EQ(ZoIF_ExitCriticalSection(c), 0);
    EXPECT_EQ(ZoIF_DestroyCriticalSection(c), EBUSY);  // still entered once
    EXPECT_EQ(ZoIF_ExitCriticalSection(c), EINVAL);
}

// ---------------------------------------------------------------------------
// The fault table
// ---------------------------------------------------------------------------

class FaultEdges : public ::testing::Test {
protected:
    void SetUp() override { dir = makeTempDir("zosys_edges"); }
    void TearDown() override {
        ZoIF_TestFaultDisarm();
        removeTree(dir);
    }
    std::string dir;
};

TEST_F(FaultEdges, ArmingAtZeroFailsTheVeryNextEvent) {
    std::string path = dir + "/zero.log";
    ZoIF_TestFaultArm(ZOIF_FAULT_OPEN, 0, 0);
    int failed = ZoIF_Open(path.c_str(), 2, 1);
    int opened = ZoIF_Open(path.c_str(), 2, 1);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(failed, -1);
    EXPECT_GE(opened, 0);
    EXPECT_EQ(ZoIF_TestFaultCalls(), 2u);
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    if (opened >= 0) {
        EXPECT_EQ(ZoIF_Close(opened), 0);
    }
}

TEST_F(FaultEdges, AStepAtASiteOutsideTheArmedSetIsNeitherCountedNorFailed) {
    ZoIF_TestFaultArm(ZOIF_FAULT_OPEN, 1, 0);
    EXPECT_EQ(ZoIF_TestFaultStep(ZOIF_FAULT_WRITE), 0);
    EXPECT_EQ(ZoIF_TestFaultCalls(), 0u);
    EXPECT_EQ(ZoIF_TestFaultHits(), 0u);
    EXPECT_EQ(ZoIF_TestFaultStep(ZOIF_FAULT_OPEN), 1);  // the armed one still fails next
    EXPECT_EQ(ZoIF_TestFaultCalls(), 1u);
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
}

TEST_F(FaultEdges, AWriteFaultLeavesTheFileUntouchedAndTheNextWriteLands) {
    std::string path = dir + "/write.log";
    int fd = ZoIF_Open(path.c_str(), 2, 1);
    ASSERT_GE(fd, 0);
    ZoIF_TestFaultArm(ZOIF_FAULT_WRITE, 1, 0);
    EXPECT_EQ(ZoIF_Write(fd, "lost", 4), ENOSPC);
    EXPECT_EQ(ZoIF_Write(fd, "kept", 4), 0);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_Close(fd), 0);
    EXPECT_EQ(readFile(path), "kept");
}

TEST_F(FaultEdges, ARegionFaultRefusesTheRegionAndLeavesTheSizeAlone) {
    unsigned long long before = ZoIF_TestMemCommitted();
    ZoIF_TestFaultArm(ZOIF_FAULT_REGION, 1, 0);
    unsigned int size = 3;
    void* refused = ZoIF_MemAllocMin(&size);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(ZoIF_TestMemCommitted(), before);
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
}

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------

TEST(MemoryEdges, AZeroSizeRequestIsServedWithOneGranule) {
    unsigned long long before = ZoIF_TestMemCommitted();
    unsigned int size = 0;
    void* p = ZoIF_MemAllocMin(&size);
    unsigned long long after = ZoIF_TestMemCommitted();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(size, kGranule);
    EXPECT_EQ(after - before, kGranule);
    std::memset(p, 0x5A, size);  // all of it is writable
}

TEST(MemoryEdges, AGapOfZeroBytesSkipsOneGranule) {
    unsigned int a = 1, b = 1;
    char* pa = static_cast<char*>(ZoIF_MemAllocMin(&a));
    ZoIF_TestLeaveMemGap(0);
    char* pb = static_cast<char*>(ZoIF_MemAllocMin(&b));
    ASSERT_NE(pa, nullptr);
    ASSERT_NE(pb, nullptr);
    EXPECT_EQ(pb, pa + a + kGranule);
}

TEST(MemoryEdges, TheReservedRangeRunsOutAndThenRefusesWithoutTouchingTheSize) {
    // Gaps of 4 GiB - 1 MiB walk through the reserved range (64 GiB at most) in a
    // few steps while committing only a granule per step.
    int code = 0;
    std::string report = inChild(
        [](int out) {
            constexpr unsigned int kGap = 0xFFF00000u;
            char* previous = nullptr;
            int served = 0;
            for (int step = 0; step < 40; ++step) {
                ZoIF_TestLeaveMemGap(kGap);
                unsigned int size = 1;
                char* p = static_cast<char*>(ZoIF_MemAllocMin(&size));
                if (!p) {
                    if (size != 1) return 2;
                    unsigned int again = 1;
                    if (ZoIF_MemAllocMin(&again) || again != 1) return 3;  // the gap is still pending
                    say(out, served <= 16 ? "ran out" : "wrong count");  // 64 GiB at most: 16 steps
                    return 0;
                }
                if (size != kGranule) return 4;
                if (previous && p != previous + kGranule + kGap) return 5;
                previous = p;
                ++served;
            }
            say(out, "never ran out");
            return 0;
        },
        &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(report, "ran out");
}

// Runs the fresh-process probe with `arguments` under the environment assignments
// `environment` (shell words) and returns what it printed on stdout and stderr.
std::string probe(std::string const& environment, std::string const& arguments) {
    return zotest::runCommand(environment + " " ZOSYS_EDGES_PROBE " " + arguments + " 2>&1");
}

TEST(MemoryEdges, EnvironmentLimitsWithALeadingZeroAreDecimal) {
    EXPECT_EQ(probe("ZOSYS_MEM_LIMIT=03145728", "mem 8"), "regions=3 committed=3145728\n");
    EXPECT_EQ(probe("ZOSYS_MEM_LIMIT=0002097152", "mem 8"), "regions=2 committed=2097152\n");
}

TEST(MemoryEdges, EnvironmentLimitsThatAreNoByteCountAreReportedAndIgnored) {
    for (char const* text : {"-1048576", "x100000", "0x", "99999999999999999999999", "1048576 "}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(probe(std::string("ZOSYS_MEM_LIMIT='") + text + "'", "mem 2"),
                  std::string("zosys: ZOSYS_MEM_LIMIT=\"") + text +
                      "\" is not a byte count (decimal or 0x hex); no limit\nregions=2 committed=2097152\n");
    }
}

TEST(MemoryEdges, WithoutAnAddressRangeFromTheSystemNoMemoryIsServed) {
    if (zotest::sanitizerOwnsOperatorNew()) GTEST_SKIP() << "the sanitizer's own mappings cannot live under an address-space limit";
    EXPECT_EQ(probe("", "noreserve"), "init=ENOMEM again=ENOMEM region=none size=1\n");
}

TEST(HandleEdges, CreatesFailCleanlyWhenTheHeapIsUsedUp) {
    if (zotest::sanitizerOwnsOperatorNew()) GTEST_SKIP() << "the sanitizer's own heap cannot live under an address-space limit";
    EXPECT_EQ(probe("", "noheap"),
              "no heap: mutex=0 section=0 event=0\n"
              "destroy=0 then enter=EINVAL\n"
              "no table: mutex=0 event=0\n"
              "earlier handles working=1023\n"
              "heap back: created and usable, next number\n");
}

// Bytes of private writable memory the process maps now (VmData).
unsigned long dataBytes() {
    std::string status = readFile("/proc/self/status");
    std::string::size_type at = status.find("VmData:");
    if (at == std::string::npos) return 0;
    return std::strtoul(status.c_str() + at + 7, nullptr, 10) * 1024;
}

TEST(MemoryEdges, ARegionTheSystemWillNotMakeWritableIsRefused) {
    // A data limit at the current size: the range is reserved, but the system
    // refuses to make one more granule of it writable.
    unsigned long now = dataBytes();
    ASSERT_GT(now, 0u);
    int code = 0;
    std::string report = inChild(
        [now](int out) {
            unsigned long long before = ZoIF_TestMemCommitted();
            struct rlimit old;
            getrlimit(RLIMIT_DATA, &old);
            struct rlimit tight = old;
            tight.rlim_cur = now + kGranule / 2;
            if (setrlimit(RLIMIT_DATA, &tight) != 0) return 2;
            unsigned int size = 1;
            void* p = ZoIF_MemAllocMin(&size);
            setrlimit(RLIMIT_DATA, &old);
            unsigned long long after = ZoIF_TestMemCommitted();
            say(out, !p && size == 1 && after == before ? "refused" : "served");
            unsigned int again = 1;
            say(out, ZoIF_MemAllocMin(&again) && again == kGranule ? ", then served" : ", then refused");
            return 0;
        },
        &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(report, "refused, then served");
}

// ---------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------

class FileEdges : public ::testing::Test {
protected:
    void SetUp() override { dir = makeTempDir("zosys_edges"); }
    void TearDown() override { removeTree(dir); }
    std::string dir;
};

TEST_F(FileEdges, WriteHandsBackTheSystemsError) {
    int readOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(readOnly, 0);
    EXPECT_EQ(ZoIF_Write(readOnly, "x", 1), EBADF);
    close(readOnly);
}

TEST_F(FileEdges, CloseHandsBackTheSystemsError) {
    EXPECT_EQ(ZoIF_Close(1 << 24), EBADF);  // above any descriptor limit: never open
}

TEST_F(FileEdges, AnInterruptedOpenIsRetried) {
    // Opening a FIFO for writing sleeps until a reader comes; a signal without
    // SA_RESTART breaks that sleep with EINTR, and the open must try again.
    std::string fifo = dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    InterruptingSignal signal;
    std::atomic<int> tid{0};
    int fd = -2;
    std::thread opener([&] {
        tid.store(ZoIF_CurrentTaskId());
        fd = ZoIF_Open(fifo.c_str(), 4, 0);
    });
    ASSERT_TRUE(zotest::eventually([&] { return tid.load() && sleepsInSyscall("/proc/self/task/" + std::to_string(tid.load()), SYS_openat); }));
    syscall(SYS_tgkill, getpid(), tid.load(), SIGUSR1);
    ASSERT_TRUE(zotest::eventually([] { return gInterrupts.load() == 1; }));
    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    opener.join();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ZoIF_Write(fd, "ping", 4), 0);
    char got[8] = {};
    EXPECT_EQ(read(reader, got, sizeof got), 4);
    EXPECT_STREQ(got, "ping");
    EXPECT_EQ(ZoIF_Close(fd), 0);
    close(reader);
    EXPECT_EQ(gInterrupts.load(), 1);
}

TEST_F(FileEdges, AnInterruptedWriteIsRetriedAndArrivesWhole) {
    // A write into a full pipe sleeps with nothing written; the signal makes it
    // return EINTR, and the layer must write again rather than give up.
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    int flags = fcntl(fds[1], F_GETFL);
    fcntl(fds[1], F_SETFL, flags | O_NONBLOCK);
    std::string filler(4096, 'f');
    size_t filled = 0;
    for (;;) {
        ssize_t n = write(fds[1], filler.data(), filler.size());
        if (n <= 0) break;
        filled += static_cast<size_t>(n);
    }
    fcntl(fds[1], F_SETFL, flags);
    ASSERT_GT(filled, 0u);

    InterruptingSignal signal;
    std::string message(1000, '\0');
    for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<char>('a' + i % 26);
    std::atomic<int> tid{0};
    int rc = -1;
    std::thread writer([&] {
        tid.store(ZoIF_CurrentTaskId());
        rc = ZoIF_Write(fds[1], message.data(), static_cast<unsigned>(message.size()));
    });
    ASSERT_TRUE(zotest::eventually([&] { return tid.load() && sleepsInSyscall("/proc/self/task/" + std::to_string(tid.load()), SYS_write); }));
    syscall(SYS_tgkill, getpid(), tid.load(), SIGUSR1);
    ASSERT_TRUE(zotest::eventually([] { return gInterrupts.load() == 1; }));

    std::string received;
    char buf[8192];
    while (received.size() < filled + message.size()) {
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        received.append(buf, static_cast<size_t>(n));
    }
    writer.join();
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(rc, 0);
    ASSERT_EQ(received.size(), filled + message.size());
    EXPECT_TRUE(received.compare(filled, message.size(), message) == 0);
    EXPECT_EQ(gInterrupts.load(), 1);
}

// ---------------------------------------------------------------------------
// Configuration. Each test gets its own file layers and a clean environment;
// keys are test-only ("ZoEdge.*"), and each report names a value or path of its own
// (a line is printed once per process).
// ---------------------------------------------------------------------------

class ConfigEdges : public ::testing::Test {
protected:
    void SetUp() override {
        dir = makeTempDir("zosys_edges");
        ASSERT_FALSE(dir.empty());
        std::system(("mkdir -p '" + dir + "/sys1/zoutils' '" + dir + "/sys2/zoutils' '" + dir + "/home/zoutils'").c_str());
        char const* home = std::getenv("HOME");
        hadHome = home != nullptr;
        if (home) savedHome = home;
        setenv("XDG_CONFIG_DIRS", (dir + "/sys1:" + dir + "/sys2").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir + "/home").c_str(), 1);
        unsetenv("ZOSYS_CONFIG");
        unsetenv("ZOSYS_CONFIG_DEBUG");
    }
    void TearDown() override {
        for (char const* name : {"ZOSYS_CONFIG", "ZOSYS_CONFIG_DEBUG", "XDG_CONFIG_DIRS", "XDG_CONFIG_HOME"})
            unsetenv(name);
        for (std::string const& name : variables) unsetenv(name.c_str());
        if (hadHome) setenv("HOME", savedHome.c_str(), 1);
        removeTree(dir);
    }
    // Sets an environment variable that TearDown removes again.
    void put(std::string const& name, std::string const& value) {
        variables.push_back(name);
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::string systemFile(int n) const { return dir + "/sys" + std::to_string(n) + "/zoutils/zoutils.conf"; }
    std::string userFile() const { return dir + "/home/zoutils/zoutils.conf"; }

    std::string dir;
    std::string savedHome;
    bool hadHome = false;
    std::vector<std::string> variables;
};

TEST_F(ConfigEdges, AnEmptyDebugVariableLeavesTheTraceOff) {
    put("ZOSYS_CONFIG_DEBUG", "");
    put("ZOEDGE_QUIET", "3");
    int v = 0;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.Quiet", &v);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 3);
}

TEST_F(ConfigEdges, KeyCharactersBeyondTheLowercaseLettersAreKeptInTheVariableName) {
    put("ZOEDGE_BRACE{~}", "12");
    int v = 0;
    EXPECT_EQ(ZoIF_GetConfigNumber("ZoEdge.brace{~}", &v), 0);
    EXPECT_EQ(v, 12);
}

TEST_F(ConfigEdges, PunctuationAmongHexDigitsMakesTheValueMalformed) {
    put("ZOEDGE_HEX", "0x1:");
    int v = 77;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.Hex", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, ENOENT);
    EXPECT_EQ(v, 77);
    EXPECT_EQ(err,
              "zosys: config: environment variable ZOEDGE_HEX: value \"0x1:\" of ZoEdge.Hex is not a number "
              "(decimal or 0x hex, 32 bits); ignored\n");
}

TEST_F(ConfigEdges, AnEmptyValueInAFileIsAnEmptyStringButNoNumber) {
    writeFile(systemFile(1), "ZoEdge.Empty =\nZoEdge.EmptyNumber =  \t\n");
    char buffer[8] = "junk";
    EXPECT_EQ(ZoIF_GetConfigString("ZoEdge.Empty", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
    int v = 5;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.EmptyNumber", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, ENOENT);
    EXPECT_EQ(v, 5);
    EXPECT_EQ(err, "zosys: config: " + systemFile(1) +
                       ":2: value \"\" of ZoEdge.EmptyNumber is not a number (decimal or 0x hex, 32 bits); ignored\n");
}

TEST_F(ConfigEdges, WithoutAnyHomeThereIsNoUserFile) {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("HOME");
    put("ZOSYS_CONFIG_DEBUG", "1");
    writeFile(systemFile(2), "ZoEdge.NoHome = 4\n");
    int v = 0;
    testing::internal::CaptureStderr();
    int found = ZoIF_GetConfigNumber("ZoEdge.NoHome", &v);
    int absent = ZoIF_GetConfigNumber("ZoEdge.NoHomeAbsent", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(found, 0);
    EXPECT_EQ(absent, ENOENT);
    EXPECT_EQ(v, 4);
    EXPECT_EQ(err, "zosys: config: ZoEdge.NoHome = 4 (from " + systemFile(2) +
                       ":1)\n"
                       "zosys: config: ZoEdge.NoHomeAbsent is not set (looked at environment variable "
                       "ZOEDGE_NOHOMEABSENT, " +
                       systemFile(1) + ", " + systemFile(2) + ")\n");
}

TEST_F(ConfigEdges, AUserDirectoryTooLongForAPathIsSkipped) {
    setenv("XDG_CONFIG_HOME", ("/" + std::string(4100, 'u')).c_str(), 1);
    put("ZOSYS_CONFIG_DEBUG", "1");
    writeFile(systemFile(1), "ZoEdge.LongHome = 6\n");
    int v = 0;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.LongHome", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 6);
    EXPECT_EQ(err, "zosys: config: ZoEdge.LongHome = 6 (from " + systemFile(1) + ":1)\n");
}

TEST_F(ConfigEdges, ASystemDirectoryTooLongForAPathIsSkipped) {
    setenv("XDG_CONFIG_DIRS", ("/" + std::string(4090, 'd') + ":" + dir + "/sys2").c_str(), 1);
    put("ZOSYS_CONFIG_DEBUG", "1");
    int v = 0;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.LongSystem", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, ENOENT);
    EXPECT_EQ(err, "zosys: config: ZoEdge.LongSystem is not set (looked at environment variable ZOEDGE_LONGSYSTEM, " +
                       userFile() + ", " + systemFile(2) + ")\n");
}

TEST_F(ConfigEdges, ATraceLongerThanALineIsCutToTheLine) {
    // Three missing system directories of 2000 characters each (in short components,
    // so that each is merely absent): the list of places looked at outgrows a line.
    std::vector<std::string> far;
    std::string dirs;
    for (char c : {'x', 'y', 'z'}) {
        std::string d;
        while (d.size() < 2000) d += "/" + std::string(9, c);
        far.push_back(d);
        dirs += (dirs.empty() ? "" : ":") + d;
    }
    setenv("XDG_CONFIG_DIRS", dirs.c_str(), 1);
    put("ZOSYS_CONFIG_DEBUG", "1");
    int v = 0;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.Far", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, ENOENT);
    std::string whole = "zosys: config: ZoEdge.Far is not set (looked at environment variable ZOEDGE_FAR, " + userFile();
    for (std::string const& d : far) whole += ", " + d + "/zoutils/zoutils.conf";
    // A diagnostic line holds at most 2046 characters and its newline.
    EXPECT_EQ(err, whole.substr(0, 2046) + "\n");
}

TEST_F(ConfigEdges, AFileThatCannotBeOpenedIsReportedAndTheNextOneIsRead) {
    ASSERT_EQ(symlink(systemFile(1).c_str(), systemFile(1).c_str()), 0);  // a link to itself
    writeFile(systemFile(2), "ZoEdge.Loop = 9\n");
    int v = 0;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.Loop", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 9);
    EXPECT_EQ(err, "zosys: config: cannot read " + systemFile(1) + ": Too many levels of symbolic links\n");
}

TEST_F(ConfigEdges, AUserDirectoryThatIsAFileCountsAsMissing) {
    writeFile(dir + "/plain", "not a directory\n");
    setenv("XDG_CONFIG_HOME", (dir + "/plain").c_str(), 1);
    writeFile(systemFile(1), "ZoEdge.NotDir = 10\n");
    int v = 0;
    testing::internal::CaptureStderr();
    int rc = ZoIF_GetConfigNumber("ZoEdge.NotDir", &v);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 10);
}

TEST_F(ConfigEdges, AFileLineTheHeapCannotHoldCountsAsAbsent) {
    if (zotest::sanitizerOwnsOperatorNew()) GTEST_SKIP() << "the sanitizer's own heap cannot live under an address-space limit";
    std::string named = dir + "/kept.conf";
    writeFile(named, "ZoEdge.Kept = kept\n");
    EXPECT_EQ(probe("env -u HOME -u XDG_CONFIG_HOME ZOSYS_CONFIG='" + named + "' XDG_CONFIG_DIRS='" + dir + "/none'",
                    "noheapkey"),
              "no room for the list: ENOENT \"untouched\"\n"
              "no room for the copy: ENOENT \"untouched\"\n"
              "room for both: 0 \"kept\"\n");
}

// ---------------------------------------------------------------------------
// Diagnostics: each distinct line once, on standard error, whatever it is
// ---------------------------------------------------------------------------

TEST_F(ConfigEdges, ARepeatOfAnOlderLineStaysSilent) {
    int v = 0;
    auto readWith = [&](char const* value) {
        put("ZOEDGE_REPEAT", value);
        testing::internal::CaptureStderr();
        EXPECT_EQ(ZoIF_GetConfigNumber("ZoEdge.Repeat", &v), ENOENT);
        return testing::internal::GetCapturedStderr();
    };
    std::string const tail = " of ZoEdge.Repeat is not a number (decimal or 0x hex, 32 bits); ignored\n";
    EXPECT_EQ(readWith("first?"), "zosys: config: environment variable ZOEDGE_REPEAT: value \"first?\"" + tail);
    EXPECT_EQ(readWith("second?"), "zosys: config: environment variable ZOEDGE_REPEAT: value \"second?\"" + tail);
    EXPECT_EQ(readWith("first?"), "");
    EXPECT_EQ(readWith("second?"), "");
}

TEST_F(ConfigEdges, OnceTheTableOfPrintedLinesIsFullNewLinesArePrintedEveryTime) {
    std::string log = dir + "/stderr.log";
    constexpr int kDistinct = 1100;  // more than the table holds
    int code = 0;
    std::string report = inChild(
        [&](int) {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) return 2;
            int v = 0;
            for (int i = 0; i < kDistinct; ++i) {
                setenv("ZOEDGE_FULL", ("v" + std::to_string(i)).c_str(), 1);
                if (ZoIF_GetConfigNumber("ZoEdge.Full", &v) != ENOENT) return 3;
            }
            setenv("ZOEDGE_FULL", "last", 1);
            for (int i = 0; i < 2; ++i)
                if (ZoIF_GetConfigNumber("ZoEdge.Full", &v) != ENOENT) return 4;
            return 0;
        },
        &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(report, "");
    std::string text = readFile(log);
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), static_cast<size_t>(kDistinct + 2));
    std::string const last = "zosys: config: environment variable ZOEDGE_FULL: value \"last\" of ZoEdge.Full is not a "
                             "number (decimal or 0x hex, 32 bits); ignored";
    EXPECT_EQ(lines[kDistinct], last);
    EXPECT_EQ(lines[kDistinct + 1], last);
    EXPECT_EQ(lines[0], "zosys: config: environment variable ZOEDGE_FULL: value \"v0\" of ZoEdge.Full is not a "
                        "number (decimal or 0x hex, 32 bits); ignored");
}

TEST_F(ConfigEdges, AClosedStandardErrorDoesNotDisturbTheReader) {
    writeFile(systemFile(1), "ZoEdge.Closed = 15\n");
    put("ZOEDGE_CLOSED", "not-a-number");
    put("ZOSYS_CONFIG_DEBUG", "1");
    int code = 0;
    std::string report = inChild(
        [](int out) {
            close(STDERR_FILENO);
            int v = 0;
            int rc = ZoIF_GetConfigNumber("ZoEdge.Closed", &v);
            say(out, rc == 0 && v == 15 ? "15 from the file" : "wrong");
            return 0;
        },
        &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(report, "15 from the file");
}

TEST_F(ConfigEdges, AnInterruptedDiagnosticIsWrittenWhole) {
    // Standard error is a full pipe: the report sleeps in write until a signal
    // (without SA_RESTART) interrupts it, then writes again once the pipe drains.
    put("ZOEDGE_INTERRUPTED", "0xZ");
    int err[2], notify[2];
    ASSERT_EQ(pipe2(err, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(notify, O_CLOEXEC), 0);
    int flags = fcntl(err[1], F_GETFL);
    fcntl(err[1], F_SETFL, flags | O_NONBLOCK);
    std::string filler(4096, 'f');
    size_t filled = 0;
    for (;;) {
        ssize_t n = write(err[1], filler.data(), filler.size());
        if (n <= 0) break;
        filled += static_cast<size_t>(n);
    }
    fcntl(err[1], F_SETFL, flags);
    std::fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        static int notifyFd;
        notifyFd = notify[1];
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = [](int) {
            ssize_t ignored = write(notifyFd, "!", 1);
            (void)ignored;
        };
        sigemptyset(&sa.sa_mask);
        sigaction(SIGUSR1, &sa, nullptr);
        if (dup2(err[1], STDERR_FILENO) < 0) zotest::exitChild(2);
        int v = 0;
        int rc = ZoIF_GetConfigNumber("ZoEdge.Interrupted", &v);
        zotest::exitChild(rc == ENOENT ? 0 : 3);
    }
    close(err[1]);
    close(notify[1]);
    bool asleep = zotest::eventually([&] { return sleepsInSyscall("/proc/" + std::to_string(pid), SYS_write); });
    if (asleep) kill(pid, SIGUSR1);
    char mark = 0;
    ssize_t notified = asleep ? read(notify[0], &mark, 1) : 0;
    std::string received;
    char buf[8192];
    ssize_t n;
    while ((n = read(err[0], buf, sizeof buf)) > 0) received.append(buf, static_cast<size_t>(n));
    close(err[0]);
    close(notify[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(asleep);
    EXPECT_EQ(notified, 1);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    ASSERT_GE(received.size(), filled);
    EXPECT_EQ(received.substr(filled),
              "zosys: config: environment variable ZOEDGE_INTERRUPTED: value \"0xZ\" of ZoEdge.Interrupted is not a "
              "number (decimal or 0x hex, 32 bits); ignored\n");
}

}  // namespace
