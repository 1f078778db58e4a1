// Edges of the process allocator, its host and the simple allocator: more threads
// than arenas, pointers that belong to no arena, a damaged arena seen through the
// process allocator's verifier, requests the system layer or the C library cannot
// serve.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "address_cap.h"
#include "child.h"
#include "utils/allocator.h"
#include "utils/result.h"
#include "zosys.h"

using namespace Utils;

namespace {

// Runs `body` in a forked child and returns its exit code (100 when it did not
// exit normally).
template <class Body>
int inChild(Body body) {
    pid_t pid = fork();
    if (pid == 0) zotest::exitChild(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

// --- the host ----------------------------------------------------------------

TEST(HostAllocatorEdges, ARequestAbove4GiBRaisesOutOfMemory) {
    HostAllocator host;
    ASSERT_NE(host.alloc(100), nullptr);
    ASSERT_NE(host.size(nullptr), 0u);
    clearError();
    EXPECT_EQ(host.alloc((1ul << 32) + 1), nullptr);
    EXPECT_EQ(host.size(nullptr), 0u);
    EXPECT_EQ(lastError(), 0x80000002u);
    clearError();
}

// --- the process allocator's arenas -----------------------------------------------

// A block address no arena can hold: the process allocator answers for it as
// arena 0 does for a pointer outside it. Checked once other threads have arenas,
// so that the lookup of a block's arena runs.
TEST(ProcessAllocatorEdges, PointersOutsideEveryArenaAreNotBlocks) {
    Allocator* a = Allocator::theAllocator();
    std::thread other([a] { a->free(a->alloc(300)); });
    other.join();
    static char data[64];
    void* far = reinterpret_cast<void*>(~std::uintptr_t(0xFFF));  // above every user address
    for (void* p : {static_cast<void*>(data + 16), far}) {
        EXPECT_EQ(a->size(p), 0u);
        EXPECT_FALSE(a->valid(p));
        EXPECT_EQ(a->color(p), 0u);
        EXPECT_EQ(a->setColor(p, 5), 0x80000003u);
    }
}

// Once the process has had a second thread, the system layer's exhaustion is met
// on the locked path; it is raised as the arena is left, and changes no counter.
TEST(ProcessAllocatorEdges, ExhaustionOnTheLockedPathRaisesOnLeaving) {
    Allocator* a = Allocator::theAllocator();
    std::thread other([a] { a->free(a->alloc(300)); });
    other.join();
    a->free(a->alloc(64));
    auto* arena0 = static_cast<MemoryAllocator*>(a);
    ASSERT_LT(arena0->MemoryAllocator::internalFree(), 0x3FFFFF0u);  // the request must ask the system layer
    // A first exhaustion lets the error tables make this thread's entry.
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* warm = a->alloc(0x3FFFFE8);
    ZoIF_TestSetMemLimit(0);
    ASSERT_EQ(warm, nullptr);
    clearError();
    unsigned long allocated = a->allocatedMemory(), freeBytes = a->internalFree();
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* p = a->alloc(0x3FFFFE8, 3);
    unsigned int raised = lastError();
    unsigned long allocatedAfter = a->allocatedMemory(), freeAfter = a->internalFree();
    ZoIF_TestSetMemLimit(0);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(raised, 0x80000002u);
    EXPECT_EQ(allocatedAfter, allocated);
    EXPECT_EQ(freeAfter, freeBytes);
    EXPECT_EQ(arena0->verify(), nullptr);
    clearError();
}

// More threads at once than there are arenas: once every arena is owned, a new
// thread shares one in turn, and its blocks behave like any other.
TEST(ProcessAllocatorEdges, ThreadsBeyondTheLastArenaShareOne) {
    int code = inChild([] {
        Allocator* a = Allocator::theAllocator();
        constexpr int kThreads = 72;  // the main thread owns arena 0; 63 shards at most
        std::vector<std::thread> threads;
        threads.reserve(kThreads);
        std::atomic<int> ready{0}, bad{0};
        std::atomic<bool> go{false};
        unsigned long before = a->allocatedMemory();
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                unsigned long request = 1000 + 16 * static_cast<unsigned long>(i);
                void* p = a->alloc(request, 7);
                if (!p) ++bad;
                ++ready;
                while (!go.load()) std::this_thread::yield();
                if (p && (!a->valid(p) || a->size(p) < request || a->color(p) != 7)) ++bad;
                a->free(p);
            });
        }
        while (ready.load() != kThreads) std::this_thread::yield();
        unsigned long atPeak = a->allocatedColorMemory(7);
        bool sound = static_cast<MemoryAllocator*>(a)->verify() == nullptr;
        go = true;
        for (auto& t : threads) t.join();
        if (bad.load()) return 1;
        if (!sound) return 2;
        if (atPeak < kThreads * 1008ul) return 3;
        if (a->allocatedColorMemory(7) != 0) return 4;
        if (static_cast<MemoryAllocator*>(a)->verify() != nullptr) return 5;
        if (a->allocatedMemory() != before) return 6;
        // Every shard is free again: a new thread takes the first one, not a new one.
        bool reused = false;
        std::thread late([&] {
            void* p = a->alloc(500, 7);
            reused = p && a->valid(p) && a->size(p) >= 500;
            a->free(p);
        });
        late.join();
        if (!reused) return 7;
        return a->allocatedColorMemory(7) == 0 ? 0 : 8;
    });
    EXPECT_EQ(code, 0) << "1: a block failed, 2: unsound at the peak, 3: the peak missed blocks, "
                          "4: colour 7 not back to 0, 5: unsound after, 6: total not back, "
                          "7: a later thread's block failed, 8: its colour count not back";
}

