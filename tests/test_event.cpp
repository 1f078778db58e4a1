// Events: WaitableEvent and CoopWaitableEvent over the system layer, with real threads.
//
// This program interposes the system layer's event functions (definitions below take
// precedence over libzosys for calls made by libzoutils). Each records, per calling
// thread, what it was given and forwards to the real function — except the timed
// waits, whose result a test can replace, so that the reduction of any nonzero
// result to true can be checked for results the real layer never gives.
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "eventually.h"

#include "utils/event.h"
#include "utils/object.h"
#include "zosys.h"

namespace {

struct LayerLog {
    int creates = 0;
    int lastManual = -1;
    int lastSignalled = -1;
    int destroys = 0;
    double lastTimeout = 0;
    bool replaceTimedResult = false;
    int timedResult = 0;
};
thread_local LayerLog tPlain;
thread_local LayerLog tCoop;

template <class F>
F realFunction(char const* name) {
    void* f = dlsym(RTLD_NEXT, name);
    if (!f) std::abort();
    return reinterpret_cast<F>(f);
}

using HandleFn = int (*)(ZoIF_Handle);
using CreateFn = ZoIF_Handle (*)(int, int);
using TimedFn = int (*)(ZoIF_Handle, double);

}  // namespace

extern "C" {
ZoIF_Handle ZoIF_CreateEvent(int manualReset, int initiallySignalled) {
    static CreateFn real = realFunction<CreateFn>("ZoIF_CreateEvent");
    ++tPlain.creates;
    tPlain.lastManual = manualReset;
    tPlain.lastSignalled = initiallySignalled;
    return real(manualReset, initiallySignalled);
}
int ZoIF_DestroyEvent(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_DestroyEvent");
    ++tPlain.destroys;
    return real(h);
}
int ZoIF_WaitEventTimed(ZoIF_Handle h, double seconds) {
    static TimedFn real = realFunction<TimedFn>("ZoIF_WaitEventTimed");
    tPlain.lastTimeout = seconds;
    int result = real(h, seconds);
    return tPlain.replaceTimedResult ? tPlain.timedResult : result;
}
ZoIF_Handle ZoIF_CreateEventCoop(int manualReset, int initiallySignalled) {
    static CreateFn real = realFunction<CreateFn>("ZoIF_CreateEventCoop");
    ++tCoop.creates;
    tCoop.lastManual = manualReset;
    tCoop.lastSignalled = initiallySignalled;
    return real(manualReset, initiallySignalled);
}
int ZoIF_DestroyEventCoop(ZoIF_Handle h) {
    static HandleFn real = realFunction<HandleFn>("ZoIF_DestroyEventCoop");
    ++tCoop.destroys;
    return real(h);
}
int ZoIF_WaitEventTimedCoop(ZoIF_Handle h, double seconds) {
    static TimedFn real = realFunction<TimedFn>("ZoIF_WaitEventTimedCoop");
    tCoop.lastTimeout = seconds;
    int result = real(h, seconds);
    return tCoop.replaceTimedResult ? tCoop.timedResult : result;
}
}  // extern "C"

