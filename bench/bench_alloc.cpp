// Global operator new/delete under allocation patterns, one source for every
// allocator: built as bench_alloc (linked with libzoutils, so operator new is the
// library's arena) and as bench_alloc_plain (without it: glibc malloc, or a peer
// preloaded with LD_PRELOAD). bench/run_alloc.sh runs them side by side.
//
//   BM_Pairs/<size>/<live>/<order>: allocate `live` blocks of `size` bytes, touch
//     each, then delete them in LIFO (0), FIFO (1) or a fixed random (2) order;
//     items = new/delete pairs. At 1 and 2 threads, each thread with its own blocks.
//   BM_MapOfStringsToVectors: build a std::map<std::string, std::vector<int>> of
//     20000 entries with 24-to-40-character keys and 0-to-40-element vectors grown
//     by push_back, then destroy it.
//
// `bench_alloc --rss <case>` runs one case a fixed number of times outside Google
// Benchmark and prints the process's peak resident set in KiB, so that the script
// can compare peak memory per case.
//
// `bench_alloc --pairs SIZE:LIVE:ORDER:ROUNDS` and `bench_alloc --map ROUNDS` run a
// fixed workload outside Google Benchmark and print nothing: ROUNDS rounds of
// BM_Pairs' work, or ROUNDS maps of BM_MapOfStringsToVectors. Run under callgrind
// with ROUNDS and with 0, the difference is the instructions of the rounds alone
// (bench/callgrind_alloc.sh).
//
// `bench_alloc --scaling SIZE:LIVE:ORDER:ROUNDS` prints the pairs per second of
// BM_Pairs' work three ways, in this order: on the only thread of the process, then
// (after a thread has been started and joined, so the process is no longer
// single-threaded) on one thread and on two threads, each with its own blocks. It
// separates what a lock costs from how threads scale.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#ifdef ZOUTILS_LINKED
#include "utils/allocator.h"
#endif

namespace {

enum Order { kLifo = 0, kFifo = 1, kRandom = 2 };

std::vector<unsigned> permutation(size_t n, unsigned seed) {
    std::vector<unsigned> p(n);
    for (size_t i = 0; i < n; ++i) p[i] = static_cast<unsigned>(i);
    std::mt19937 rng(seed);
    std::shuffle(p.begin(), p.end(), rng);
    return p;
}

void runPairs(size_t size, size_t live, int order, std::vector<void*>& slots, std::vector<unsigned> const& perm) {
    for (size_t i = 0; i < live; ++i) {
        void* p = ::operator new(size);
        std::memset(p, static_cast<int>(i), size < 16 ? size : 16);
        slots[i] = p;
    }
    benchmark::ClobberMemory();
    if (order == kLifo) {
        for (size_t i = live; i-- > 0;) ::operator delete(slots[i]);
    } else if (order == kFifo) {
        for (size_t i = 0; i < live; ++i) ::operator delete(slots[i]);
    } else {
        for (size_t i = 0; i < live; ++i) ::operator delete(slots[perm[i]]);
    }
}

void BM_Pairs(benchmark::State& state) {
    size_t size = static_cast<size_t>(state.range(0));
    size_t live = static_cast<size_t>(state.range(1));
    int order = static_cast<int>(state.range(2));
    std::vector<void*> slots(live);
    std::vector<unsigned> perm = permutation(live, 17 + static_cast<unsigned>(state.thread_index()));
    for (auto _ : state) runPairs(size, live, order, slots, perm);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * live));
}

void buildMap(unsigned seed) {
    std::mt19937 rng(seed);
    std::map<std::string, std::vector<int>> m;
    for (int i = 0; i < 20000; ++i) {
        std::string key = "entry/" + std::to_string(rng()) + "/" + std::string(rng() % 17, 'k');
        std::vector<int>& v = m[key];
        unsigned n = rng() % 41;
        for (unsigned j = 0; j < n; ++j) v.push_back(static_cast<int>(j));
    }
    benchmark::DoNotOptimize(m.size());
}

void BM_MapOfStringsToVectors(benchmark::State& state) {
    unsigned seed = 5;
    for (auto _ : state) buildMap(seed++);
    state.SetItemsProcessed(state.iterations() * 20000);
}

