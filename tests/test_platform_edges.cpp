// The platform layer under the library: the re-entrant process lock and its
// sleeping half, fork hooks, thread-end slots and scratch mappings.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "child.h"
#include "eventually.h"
#include "platform/platform.h"

namespace {

using Utils::platform::ProcessLock;

TEST(ProcessLockEdges, TheOwnerEntersAgainAndOnlyTheLastExitFreesIt) {
    ProcessLock lock{};
    lock.lock();
    lock.lock();
    EXPECT_EQ(lock.depth, 2u);
    EXPECT_EQ(lock.owner.load(), Utils::platform::lockIdentity());
    lock.unlock();
    EXPECT_EQ(lock.depth, 1u);
    EXPECT_EQ(lock.owner.load(), Utils::platform::lockIdentity());
    EXPECT_EQ(lock.state.load(), 1);
    lock.unlock();
    EXPECT_EQ(lock.owner.load(), 0u);
    EXPECT_EQ(lock.state.load(), 0);
}

TEST(ProcessLockEdges, AWaiterSleepsUntilTheHolderLeavesAndThenHoldsIt) {
    ProcessLock lock{};
    lock.lock();
    std::atomic<bool> released{false};
    std::atomic<bool> tookItAfterRelease{false};
    std::atomic<std::uintptr_t> waiterIdentity{0};
    std::thread waiter([&] {
        lock.lock();  // spins, marks the word as having sleepers, sleeps
        tookItAfterRelease.store(released.load());
        waiterIdentity.store(lock.owner.load());
        lock.unlock();
    });
    // The waiter has given up spinning once it marks the word 2.
    ASSERT_TRUE(zotest::eventually([&] { return lock.state.load() == 2; }));
    released.store(true);
    lock.unlock();  // sees the mark and wakes the sleeper
    waiter.join();
    EXPECT_TRUE(tookItAfterRelease.load());
    EXPECT_NE(waiterIdentity.load(), 0u);
    EXPECT_NE(waiterIdentity.load(), Utils::platform::lockIdentity());
    EXPECT_EQ(lock.state.load(), 0);
    EXPECT_EQ(lock.owner.load(), 0u);
    lock.lock();  // free again for this thread
    EXPECT_EQ(lock.depth, 1u);
    lock.unlock();
}

// ---------------------------------------------------------------------------
// Fork hooks and thread-end slots
// ---------------------------------------------------------------------------

std::atomic<int> gPrepared{0}, gParentRuns{0}, gChildRuns{0};

TEST(ForkHookEdges, HandlersRunAroundForkInTheirProcesses) {
    ASSERT_TRUE(Utils::platform::onFork([] { gPrepared.fetch_add(1); }, [] { gParentRuns.fetch_add(1); },
                                        [] { gChildRuns.fetch_add(1); }));
    int prepared = gPrepared.load(), parentRuns = gParentRuns.load(), childRuns = gChildRuns.load();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        bool ok = gChildRuns.load() == childRuns + 1 && gParentRuns.load() == parentRuns;
        zotest::exitChild(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(gPrepared.load(), prepared + 1);
    EXPECT_EQ(gParentRuns.load(), parentRuns + 1);
    EXPECT_EQ(gChildRuns.load(), childRuns);
}

std::atomic<void*> gEnded{nullptr};
std::atomic<int> gEnds{0};

TEST(ThreadEndSlotEdges, AThreadsValueIsHandedToTheEndFunctionWhenItEnds) {
    static Utils::platform::ThreadEndSlot slot;  // a key lives as long as the process
    ASSERT_TRUE(slot.create([](void* value) {
        gEnded.store(value);
        gEnds.fetch_add(1);
    }));
    int marker = 0;
    std::thread([&] { slot.set(&marker); }).join();
    std::thread([] {}).join();  // a thread that never set it: no call
    EXPECT_EQ(gEnded.load(), &marker);
    EXPECT_EQ(gEnds.load(), 1);
}

TEST(ThreadEndSlotEdges, CreateFailsOnceTheSystemHasNoSlotLeft) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        pthread_key_t key;
        int made = 0;
        while (made < 100000 && pthread_key_create(&key, nullptr) == 0) ++made;
        Utils::platform::ThreadEndSlot slot;
        bool created = slot.create([](void*) {});
        char const* verdict = made > 0 && !created ? "refused" : "created";
        ssize_t ignored = write(fds[1], verdict, std::char_traits<char>::length(verdict));
        (void)ignored;
        zotest::exitChild(0);
    }
    close(fds[1]);
    int status = 0;
    std::string report = zotest::collectChildReport(fds[0], pid, &status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(report, "refused");
}

// ---------------------------------------------------------------------------
// Scratch mappings
// ---------------------------------------------------------------------------

bool mapped(void* p) { return msync(p, 1, MS_ASYNC) == 0; }

TEST(ScratchEdges, ZeroBytesMapOneZeroedPageAndGiveItBack) {
    long page = sysconf(_SC_PAGESIZE);
    auto* p = static_cast<unsigned char*>(Utils::platform::mapScratch(0));
    ASSERT_NE(p, nullptr);
    bool zero = true;
    for (long i = 0; i < page; ++i) zero = zero && p[i] == 0;
    EXPECT_TRUE(zero);
    p[page - 1] = 0xA5;  // writable to its end
    EXPECT_TRUE(mapped(p));
    Utils::platform::unmapScratch(p, 0);
    EXPECT_FALSE(mapped(p));
    EXPECT_EQ(errno, ENOMEM);
}

TEST(ScratchEdges, ARequestTheSystemCannotMapGivesNull) {
    EXPECT_EQ(Utils::platform::mapScratch(1ul << 62), nullptr);
}

TEST(ScratchEdges, GivingBackNullLeavesOtherMappingsAlone) {
    void* p = Utils::platform::mapScratch(100);
    ASSERT_NE(p, nullptr);
    Utils::platform::unmapScratch(nullptr, 100);
    EXPECT_TRUE(mapped(p));
    Utils::platform::unmapScratch(p, 100);
    EXPECT_FALSE(mapped(p));
}

}  // namespace
