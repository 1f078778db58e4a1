// The system layer: tasks, cooperative TLS, locks, events, raw memory, files,
// configuration and the clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "zosys.h"
#include "child.h"
#include "files.h"

namespace {

using zotest::readFile;
using zotest::writeFile;
using zotest::makeTempDir;

constexpr unsigned long kGranule = 1ul << 20;

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Runs a shell command and returns what it printed on stdout and stderr.
std::string run(std::string const& command) { return zotest::runCommand(command + " 2>&1"); }

// ---------------------------------------------------------------------------
// Tasks
// ---------------------------------------------------------------------------

TEST(Tasks, TaskIdIsTheKernelThreadId) {
    EXPECT_EQ(ZoIF_CurrentTaskId(), static_cast<int>(syscall(SYS_gettid)));
    EXPECT_EQ(ZoIF_CurrentTaskId(), ZoIF_CurrentTaskId());
}

TEST(Tasks, TaskIdsAreDistinctAcrossLiveThreads) {
    constexpr int kThreads = 8;
    std::vector<int> ids(kThreads), coopIds(kThreads);
    std::atomic<int> arrived{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ids[i] = ZoIF_CurrentTaskId();
            coopIds[i] = ZoIF_CurrentTaskIdCoop();
            EXPECT_EQ(ids[i], ZoIF_CurrentTaskId());
            EXPECT_EQ(coopIds[i], ZoIF_CurrentTaskIdCoop());
            // Stay alive until every thread has its ids, so none can be recycled.
            arrived.fetch_add(1);
            while (arrived.load() < kThreads) std::this_thread::yield();
        });
    }
    for (auto& t : threads) t.join();
    ids.push_back(ZoIF_CurrentTaskId());
    coopIds.push_back(ZoIF_CurrentTaskIdCoop());
    EXPECT_EQ(std::set<int>(ids.begin(), ids.end()).size(), ids.size());
    EXPECT_EQ(std::set<int>(coopIds.begin(), coopIds.end()).size(), coopIds.size());
    for (int id : ids) EXPECT_NE(id, -1);
    for (int id : coopIds) EXPECT_GE(id, 1);
}

TEST(Tasks, CoopIdsAreNeverReusedAfterThreadsEnd) {
    int previous = ZoIF_CurrentTaskIdCoop();
    for (int i = 0; i < 20; ++i) {
        int id = 0;
        std::thread([&] { id = ZoIF_CurrentTaskIdCoop(); }).join();
        EXPECT_GT(id, previous);  // each new thread gets a higher, unused number
        previous = id;
    }
}

TEST(Tasks, CoopIdsStartAtOneInAFreshProcess) {
    EXPECT_EQ(run(ZOSYS_PROBE " coop"), "main=1 again=1 first-thread=2 second-thread=3\n");
}

TEST(Tasks, ForkedChildReadsItsOwnTaskId) {
    int parentId = ZoIF_CurrentTaskId();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int childId = ZoIF_CurrentTaskId();
        bool ok = childId == static_cast<int>(syscall(SYS_gettid)) && childId != parentId;
        zotest::exitChild(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---------------------------------------------------------------------------
// Cooperative TLS
// ---------------------------------------------------------------------------

TEST(CoopTls, SlotsAreDistinct) {
    unsigned a = ZoIF_AllocateTLSCoop();
    unsigned b = ZoIF_AllocateTLSCoop();
    EXPECT_NE(a, b);
}

TEST(CoopTls, NeverSetSlotReadsZero) {
    unsigned slot = ZoIF_AllocateTLSCoop();
    EXPECT_EQ(ZoIF_GetTLSCoop(slot), 0u);
    unsigned seenByThread = 99;
    std::thread([&] { seenByThread = ZoIF_GetTLSCoop(slot); }).join();
    EXPECT_EQ(seenByThread, 0u);
}

TEST(CoopTls, ValuesAreIsolatedBetweenThreads) {
    unsigned slot = ZoIF_AllocateTLSCoop();
    EXPECT_EQ(ZoIF_SetTLSCoop(slot, 0xDEADBEEFu), 0);
    unsigned before = 1, after = 1;
    std::thread([&] {
        before = ZoIF_GetTLSCoop(slot);
        ZoIF_SetTLSCoop(slot, 7);
        after = ZoIF_GetTLSCoop(slot);
    }).join();
    EXPECT_EQ(before, 0u);
    EXPECT_EQ(after, 7u);
    EXPECT_EQ(ZoIF_GetTLSCoop(slot), 0xDEADBEEFu);
}

TEST(CoopTls, InvalidSlotReadsZeroAndRefusesSets) {
    EXPECT_EQ(ZoIF_GetTLSCoop(0xFFFFFFFFu), 0u);
    EXPECT_EQ(ZoIF_GetTLSCoop(256), 0u);
    EXPECT_NE(ZoIF_SetTLSCoop(0xFFFFFFFFu, 5), 0);
    EXPECT_EQ(ZoIF_GetTLSCoop(0xFFFFFFFFu), 0u);
}

TEST(CoopTls, ExhaustedTableHandsOutTheInvalidSlot) {
    EXPECT_EQ(run(ZOSYS_PROBE " tls"), "valid=256 invalid=44 last=255 set-invalid=refused read-invalid=0\n");
}

// ---------------------------------------------------------------------------
// Mutexes and critical sections: both recursive, one test set for both kinds.
// ---------------------------------------------------------------------------

struct LockKind {
    char const* name;
    ZoIF_Handle (*create)();
    int (*enter)(ZoIF_Handle);
    int (*exit)(ZoIF_Handle);
    int (*destroy)(ZoIF_Handle);
};

// Test listings name the kind instead of dumping the record's bytes.
void PrintTo(LockKind const& k, std::ostream* os) { *os << k.name; }

class Locks : public ::testing::TestWithParam<LockKind> {};

TEST_P(Locks, OwnerMayEnterAgainAndOthersWaitForTheLastExit) {
    LockKind k = GetParam();
    ZoIF_Handle h = k.create();
    ASSERT_NE(h, 0u);
    ASSERT_EQ(k.enter(h), 0);
    ASSERT_EQ(k.enter(h), 0);  // recursive: does not deadlock
    std::atomic<bool> entered{false};
    std::thread other([&] {
        k.enter(h);
        entered = true;
        k.exit(h);
    });
    EXPECT_EQ(k.exit(h), 0);
    sleepMs(50);
    EXPECT_FALSE(entered.load());  // still held once
    EXPECT_EQ(k.exit(h), 0);
    other.join();
    EXPECT_TRUE(entered.load());
    EXPECT_EQ(k.destroy(h), 0);
}

TEST_P(Locks, ExcludeEachOtherAcrossThreads) {
    LockKind k = GetParam();
    ZoIF_Handle h = k.create();
    long counter = 0;  // deliberately plain: the lock is what protects it
    constexpr int kThreads = 4, kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                k.enter(h);
                counter = counter + 1;
                k.exit(h);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, long{kThreads} * kRounds);
    k.destroy(h);
}

TEST_P(Locks, UnknownHandleIsRefused) {
    LockKind k = GetParam();
    ZoIF_Handle h = k.create();
    EXPECT_EQ(k.destroy(h), 0);
    EXPECT_NE(k.enter(h), 0);
    EXPECT_NE(k.destroy(h), 0);
    EXPECT_NE(k.enter(0), 0);
}

TEST_P(Locks, ExitOfAnUnknownHandleIsRefused) {
    LockKind k = GetParam();
    ZoIF_Handle h = k.create();
    EXPECT_EQ(k.destroy(h), 0);
    EXPECT_NE(k.exit(h), 0);
    EXPECT_EQ(k.exit(0), EINVAL);
}

TEST_P(Locks, OnlyTheHolderExitsAndNestedEntriesCountAcrossContention) {
    LockKind k = GetParam();
    ZoIF_Handle h = k.create();
    ASSERT_EQ(k.enter(h), 0);
    int otherExit = 0;
    std::thread([&] { otherExit = k.exit(h); }).join();
    EXPECT_EQ(otherExit, EPERM);  // not the holder: refused, the lock stays held
    std::atomic<bool> entered{false};
    std::thread waiter([&] {
        k.enter(h);
        entered = true;
        k.exit(h);
    });
    sleepMs(20);
    EXPECT_FALSE(entered.load());
    EXPECT_EQ(k.exit(h), 0);
    waiter.join();
    EXPECT_TRUE(entered.load());
    // Nested entries under contention: every thread enters three deep each round.
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                k.enter(h);
                k.enter(h);
                k.enter(h);
                counter = counter + 1;
                k.exit(h);
                counter = counter + 1;
                k.exit(h);
                k.exit(h);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 3L * 5000 * 2);
    EXPECT_EQ(k.destroy(h), 0);
}

