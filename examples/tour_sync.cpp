// Tour: locks, events, the light lock and the time value.
#include <cstdio>
#include <thread>

#include "tour.h"
#include "utils/event.h"
#include "utils/lock.h"
#include "utils/time.h"

void tourSync() {
    std::printf("\n-- Locks, events and time --\n");

    // Two threads add to one counter under a Mutex held by a scoped Locker.
    Utils::Mutex mutex;
    unsigned long counter = 0;
    auto add = [&] {
        for (int i = 0; i < 100000; ++i) {
            Utils::Locker hold(&mutex, __FILE__, __LINE__);
            ++counter;
        }
    };
    std::thread a(add), b(add);
    a.join();
    b.join();
    std::printf("two threads x 100000 increments under a Mutex: %lu\n", counter);

    // An auto-reset event hands one signal to one waiter.
    Utils::CountedRef<Utils::WaitableEvent> ready(new Utils::WaitableEvent(false, false));
    std::thread waiter([&] {
        ready->wait();
        std::printf("waiter woke up\n");
    });
    ready->set();
    waiter.join();
    std::printf("second wait with a 10 ms timeout: %s\n", ready->wait(0.01) ? "signalled" : "timed out");

    // The light lock re-enters for its owner without a system call.
    Utils::ZotLightBLock light;
    light.init();
    light.lock();
    light.lock();
    std::printf("light lock held twice by task %d (depth %d)\n", light.ownerTask(), light.depth());
    light.unlock();
    light.unlock();
    std::printf("after two unlocks: owner %d\n", light.ownerTask());

    // Ticks of any clock become seconds with 16 fractional bits.
    std::printf("Time(3, 2) = %lld units = %.4f s; Time(1, 3) = %lld\n", Utils::Time(3, 2).value,
                Utils::Time(3, 2).value / 65536.0, Utils::Time(1, 3).value);
}
