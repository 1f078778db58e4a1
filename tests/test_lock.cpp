// Locks: Lock/Mutex/CriticalSection/Locker and the light blocking lock.
//
// Real threads throughout. Assertions of the form "has not happened yet" are made
// after a short pause: they can only fail when the lock lets a thread through that
// it must hold back, never because the machine is slow. Waits for something that
// must happen are bounded (a few seconds) so a broken lock fails instead of hanging.
//
// This program interposes a few system-layer entry points (definitions below take
// precedence over libzosys for calls made by libzoutils). Each counts the calls made
// by the calling thread and forwards to the real function, so the tests can see
// exactly which system-layer calls an operation makes.
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eventually.h"

#include "knobs.h"
#include "utils/lock.h"
#include "zosys.h"

namespace {

thread_local int tEnterMutex = 0;
thread_local int tExitMutex = 0;
thread_local int tEnterSection = 0;
thread_local int tExitSection = 0;
thread_local int tSetEventCoop = 0;
thread_local int tWaitEventCoop = 0;
thread_local int tCreateEventCoop = 0;
thread_local int tDestroyEventCoop = 0;

template <class F>
F realFunction(char const* name) {
    void* f = dlsym(RTLD_NEXT, name);
    if (!f) std::abort();
    return reinterpret_cast<F>(f);
}

using HandleFn = int (*)(ZoIF_Handle);
using CreateFn = ZoIF_Handle (*)(int, int);

}  // namespace

extern "C" {
int ZoIF_EnterMutex(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_EnterMutex");
    ++tEnterMutex;
    return real(h);
}
int ZoIF_ExitMutex(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_ExitMutex");
    ++tExitMutex;
    return real(h);
}
int ZoIF_EnterCriticalSection(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_EnterCriticalSection");
    ++tEnterSection;
    return real(h);
}
int ZoIF_ExitCriticalSection(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_ExitCriticalSection");
    ++tExitSection;
    return real(h);
}
int ZoIF_SetEventCoop(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_SetEventCoop");
    ++tSetEventCoop;
    return real(h);
}
int ZoIF_WaitEventCoop(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_WaitEventCoop");
    ++tWaitEventCoop;
    return real(h);
}
ZoIF_Handle ZoIF_CreateEventCoop(int manualReset, int initiallySignalled) {
    static CreateFn real = realFunction<CreateFn>("ZoIF_CreateEventCoop");
    ++tCreateEventCoop;
    return real(manualReset, initiallySignalled);
}
int ZoIF_DestroyEventCoop(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_DestroyEventCoop");
    ++tDestroyEventCoop;
    return real(h);
}
}  // extern "C"

