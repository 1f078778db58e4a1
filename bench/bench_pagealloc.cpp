// The page allocator and the simple allocator against the process allocator (the
// arena behind operator new) and glibc malloc, in the size ranges they serve:
// chunks (16 to 2048 bytes) and page runs (2049 to 64 KiB).
//
// Each iteration allocates a batch of blocks of pseudo-random sizes (the same
// sequence for every allocator), touches the first byte of each, then releases
// them in a shuffled order. Items are blocks allocated and released.
#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "utils/allocator.h"

namespace {

constexpr std::size_t kBatch = 1024;

// A page-aligned parent over one reserved range (bump allocation; nothing is
// returned to it), so that the page allocator's own work is what is measured.
class ReservedParent : public Utils::Allocator {
public:
    ReservedParent() {
        base = static_cast<char*>(
            mmap(nullptr, kReserve, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        next = base;
    }
    void* alloc(unsigned long size) override {
        size = (size + 4095) & ~4095ul;
        if (static_cast<unsigned long>(base + kReserve - next) < size) return nullptr;
        char* p = next;
        next += size;
        last = size;
        return p;
    }
    void free(void*) override {}
    unsigned long size(void*) const override { return last; }
    unsigned long allocatedMemory() const override { return static_cast<unsigned long>(next - base); }
    unsigned long internalFree() const override { return 0; }

private:
    static constexpr unsigned long kReserve = 1ul << 32;
    char* base;
    char* next;
    unsigned long last = 0;
};

struct Workload {
    std::vector<unsigned long> sizes;
    std::vector<std::size_t> order;
};

Workload makeWorkload(unsigned long lo, unsigned long hi) {
    std::mt19937_64 rng(lo * 31 + hi);
    Workload w;
    for (std::size_t k = 0; k < kBatch; ++k) w.sizes.push_back(lo + rng() % (hi - lo + 1));
    for (std::size_t k = 0; k < kBatch; ++k) w.order.push_back(k);
    std::shuffle(w.order.begin(), w.order.end(), rng);
    return w;
}

template <class Alloc, class Free>
void runBatches(benchmark::State& state, Workload const& w, Alloc alloc, Free release) {
    std::vector<void*> blocks(kBatch);
    for (auto _ : state) {
        for (std::size_t k = 0; k < kBatch; ++k) {
            blocks[k] = alloc(w.sizes[k]);
            *static_cast<char*>(blocks[k]) = 1;
        }
        for (std::size_t k : w.order) release(blocks[k]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<long>(state.iterations() * kBatch));
}

enum Range { kChunks, kPages };

Workload const& workload(Range r) {
    static Workload chunks = makeWorkload(16, 2048);
    static Workload pages = makeWorkload(2049, 65536);
    return r == kChunks ? chunks : pages;
}

void BM_BSDAllocator(benchmark::State& state) {
    static ReservedParent parent;
    static Utils::BSDAllocator a(&parent);
    static bool ready = (a.init(), true);
    (void)ready;
    runBatches(
        state, workload(static_cast<Range>(state.range(0))), [](unsigned long n) { return a.alloc(n, 0); },
        [](void* p) { a.free(p); });
}

void BM_SimpleAllocator(benchmark::State& state) {
    static Utils::SimpleAllocator a;
    runBatches(
        state, workload(static_cast<Range>(state.range(0))), [](unsigned long n) { return a.alloc(n); },
        [](void* p) { a.free(p); });
}

void BM_ProcessAllocator(benchmark::State& state) {
    Utils::Allocator* a = Utils::Allocator::theAllocator();
    runBatches(
        state, workload(static_cast<Range>(state.range(0))), [a](unsigned long n) { return a->alloc(n); },
        [a](void* p) { a->free(p); });
}

void BM_GlibcMalloc(benchmark::State& state) {
    runBatches(
        state, workload(static_cast<Range>(state.range(0))), [](unsigned long n) { return std::malloc(n); },
        [](void* p) { std::free(p); });
}

void ranges(benchmark::internal::Benchmark* b) {
    b->ArgName("pages");
    b->Arg(kChunks);
    b->Arg(kPages);
}

}  // namespace

BENCHMARK(BM_BSDAllocator)->Apply(ranges);
BENCHMARK(BM_SimpleAllocator)->Apply(ranges);
BENCHMARK(BM_ProcessAllocator)->Apply(ranges);
BENCHMARK(BM_GlibcMalloc)->Apply(ranges);

BENCHMARK_MAIN();