TEST_P(Locks, AForkedChildDoesNotInheritItsParentsHold) {
    LockKind k = GetParam();
    ZoIF_Handle held = k.create();
    ZoIF_Handle free = k.create();
    ASSERT_EQ(k.enter(held), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child's thread has a new task id: the parent's hold is not its own, and a
        // lock that was free works as usual, recursion included.
        bool ok = k.exit(held) == EPERM && k.enter(free) == 0 && k.enter(free) == 0 && k.exit(free) == 0 &&
                  k.exit(free) == 0;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(k.exit(held), 0);
    k.destroy(held);
    k.destroy(free);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Locks,
                         ::testing::Values(LockKind{"Mutex", ZoIF_CreateMutex, ZoIF_EnterMutex, ZoIF_ExitMutex,
                                                    ZoIF_DestroyMutex},
                                           LockKind{"CriticalSection", ZoIF_CreateCriticalSection,
                                                    ZoIF_EnterCriticalSection, ZoIF_ExitCriticalSection,
                                                    ZoIF_DestroyCriticalSection}),
                         [](::testing::TestParamInfo<LockKind> const& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Events: plain and cooperative behave alike; one test set for both kinds.
// ---------------------------------------------------------------------------

struct EventKind {
    char const* name;
    ZoIF_Handle (*create)(int, int);
    int (*set)(ZoIF_Handle);
    int (*reset)(ZoIF_Handle);
    int (*wait)(ZoIF_Handle);
    int (*waitTimed)(ZoIF_Handle, double);
    int (*destroy)(ZoIF_Handle);
};

void PrintTo(EventKind const& k, std::ostream* os) { *os << k.name; }

class Events : public ::testing::TestWithParam<EventKind> {};

TEST_P(Events, AutoResetInitiallySignalledPassesOnceThenBlocksUntilSet) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 1);
    EXPECT_EQ(k.wait(e), 0);  // first wait returns at once
    std::atomic<bool> passed{false};
    std::thread waiter([&] {
        k.wait(e);
        passed = true;
    });
    sleepMs(50);
    EXPECT_FALSE(passed.load());  // second wait blocks
    EXPECT_EQ(k.set(e), 0);
    waiter.join();
    EXPECT_TRUE(passed.load());
    EXPECT_EQ(k.waitTimed(e, -1.0), 0);  // the waiter consumed the signal
    EXPECT_EQ(k.destroy(e), 0);
}

TEST_P(Events, AutoResetLetsExactlyOneWaiterThroughPerSet) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 0);
    constexpr int kWaiters = 3;
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&] {
            k.wait(e);
            passed.fetch_add(1);
        });
    }
    sleepMs(50);
    EXPECT_EQ(passed.load(), 0);
    for (int round = 1; round <= kWaiters; ++round) {
        k.set(e);
        while (passed.load() < round) std::this_thread::yield();
        sleepMs(30);
        EXPECT_EQ(passed.load(), round);
    }
    for (auto& t : waiters) t.join();
    EXPECT_EQ(k.waitTimed(e, 0.0), 0);
    k.destroy(e);
}