namespace {

using namespace std::chrono_literals;
using Utils::CriticalSection;
using Utils::Lock;
using Utils::Locker;
using Utils::Mutex;
using Utils::ZotLightBLock;

// Long enough for a wrongly admitted thread to get in; short enough to stay cheap.
constexpr auto kPause = 50ms;

using zotest::eventually;

// A Lock that records how it is used, to see what Locker does to the lock it is given.
class CountingLock : public Lock {
public:
    int enter() const override {
        ++enters;
        return 0;
    }
    int exit() const override {
        ++exits;
        return 0;
    }
    mutable int enters = 0;
    mutable int exits = 0;
};

// ---------------------------------------------------------------------------
// Locker
// ---------------------------------------------------------------------------

TEST(Locker, EntersOnceOnConstructionAndExitsOnceOnDestruction) {
    CountingLock lock;
    {
        Locker hold(&lock, __FILE__, 42);
        EXPECT_EQ(1, lock.enters);
        EXPECT_EQ(0, lock.exits);
    }
    EXPECT_EQ(1, lock.enters);
    EXPECT_EQ(1, lock.exits);
}

TEST(Locker, KeepsTheLockAndThePositionItWasGiven) {
    CountingLock lock;
    static char const kFile[] = "caller.cpp";
    Locker hold(&lock, kFile, 1234);
    EXPECT_EQ(&lock, hold.lock);
    EXPECT_EQ(kFile, hold.file);  // the very pointer: the name is not copied
    EXPECT_EQ(1234u, hold.line);
}

TEST(Locker, NullFileAndLineZeroBehaveLikeARealPosition) {
    CountingLock lock;
    {
        Locker hold(&lock, nullptr, 0);
        EXPECT_EQ(nullptr, hold.file);
        EXPECT_EQ(0u, hold.line);
        EXPECT_EQ(1, lock.enters);
        EXPECT_EQ(0, lock.exits);
    }
    EXPECT_EQ(1, lock.exits);
}

TEST(Locker, OnAMutexEntersTheSystemMutexOnceAndExitsItOnce) {
    Mutex m;
    tEnterMutex = tExitMutex = 0;
    {
        Locker hold(&m, __FILE__, __LINE__);
        EXPECT_EQ(1, tEnterMutex);
        EXPECT_EQ(0, tExitMutex);
    }
    EXPECT_EQ(1, tEnterMutex);
    EXPECT_EQ(1, tExitMutex);
}

TEST(Locker, OnACriticalSectionEntersOnceAndExitsOnce) {
    CriticalSection cs;
    tEnterSection = tExitSection = 0;
    {
        Locker hold(&cs, nullptr, 0);
        EXPECT_EQ(1, tEnterSection);
        EXPECT_EQ(0, tExitSection);
    }
    EXPECT_EQ(1, tEnterSection);
    EXPECT_EQ(1, tExitSection);
}

TEST(Locker, IgnoresAFailingStatus) {
    struct FailingLock : Lock {
        int enter() const override { return ++enters, -5; }
        int exit() const override { return ++exits, -6; }
        mutable int enters = 0, exits = 0;
    } lock;
    { Locker hold(&lock, nullptr, 0); }
    EXPECT_EQ(1, lock.enters);
    EXPECT_EQ(1, lock.exits);
}

// ---------------------------------------------------------------------------
// Mutex and CriticalSection
// ---------------------------------------------------------------------------

TEST(Mutex, EnterAndExitReturnTheLayersSuccessStatus) {
    Mutex m;
    EXPECT_EQ(0, m.enter());
    EXPECT_EQ(0, m.exit());
}

TEST(CriticalSection, EnterAndExitReturnTheLayersSuccessStatus) {
    CriticalSection cs;
    EXPECT_EQ(0, cs.enter());
    EXPECT_EQ(0, cs.exit());
}

// A second thread blocks on `lock` while the first holds it through a Locker, and
// gets in once the Locker is gone.
void expectHeldLockKeepsOtherThreadOut(Lock& lock) {
    std::atomic<bool> inside{false};
    std::thread other;
    {
        Locker hold(&lock, __FILE__, __LINE__);
        other = std::thread([&] {
            Locker theirs(&lock, __FILE__, __LINE__);
            inside = true;
        });
        std::this_thread::sleep_for(kPause);
        EXPECT_FALSE(inside.load()) << "a second thread entered a held lock";
    }
    EXPECT_TRUE(eventually([&] { return inside.load(); })) << "the lock was not released";
    other.join();
}

TEST(Mutex, KeepsASecondThreadOutUntilReleased) {
    Mutex m;
    expectHeldLockKeepsOtherThreadOut(m);
}

TEST(CriticalSection, KeepsASecondThreadOutUntilReleased) {
    CriticalSection cs;
    expectHeldLockKeepsOtherThreadOut(cs);
}

// Over this library's system layer both locks are recursive: a nested entry by the
// owner does not deadlock, and the lock is free only after the matching exits.
void expectRecursive(Lock& lock) {
    ASSERT_EQ(0, lock.enter());
    ASSERT_EQ(0, lock.enter());
    ASSERT_EQ(0, lock.exit());
    std::atomic<bool> inside{false};
    std::thread other([&] {
        lock.enter();
        inside = true;
        lock.exit();
    });
    std::this_thread::sleep_for(kPause);
    EXPECT_FALSE(inside.load()) << "one exit of two freed the lock";
    ASSERT_EQ(0, lock.exit());
    EXPECT_TRUE(eventually([&] { return inside.load(); }));
    other.join();
}

TEST(Mutex, IsRecursiveOverThisSystemLayer) {
    Mutex m;
    expectRecursive(m);
}

TEST(CriticalSection, IsRecursiveOverThisSystemLayer) {
    CriticalSection cs;
    expectRecursive(cs);
}

// Several threads increment a plain counter under the lock; no increment is lost.
// Under ThreadSanitizer this also proves the lock orders the accesses.
void expectMutualExclusion(Lock& lock) {
    unsigned long const perThread = zotest::scaled(20000);
    unsigned long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (unsigned long i = 0; i < perThread; ++i) {
                Locker hold(&lock, __FILE__, __LINE__);
                ++counter;
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(4 * perThread, counter);
}

TEST(Mutex, FourThreadsLoseNoIncrement) {
    Mutex m;
    expectMutualExclusion(m);
}

TEST(CriticalSection, FourThreadsLoseNoIncrement) {
    CriticalSection cs;
    expectMutualExclusion(cs);
}

TEST(Lock, DeletingThroughTheBaseRunsTheDerivedDestructor) {
    // The handle of a Mutex deleted through Lock* is destroyed: a fresh Mutex made
    // afterwards still works (no leaked, half-destroyed state).
    Lock* lock = new Mutex;
    EXPECT_EQ(0, lock->enter());
    EXPECT_EQ(0, lock->exit());
    delete lock;
    Mutex again;
    EXPECT_EQ(0, again.enter());
    EXPECT_EQ(0, again.exit());
}

// ---------------------------------------------------------------------------
// ZotLightBLock
// ---------------------------------------------------------------------------

// A light lock with init() done and the destructor's layer call counted.
struct LightLock : ::testing::Test {
    void SetUp() override {
        tCreateEventCoop = tSetEventCoop = tWaitEventCoop = tDestroyEventCoop = 0;
        lock.init();
    }
    ZotLightBLock lock;
};

TEST_F(LightLock, InitMakesOneEventAndLeavesTheLockFree) {
    EXPECT_EQ(1, tCreateEventCoop);
    EXPECT_EQ(-1, lock.ownerTask());
    EXPECT_EQ(0, lock.depth());
}

TEST_F(LightLock, FirstLockAfterInitPassesAtOnce) {
    // Run on a helper thread so that a lock that wrongly blocks fails the test
    // instead of hanging it.
    std::atomic<bool> done{false};
    std::atomic<int> id{0};
    std::thread t([&] {
        lock.lock();
        id = ZoIF_CurrentTaskIdCoop();
        done = true;
    });
    bool passed = eventually([&] { return done.load(); });
    ASSERT_TRUE(passed) << "the first lock() after init() blocked";
    t.join();
    EXPECT_EQ(id.load(), lock.ownerTask());
    EXPECT_EQ(1, lock.depth());
}

TEST_F(LightLock, OwnerReentersWithoutTouchingTheSystemLayer) {
    lock.lock();
    lock.lock();
    lock.lock();
    EXPECT_EQ(1, tWaitEventCoop);  // only the first entry waits on the event
    EXPECT_EQ(3, lock.depth());
    EXPECT_EQ(ZoIF_CurrentTaskIdCoop(), lock.ownerTask());
    lock.unlock();
    lock.unlock();
    lock.unlock();
}

TEST_F(LightLock, ThreeLocksThenThreeUnlocksFreeItAndOnlyTheThirdSetsTheEvent) {
    lock.lock();
    lock.lock();
    lock.lock();
    lock.unlock();
    EXPECT_EQ(0, tSetEventCoop);
    EXPECT_EQ(2, lock.depth());
    lock.unlock();
    EXPECT_EQ(0, tSetEventCoop);
    EXPECT_EQ(1, lock.depth());
    EXPECT_EQ(ZoIF_CurrentTaskIdCoop(), lock.ownerTask());
    lock.unlock();
    EXPECT_EQ(1, tSetEventCoop);
    EXPECT_EQ(0, lock.depth());
    EXPECT_EQ(-1, lock.ownerTask());
}

TEST_F(LightLock, AWaiterGetsInOnlyAtTheOwnersThirdUnlock) {
    // The same, observed from the outside: the event is what lets a waiting task
    // through, so the waiter stays out after the first and second unlock.
    lock.lock();
    lock.lock();
    lock.lock();
    std::atomic<bool> inside{false};
    std::atomic<int> theirId{0};
    std::thread waiter([&] {
        theirId = ZoIF_CurrentTaskIdCoop();
        lock.lock();
        inside = true;
        lock.unlock();
    });
    std::this_thread::sleep_for(kPause);
    EXPECT_FALSE(inside.load());
    lock.unlock();
    std::this_thread::sleep_for(kPause);
    EXPECT_FALSE(inside.load()) << "let in by the first unlock";
    lock.unlock();
    std::this_thread::sleep_for(kPause);
    EXPECT_FALSE(inside.load()) << "let in by the second unlock";
    lock.unlock();
    EXPECT_TRUE(eventually([&] { return inside.load(); })) << "not let in by the last unlock";
    waiter.join();
    EXPECT_EQ(-1, lock.ownerTask());
}

TEST_F(LightLock, ASecondTaskBlocksUntilTheOwnersLastUnlockThenOwnsIt) {
    lock.lock();
    std::atomic<bool> owns{false};
    std::atomic<bool> release{false};
    std::atomic<int> theirId{0};
    std::thread second([&] {
        theirId = ZoIF_CurrentTaskIdCoop();
        lock.lock();
        owns = true;
        while (!release) std::this_thread::sleep_for(1ms);
        lock.unlock();
    });
    std::this_thread::sleep_for(kPause);
    EXPECT_FALSE(owns.load());
    EXPECT_EQ(ZoIF_CurrentTaskIdCoop(), lock.ownerTask());
    lock.unlock();
    ASSERT_TRUE(eventually([&] { return owns.load(); }));
    EXPECT_EQ(theirId.load(), lock.ownerTask());
    EXPECT_EQ(1, lock.depth());
    release = true;
    second.join();
    EXPECT_EQ(-1, lock.ownerTask());
}

TEST_F(LightLock, OneWaiterIsLetThroughPerFinalUnlock) {
    lock.lock();
    std::atomic<int> inside{0};
    std::atomic<int> entered{0};
    std::atomic<bool> release{false};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            lock.lock();
            ++entered;
            ++inside;
            while (!release) std::this_thread::sleep_for(1ms);
            --inside;
            lock.unlock();
        });
    std::this_thread::sleep_for(kPause);
    EXPECT_EQ(0, entered.load());
    lock.unlock();
    ASSERT_TRUE(eventually([&] { return entered.load() == 1; }));
    std::this_thread::sleep_for(kPause);
    EXPECT_EQ(1, entered.load()) << "one final unlock let more than one waiter in";
    EXPECT_EQ(1, inside.load());
    release = true;  // each leaves in turn, letting in the next
    for (auto& t : waiters) t.join();
    EXPECT_EQ(3, entered.load());
    EXPECT_EQ(-1, lock.ownerTask());
}

