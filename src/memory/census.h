// A census of an allocator's blocks, for the memory report (report.cpp): what one
// walk over the blocks finds, beyond the counters every allocator keeps.
#ifndef ZO_MEMORY_CENSUS_H
#define ZO_MEMORY_CENSUS_H

namespace Utils {
namespace detail {

struct MemoryCensus {
    // Block sizes are counted in classes by their whole size: up to 64, 256, 1 KiB,
    // 4 KiB, 16 KiB, 64 KiB, 1 MiB bytes, and above.
    static constexpr unsigned kClasses = 8;
    static unsigned sizeClass(unsigned long bytes) {
        unsigned long bound = 64;
        unsigned c = 0;
        while (c + 1 < kClasses && bytes > bound) {
            bound = c + 1 < 6 ? bound * 4 : bound * 16;
            ++c;
        }
        return c;
    }

    bool walked = false;             // false: the allocator cannot be walked
    unsigned long regions = 0;       // regions taken from the parent (kept ones)
    unsigned long obtained = 0;      // their bytes
    unsigned long busyBlocks = 0;    // blocks handed out (and bookkeeping blocks)
    unsigned long freeBlocks = 0;    // free blocks
    unsigned long largestFree = 0;   // bytes of the largest free block
    unsigned long busyByClass[kClasses] = {};
    unsigned long freeByClass[kClasses] = {};

    void count(unsigned long bytes, bool busy) {
        unsigned c = sizeClass(bytes);
        if (busy) {
            ++busyBlocks;
            ++busyByClass[c];
        } else {
            ++freeBlocks;
            ++freeByClass[c];
            if (bytes > largestFree) largestFree = bytes;
        }
    }
    void add(MemoryCensus const& o) {
        walked = walked || o.walked;
        regions += o.regions;
        obtained += o.obtained;
        busyBlocks += o.busyBlocks;
        freeBlocks += o.freeBlocks;
        if (o.largestFree > largestFree) largestFree = o.largestFree;
        for (unsigned c = 0; c < kClasses; ++c) {
            busyByClass[c] += o.busyByClass[c];
            freeByClass[c] += o.freeByClass[c];
        }
    }
};

// The process allocator's census, every arena under its lock (process.cpp).
void processCensus(MemoryCensus& census);

}  // namespace detail
}  // namespace Utils

#endif
