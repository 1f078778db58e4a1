// The allocators' debug-level checks (ZOUTILS_DEBUG_LEVEL): at level 1 a release
// whose block tags were overwritten stops the program with the check's text; at
// level 2 a structure that no longer matches its verifier stops it at the next
// allocation. In a build of a lower level the tests skip.
#include <gtest/gtest.h>

#include "memory/pagealloc_internal.h"
#include "region_source.h"
#include "utils/allocator.h"

using Utils::BSDAllocator;
using Utils::MemoryAllocator;

namespace {

#ifndef ZO_TEST_DEBUG_LEVEL
#define ZO_TEST_DEBUG_LEVEL 0
#endif

// A word written over the arena's own bytes (poisoned under ASan): uninstrumented.
__attribute__((no_sanitize_address)) void pokeWord(void* at, unsigned int w) {
    *reinterpret_cast<unsigned int volatile*>(at) = w;
}

TEST(AllocatorChecksDeathTest, AReleaseWithAnOverwrittenTrailerStops) {
    if (ZO_TEST_DEBUG_LEVEL < 1) GTEST_SKIP() << "the library is built with ZOUTILS_DEBUG_LEVEL 0 (dev and asan use 2)";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            zotest::RegionSource source;
            MemoryAllocator arena(&source);
            arena.init();
            char* p = static_cast<char*>(arena.alloc(200));
            unsigned long usable = arena.size(p);
            pokeWord(p + usable, 0x12345);  // the block's trailer
            arena.free(p);
        },
        "allocator check failed at .*arena.cpp.*head and trailer disagree");
}

TEST(AllocatorChecks, UntouchedBlocksPassEveryCheck) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    void* blocks[100];
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 100; ++i) blocks[i] = arena.alloc(static_cast<unsigned long>(24 + 37 * i));
        for (int i = 0; i < 100; i += 3) arena.free(blocks[i]);
        for (int i = 1; i < 100; i += 3) arena.free(blocks[i]);
        for (int i = 2; i < 100; i += 3) arena.free(blocks[i]);
    }
    EXPECT_EQ(arena.verify(), nullptr);
}

TEST(AllocatorChecksDeathTest, APageAllocatorOffItsVerifierStopsAtTheNextAllocation) {
    if (ZO_TEST_DEBUG_LEVEL < 2) GTEST_SKIP() << "the verifier runs after mutations only at ZOUTILS_DEBUG_LEVEL 2";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            zotest::RegionSource source;
            BSDAllocator pages(&source);
            pages.init();
            char* run = static_cast<char*>(pages.alloc(3 * 4096));
            pages.free(run);
            // The run's last page marked allocated again, behind the allocator's back
            // (the next allocation takes the run's first page).
            Utils::BSDAllocatorInspector::setEntryOf(pages, run + 2 * 4096, Utils::bsd::kRunFirst);
            pages.alloc(100);
        },
        "allocator check failed at .*pagealloc.cpp.*");
}

}  // namespace
