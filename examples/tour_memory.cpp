// Tour: memory colours. Every operator new of this program lands in the library's
// arena; a MemoryColor makes the calling thread's new blocks carry a colour, and the
// process allocator counts bytes per colour.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tour.h"
#include "utils/allocator.h"

void tourMemory() {
    std::printf("\n-- Memory colours --\n"
                "[examples/tour_memory.cpp: Utils::MemoryColor, Allocator::theAllocator() (utils/allocator.h)]\n");
    Utils::Allocator* heap = Utils::Allocator::theAllocator();
    const unsigned int kCache = 5, kIndex = 9;
    // Names shown by the memory report.
    Utils::setMemoryColorName(kCache, "cache");
    Utils::setMemoryColorName(kIndex, "index");

    unsigned long cacheBefore = heap->allocatedColorMemory(kCache);
    unsigned long indexBefore = heap->allocatedColorMemory(kIndex);

    // Blocks made while a colour is in force carry it.
    Utils::MemoryColor cacheColour(kCache);
    auto* cache = new std::vector<std::string>();
    for (int i = 0; i < 200; ++i) cache->push_back("cached line number " + std::to_string(i));
    cacheColour.reset();

    Utils::MemoryColor indexColour(kIndex);
    auto* index = new std::map<int, int>();
    for (int i = 0; i < 300; ++i) (*index)[i] = i * i;
    indexColour.reset();

    std::printf("colour %u (cache): %lu bytes in use\n", kCache, heap->allocatedColorMemory(kCache) - cacheBefore);
    std::printf("colour %u (index): %lu bytes in use\n", kIndex, heap->allocatedColorMemory(kIndex) - indexBefore);
    std::printf("a cache string's block: colour %u, usable size %lu\n", heap->color((*cache)[0].data()),
                heap->size((*cache)[0].data()));

    // The whole picture in one call: counters per colour (with their names), the
    // regions, the blocks by size, the largest free block and the fragmentation.
    // (ZOUTILS_MEMORY_REPORTATEXIT=1 prints the same at exit.)
    Utils::writeMemoryReport(heap, stdout, "process allocator, cache and index live");

    // Released bytes stay with the arena, counted as free under their colour.
    delete cache;
    delete index;
    std::printf("after release: cache %lu, index %lu bytes in use; %lu bytes free in colour %u\n",
                heap->allocatedColorMemory(kCache) - cacheBefore, heap->allocatedColorMemory(kIndex) - indexBefore,
                heap->freeColorMemory(kCache), kCache);
    std::printf("process arena: %lu bytes allocated, %lu bytes free\n", heap->allocatedMemory(),
                heap->internalFree());
}
