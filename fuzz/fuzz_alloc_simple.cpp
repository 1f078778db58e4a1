// SimpleAllocator: sizes, colour bytes, frees and recolouring against a model of
// its counters (usable bytes per colour byte, taken back under the block's colour
// at the time of the free), alignment and the size limit.
#include "alloc_stream.h"
#include "utils/result.h"

namespace {

struct SimplePolicy {
    Utils::SimpleAllocator simple;
    unsigned int total = 0;
    unsigned int byColor[256] = {};
    unsigned int current[1] = {};

    unsigned long largest() const { return Utils::SimpleAllocator::kMaxRequest + 16; }
    bool mustSucceed(unsigned long size) const { return size <= Utils::SimpleAllocator::kMaxRequest; }
    unsigned int colorOf(unsigned int c) const { return c & 255; }
    void* allocate(unsigned long size, unsigned int color) {
        void* p = simple.alloc(size, static_cast<char>(color));
        if (size > Utils::SimpleAllocator::kMaxRequest) FUZZ_CHECK(!p, "a request above the limit was served");
        return p;
    }
    void allocated(void* p, fuzzalloc::Block const& b) {
        FUZZ_CHECK(reinterpret_cast<unsigned long>(p) % 64 == 0, "alignment");
        unsigned long s = simple.size(p);
        FUZZ_CHECK(s >= b.request + 4, "usable %lu for %lu: no room for the guard word", s, b.request);
        FUZZ_CHECK(simple.color(p) == b.color, "colour");
        total += static_cast<unsigned int>(s);
        byColor[b.color] += static_cast<unsigned int>(s);
    }
    void release(void* p, fuzzalloc::Block const&) {
        unsigned int s = static_cast<unsigned int>(simple.size(p));
        total -= s;
        byColor[simple.color(p)] -= s;
        simple.free(p);
    }
    void recolor(void* p, fuzzalloc::Block&, unsigned int color) {
        FUZZ_CHECK(simple.setColor(p, color) == 0, "setColor");
        FUZZ_CHECK(simple.color(p) == (color & 255), "recoloured");
    }
    void walk(std::map<void*, fuzzalloc::Block> const&) {
        FUZZ_CHECK(simple.setColor(nullptr, 1) == Utils::kResultFailure, "setColor(null)");
        FUZZ_CHECK(simple.size(nullptr) == 0 && simple.color(nullptr) == 0, "null");
    }
    void check(std::map<void*, fuzzalloc::Block> const&) {
        FUZZ_CHECK(simple.allocatedMemory() == total, "allocatedMemory %lu, model %u", simple.allocatedMemory(), total);
        for (unsigned c = 0; c < 256; ++c)
            FUZZ_CHECK(simple.allocatedColorMemory(c) == byColor[c], "colour %u: %lu, model %u", c,
                       simple.allocatedColorMemory(c), byColor[c]);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    SimplePolicy policy;
    fuzzalloc::run(in, policy);
    return 0;
}
