// Tour: identifiers, versions, locks, events, the light lock and the time value.
#include <cstdio>
#include <map>
#include <thread>
#include <unordered_set>

#include "tour.h"
#include "utils/event.h"
#include "utils/lock.h"
#include "utils/time.h"
#include "utils/uid.h"
#include "utils/version.h"

void tourSync() {
    std::printf("\n-- Identifiers and versions --\n"
                "[examples/tour_sync.cpp: Utils::UID (utils/uid.h), Utils::Version (utils/version.h)]\n");
    Utils::UID first, second;
    first.generate();
    second.generate();
    std::printf("two identifiers: %s and %s (machine %08X)\n", first.asText().text(), second.asText().text(),
                Utils::UID::ourMachineNum());
    Utils::UID parsed(second.asText().text());
    std::printf("parsed back: compare = %d; first.compare(second) = %d (1: first is the smaller)\n",
                parsed.compare(second), first.compare(second));
    std::printf("null identifier: \"%s\", valid %d\n", Utils::UID::nullUID().asText().text(),
                Utils::UID::nullUID().valid());
    // ==, the natural order (operator<, the reverse of compare's sign) and std::hash put
    // identifiers in standard containers.
    std::map<Utils::UID, char const*> byId{{second, "second"}, {first, "first"}};
    std::unordered_set<Utils::UID> ids{first, second, first};
    std::printf("std::map of identifiers starts with the %s; unordered_set holds %zu; first < second is %s\n",
                byId.begin()->second, ids.size(), first < second ? "true" : "false");

    Utils::CountedRef<Utils::Version> lib = Utils::Version::theVersion();
    std::printf("library version %s, numbers %u.%u.%u.%u (by design each of the four numbers is read from the\n"
                "  text's first dotted component, so the numbers of \"1.1.1.1507\" are 1.1.1.1)\n",
                lib->asString().text(), lib->major(), lib->minor(), lib->revision(), lib->build());
    Utils::CountedRef<Utils::Version> older = Utils::Version::create(2, 0, 13, 400);
    Utils::CountedRef<Utils::Version> newer = Utils::Version::create(2, 1, 0, 0);
    std::printf("%s compared with %s: %d\n", older->asString().text(), newer->asString().text(),
                older->compare(newer.get()));

    std::printf("\n-- Locks, events and time --\n"
                "[examples/tour_sync.cpp: Utils::Mutex, Utils::Locker (utils/lock.h),\n"
                "  Utils::WaitableEvent (utils/event.h),"
                " Utils::ZotLightBLock (utils/lock.h), Utils::Time (utils/time.h)]\n");

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
    std::printf("Time(3, 2), 3 ticks of a 2 Hz clock, = %lld units of 1/65536 s = %.4f s;\n"
                "  Time(1, 3), a third of a second, = %lld units (truncated toward zero)\n",
                Utils::Time(3, 2).value, Utils::Time(3, 2).value / 65536.0, Utils::Time(1, 3).value);
}
