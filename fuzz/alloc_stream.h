// The operation stream shared by the allocator targets: allocations of fuzzed
// sizes and colours, frees in fuzzed order, recolouring and walks, with the
// allocator's own checks (Policy) after every step. Every live block is filled with
// its own byte pattern, checked when it is freed, so an overlap or a stray write
// by the allocator shows up as a changed pattern.
#pragma once

#include <cstring>
#include <map>
#include <vector>

#include "fuzz_check.h"
#include "utils/allocator.h"

namespace fuzzalloc {

struct Block {
    unsigned long request;
    unsigned int color;
    unsigned char fill;
};

// Patterns cover the first 8 KiB of a block: enough to catch overlaps, without
// touching every page of the large ones.
inline unsigned long patterned(Block const& b) { return b.request < 8192 ? b.request : 8192; }

inline void fill(void* p, Block const& b) { std::memset(p, b.fill, patterned(b)); }

inline void checkFill(void* p, Block const& b) {
    unsigned char const* c = static_cast<unsigned char const*>(p);
    for (unsigned long i = 0; i < patterned(b); ++i)
        FUZZ_CHECK(c[i] == b.fill, "block %p of %lu bytes changed at %lu", p, b.request, i);
}

// Sizes: mostly small, some around the allocators' thresholds, a few large.
inline unsigned long drawSize(FuzzedDataProvider& in, unsigned long largest) {
    switch (in.ConsumeIntegralInRange<int>(0, 7)) {
        case 0: return in.ConsumeIntegralInRange<unsigned long>(0, 64);
        case 1: return in.ConsumeIntegralInRange<unsigned long>(0, 300);
        case 2: return in.ConsumeIntegralInRange<unsigned long>(1000, 5000);
        case 3: return in.ConsumeIntegralInRange<unsigned long>(0, 20000);
        case 4: return in.ConsumeIntegralInRange<unsigned long>(0, largest);
        case 5: return 1ul << in.ConsumeIntegralInRange<int>(0, 17);
        default: return in.ConsumeIntegralInRange<unsigned long>(0, 4200);
    }
}

// Policy: allocate(size, colour), release(p), check(live) after each step,
// recolor(p, colour, live), walk(), largest request.
template <class Policy>
void run(FuzzedDataProvider& in, Policy& policy) {
    std::map<void*, Block> live;
    std::vector<void*> order;
    unsigned char nextFill = 1;
    bool trace = std::getenv("FUZZ_TRACE") != nullptr;
    for (int step = 0; step < 400 && in.remaining_bytes() > 0; ++step) {
        int op = in.ConsumeIntegralInRange<int>(0, 9);
        if (op <= 4 || order.empty()) {
            unsigned long size = drawSize(in, policy.largest());
            unsigned int color = in.ConsumeIntegral<unsigned int>();
            void* p = policy.allocate(size, color);
            if (trace) std::fprintf(stderr, "alloc(%lu, %u) = %p\n", size, color, p);
            if (!p) {
                FUZZ_CHECK(!policy.mustSucceed(size), "alloc(%lu) failed", size);
            } else {
                FUZZ_CHECK(!live.count(p), "block %p handed out twice", p);
                Block b{size, policy.colorOf(color), nextFill++};
                if (nextFill == 0) nextFill = 1;
                policy.allocated(p, b);
                fill(p, b);
                live[p] = b;
                order.push_back(p);
            }
        } else if (op <= 7) {
            size_t i = in.ConsumeIntegralInRange<size_t>(0, order.size() - 1);
            void* p = order[i];
            order[i] = order.back();
            order.pop_back();
            checkFill(p, live[p]);
            if (trace) std::fprintf(stderr, "free(%p)\n", p);
            policy.release(p, live[p]);
            live.erase(p);
        } else if (op == 8) {
            void* p = order[in.ConsumeIntegralInRange<size_t>(0, order.size() - 1)];
            policy.recolor(p, live[p], in.ConsumeIntegral<unsigned int>());
        } else {
            policy.walk(live);
        }
        policy.check(live);
    }
    for (void* p : order) {
        checkFill(p, live[p]);
        policy.release(p, live[p]);
    }
    live.clear();
    policy.check(live);
}

}  // namespace fuzzalloc