namespace {

using namespace std::chrono_literals;
using Utils::CoopWaitableEvent;
using Utils::CountedRef;
using Utils::WaitableEvent;

constexpr auto kPause = 50ms;

using zotest::eventually;

// The same tests run on both classes; Traits gives each its record of layer calls.
template <class E>
struct Traits;
template <>
struct Traits<WaitableEvent> {
    static LayerLog& log() { return tPlain; }
};
template <>
struct Traits<CoopWaitableEvent> {
    static LayerLog& log() { return tCoop; }
};

template <class E>
struct Events : ::testing::Test {
    void SetUp() override { Traits<E>::log() = LayerLog(); }
    static LayerLog& log() { return Traits<E>::log(); }
};
using EventTypes = ::testing::Types<WaitableEvent, CoopWaitableEvent>;
class EventNames {
public:
    template <class E>
    static std::string GetName(int) {
        return std::is_same<E, WaitableEvent>::value ? "Plain" : "Coop";
    }
};
TYPED_TEST_SUITE(Events, EventTypes, EventNames);

TYPED_TEST(Events, ConstructorPassesBothFlagsInOrder) {
    { TypeParam e(true, false); }
    EXPECT_EQ(1, this->log().lastManual);
    EXPECT_EQ(0, this->log().lastSignalled);
    { TypeParam e(false, true); }
    EXPECT_EQ(0, this->log().lastManual);
    EXPECT_EQ(1, this->log().lastSignalled);
    EXPECT_EQ(2, this->log().creates);
    EXPECT_EQ(2, this->log().destroys);
}

TYPED_TEST(Events, AutoResetInitiallySignalledLetsExactlyOneWaitThrough) {
    TypeParam e(false, true);
    EXPECT_EQ(0, e.wait());          // passes at once, consuming the signal
    EXPECT_FALSE(e.wait(0.05));      // the next one blocks until the timeout
}

TYPED_TEST(Events, AutoResetLetsExactlyOneOfSeveralWaitingThreadsThroughPerSignal) {
    TypeParam e(false, true);
    std::atomic<int> through{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            e.wait();
            ++through;
        });
    ASSERT_TRUE(eventually([&] { return through.load() == 1; }));
    std::this_thread::sleep_for(kPause);
    EXPECT_EQ(1, through.load()) << "one signal let several waiters through";
    EXPECT_EQ(0, e.set());
    ASSERT_TRUE(eventually([&] { return through.load() == 2; }));
    std::this_thread::sleep_for(kPause);
    EXPECT_EQ(2, through.load());
    e.set();
    for (auto& t : waiters) t.join();
    EXPECT_EQ(3, through.load());
    EXPECT_FALSE(e.wait(0.0)) << "the last signal was consumed";
}

TYPED_TEST(Events, ManualResetStaysSignalledForEveryWaiterUntilReset) {
    TypeParam e(true, false);
    EXPECT_FALSE(e.wait(0.0));
    std::atomic<int> through{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            e.wait();
            ++through;
        });
    std::this_thread::sleep_for(kPause);
    EXPECT_EQ(0, through.load());
    EXPECT_EQ(0, e.set());
    for (auto& t : waiters) t.join();
    EXPECT_EQ(3, through.load());
    EXPECT_TRUE(e.wait(0.0));
    EXPECT_TRUE(e.wait(0.0));
    EXPECT_EQ(0, e.reset());
    EXPECT_FALSE(e.wait(0.0));
}

TYPED_TEST(Events, SetFromAnotherThreadWakesABlockedWait) {
    TypeParam e(false, false);
    std::atomic<bool> woke{false};
    std::thread waiter([&] {
        EXPECT_EQ(0, e.wait());
        woke = true;
    });
    std::this_thread::sleep_for(kPause);
    EXPECT_FALSE(woke.load());
    e.set();
    EXPECT_TRUE(eventually([&] { return woke.load(); }));
    waiter.join();
}

TYPED_TEST(Events, TimedWaitIsTrueWhenSignalledAndFalseOnTimeout) {
    TypeParam e(false, false);
    EXPECT_FALSE(e.wait(0.02));
    std::thread setter([&] {
        std::this_thread::sleep_for(kPause);
        e.set();
    });
    EXPECT_TRUE(e.wait(10.0));
    setter.join();
}

TYPED_TEST(Events, TimedWaitPassesTheTimeoutUnconverted) {
    TypeParam e(true, true);
    EXPECT_TRUE(e.wait(2.75));
    EXPECT_EQ(2.75, this->log().lastTimeout);
    EXPECT_TRUE(e.wait(-1.0));
    EXPECT_EQ(-1.0, this->log().lastTimeout);
}

TYPED_TEST(Events, TimedWaitTakesEveryNonzeroLayerResultAsTrueAndOnlyZeroAsFalse) {
    TypeParam e(true, true);
    this->log().replaceTimedResult = true;
    for (int result : {1, 2, 7, -1, 0x7FFFFFFF, static_cast<int>(0x80000000u)}) {
        this->log().timedResult = result;
        EXPECT_TRUE(e.wait(0.0)) << "layer result " << result;
    }
    this->log().timedResult = 0;
    EXPECT_FALSE(e.wait(0.0)) << "the event is signalled, but the layer said 0";
}

TYPED_TEST(Events, LastCountedReferenceDestroysTheEvent) {
    {
        CountedRef<TypeParam> a(new TypeParam(false, false));
        CountedRef<TypeParam> b = a;
        EXPECT_EQ(2u, a->refCount());
        a.reset();
        EXPECT_EQ(0, this->log().destroys);
    }
    EXPECT_EQ(1, this->log().destroys);
}

}  // namespace