TEST_P(Events, ManualResetReleasesEveryWaiterAndStaysSignalledUntilReset) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(1, 0);
    constexpr int kWaiters = 3;
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&] {
            k.wait(e);
            passed.fetch_add(1);
        });
    }
    sleepMs(50);
    EXPECT_EQ(passed.load(), 0);
    EXPECT_EQ(k.set(e), 0);
    for (auto& t : waiters) t.join();
    EXPECT_EQ(passed.load(), kWaiters);
    EXPECT_EQ(k.waitTimed(e, 0.0), 1);  // still signalled
    EXPECT_EQ(k.wait(e), 0);
    EXPECT_EQ(k.reset(e), 0);
    EXPECT_EQ(k.waitTimed(e, 0.0), 0);
    k.destroy(e);
}

TEST_P(Events, ManualResetInitiallySignalledPassesEveryWait) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(1, 1);
    EXPECT_EQ(k.waitTimed(e, -1.0), 1);
    EXPECT_EQ(k.waitTimed(e, -1.0), 1);
    EXPECT_EQ(k.wait(e), 0);
    k.destroy(e);
}

TEST_P(Events, TimedWaitTimesOutAfterAtLeastTheTimeout) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 0);
    double start = ZoIF_ZeroBasedTime();
    EXPECT_EQ(k.waitTimed(e, 0.05), 0);
    EXPECT_GE(ZoIF_ZeroBasedTime() - start, 0.049);
    k.destroy(e);
}

TEST_P(Events, TimedWaitIsWokenBySet) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 0);
    std::thread setter([&] {
        sleepMs(30);
        k.set(e);
    });
    EXPECT_EQ(k.waitTimed(e, 60.0), 1);
    setter.join();
    EXPECT_EQ(k.waitTimed(e, -1.0), 0);  // auto reset: the timed wait consumed it
    k.destroy(e);
}

TEST_P(Events, NegativeOrZeroTimeoutPolls) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 0);
    EXPECT_EQ(k.waitTimed(e, -1.0), 0);
    EXPECT_EQ(k.waitTimed(e, -1e300), 0);
    EXPECT_EQ(k.waitTimed(e, 0.0), 0);
    k.set(e);
    EXPECT_EQ(k.waitTimed(e, -0.5), 1);
    EXPECT_EQ(k.waitTimed(e, -0.5), 0);
    k.destroy(e);
}

TEST_P(Events, AVastTimeoutOnASignalledEventTakesItAtOnce) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 1);
    EXPECT_EQ(k.waitTimed(e, 1e12), 1);  // far beyond any time_t deadline: clamped, not overflowed
    EXPECT_EQ(k.waitTimed(e, 0.0), 0) << "the auto-reset signal was consumed";
    k.destroy(e);
}

TEST_P(Events, ResetClearsAPendingSignal) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 1);
    EXPECT_EQ(k.reset(e), 0);
    EXPECT_EQ(k.waitTimed(e, 0.0), 0);
    k.destroy(e);
}

TEST_P(Events, PingPongBetweenTwoThreadsLosesNoSet) {
    // Each side sets the other's auto-reset event and waits for its own, so every set
    // is consumed by exactly one wait; a set lost between a waiter's check and its
    // sleep would stall a side, which the timed waits turn into a failure.
    EventKind k = GetParam();
    ZoIF_Handle ping = k.create(0, 0), pong = k.create(0, 0);
    constexpr int kRounds = 20000;
    std::atomic<int> stalls{0};
    std::thread other([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (k.waitTimed(ping, 10.0) != 1) ++stalls;
            k.set(pong);
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        k.set(ping);
        if (k.waitTimed(pong, 10.0) != 1) ++stalls;
    }
    other.join();
    EXPECT_EQ(stalls.load(), 0);
    EXPECT_EQ(k.waitTimed(ping, -1), 0);  // nothing left over
    EXPECT_EQ(k.waitTimed(pong, -1), 0);
    k.destroy(ping);
    k.destroy(pong);
}

TEST_P(Events, DestroyedHandleIsRefused) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 0);
    EXPECT_EQ(k.destroy(e), 0);
    EXPECT_NE(k.set(e), 0);
    EXPECT_NE(k.destroy(e), 0);
    EXPECT_EQ(k.waitTimed(e, 0.0), 0);
}

TEST_P(Events, ResetAndUntimedWaitRefuseAnUnknownHandleWithoutBlocking) {
    EventKind k = GetParam();
    ZoIF_Handle e = k.create(0, 0);
    EXPECT_EQ(k.destroy(e), 0);
    EXPECT_NE(k.reset(e), 0);
    EXPECT_NE(k.wait(e), 0);
    EXPECT_EQ(k.reset(0), EINVAL);
    EXPECT_EQ(k.wait(0), EINVAL);
}

INSTANTIATE_TEST_SUITE_P(Kinds, Events,
                         ::testing::Values(EventKind{"Plain", ZoIF_CreateEvent, ZoIF_SetEvent, ZoIF_ResetEvent,
                                                     ZoIF_WaitEvent, ZoIF_WaitEventTimed, ZoIF_DestroyEvent},
                                           EventKind{"Coop", ZoIF_CreateEventCoop, ZoIF_SetEventCoop,
                                                     ZoIF_ResetEventCoop, ZoIF_WaitEventCoop,
                                                     ZoIF_WaitEventTimedCoop, ZoIF_DestroyEventCoop}),
                         [](::testing::TestParamInfo<EventKind> const& info) { return std::string(info.param.name); });

TEST(Handles, AreNeverZeroOrAllOnes) {
    ZoIF_Handle hs[] = {ZoIF_CreateMutex(), ZoIF_CreateCriticalSection(), ZoIF_CreateEvent(0, 0),
                        ZoIF_CreateEventCoop(1, 1)};
    for (ZoIF_Handle h : hs) {
        EXPECT_NE(h, 0u);
        EXPECT_NE(h, 0xFFFFFFFFu);
    }
    EXPECT_EQ(std::set<ZoIF_Handle>(std::begin(hs), std::end(hs)).size(), 4u);
    ZoIF_DestroyMutex(hs[0]);
    ZoIF_DestroyCriticalSection(hs[1]);
    ZoIF_DestroyEvent(hs[2]);
    ZoIF_DestroyEventCoop(hs[3]);
}