void registerAll() {
    const long sizes[] = {16, 32, 48, 64, 256, 4096, 65536};
    const long lives[] = {1000, 10000, 100000};
    for (long s : sizes)
        for (long n : lives) {
            if (s * n > (64l << 20)) continue;  // at most 64 MiB live per thread
            for (int order = 0; order < 3; ++order)
                benchmark::RegisterBenchmark("BM_Pairs", BM_Pairs)
                    ->Args({s, n, order})
                    ->ArgNames({"size", "live", "order"})
                    ->Threads(1)
                    ->Threads(2)
                    ->UseRealTime();
        }
    benchmark::RegisterBenchmark("BM_MapOfStringsToVectors", BM_MapOfStringsToVectors)
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

long peakRssKiB() {
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

// One case, fixed work, for the peak-memory comparison: "pairs:<size>:<live>" (random
// order, 20 rounds) or "map" (5 maps).
int runRssCase(char const* name) {
    if (std::strcmp(name, "map") == 0) {
        for (unsigned r = 0; r < 5; ++r) buildMap(r);
    } else {
        size_t size = 0, live = 0;
        if (std::sscanf(name, "pairs:%zu:%zu", &size, &live) != 2) return 2;
        std::vector<void*> slots(live);
        std::vector<unsigned> perm = permutation(live, 17);
        for (int r = 0; r < 20; ++r) runPairs(size, live, kRandom, slots, perm);
    }
    std::printf("%ld\n", peakRssKiB());
    return 0;
}

// SIZE:LIVE:ORDER:ROUNDS, as the --pairs and --scaling modes take it.
bool parsePairs(char const* work, size_t* size, size_t* live, int* order, size_t* rounds) {
    int used = 0;
    return std::sscanf(work, "%zu:%zu:%d:%zu%n", size, live, order, rounds, &used) == 4 && !work[used] &&
           *order >= kLifo && *order <= kRandom;
}

// A fixed workload for instruction counting; 0 rounds does every set-up step and
// no round, so that the set-up can be subtracted.
int runFixedWork(char const* mode, char const* work) {
    if (std::strcmp(mode, "--map") == 0) {
        char* end = nullptr;
        unsigned long rounds = std::strtoul(work, &end, 10);
        if (end == work || *end) return 2;
        for (unsigned long r = 0; r < rounds; ++r) buildMap(static_cast<unsigned>(r));
        return 0;
    }
    size_t size = 0, live = 0, rounds = 0;
    int order = 0;
    if (!parsePairs(work, &size, &live, &order, &rounds)) return 2;
    std::vector<void*> slots(live);
    std::vector<unsigned> perm = permutation(live, 17);
    for (size_t r = 0; r < rounds; ++r) runPairs(size, live, order, slots, perm);
    return 0;
}

// Pairs per second of `rounds` rounds on each of `threads` threads (0: on this thread).
double pairsPerSecond(size_t size, size_t live, int order, size_t rounds, int threads) {
    auto work = [=] {
        std::vector<void*> slots(live);
        std::vector<unsigned> perm = permutation(live, 17);
        for (size_t r = 0; r < rounds; ++r) runPairs(size, live, order, slots, perm);
    };
    auto start = std::chrono::steady_clock::now();
    if (threads == 0) {
        work();
    } else {
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t) pool.emplace_back(work);
        for (auto& t : pool) t.join();
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return static_cast<double>(live * rounds) * (threads ? threads : 1) / seconds;
}

int runScaling(char const* work) {
    size_t size = 0, live = 0, rounds = 0;
    int order = 0;
    if (!parsePairs(work, &size, &live, &order, &rounds)) return 2;
    double alone = pairsPerSecond(size, live, order, rounds, 0);
    std::thread([] {}).join();
    double one = pairsPerSecond(size, live, order, rounds, 0);
    double two = pairsPerSecond(size, live, order, rounds, 2);
    std::printf("only thread of the process: %.1f M pairs/s\n", alone / 1e6);
    std::printf("one thread, process has had two: %.1f M pairs/s\n", one / 1e6);
    std::printf("two threads: %.1f M pairs/s (%.2fx one thread, %.2fx the only thread)\n", two / 1e6, two / one,
                two / alone);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
#ifdef ZOUTILS_LINKED
    // Prove that this binary's operator new is the library's arena.
    Utils::Allocator* a = Utils::Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    void* probe = ::operator new(1000);
    if (a->allocatedMemory() <= before) {
        std::fprintf(stderr, "operator new does not reach the library's arena\n");
        return 3;
    }
    ::operator delete(probe);
#endif
    if (argc == 3 && std::strcmp(argv[1], "--rss") == 0) return runRssCase(argv[2]);
    if (argc == 3 && (std::strcmp(argv[1], "--pairs") == 0 || std::strcmp(argv[1], "--map") == 0))
        return runFixedWork(argv[1], argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "--scaling") == 0) return runScaling(argv[2]);
    registerAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
