// Tour: the page allocator and the simple allocator, the two allocators that
// applications make for themselves.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "tour.h"
#include "utils/allocator.h"

namespace {

// A parent that hands out page-aligned regions from the C library. The page
// allocator never gives memory back, so the parent releases its regions itself
// once the page allocator is gone.
class AlignedParent : public Utils::Allocator {
public:
    ~AlignedParent() {
        for (void* r : regions) std::free(r);
    }
    void* alloc(unsigned long size) override {
        void* r = std::aligned_alloc(4096, (size + 4095) & ~4095ul);
        if (r) regions.push_back(r);
        return r;
    }
    void free(void* p) override {
        for (void*& r : regions)
            if (r == p) {
                r = regions.back();
                regions.pop_back();
                std::free(p);
                return;
            }
    }
    unsigned long size(void* p) const override { return malloc_usable_size(p); }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }

private:
    std::vector<void*> regions;
};

}  // namespace

void tourPageAlloc() {
    std::printf("\n-- Page allocator --\n[examples/tour_pagealloc.cpp: Utils::BSDAllocator (utils/allocator.h)]\n");
    AlignedParent parent;  // outlives the page allocator below
    Utils::BSDAllocator pages(&parent);
    pages.init();
    void* small = pages.alloc(100, 3);    // a 128-byte chunk on a page of colour 3
    void* large = pages.alloc(10000, 3);  // a run of three pages
    std::printf("alloc(100): chunk of %lu bytes; alloc(10000): run of %lu bytes\n", pages.size(small),
                pages.size(large));
    std::printf("colour 3 holds %lu bytes of pages, %lu of them in free chunks\n", pages.allocatedColorMemory(3),
                pages.freeColorMemory(3));
    pages.free(small);
    pages.free(large);
    std::printf("after release: colour 3 holds %lu bytes; %lu bytes wait in free runs\n",
                pages.allocatedColorMemory(3), pages.internalFree());

    std::printf("\n-- Simple allocator --\n"
                "[examples/tour_pagealloc.cpp: Utils::SimpleAllocator (utils/allocator.h)]\n");
    Utils::SimpleAllocator simple;
    simple.setDefaultColor(7, nullptr);
    void* block = simple.alloc(57);
    std::printf("alloc(57): %lu usable bytes, 64-byte aligned: %s, colour %u (defaultColor() still says %u)\n",
                simple.size(block), reinterpret_cast<unsigned long>(block) % 64 == 0 ? "yes" : "no",
                simple.color(block), simple.defaultColor());
    simple.free(block);
    std::printf("after release: %lu bytes allocated\n", simple.allocatedMemory());
}