// ---------------------------------------------------------------------------
// Raw memory. The range is process-wide and the library's arena draws from it
// too, so each test compares only its own consecutive calls; nothing between
// two calls allocates through the library.
// ---------------------------------------------------------------------------

TEST(Memory, ReportsTheExactSizeProvidedRoundedToTheGranule) {
    ZoIF_MemInit(0);
    unsigned int size = 1;
    char* p = static_cast<char*>(ZoIF_MemAllocMin(&size));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(size, kGranule);  // more than the minimum, and says so
    unsigned int size2 = kGranule + 1;
    char* q = static_cast<char*>(ZoIF_MemAllocMin(&size2));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(size2, 2 * kGranule);
    unsigned int size3 = kGranule;
    ASSERT_NE(ZoIF_MemAllocMin(&size3), nullptr);
    EXPECT_EQ(size3, kGranule);
    // Every byte reported is usable.
    std::memset(p, 0xA5, size);
    std::memset(q, 0x5A, size2);
    EXPECT_EQ(static_cast<unsigned char>(p[size - 1]), 0xA5);
    EXPECT_EQ(static_cast<unsigned char>(q[size2 - 1]), 0x5A);
}

TEST(Memory, ConsecutiveRegionsAreAdjacent) {
    unsigned int a = 100, b = 3 * kGranule, c = 1;
    char* pa = static_cast<char*>(ZoIF_MemAllocMin(&a));
    char* pb = static_cast<char*>(ZoIF_MemAllocMin(&b));
    char* pc = static_cast<char*>(ZoIF_MemAllocMin(&c));
    ASSERT_NE(pa, nullptr);
    ASSERT_NE(pb, nullptr);
    ASSERT_NE(pc, nullptr);
    EXPECT_EQ(pb, pa + a);
    EXPECT_EQ(pc, pb + b);
}

TEST(Memory, CommittedGrowsByTheReportedSize) {
    unsigned long long before = ZoIF_TestMemCommitted();
    unsigned int size = 5 * kGranule - 7;
    ASSERT_NE(ZoIF_MemAllocMin(&size), nullptr);
    EXPECT_EQ(ZoIF_TestMemCommitted() - before, 5 * kGranule);
    EXPECT_EQ(size, 5 * kGranule);
}

TEST(Memory, GapSeamSkipsAddressSpaceOnce) {
    unsigned int a = 1, b = 1, c = 1;
    char* pa = static_cast<char*>(ZoIF_MemAllocMin(&a));
    unsigned long long committed = ZoIF_TestMemCommitted();
    ZoIF_TestLeaveMemGap(kGranule + 1);
    char* pb = static_cast<char*>(ZoIF_MemAllocMin(&b));
    char* pc = static_cast<char*>(ZoIF_MemAllocMin(&c));
    ASSERT_NE(pa, nullptr);
    ASSERT_NE(pb, nullptr);
    ASSERT_NE(pc, nullptr);
    EXPECT_EQ(pb, pa + a + 2 * kGranule);  // the gap is rounded up to the granule
    EXPECT_EQ(pc, pb + b);                 // and left only once
    EXPECT_EQ(ZoIF_TestMemCommitted() - committed, 2 * kGranule);  // the gap is not committed
}

TEST(Memory, LimitMakesAllocationFailAndIsLifted) {
    unsigned long long base = ZoIF_TestMemCommitted();
    ZoIF_TestSetMemLimit(base + 2 * kGranule);
    unsigned int one = 1, big = 2 * kGranule, two = 1, three = 1;
    void* p1 = ZoIF_MemAllocMin(&one);
    void* pBig = ZoIF_MemAllocMin(&big);  // would exceed the limit
    void* p2 = ZoIF_MemAllocMin(&two);    // exactly reaches it
    void* p3 = ZoIF_MemAllocMin(&three);  // nothing left
    unsigned long long atLimit = ZoIF_TestMemCommitted();
    ZoIF_TestSetMemLimit(0);
    unsigned int four = 1;
    void* p4 = ZoIF_MemAllocMin(&four);

    EXPECT_NE(p1, nullptr);
    EXPECT_EQ(pBig, nullptr);
    EXPECT_EQ(big, 2 * kGranule);  // a failed call leaves the size alone
    EXPECT_NE(p2, nullptr);
    EXPECT_EQ(p3, nullptr);
    EXPECT_EQ(atLimit, base + 2 * kGranule);
    EXPECT_NE(p4, nullptr);
}

TEST(Memory, ImpossibleRequestsReturnNull) {
    EXPECT_EQ(ZoIF_MemAllocMin(nullptr), nullptr);
    unsigned int huge = 0xFFFFFFFFu;  // rounds past what a 32-bit size can report
    EXPECT_EQ(ZoIF_MemAllocMin(&huge), nullptr);
    EXPECT_EQ(huge, 0xFFFFFFFFu);
}

TEST(Memory, MemInitIsIdempotent) {
    EXPECT_EQ(ZoIF_MemInit(0), 0);
    unsigned int a = 1, b = 1;
    char* pa = static_cast<char*>(ZoIF_MemAllocMin(&a));
    EXPECT_EQ(ZoIF_MemInit(0), 0);
    char* pb = static_cast<char*>(ZoIF_MemAllocMin(&b));
    EXPECT_EQ(pb, pa + a);
}

TEST(Memory, EnvironmentLimitIsReadAtInit) {
    EXPECT_EQ(run("ZOSYS_MEM_LIMIT=3145728 " ZOSYS_PROBE " mem 8"), "regions=3 committed=3145728\n");
    EXPECT_EQ(run("ZOSYS_MEM_LIMIT=0x200000 " ZOSYS_PROBE " mem 8"), "regions=2 committed=2097152\n");
    EXPECT_EQ(run("ZOSYS_MEM_LIMIT=0 " ZOSYS_PROBE " mem 4"), "regions=4 committed=4194304\n");
    EXPECT_EQ(run("ZOSYS_MEM_LIMIT= " ZOSYS_PROBE " mem 4"), "regions=4 committed=4194304\n");
}

