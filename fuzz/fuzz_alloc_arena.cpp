// The arena (MemoryAllocator) on a private instance over a test parent: sizes,
// colours, frees, setColor and block walks, with verify() and the byte counters
// (busy blocks counted whole, per colour) against a model after every step.
#include "alloc_stream.h"
#include "utils/result.h"
#include "region_source.h"

namespace {

struct ArenaPolicy {
    zotest::RegionSource parent{1ul << 20, 8ul << 30};
    Utils::MemoryAllocator arena{&parent};
    unsigned long base = 0;  // allocatedMemory() before the input
    unsigned long carriers = 0;  // bytes of small-block carriers cut during the input
    // The counters as last checked, and what the step since then should add.
    unsigned long lastTotal = 0, lastByColor[64] = {};
    long wantTotal = 0, wantByColor[64] = {};
    bool smallAllocated = false;

    ArenaPolicy() { arena.init(); }
    void begin() {
        base = lastTotal = arena.allocatedMemory();
        carriers = 0;
        for (unsigned c = 0; c < 64; ++c) lastByColor[c] = arena.allocatedColorMemory(c);
    }
    unsigned long largest() const { return 0x3FFFFE8 + 64; }
    bool mustSucceed(unsigned long size) const { return size <= (1ul << 20); }
    unsigned int colorOf(unsigned int c) const { return c & 63; }
    void* allocate(unsigned long size, unsigned int color) {
        void* p = arena.alloc(size, color);
        if (size > 0x3FFFFE8) FUZZ_CHECK(!p, "a request above the header's size bits was served");
        return p;
    }
    void expect(unsigned int color, long bytes) {
        wantTotal += bytes;
        wantByColor[color] += bytes;
    }
    void allocated(void* p, fuzzalloc::Block const& b) {
        FUZZ_CHECK(reinterpret_cast<unsigned long>(p) % 16 == 0, "alignment");
        unsigned long s = arena.size(p);
        FUZZ_CHECK(s >= b.request, "size %lu below the request %lu", s, b.request);
        FUZZ_CHECK(b.request > 56 || s == (b.request <= 24 ? 24u : 56u), "small block of %lu for %lu", s, b.request);
        FUZZ_CHECK(arena.color(p) == b.color, "colour %u, asked %u", arena.color(p), b.color);
        FUZZ_CHECK(b.request > 56 || !arena.valid(p), "small blocks are never valid()");
        FUZZ_CHECK(b.request <= 56 || arena.valid(p), "an ordinary block is valid()");
        expect(b.color, static_cast<long>(s + 8));
        smallAllocated = b.request <= 56;
    }
    void release(void* p, fuzzalloc::Block const& b) {
        expect(b.color, -static_cast<long>(arena.size(p) + 8));
        arena.free(p);
    }
    void recolor(void* p, fuzzalloc::Block const& b, unsigned int color) {
        unsigned int rc = arena.setColor(p, color);
        bool accepted = (color & 63) != 0 && b.color == 0;
        FUZZ_CHECK(rc == (accepted ? 0u : Utils::kResultBadArgument), "setColor gave 0x%08x", rc);
        // Accepted: the block keeps colour 0 and its size is counted once more under colour 0.
        if (accepted) wantByColor[0] += static_cast<long>(arena.size(p) + 8);
        FUZZ_CHECK(arena.color(p) == b.color, "setColor changed the colour");
    }
    void walk(std::map<void*, fuzzalloc::Block> const& live) {
        unsigned long busyOrdinary = 0, steps = 0;
        for (void* p = arena.firstBlock(); p; p = arena.nextBlock(p)) {
            FUZZ_CHECK(++steps < 10000000, "walk does not end");
            if (live.count(p) && Utils::MemoryAllocator::busy(p)) ++busyOrdinary;
        }
        unsigned long ordinaryLive = 0;
        for (auto const& e : live) ordinaryLive += e.second.request > 56;
        FUZZ_CHECK(busyOrdinary >= ordinaryLive, "walk saw %lu of %lu ordinary blocks", busyOrdinary, ordinaryLive);
        FUZZ_CHECK(arena.checkArena() == 0, "checkArena");
    }
    void check(std::map<void*, fuzzalloc::Block> const&) {
        char const* fault = arena.verify();
        FUZZ_CHECK(!fault, "verify: %s", fault);
        // A small block may have needed a new carrier: a colour-0 block of 10240
        // bytes or more, counted as allocated for good.
        long extra = static_cast<long>(arena.allocatedMemory() - lastTotal) - wantTotal;
        FUZZ_CHECK(extra == 0 || (smallAllocated && extra >= 10240), "allocatedMemory moved by %ld, model %ld",
                   static_cast<long>(arena.allocatedMemory() - lastTotal), wantTotal);
        carriers += static_cast<unsigned long>(extra);
        wantByColor[0] += extra;
        for (unsigned c = 0; c < 64; ++c) {
            long moved = static_cast<long>(arena.allocatedColorMemory(c) - lastByColor[c]);
            FUZZ_CHECK(moved == wantByColor[c], "colour %u moved by %ld, model %ld", c, moved, wantByColor[c]);
            lastByColor[c] = arena.allocatedColorMemory(c);
            wantByColor[c] = 0;
        }
        lastTotal = arena.allocatedMemory();
        wantTotal = 0;
        smallAllocated = false;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    // A fresh allocator per input, so that every finding replays from its input
    // alone. (Each init() takes a thread-local slot for default colours; once the
    // system layer's table is used up the default colour just stays 0, which
    // these streams never rely on: they pass every colour explicitly.)
    ArenaPolicy* policy = new ArenaPolicy();
    FuzzedDataProvider in(data, size);
    policy->begin();
    fuzzalloc::run(in, *policy);
    // Colour 0 keeps the extra counts of accepted setColor calls; the total must be back.
    FUZZ_CHECK(policy->arena.allocatedMemory() == policy->base + policy->carriers,
               "bytes lost: %lu before, %lu after, %lu in new carriers", policy->base, policy->arena.allocatedMemory(),
               policy->carriers);
    delete policy;
    return 0;
}