// The process allocator's verifier reports the first fault of any arena.
struct Reach : MemoryAllocator {
    static constexpr unsigned long MemoryAllocator::*kAllocatedTotal = &Reach::allocatedTotal;
};

TEST(ProcessAllocatorEdges, VerifyNamesTheFaultOfADamagedArena) {
    int code = inChild([] {
        auto* arena0 = static_cast<MemoryAllocator*>(Allocator::theAllocator());
        if (arena0->verify() != nullptr) return 1;
        arena0->*Reach::kAllocatedTotal += 16;
        char const* found = arena0->verify();
        arena0->*Reach::kAllocatedTotal -= 16;
        if (!found || std::strcmp(found, "allocatedTotal differs from the busy blocks") != 0) return 2;
        return arena0->verify() == nullptr ? 0 : 3;
    });
    EXPECT_EQ(code, 0) << "1: unsound before, 2: the fault went unnamed, 3: unsound after the repair";
}

// --- the C library refusing --------------------------------------------------------


TEST(SimpleAllocatorEdges, AMallocFailureReturnsNullAndCountsNothing) {
    SKIP_UNDER_SANITIZER_RESERVATIONS();
    int code = inChild([] {
        SimpleAllocator simple;
        void* kept = simple.alloc(100, static_cast<char>(1));
        if (!kept) return 1;
        unsigned long total = simple.allocatedMemory(), one = simple.allocatedColorMemory(1);
        struct rlimit was;
        getrlimit(RLIMIT_AS, &was);
        struct rlimit cap = {zotest::mappedBytes(), was.rlim_max};
        if (cap.rlim_cur == 0 || setrlimit(RLIMIT_AS, &cap) != 0) return 2;
        void* p = simple.alloc(SimpleAllocator::kMaxRequest, static_cast<char>(1));
        setrlimit(RLIMIT_AS, &was);
        if (p) return 3;
        if (simple.allocatedMemory() != total || simple.allocatedColorMemory(1) != one) return 4;
        simple.free(kept);
        return simple.allocatedMemory() == 0 ? 0 : 5;
    });
    EXPECT_EQ(code, 0) << "2: no cap, 3: a block despite the cap, 4: counters moved, 5: not back to 0";
}

// The first shard of a process records its regions in a table whose pages come
// straight from the kernel. With the address space capped, the table gets no page:
// the shard does not use the region, and the request gets no block and raises
// 0x80000002 like any exhaustion. Once there is
// room again the same thread's requests work. Run in a fresh process (the table
// must not have a page yet).
// Keeps the last code raised: the new thread's own error entry cannot be made
// under the cap.
struct LastRaised : Utils::ResultListener {
    mutable std::atomic<unsigned int> code{0};
    void resultRaised(unsigned int c) const override { code.store(c); }
};

int firstShardUnderCap() {
    Allocator* a = Allocator::theAllocator();
    LastRaised seen;
    Utils::addResultListener(&seen);
    std::atomic<int> step{0};
    void* under = nullptr;
    bool raised = false;
    bool later = false;
    std::thread t([&] {
        while (step.load() != 1) std::this_thread::yield();
        under = a->alloc(300, 2);
        raised = seen.code.load() == Utils::kResultOutOfMemory;
        step = 2;
        while (step.load() != 3) std::this_thread::yield();
        void* p = a->alloc(300, 2);
        later = p && a->valid(p) && a->size(p) >= 300 && a->color(p) == 2;
        a->free(p);
        a->free(under);
    });
    struct rlimit was;
    getrlimit(RLIMIT_AS, &was);
    struct rlimit cap = {zotest::mappedBytes(), was.rlim_max};
    if (cap.rlim_cur == 0 || setrlimit(RLIMIT_AS, &cap) != 0) return 4;
    step = 1;
    while (step.load() != 2) std::this_thread::yield();
    setrlimit(RLIMIT_AS, &was);
    step = 3;
    t.join();
    Utils::removeResultListener(&seen);
    if (under) return 1;
    if (!raised) return 6;
    if (!later) return 2;
    if (a->allocatedColorMemory(2) != 0) return 5;
    return static_cast<MemoryAllocator*>(a)->verify() == nullptr ? 0 : 3;
}

TEST(ProcessAllocatorEdgesDeathTest, AShardWithoutPagesForItsRegionTableGetsNoBlockUntilThereIsRoom) {
    SKIP_UNDER_SANITIZER_RESERVATIONS();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(zotest::exitChild(firstShardUnderCap()), testing::ExitedWithCode(0), "")
        << "1: a block under the cap, 2: no block after it, 3: unsound, 4: no cap, 5: colour count not back, "
           "6: no 0x80000002 raised";
}

}  // namespace