TEST(Memory, MalformedEnvironmentLimitIsReportedAndIgnored) {
    EXPECT_EQ(run("ZOSYS_MEM_LIMIT=3M " ZOSYS_PROBE " mem 4"),
              "zosys: ZOSYS_MEM_LIMIT=\"3M\" is not a byte count (decimal or 0x hex); no limit\n"
              "regions=4 committed=4194304\n");
}

// ---------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------

class Files : public ::testing::Test {
protected:
    void SetUp() override { dir = makeTempDir("zosys_test"); }
    void TearDown() override { run("rm -rf '" + dir + "'"); }
    std::string path(char const* name) const { return dir + "/" + name; }
    static void put(int fd, char const* text) {
        ASSERT_EQ(ZoIF_Write(fd, text, static_cast<unsigned>(std::strlen(text))), 0);
    }
    std::string dir;
};

TEST_F(Files, ReplaceCreatesTheFile) {
    int fd = ZoIF_Open(path("new.log").c_str(), 2, 1);
    ASSERT_NE(fd, -1);
    put(fd, "hello");
    EXPECT_EQ(ZoIF_Flush(fd), 0);
    EXPECT_EQ(ZoIF_Close(fd), 0);
    EXPECT_EQ(readFile(path("new.log")), "hello");
}

TEST_F(Files, ReplaceTruncatesOldContents) {
    writeFile(path("old.log"), "old contents that are long");
    int fd = ZoIF_Open(path("old.log").c_str(), 2, 1);
    ASSERT_NE(fd, -1);
    put(fd, "new");
    ZoIF_Close(fd);
    EXPECT_EQ(readFile(path("old.log")), "new");
}

TEST_F(Files, AppendKeepsOldContentsAndCreatesMissingFiles) {
    writeFile(path("a.log"), "abc");
    int fd = ZoIF_Open(path("a.log").c_str(), 4, 1);
    ASSERT_NE(fd, -1);
    put(fd, "def");
    ZoIF_Close(fd);
    EXPECT_EQ(readFile(path("a.log")), "abcdef");

    fd = ZoIF_Open(path("b.log").c_str(), 4, 1);
    ASSERT_NE(fd, -1);
    put(fd, "first");
    ZoIF_Close(fd);
    EXPECT_EQ(readFile(path("b.log")), "first");
}

TEST_F(Files, CreatesWithMode0640) {
    mode_t old = umask(0);
    int fd = ZoIF_Open(path("mode.log").c_str(), 2, 1);
    umask(old);
    ASSERT_NE(fd, -1);
    ZoIF_Close(fd);
    struct stat st;
    ASSERT_EQ(stat(path("mode.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(Files, WithoutCreateModeMissingFileIsNotCreated) {
    EXPECT_EQ(ZoIF_Open(path("missing.log").c_str(), 2, 0), -1);
    EXPECT_EQ(access(path("missing.log").c_str(), F_OK), -1);
}

TEST_F(Files, OpenFailureReturnsMinusOne) {
    EXPECT_EQ(ZoIF_Open(path("no/such/dir/x.log").c_str(), 2, 1), -1);
    EXPECT_EQ(ZoIF_Open(path("no/such/dir/x.log").c_str(), 4, 1), -1);
    EXPECT_EQ(ZoIF_Open(dir.c_str(), 4, 1), -1);  // a directory
    EXPECT_EQ(ZoIF_Open(nullptr, 2, 1), -1);
    EXPECT_EQ(ZoIF_Open(path("flags.log").c_str(), 1, 1), -1);  // unknown flags
}

TEST_F(Files, DescriptorsCloseOnExec) {
    int fd = ZoIF_Open(path("cloexec.log").c_str(), 2, 1);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    ZoIF_Close(fd);
}

TEST_F(Files, LargeWritesArriveWhole) {
    // Through a pipe, where the kernel takes a large write in several pieces.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::string data(4 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + (i >> 11));
    std::string received;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof buf)) > 0) received.append(buf, static_cast<size_t>(n));
    });
    EXPECT_EQ(ZoIF_Write(fds[1], data.data(), static_cast<unsigned>(data.size())), 0);
    ZoIF_Close(fds[1]);
    reader.join();
    close(fds[0]);
    EXPECT_TRUE(received == data);
}

TEST_F(Files, NoFileRefusesEveryOperation) {
    EXPECT_NE(ZoIF_Write(-1, "x", 1), 0);
    EXPECT_NE(ZoIF_Flush(-1), 0);
    EXPECT_NE(ZoIF_Close(-1), 0);
}

// ---------------------------------------------------------------------------
// Configuration. Each test gets its own directories for every file layer and a
// clean environment; keys are test-only ("ZoTest.*"). Diagnostics are printed
// once per process, so every test uses values or paths of its own.
// ---------------------------------------------------------------------------

class Config : public ::testing::Test {
protected:
    void SetUp() override {
        dir = makeTempDir("zosys_test");
        ASSERT_FALSE(dir.empty());
        run("mkdir -p '" + dir + "/sys1/zoutils' '" + dir + "/sys2/zoutils' '" + dir + "/home/zoutils'");
        setenv("XDG_CONFIG_DIRS", (dir + "/sys1:" + dir + "/sys2").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir + "/home").c_str(), 1);
        for (char const* name : {"ZOSYS_CONFIG", "ZOSYS_CONFIG_DEBUG", "ZOTEST_VALUE", "ZOTEST_TEXT"}) unsetenv(name);
    }
    void TearDown() override {
        for (char const* name :
             {"ZOSYS_CONFIG", "ZOSYS_CONFIG_DEBUG", "ZOTEST_VALUE", "ZOTEST_TEXT", "XDG_CONFIG_DIRS", "XDG_CONFIG_HOME"})
            unsetenv(name);
        run("rm -rf '" + dir + "'");
    }
    std::string systemFile(int n) const { return dir + "/sys" + std::to_string(n) + "/zoutils/zoutils.conf"; }
    std::string userFile() const { return dir + "/home/zoutils/zoutils.conf"; }
    std::string namedFile() {
        std::string p = dir + "/named.conf";
        setenv("ZOSYS_CONFIG", p.c_str(), 1);
        return p;
    }
    static int number(char const* key, int* out) { return ZoIF_GetConfigNumber(key, out); }
    static int readValue() {
        int v = -12345;
        EXPECT_EQ(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0);
        return v;
    }
    std::string dir;
};

