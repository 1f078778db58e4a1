// The page allocator (BSDAllocator) over a test parent: sizes, colours, frees and
// the structure verifier after every step; usable sizes, colours and alignment
// against the request, and every byte back in free runs once the input's blocks
// are released.
#include "alloc_stream.h"
#include "utils/result.h"
#include "memory/pagealloc_internal.h"
#include "region_source.h"

namespace {

struct BsdPolicy {
    zotest::RegionSource parent{1ul << 16, 8ul << 30};
    Utils::BSDAllocator bsd{&parent};
    BsdPolicy() { bsd.init(); }
    unsigned long largest() const { return 1ul << 22; }
    bool mustSucceed(unsigned long) const { return true; }
    unsigned int colorOf(unsigned int c) const { return c & 255; }
    void* allocate(unsigned long size, unsigned int color) { return bsd.alloc(size, color); }
    void allocated(void* p, fuzzalloc::Block const& b) {
        unsigned long s = bsd.size(p);
        FUZZ_CHECK(s >= b.request, "size %lu below the request %lu", s, b.request);
        unsigned long chunk = 16;
        while (chunk < b.request && chunk < 4096) chunk <<= 1;
        FUZZ_CHECK(reinterpret_cast<unsigned long>(p) % chunk == 0, "%p not aligned to %lu", p, chunk);
        if (b.request > 2048)
            FUZZ_CHECK(s % 4096 == 0 && s >= b.request, "a page run's size");
        else
            FUZZ_CHECK(s == chunk, "chunk of %lu for %lu bytes", s, b.request);
        FUZZ_CHECK(bsd.color(p) == b.color, "colour %u, asked %u", bsd.color(p), b.color);
        FUZZ_CHECK(b.request <= 2048 || bsd.valid(p), "a page run is valid()");
        FUZZ_CHECK(b.request > 2048 || !bsd.valid(p), "an allocated chunk is not valid()");
    }
    void release(void* p, fuzzalloc::Block const&) { bsd.free(p); }
    void recolor(void* p, fuzzalloc::Block const& b, unsigned int color) {
        FUZZ_CHECK(bsd.setColor(p, color) == Utils::kResultFailure, "blocks are never recoloured");
        FUZZ_CHECK(bsd.color(p) == b.color, "colour changed");
    }
    void walk(std::map<void*, fuzzalloc::Block> const&) {}
    void check(std::map<void*, fuzzalloc::Block> const& live) {
        std::string fault = Utils::BSDAllocatorInspector::verify(bsd);
        FUZZ_CHECK(fault.empty(), "verify: %s", fault.c_str());
        // Only colour 0 holds the allocator's own records: another colour without
        // live blocks has no pages.
        bool inUse[256] = {};
        for (auto const& e : live) inUse[e.second.color] = true;
        for (unsigned c = 1; c < 256; ++c)
            FUZZ_CHECK(inUse[c] || bsd.allocatedColorMemory(c) == 0, "colour %u keeps %lu bytes without blocks", c,
                       bsd.allocatedColorMemory(c));
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Blocks are never recoloured: the raise is expected, its log line is not needed.
    Utils::setErrorSuppressed(Utils::kResultFailure);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    // A fresh allocator per input, so that every finding replays from its input
    // alone. (Each init() takes a thread-local slot for default colours; once the
    // system layer's table is used up the default colour just stays 0, which
    // these streams never rely on: they pass every colour explicitly.)
    BsdPolicy* policy = new BsdPolicy();
    FuzzedDataProvider in(data, size);
    fuzzalloc::run(in, *policy);
    delete policy;
    return 0;
}
