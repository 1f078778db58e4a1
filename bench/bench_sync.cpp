// Locks and identifiers, side by side with what a user would pick instead.
//
//  - Entering and leaving a lock (threads:1 uncontended, threads:2 two threads on one
//    lock): Utils::Mutex through a Locker (a system-layer recursive mutex, through a
//    virtual call), Utils::ZotLightBLock (first entry waits on its event, last exit
//    sets it), std::mutex and std::recursive_mutex.
//  - Re-entering a lock the thread already holds: ZotLightBLock (owner test, no
//    system call) against std::recursive_mutex.
//  - Minting identifiers: UID::generate (one compare-and-swap on the generator
//    state) against the same algorithm behind a std::mutex, and against
//    boost::uuids::random_generator (random 128-bit identifiers, a different design
//    that needs no clock).
#include <ctime>
#include <mutex>

#include <benchmark/benchmark.h>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>

#include "utils/lock.h"
#include "utils/uid.h"

namespace {

// ---------------------------------------------------------------------------
// Enter and leave
// ---------------------------------------------------------------------------

void BM_LockUnlock_ZoMutexLocker(benchmark::State& state) {
    static Utils::Mutex m;
    for (auto _ : state) {
        Utils::Locker hold(&m, __FILE__, __LINE__);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LockUnlock_ZoMutexLocker)->ThreadRange(1, 2);

void BM_LockUnlock_ZotLightBLock(benchmark::State& state) {
    static Utils::ZotLightBLock* lock = [] {
        auto* l = new Utils::ZotLightBLock;
        l->init();
        return l;
    }();
    for (auto _ : state) {
        lock->lock();
        benchmark::ClobberMemory();
        lock->unlock();
    }
}
BENCHMARK(BM_LockUnlock_ZotLightBLock)->ThreadRange(1, 2);

void BM_LockUnlock_StdMutex(benchmark::State& state) {
    static std::mutex m;
    for (auto _ : state) {
        std::lock_guard<std::mutex> hold(m);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LockUnlock_StdMutex)->ThreadRange(1, 2);

void BM_LockUnlock_StdRecursiveMutex(benchmark::State& state) {
    static std::recursive_mutex m;
    for (auto _ : state) {
        std::lock_guard<std::recursive_mutex> hold(m);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LockUnlock_StdRecursiveMutex)->ThreadRange(1, 2);

// ---------------------------------------------------------------------------
// Re-entry by the owner
// ---------------------------------------------------------------------------

void BM_Reenter_ZotLightBLock(benchmark::State& state) {
    Utils::ZotLightBLock lock;
    lock.init();
    lock.lock();
    for (auto _ : state) {
        lock.lock();
        benchmark::ClobberMemory();
        lock.unlock();
    }
    lock.unlock();
}
BENCHMARK(BM_Reenter_ZotLightBLock);

void BM_Reenter_StdRecursiveMutex(benchmark::State& state) {
    std::recursive_mutex m;
    m.lock();
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
    m.unlock();
}
BENCHMARK(BM_Reenter_StdRecursiveMutex);

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

void BM_Mint_UIDGenerate(benchmark::State& state) {
    Utils::UID u;
    for (auto _ : state) {
        u.generate();
        benchmark::DoNotOptimize(u);
    }
}
BENCHMARK(BM_Mint_UIDGenerate)->ThreadRange(1, 2);

// The same (machine, time, sequence) algorithm with its state behind a mutex.
void BM_Mint_MutexGuardedGenerator(benchmark::State& state) {
    static std::mutex m;
    static unsigned int last = 0, counter = 0;
    Utils::UID u;
    for (auto _ : state) {
        std::lock_guard<std::mutex> hold(m);
        unsigned int now = static_cast<unsigned int>(std::time(nullptr) - 602883519);
        if (now != last) {
            last = now;
            counter = 0;
        } else {
            ++counter;
        }
        u = Utils::UID(0xC0D1F1ED, last, counter);
        benchmark::DoNotOptimize(u);
    }
}
BENCHMARK(BM_Mint_MutexGuardedGenerator)->ThreadRange(1, 2);

void BM_Mint_BoostRandomUuid(benchmark::State& state) {
    boost::uuids::random_generator gen;
    for (auto _ : state) {
        boost::uuids::uuid id = gen();
        benchmark::DoNotOptimize(id);
    }
}
BENCHMARK(BM_Mint_BoostRandomUuid)->ThreadRange(1, 2);

void BM_Text_UIDAsText(benchmark::State& state) {
    Utils::UID u(0xC0D1F1ED, 0x0ABC1234, 0x1F);
    for (auto _ : state) {
        Utils::String s = u.asText();
        benchmark::DoNotOptimize(s.text());
    }
}
BENCHMARK(BM_Text_UIDAsText);

void BM_Text_UIDParse(benchmark::State& state) {
    char const* text = "C0D1F1ED0ABC12341F";
    for (auto _ : state) {
        Utils::UID u(text);
        benchmark::DoNotOptimize(u);
    }
}
BENCHMARK(BM_Text_UIDParse);

}  // namespace

BENCHMARK_MAIN();