TEST_F(Config, KeyMapsToUpperCasedUnderscoredVariable) {
    setenv("ZOTEST_VALUE", "5", 1);
    int v = 0;
    EXPECT_EQ(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0);
    EXPECT_EQ(v, 5);
    v = 0;
    EXPECT_EQ(ZoIF_GetConfigNumber("zotest.value", &v), 0);
    EXPECT_EQ(v, 5);
}

TEST_F(Config, AbsentKeyReturnsNonzeroAndLeavesOutputsAlone) {
    int v = 77;
    EXPECT_NE(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0);
    EXPECT_EQ(v, 77);
    char buf[8] = "keep";
    EXPECT_NE(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "keep");
}

TEST_F(Config, NumbersAcceptDecimalHexAndSign) {
    struct {
        char const* text;
        int value;
    } const cases[] = {{"42", 42},
                       {"-17", -17},
                       {"+3", 3},
                       {"0x1F", 31},
                       {"0XfF", 255},
                       {"-0x10", -16},
                       {"  12  ", 12},
                       {"010", 10},
                       {"0", 0},
                       {"2147483647", 2147483647},
                       {"-2147483648", -2147483647 - 1},
                       {"4294967295", -1},
                       {"0xFFFFFFFF", -1},
                       {"0x80000000", -2147483647 - 1}};
    for (auto const& c : cases) {
        setenv("ZOTEST_VALUE", c.text, 1);
        int v = 0;
        EXPECT_EQ(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
}

TEST_F(Config, MalformedNumbersAreTreatedAsAbsent) {
    char const* const cases[] = {"abc", "12abc", "0x", "", "-", "4294967296", "-2147483649", "1 2", "0x1G", "1.5",
                                 "0b101"};
    testing::internal::CaptureStderr();
    for (char const* text : cases) {
        setenv("ZOTEST_VALUE", text, 1);
        int v = 99;
        EXPECT_NE(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0) << text;
        EXPECT_EQ(v, 99) << text;
    }
    std::string err = testing::internal::GetCapturedStderr();
    for (char const* text : cases)
        EXPECT_NE(err.find(std::string("value \"") + text + "\" of ZoTest.Value is not a number"), std::string::npos)
            << text;
}

TEST_F(Config, SystemFileIsRead) {
    writeFile(systemFile(2), "ZoTest.Value = 21\n");
    EXPECT_EQ(readValue(), 21);
}

TEST_F(Config, FirstListedSystemDirectoryWins) {
    writeFile(systemFile(1), "ZoTest.Value = 11\n");
    writeFile(systemFile(2), "ZoTest.Value = 21\n");
    EXPECT_EQ(readValue(), 11);
}

TEST_F(Config, UserFileBeatsSystemFiles) {
    writeFile(systemFile(1), "ZoTest.Value = 11\n");
    writeFile(userFile(), "ZoTest.Value = 31\n");
    EXPECT_EQ(readValue(), 31);
}

TEST_F(Config, NamedFileBeatsUserFile) {
    writeFile(systemFile(1), "ZoTest.Value = 11\n");
    writeFile(userFile(), "ZoTest.Value = 31\n");
    writeFile(namedFile(), "ZoTest.Value = 41\n");
    EXPECT_EQ(readValue(), 41);
}

TEST_F(Config, EnvironmentBeatsEveryFile) {
    writeFile(systemFile(1), "ZoTest.Value = 11\n");
    writeFile(userFile(), "ZoTest.Value = 31\n");
    writeFile(namedFile(), "ZoTest.Value = 41\n");
    setenv("ZOTEST_VALUE", "51", 1);
    EXPECT_EQ(readValue(), 51);
}

TEST_F(Config, LaterLineOfAFileWins) {
    writeFile(userFile(), "ZoTest.Value = 1\nZoTest.Value = 2\n");
    EXPECT_EQ(readValue(), 2);
}

TEST_F(Config, FilesAreReadOnEveryCall) {
    writeFile(userFile(), "ZoTest.Value = 1\n");
    EXPECT_EQ(readValue(), 1);
    writeFile(userFile(), "ZoTest.Value = 2\n");
    EXPECT_EQ(readValue(), 2);
}

TEST_F(Config, UserFileDefaultsToHomeDotConfig) {
    unsetenv("XDG_CONFIG_HOME");
    std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("HOME", (dir + "/h").c_str(), 1);
    run("mkdir -p '" + dir + "/h/.config/zoutils'");
    writeFile(dir + "/h/.config/zoutils/zoutils.conf", "ZoTest.Value = 61\n");
    int v = 0;
    int rc = ZoIF_GetConfigNumber("ZoTest.Value", &v);
    setenv("XDG_CONFIG_HOME", "relative/dir", 1);  // invalid: ignored, HOME used
    int v2 = 0;
    int rc2 = ZoIF_GetConfigNumber("ZoTest.Value", &v2);
    setenv("HOME", oldHome.c_str(), 1);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 61);
    EXPECT_EQ(rc2, 0);
    EXPECT_EQ(v2, 61);
}

TEST_F(Config, SystemDirectoriesDefaultToEtcXdg) {
    unsetenv("XDG_CONFIG_DIRS");
    setenv("ZOSYS_CONFIG_DEBUG", "1", 1);
    testing::internal::CaptureStderr();
    int v;
    ZoIF_GetConfigNumber("ZoTest.Unset.Anywhere", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("/etc/xdg/zoutils/zoutils.conf"), std::string::npos) << err;
}

TEST_F(Config, SystemDirectoryListSkipsEmptyAndRelativeEntries) {
    setenv("XDG_CONFIG_DIRS", (":relative/dir::" + dir + "/sys2:").c_str(), 1);
    writeFile(systemFile(2), "ZoTest.Value = 22\n");
    setenv("ZOSYS_CONFIG_DEBUG", "1", 1);
    testing::internal::CaptureStderr();
    int v = readValue();
    int u = 0;
    ZoIF_GetConfigNumber("ZoTest.Absent", &u);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v, 22);
    EXPECT_EQ(err.find("relative/dir"), std::string::npos) << err;
}