TEST_F(LightLock, NestedUseFromFourThreadsLosesNoIncrement) {
    unsigned long const perThread = zotest::scaled(5000);
    unsigned long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (unsigned long i = 0; i < perThread; ++i) {
                lock.lock();
                lock.lock();  // re-entry by the owner
                ++counter;
                lock.unlock();
                ++counter;
                lock.unlock();
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(8 * perThread, counter);
    EXPECT_EQ(-1, lock.ownerTask());
    EXPECT_EQ(0, lock.depth());
}

TEST_F(LightLock, UnlockingMoreThanLockedDrivesTheCountNegativeWithoutSettingTheEventAgain) {
    lock.lock();
    lock.unlock();
    EXPECT_EQ(1, tSetEventCoop);
    lock.unlock();
    EXPECT_EQ(-1, lock.depth());
    EXPECT_EQ(1, tSetEventCoop);
    EXPECT_EQ(-1, lock.ownerTask());
}

TEST(LightLockLifetime, DestructorDestroysTheEventOnly) {
    tDestroyEventCoop = tSetEventCoop = 0;
    {
        ZotLightBLock lock;
        lock.init();
        lock.lock();  // destroyed while held: nothing but the event is touched
    }
    EXPECT_EQ(1, tDestroyEventCoop);
    EXPECT_EQ(0, tSetEventCoop);
}

}  // namespace