TEST_F(Config, EmptyNamedFileVariableIsIgnored) {
    setenv("ZOSYS_CONFIG", "", 1);
    writeFile(userFile(), "ZoTest.Value = 9\n");
    testing::internal::CaptureStderr();
    int v = readValue();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(v, 9);
}

TEST_F(Config, ValueMayContainEqualsSigns) {
    writeFile(userFile(), "ZoTest.Text = a=b = c\n");
    char buf[32];
    ASSERT_EQ(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "a=b = c");
}

TEST_F(Config, CommentsWhitespaceAndCase) {
    writeFile(userFile(),
              "# a comment line\n"
              "   # an indented comment\n"
              "\n"
              "   zotest.VALUE   =   73   # trailing comment\n"
              "ZoTest.Text=\tcpu#3:mem  \r\n");
    EXPECT_EQ(readValue(), 73);
    char buf[64];
    ASSERT_EQ(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "cpu#3:mem");  // a '#' inside a word is kept
}

TEST_F(Config, StringsFromEnvironmentAndFiles) {
    writeFile(userFile(), "ZoTest.Text = from the file\n");
    char buf[64];
    ASSERT_EQ(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "from the file");
    setenv("ZOTEST_TEXT", "", 1);  // set but empty is a value
    ASSERT_EQ(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(Config, StringMustFitWithItsTerminator) {
    setenv("ZOTEST_TEXT", "1234567", 1);
    char buf[8];
    ASSERT_EQ(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "1234567");

    setenv("ZOTEST_TEXT", "12345678", 1);
    std::memcpy(buf, "keep", 5);
    testing::internal::CaptureStderr();
    EXPECT_NE(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(buf, "keep");
    EXPECT_EQ(err,
              "zosys: config: environment variable ZOTEST_TEXT: value of ZoTest.Text is 8 bytes, "
              "too long for a 8-byte buffer; ignored\n");
}

TEST_F(Config, MalformedValueIsReportedOnceWithItsVariableAndTheFileBelowIsUsed) {
    writeFile(userFile(), "ZoTest.Value = 7\n");
    setenv("ZOTEST_VALUE", "seven", 1);
    testing::internal::CaptureStderr();
    int first = readValue();
    int second = readValue();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(first, 7);
    EXPECT_EQ(second, 7);
    EXPECT_EQ(err,
              "zosys: config: environment variable ZOTEST_VALUE: value \"seven\" of ZoTest.Value is not a number "
              "(decimal or 0x hex, 32 bits); ignored\n");
}

TEST_F(Config, MalformedFileValueIsReportedWithFileAndLine) {
    std::string named = namedFile();
    writeFile(named, "# header\nZoTest.Value = 3\nZoTest.Value = three\n");
    testing::internal::CaptureStderr();
    int v = readValue();  // the earlier, good line of the same file is used
    readValue();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v, 3);
    EXPECT_EQ(err, "zosys: config: " + named +
                       ":3: value \"three\" of ZoTest.Value is not a number (decimal or 0x hex, 32 bits); ignored\n");
}

TEST_F(Config, LineWithoutEqualsIsReportedAndSkipped) {
    writeFile(userFile(), "ZoTest.Value 5\nZoTest.Value = 6\n");
    testing::internal::CaptureStderr();
    int v = readValue();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v, 6);
    EXPECT_EQ(err, "zosys: config: " + userFile() + ":1: \"ZoTest.Value 5\" is not a \"Key = value\" line; skipped\n");
}

TEST_F(Config, MissingNamedFileIsReported) {
    setenv("ZOSYS_CONFIG", (dir + "/absent.conf").c_str(), 1);
    writeFile(userFile(), "ZoTest.Value = 8\n");
    testing::internal::CaptureStderr();
    int v = readValue();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v, 8);
    EXPECT_EQ(err, "zosys: config: cannot read the file named by ZOSYS_CONFIG, " + dir +
                       "/absent.conf: No such file or directory\n");
}

TEST_F(Config, MissingLayerFilesAreSilent) {
    testing::internal::CaptureStderr();
    int v;
    EXPECT_NE(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Config, DebugTraceNamesTheSourceOfEachRead) {
    writeFile(userFile(), "# one\nZoTest.Value = 0x20\n");
    setenv("ZOTEST_TEXT", "hello", 1);
    setenv("ZOSYS_CONFIG_DEBUG", "1", 1);
    testing::internal::CaptureStderr();
    int v;
    char buf[16];
    ZoIF_GetConfigNumber("ZoTest.Value", &v);
    ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf);
    ZoIF_GetConfigNumber("ZoTest.Nowhere", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "zosys: config: ZoTest.Value = 32 (from " + userFile() +
                       ":2)\n"
                       "zosys: config: ZoTest.Text = \"hello\" (from environment variable ZOTEST_TEXT)\n"
                       "zosys: config: ZoTest.Nowhere is not set (looked at environment variable ZOTEST_NOWHERE, " +
                       userFile() + ", " + systemFile(1) + ", " + systemFile(2) + ")\n");
}

TEST_F(Config, DebugTraceIsOffForZero) {
    setenv("ZOTEST_VALUE", "1", 1);
    setenv("ZOSYS_CONFIG_DEBUG", "0", 1);
    testing::internal::CaptureStderr();
    readValue();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Config, BadArgumentsAreRefused) {
    int v = 0;
    char buf[4];
    EXPECT_NE(ZoIF_GetConfigNumber(nullptr, &v), 0);
    EXPECT_NE(ZoIF_GetConfigNumber("", &v), 0);
    EXPECT_NE(ZoIF_GetConfigNumber("ZoTest.Value", nullptr), 0);
    setenv("ZOTEST_TEXT", "", 1);
    EXPECT_NE(ZoIF_GetConfigString("ZoTest.Text", buf, 0), 0);
    EXPECT_NE(ZoIF_GetConfigString("ZoTest.Text", nullptr, 4), 0);
}

TEST_F(Config, StringLookupRefusesAMissingKey) {
    char buf[8] = "keep";
    setenv("ZOTEST_TEXT", "x", 1);
    EXPECT_EQ(ZoIF_GetConfigString(nullptr, buf, sizeof buf), EINVAL);
    EXPECT_EQ(ZoIF_GetConfigString("", buf, sizeof buf), EINVAL);
    EXPECT_STREQ(buf, "keep");
    EXPECT_EQ(ZoIF_GetConfigString("ZoTest.Text", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "x");
}

TEST_F(Config, EmptyHomeMeansNoUserFile) {
    unsetenv("XDG_CONFIG_HOME");
    std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("HOME", "", 1);
    writeFile(systemFile(1), "ZoTest.Value = 31\n");
    int v = 0;
    int rc = ZoIF_GetConfigNumber("ZoTest.Value", &v);
    setenv("HOME", oldHome.c_str(), 1);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(v, 31) << "the system files are still read";
}

TEST_F(Config, EmptySystemDirectoryListMeansTheDefaultOnly) {
    writeFile(systemFile(1), "ZoTest.Value = 41\n");
    setenv("XDG_CONFIG_DIRS", "", 1);
    setenv("ZOSYS_CONFIG_DEBUG", "1", 1);
    testing::internal::CaptureStderr();
    int v = 0;
    int rc = ZoIF_GetConfigNumber("ZoTest.Value", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(rc, 0) << "the test's system directories are not in the default list";
    EXPECT_EQ(v, 0);
    EXPECT_NE(err.find("/etc/xdg/zoutils/zoutils.conf"), std::string::npos) << err;
}

// A diagnostic about a value too long for one message line is cut, and stays one
// whole line.
TEST_F(Config, AnOverlongMalformedValueIsReportedOnOneCutLine) {
    std::string value(5000, 'q');
    setenv("ZOTEST_VALUE", value.c_str(), 1);
    testing::internal::CaptureStderr();
    int v = 7;
    int rc = ZoIF_GetConfigNumber("ZoTest.Value", &v);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(rc, 0);
    EXPECT_EQ(v, 7);
    ASSERT_FALSE(err.empty());
    EXPECT_EQ(err.rfind("zosys: config:", 0), 0u) << err.substr(0, 80);
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
    EXPECT_EQ(err.back(), '\n');
    EXPECT_LT(err.size(), value.size());
    EXPECT_GT(err.size(), 1000u) << "cut near the line buffer's end, not emptied";
}

TEST_F(Config, EveryBlankCountsAroundKeysAndValues) {
    std::string p = namedFile();
    writeFile(p, "\v\f ZoTest.Value\t\r= \f 0xaBc\v\r\n");
    EXPECT_EQ(readValue(), 0xABC);
    writeFile(p, "ZoTest.Value = 0x1g\nZoTest.Value = 12a\n");
    int v = 5;
    EXPECT_NE(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0);  // neither is a number
    EXPECT_EQ(v, 5);
}

TEST_F(Config, ManyLinesForOneKeyLastOneWins) {
    std::string text;
    for (int i = 1; i <= 40; ++i) text += "zotest.VALUE = " + std::to_string(i) + "\n";
    text += "= no key\n";
    writeFile(namedFile(), text);
    EXPECT_EQ(readValue(), 40);
}

TEST_F(Config, AKeyTooLongForAVariableNameIsReadFromFiles) {
    std::string key(300, 'k');
    writeFile(namedFile(), key + " = 9\n");
    int v = 0;
    EXPECT_EQ(ZoIF_GetConfigNumber(key.c_str(), &v), 0);
    EXPECT_EQ(v, 9);
}

TEST_F(Config, RelativeUserDirectoryFallsBackToHomeAndNoHomeMeansNoUserFile) {
    std::string home = dir + "/fallback";
    run("mkdir -p '" + home + "/.config/zoutils'");
    writeFile(home + "/.config/zoutils/zoutils.conf", "ZoTest.Value = 31\n");
    char const* savedHome = getenv("HOME");
    std::string kept = savedHome ? savedHome : "";
    setenv("XDG_CONFIG_HOME", "relative/dir", 1);
    setenv("HOME", home.c_str(), 1);
    EXPECT_EQ(readValue(), 31);
    setenv("HOME", "", 1);
    int v = 3;
    EXPECT_NE(ZoIF_GetConfigNumber("ZoTest.Value", &v), 0);
    EXPECT_EQ(v, 3);
    if (savedHome)
        setenv("HOME", kept.c_str(), 1);
    else
        unsetenv("HOME");
}

TEST_F(Config, ANamedPathThatIsADirectoryHoldsNoValues) {
    setenv("ZOSYS_CONFIG", dir.c_str(), 1);
    writeFile(systemFile(1), "ZoTest.Value = 8\n");
    EXPECT_EQ(readValue(), 8);
}

// ---------------------------------------------------------------------------
// Clock
// ---------------------------------------------------------------------------

TEST(Clock, CountsSecondsForwardFromLoad) {
    double a = ZoIF_ZeroBasedTime();
    EXPECT_GE(a, 0.0);
    sleepMs(20);
    double b = ZoIF_ZeroBasedTime();
    EXPECT_GE(b - a, 0.019);
    EXPECT_LT(b - a, 3600.0);  // seconds, not milli- or microseconds
    for (int i = 0; i < 1000; ++i) {
        double c = ZoIF_ZeroBasedTime();
        ASSERT_GE(c, b);
        b = c;
    }
}

}  // namespace
