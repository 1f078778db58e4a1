// The allocator interface, the arena (MemoryAllocator), the host allocator, memory
// colours and the process allocator behind the global operators.
//
// Arena tests run on private MemoryAllocators over a RegionSource, a parent that
// hands out regions from a private reservation with a chosen granule, limit and
// gaps, so that every layout below is exact. Process tests use theAllocator().
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "knobs.h"
#include "region_source.h"
#include "utils/allocator.h"
#include "utils/result.h"
#include "zosys.h"
#include "child.h"

#if !defined(__cpp_sized_deallocation)
// clang enables sized deallocation only with -fsized-deallocation, and the standard
// header then leaves these out; the library defines them all the same.
void operator delete(void* p, std::size_t) noexcept;
void operator delete[](void* p, std::size_t) noexcept;
void operator delete(void* p, std::size_t, std::align_val_t) noexcept;
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept;
#endif

using Utils::Allocator;
using Utils::HostAllocator;
using Utils::MemoryAllocator;
using Utils::MemoryColor;
using zotest::RegionSource;

namespace {

// ---------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------

// A private arena over its own source.
struct Arena {
    RegionSource source;
    MemoryAllocator arena;
    explicit Arena(unsigned long granule = 1ul << 20, unsigned long reserve = 1ul << 30)
        : source(granule, reserve), arena(&source) {
        arena.init();
    }
    void* alloc(unsigned long n, unsigned int c = 0) { return arena.alloc(n, c); }
    char const* verify() const { return arena.verify(); }
};

// The size word before p. Under AddressSanitizer the arena poisons its headers, so
// this reads it the way the arena does, without the instrumentation.
__attribute__((no_sanitize_address)) unsigned int headerWord(void* p) {
    return *reinterpret_cast<unsigned int const volatile*>(static_cast<char*>(p) - 4);
}
// A word written into the arena's own bytes (past a block), likewise uninstrumented.
__attribute__((no_sanitize_address)) void pokeWord(void* at, unsigned int w) {
    *reinterpret_cast<unsigned int volatile*>(at) = w;
}
unsigned long blockSizeOf(void* p) { return headerWord(p) & 0x03FFFFFCu; }
std::uintptr_t addr(void const* p) { return reinterpret_cast<std::uintptr_t>(p); }

// The carrier the arena would pick, found by the literal walk: the first block in
// address order whose size word has bit 0 clear and is at least s + 20.
void* carrierByWalk(MemoryAllocator const& a, unsigned int s) {
    for (void* p = a.firstBlock(); p; p = a.nextBlock(p)) {
        unsigned int w = headerWord(p);
        if (!(w & 1) && w >= s + 20) return p;
    }
    return nullptr;
}

#define SKIP_UNDER_SANITIZER()                                                                          \
    if (char const* why = zotest::foreignOperatorNew())                                                 \
    GTEST_SKIP() << why << ", so routing cannot be seen"

#define EXPECT_ARENA_OK(a) EXPECT_STREQ(nullptr, (a).verify())
#define ASSERT_ARENA_OK(a) ASSERT_STREQ(nullptr, (a).verify())

// An allocator that keeps every default of the interface.
class DefaultsOnly : public Allocator {
public:
    using Allocator::alloc;
    void* alloc(unsigned long size) override {
        lastSize = size;
        return &storage;
    }
    void free(void*) override {}
    unsigned long size(void*) const override { return 0; }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }
    unsigned long lastSize = 0;
    long storage = 0;
};

// ---------------------------------------------------------------------------
// The interface
// ---------------------------------------------------------------------------

TEST(AllocatorInterface, DefaultsRefuseColoursAndReportNothing) {
    DefaultsOnly a;
    int block = 0;
    EXPECT_EQ(0x80000001u, a.setColor(&block, 3));
    unsigned int previous = 99;
    EXPECT_EQ(0x80000001u, a.setDefaultColor(4, &previous));
    EXPECT_EQ(99u, previous);
    EXPECT_EQ(0u, a.color(&block));
    EXPECT_FALSE(a.valid(&block));
    EXPECT_EQ(0u, a.defaultColor());
    EXPECT_EQ(0u, a.allocatedColorMemory(1));
    EXPECT_EQ(0u, a.freeColorMemory(1));
    a.adjustColorMemory(1, 100);
    EXPECT_EQ(0u, a.allocatedColorMemory(1));
}

TEST(AllocatorInterface, ColourOverloadDefaultIgnoresTheColour) {
    DefaultsOnly a;
    Allocator& base = a;
    EXPECT_EQ(&a.storage, base.alloc(123, 7));
    EXPECT_EQ(123u, a.lastSize);
}

TEST(AllocatorInterface, SetDefaultColorStoresThePreviousFirst) {
    Arena a;
    unsigned int old = 77;
    EXPECT_EQ(0u, a.arena.setDefaultColor(9, &old));
    EXPECT_EQ(0u, old);
    EXPECT_EQ(9u, a.arena.defaultColor());
    EXPECT_EQ(0u, a.arena.setDefaultColor(12, &old));
    EXPECT_EQ(9u, old);
    EXPECT_EQ(0u, a.arena.setDefaultColor(3, nullptr));
    EXPECT_EQ(3u, a.arena.defaultColor());
    EXPECT_EQ(0u, a.arena.setDefaultColor(0x41, nullptr));
    EXPECT_EQ(0x41u, a.arena.defaultColor());  // stored unmasked
    void* p = a.arena.alloc(100);
    EXPECT_EQ(1u, a.arena.color(p));  // used masked
    a.arena.setDefaultColor(0, nullptr);
}

// ---------------------------------------------------------------------------
// The arena: sizes and small blocks
// ---------------------------------------------------------------------------

TEST(Arena, AllocZeroGivesAnAlignedSmallBlockOf24) {
    Arena a;
    void* p = a.arena.alloc(0);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0u, addr(p) % 16);
    EXPECT_EQ(24u, a.arena.size(p));
    EXPECT_EQ(32u, blockSizeOf(p));
    EXPECT_EQ(10256u + 32u, a.arena.allocatedMemory());  // its carrier is counted too
    EXPECT_ARENA_OK(a);
}

TEST(Arena, RequestsUpTo24Get32ByteBlocksAnd25To56Get64) {
    Arena a;
    for (unsigned long n : {1ul, 8ul, 24ul}) EXPECT_EQ(24u, a.arena.size(a.arena.alloc(n))) << n;
    for (unsigned long n : {25ul, 40ul, 41ul, 56ul}) {
        void* p = a.arena.alloc(n);
        EXPECT_EQ(56u, a.arena.size(p)) << n;
        EXPECT_EQ(0u, addr(p) % 16);
    }
    EXPECT_ARENA_OK(a);
}

TEST(Arena, A57ByteRequestTakesAn80ByteOrdinaryBlock) {
    Arena a;
    void* p = a.arena.alloc(57);
    EXPECT_EQ(80u, blockSizeOf(p));
    EXPECT_EQ(72u, a.arena.size(p));
    EXPECT_TRUE(a.arena.valid(p));
    EXPECT_EQ(80u, a.arena.allocatedMemory());
    EXPECT_ARENA_OK(a);
}

TEST(Arena, SmallBlocksAreNeverValid) {
    Arena a;
    void* p = a.arena.alloc(10);
    void* q = a.arena.alloc(50);
    // Even when the word where a trailer would stand happens to match.
    unsigned int fake = headerWord(p);
    pokeWord(static_cast<char*>(p) + 24, fake);
    EXPECT_FALSE(a.arena.valid(p));
    EXPECT_FALSE(a.arena.valid(q));
    EXPECT_EQ(24u, a.arena.size(p));
}

TEST(Arena, SmallListHeadIsTheHighestBlockOfItsCarrier) {
    Arena a;
    void* p1 = a.arena.alloc(10);
    void* p2 = a.arena.alloc(10);
    EXPECT_EQ(addr(p1) - 32, addr(p2));  // popped from the top down
    EXPECT_ARENA_OK(a);
}

TEST(Arena, CarrierFromAnEmptyArenaIsAnOrdinaryAllocationCounted) {
    Arena a;
    a.arena.alloc(10);
    // No free block existed: the carrier came from _alloc(10240, 0), a 10256-byte
    // block counted as allocated, plus the busy small block; the region's rest is free.
    void* first = a.arena.firstBlock();
    EXPECT_EQ(10256u, blockSizeOf(first));
    EXPECT_EQ(10256u + 32u, a.arena.allocatedMemory());
    EXPECT_EQ(10256u + 32u, a.arena.allocatedColorMemory(0));
    // 10240 carve bytes, 12 skipped: 319 blocks of 32, one taken.
    unsigned long freeSmall = 318 * 32;
    unsigned long regionRest = (1ul << 20) - 16 - 10256;
    EXPECT_EQ(freeSmall + regionRest, a.arena.internalFree());
    EXPECT_ARENA_OK(a);
}

TEST(Arena, CarrierFromAFreeBlockIsNotCounted) {
    Arena a;
    void* big = a.arena.alloc(20000);
    void* guard = a.arena.alloc(100);
    a.arena.free(big);  // a free block of 20016 bytes at the arena's start
    unsigned long allocatedBefore = a.arena.allocatedMemory();
    void* carrierFree = a.arena.carrierCandidate(32);
    EXPECT_EQ(big, carrierFree);
    void* s = a.arena.alloc(8);
    EXPECT_GT(addr(s), addr(big));
    EXPECT_LT(addr(s), addr(big) + 10240);
    EXPECT_EQ(allocatedBefore + 32, a.arena.allocatedMemory());
    EXPECT_EQ(10240u, blockSizeOf(big));  // split to 10240, the rest back to the tree
    EXPECT_ARENA_OK(a);
    (void)guard;
}

TEST(Arena, SixtyFourByteCarriersSkip80ByteFreeBlocks) {
    Arena a;
    std::vector<void*> v;
    for (int i = 0; i < 6; ++i) v.push_back(a.arena.alloc(72));  // 80-byte blocks
    void* bigger = a.arena.alloc(200);                             // 208
    void* tail = a.arena.alloc(72);
    a.arena.free(v[1]);     // a free 80-byte block, lowest
    a.arena.free(bigger);   // a free 208-byte block, higher
    EXPECT_EQ(v[1], a.arena.carrierCandidate(32));
    EXPECT_EQ(bigger, a.arena.carrierCandidate(64));
    EXPECT_EQ(carrierByWalk(a.arena, 64), a.arena.carrierCandidate(64));
    EXPECT_EQ(carrierByWalk(a.arena, 32), a.arena.carrierCandidate(32));
    void* s = a.arena.alloc(40);  // a 64-byte small block carved from `bigger`
    EXPECT_GT(addr(s), addr(bigger));
    EXPECT_LT(addr(s), addr(bigger) + 208);
    EXPECT_ARENA_OK(a);
    (void)tail;
}

TEST(Arena, SmallPathReturnsNullWhenNoCarrierCanBeHad) {
    Arena a;
    a.source.exhausted = true;
    unsigned long before = a.arena.allocatedMemory();
    EXPECT_EQ(nullptr, a.arena.alloc(10));
    EXPECT_EQ(nullptr, a.arena.alloc(50));
    EXPECT_EQ(before, a.arena.allocatedMemory());
    EXPECT_EQ(0u, a.arena.internalFree());
    EXPECT_ARENA_OK(a);
    a.source.exhausted = false;
    EXPECT_NE(nullptr, a.arena.alloc(10));
    EXPECT_ARENA_OK(a);
}

// ---------------------------------------------------------------------------
// The arena: ordinary blocks, split, merge, best fit
// ---------------------------------------------------------------------------

TEST(Arena, ReleasingTwoAdjacentBlocksLeavesOneFreeBlockOfTheirJointSize) {
    Arena a;
    void* p = a.arena.alloc(200);  // 208
    void* q = a.arena.alloc(300);  // 320
    void* guard = a.arena.alloc(100);
    ASSERT_EQ(addr(p) + 208, addr(q));
    unsigned long free0 = a.arena.internalFree();
    a.arena.free(p);
    EXPECT_EQ(free0 + 208, a.arena.internalFree());
    a.arena.free(q);
    EXPECT_EQ(free0 + 208 + 320, a.arena.internalFree());
    EXPECT_EQ(0u, MemoryAllocator::busy(p));
    EXPECT_EQ(528u, blockSizeOf(p));
    EXPECT_EQ(a.arena.nextBlock(p), guard);
    EXPECT_ARENA_OK(a);
}

TEST(Arena, AFreeBlockIsSplitOnlyWhen80BytesWouldRemain) {
    Arena a;
    void* hole = a.arena.alloc(152);  // 160
    void* guard = a.arena.alloc(100);
    a.arena.free(hole);
    // need 96 leaves 64: no split, the caller gets all 160 bytes.
    void* p = a.arena.alloc(88);
    EXPECT_EQ(hole, p);
    EXPECT_EQ(152u, a.arena.size(p));
    a.arena.free(p);
    // need 80 leaves 80: split.
    p = a.arena.alloc(72);
    EXPECT_EQ(hole, p);
    EXPECT_EQ(72u, a.arena.size(p));
    EXPECT_EQ(80u, blockSizeOf(static_cast<char*>(p) + 80));
    EXPECT_EQ(0u, MemoryAllocator::busy(static_cast<char*>(p) + 80));
    EXPECT_ARENA_OK(a);
    (void)guard;
}

TEST(Arena, BestFitTakesTheLowestAddressedBlockOfTheSmallestSufficientSize) {
    Arena a;
    std::vector<void*> g;
    void* big = a.arena.alloc(312);  // 320
    g.push_back(a.arena.alloc(72));
    void* low160 = a.arena.alloc(152);
    g.push_back(a.arena.alloc(72));
    void* high160 = a.arena.alloc(152);
    g.push_back(a.arena.alloc(72));
    void* mid = a.arena.alloc(200);  // 208
    g.push_back(a.arena.alloc(72));
    a.arena.free(high160);
    a.arena.free(big);
    a.arena.free(mid);
    a.arena.free(low160);
    EXPECT_EQ(low160, a.arena.alloc(150));
    EXPECT_EQ(high160, a.arena.alloc(150));
    EXPECT_EQ(mid, a.arena.alloc(160));  // 176 needed: 208 is the smallest sufficient
    EXPECT_EQ(big, a.arena.alloc(300));
    EXPECT_ARENA_OK(a);
}

TEST(Arena, FreedSpaceIsCountedUnderTheColourOfTheRelease) {
    Arena a;
    void* p = a.arena.alloc(200, 3);  // 208
    void* q = a.arena.alloc(200, 4);
    void* guard = a.arena.alloc(100, 0);
    EXPECT_EQ(3u, a.arena.color(p));
    EXPECT_EQ(208u, a.arena.allocatedColorMemory(3));
    a.arena.free(p);
    EXPECT_EQ(0u, a.arena.allocatedColorMemory(3));
    EXPECT_EQ(208u, a.arena.freeColorMemory(3));
    a.arena.free(q);  // merges p's space: all 416 bytes now count under colour 4
    EXPECT_EQ(0u, a.arena.freeColorMemory(3));
    EXPECT_EQ(416u, a.arena.freeColorMemory(4));
    EXPECT_ARENA_OK(a);
    (void)guard;
}

TEST(Arena, SetColorFailsOnAColouredBlockAndDoesNotColourAnUncolouredOne) {
    Arena a;
    void* coloured = a.arena.alloc(100, 5);
    void* plain = a.arena.alloc(100, 0);
    EXPECT_EQ(0x80000003u, a.arena.setColor(coloured, 7));
    EXPECT_EQ(0x80000003u, a.arena.setColor(plain, 64));  // 64 & 63 == 0
    EXPECT_EQ(0x80000003u, a.arena.setColor(nullptr, 7));
    int outside = 0;
    EXPECT_EQ(0x80000003u, a.arena.setColor(&outside, 7));
    unsigned long zeroBefore = a.arena.allocatedColorMemory(0);
    unsigned long sevenBefore = a.arena.allocatedColorMemory(7);
    unsigned long totalBefore = a.arena.allocatedMemory();
    EXPECT_EQ(0u, a.arena.setColor(plain, 7));
    EXPECT_EQ(0u, a.arena.color(plain));
    EXPECT_EQ(zeroBefore + 112, a.arena.allocatedColorMemory(0));
    EXPECT_EQ(sevenBefore, a.arena.allocatedColorMemory(7));
    EXPECT_EQ(totalBefore, a.arena.allocatedMemory());
    EXPECT_ARENA_OK(a);
    void* freed = a.arena.alloc(100);
    a.arena.free(freed);
    EXPECT_EQ(0x80000003u, a.arena.setColor(freed, 7));  // not busy
}

TEST(Arena, AdjustColorMemoryTouchesOnlyTheColourCount) {
    Arena a;
    unsigned long total = a.arena.allocatedMemory();
    a.arena.adjustColorMemory(66, 1000);  // colour 2
    EXPECT_EQ(1000u, a.arena.allocatedColorMemory(2));
    a.arena.adjustColorMemory(2, -400);
    EXPECT_EQ(600u, a.arena.allocatedColorMemory(2));
    EXPECT_EQ(total, a.arena.allocatedMemory());
    EXPECT_ARENA_OK(a);
}

TEST(Arena, SizeColorAndValidRefuseForeignAndFreeBlocks) {
    Arena a;
    EXPECT_EQ(0u, a.arena.size(nullptr));
    EXPECT_FALSE(a.arena.valid(nullptr));
    void* p = a.arena.alloc(1000, 9);
    EXPECT_TRUE(a.arena.valid(p));
    long outside = 0;
    EXPECT_EQ(0u, a.arena.size(&outside));
    EXPECT_EQ(0u, a.arena.color(&outside));
    EXPECT_FALSE(a.arena.valid(&outside));
    a.arena.free(p);
    EXPECT_EQ(0u, a.arena.size(p));
    EXPECT_EQ(0u, a.arena.color(p));
    EXPECT_FALSE(a.arena.valid(p));
    EXPECT_EQ(0u, MemoryAllocator::busy(nullptr));
}

TEST(Arena, RequestLimitIsWhereTheBlockStillFitsTheSizeBits) {
    // 0x3FFFFE8 + 8 rounded to 16 is 0x3FFFFF0, the largest size the 26 bits hold;
    // one byte more would need a 0x4000000-byte block.
    Arena a(1ul << 20, 1ul << 30);
    unsigned long before = a.arena.allocatedMemory();
    EXPECT_EQ(nullptr, a.arena.alloc(0x3FFFFE9));
    EXPECT_EQ(nullptr, a.arena.alloc(0x3FFFFFF));
    EXPECT_EQ(nullptr, a.arena.alloc(0x4000000));
    EXPECT_EQ(nullptr, a.arena.alloc(0x3FFFFFFul, 1));
    EXPECT_EQ(0u, a.source.requests);  // refused before asking the parent
    EXPECT_EQ(before, a.arena.allocatedMemory());
    void* p = a.arena.alloc(0x3FFFFE8);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0x3FFFFE8u, a.arena.size(p));
    EXPECT_TRUE(a.arena.valid(p));
    EXPECT_ARENA_OK(a);
}

TEST(Arena, ParentExhaustedLeavesCountersUnchanged) {
    Arena a;
    void* p = a.arena.alloc(500);
    ASSERT_NE(nullptr, p);
    a.source.exhausted = true;
    unsigned long allocated = a.arena.allocatedMemory(), freeBytes = a.arena.internalFree();
    EXPECT_EQ(nullptr, a.arena.alloc(4u << 20));
    EXPECT_EQ(allocated, a.arena.allocatedMemory());
    EXPECT_EQ(freeBytes, a.arena.internalFree());
    EXPECT_EQ(0u, a.arena.allocatedColorMemory(0) - allocated);
    EXPECT_ARENA_OK(a);
}

TEST(Arena, RegionRequestIsNeedPlus16) {
    Arena a;
    a.arena.alloc(2000000);  // need 2000016
    EXPECT_EQ(2000032u, a.source.lastRequest);
}

TEST(Arena, CountersAre64Bit) {
    // 70 blocks of 64 MiB: more than 4 GiB allocated; only the tags are touched.
    Arena a(1ul << 20, 6ul << 30);
    std::vector<void*> v;
    for (int i = 0; i < 70; ++i) {
        void* p = a.arena.alloc(0x3FFFFE8);
        ASSERT_NE(nullptr, p) << i;
        v.push_back(p);
    }
    EXPECT_EQ(70ul * 0x3FFFFF0ul, a.arena.allocatedMemory());
    EXPECT_GT(a.arena.allocatedMemory(), 0xFFFFFFFFul);
    EXPECT_EQ(70ul * 0x3FFFFF0ul, a.arena.allocatedColorMemory(0));
    for (void* p : v) a.arena.free(p);
    EXPECT_EQ(0u, a.arena.allocatedMemory());
    EXPECT_ARENA_OK(a);
}

// ---------------------------------------------------------------------------
// The arena: regions, bridges and walking
// ---------------------------------------------------------------------------

TEST(Arena, FirstRegionEndsFourBytesBeforeTheRegionEnd) {
    Arena a(1ul << 16);
    void* p = a.arena.alloc(100);
    EXPECT_EQ(addr(a.source.base()) + 16, addr(p));  // header at R + 12
    EXPECT_EQ(p, a.arena.firstBlock());
    void* last = nullptr;
    void* q = p;
    while ((q = a.arena.nextBlock(q))) last = q;
    // The final step yields arenaEnd + 4 once: arenaEnd is 4 bytes before the end.
    EXPECT_EQ(addr(a.source.base()) + (1ul << 16), addr(last));
    EXPECT_EQ(0u, headerWord(last));  // the word at arenaEnd stays 0
    EXPECT_EQ(nullptr, a.arena.nextBlock(last));
    EXPECT_EQ(0u, a.arena.checkArena());
}

TEST(Arena, AnAdjacentRegionContinuesTheArenaWithoutABridge) {
    Arena a(1ul << 16);
    void* p = a.arena.alloc(60000);  // most of the first 64 KiB region
    void* q = a.arena.alloc(60000);  // a second region, adjacent
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(2u, a.source.requests);
    int blocks = 0, bridges = 0;
    void* last = nullptr;
    for (void* b = a.arena.firstBlock(); b; b = a.arena.nextBlock(b)) {
        unsigned int w = headerWord(b);
        if (w == 0) {
            last = b;
            break;
        }
        ++blocks;
        if (w & 2) ++bridges;
    }
    EXPECT_EQ(0, bridges);
    // The continuing block starts at the old arenaEnd and the arena again ends 4
    // bytes before the second region's end.
    EXPECT_EQ(addr(a.source.base()) + (2ul << 16), addr(last));
    EXPECT_ARENA_OK(a);
    // Releasing both merges across the region boundary.
    a.arena.free(p);
    a.arena.free(q);
    EXPECT_EQ(0u, a.arena.allocatedMemory());
    EXPECT_EQ((2ul << 16) - 16, blockSizeOf(a.arena.firstBlock()));
    EXPECT_ARENA_OK(a);
}

TEST(Arena, NonAdjacentRegionsAreJoinedByABridgeThatNeverMerges) {
    Arena a(1ul << 16);
    void* p = a.arena.alloc(60000);
    a.source.leaveGap(1ul << 16);
    void* q = a.arena.alloc(60000);
    ASSERT_NE(nullptr, q);
    // Walk: p, its free tail, the bridge, q, q's tail, then arenaEnd + 4.
    std::vector<void*> walk;
    for (void* b = a.arena.firstBlock(); b; b = a.arena.nextBlock(b)) walk.push_back(b);
    void* bridge = nullptr;
    for (void* b : walk)
        if ((headerWord(b) & 3) == 3) bridge = b;
    ASSERT_NE(nullptr, bridge);
    unsigned long bridgeSize = headerWord(bridge) - 3;
    // From 4 bytes before the first region's end to the second region's R + 12.
    EXPECT_EQ((1ul << 16) + 16, bridgeSize);
    EXPECT_EQ(addr(bridge) + bridgeSize, addr(q));
    EXPECT_EQ(q, a.arena.nextBlock(bridge));
    EXPECT_ARENA_OK(a);
    a.arena.free(q);  // q's previous block is the bridge: no backward merge
    EXPECT_EQ(0u, MemoryAllocator::busy(q));
    EXPECT_EQ(1u, MemoryAllocator::busy(bridge));
    EXPECT_EQ(bridgeSize + 3, headerWord(bridge));
    a.arena.free(p);
    EXPECT_ARENA_OK(a);
}

TEST(Arena, ProcessRegionsAcrossAGapOfTheSystemLayerBridgeToo) {
    // Through the system layer's own seam, with the real host as parent.
    HostAllocator host;
    MemoryAllocator arena(&host);
    arena.init();
    void* p = arena.alloc(900000);
    ASSERT_NE(nullptr, p);
    ZoIF_TestLeaveMemGap(1u << 20);
    void* q = arena.alloc(900000);
    ASSERT_NE(nullptr, q);
    int bridges = 0;
    for (void* b = arena.firstBlock(); b; b = arena.nextBlock(b))
        if ((headerWord(b) & 3) == 3 && addr(b) < addr(q)) ++bridges;
    EXPECT_GE(bridges, 1);
    EXPECT_EQ(nullptr, arena.verify());
    arena.free(p);
    arena.free(q);
    EXPECT_EQ(nullptr, arena.verify());
}

TEST(Arena, GapsOf4GiBOrMoreAreBridgedThroughTheFarTable) {
    // A bridge's step is its whole size word less 3, at most 4 GiB - 16; a longer
    // one has the word 3, its step kept aside, and the trailer 1.
    Arena a(1ul << 20, 12ul << 30);
    void* p = a.arena.alloc(1000);
    ASSERT_NE(nullptr, p);
    a.source.leaveGap(5ul << 30);
    void* q = a.arena.alloc(2ul << 20);
    ASSERT_NE(nullptr, q);
    void* bridge = nullptr;
    for (void* b = a.arena.firstBlock(); b; b = a.arena.nextBlock(b))
        if ((headerWord(b) & 3) == 3) bridge = b;
    ASSERT_NE(nullptr, bridge);
    EXPECT_EQ(3u, headerWord(bridge));
    EXPECT_EQ(q, a.arena.nextBlock(bridge));
    EXPECT_EQ((5ul << 30) + 16, addr(q) - addr(bridge));  // from arenaEnd to the new R + 12
    EXPECT_ARENA_OK(a);
    a.arena.free(q);  // never merges backwards into the far bridge
    EXPECT_EQ(1u, MemoryAllocator::busy(bridge));
    EXPECT_EQ(3u, headerWord(bridge));
    a.arena.free(p);
    EXPECT_ARENA_OK(a);
}

// Hands out its regions from the top of its reservation down.
class FallingSource : public RegionSource {
public:
    FallingSource() : RegionSource(1ul << 16, 1ul << 24) {}
    void* alloc(unsigned long) override {
        if (next_ == 0) return nullptr;
        next_ -= 1ul << 16;
        mprotect(base() + next_, 1ul << 16, PROT_READ | PROT_WRITE);
        return base() + next_;
    }
    unsigned long size(void*) const override { return 1ul << 16; }

private:
    unsigned long next_ = 1ul << 24;
};

TEST(Arena, ARegionBelowTheArenaIsLeftUnused) {
    FallingSource source;
    MemoryAllocator arena(&source);
    arena.init();
    void* p = arena.alloc(60000);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(nullptr, arena.alloc(60000));  // the second region lies below the first
    EXPECT_EQ(nullptr, arena.verify());
    arena.free(p);
    EXPECT_EQ(nullptr, arena.verify());
}

// Hands out one region of a chosen placement and size per request (offset from
// the start of its reservation, and the size it then reports), then refuses.
class ScriptedSource : public RegionSource {
public:
    ScriptedSource(unsigned long offset, unsigned long bytes)
        : RegionSource(1ul << 16, 1ul << 24), offset_(offset), bytes_(bytes) {
        mprotect(base(), 1ul << 20, PROT_READ | PROT_WRITE);
    }
    void* alloc(unsigned long) override {
        ++requests;
        if (given_) return nullptr;
        given_ = true;
        return base() + offset_;
    }
    unsigned long size(void*) const override { return given_ ? bytes_ : 0; }

private:
    unsigned long offset_;
    unsigned long bytes_;
    bool given_ = false;
};

TEST(Arena, WithoutAParentEveryRequestFails) {
    MemoryAllocator arena(nullptr);
    arena.init();
    EXPECT_EQ(nullptr, arena.alloc(100));
    EXPECT_EQ(nullptr, arena.alloc(20));  // a small block needs a carrier from a region too
    EXPECT_EQ(0u, arena.allocatedMemory());
    EXPECT_EQ(0u, arena.internalFree());
    EXPECT_EQ(nullptr, arena.firstBlock());
    EXPECT_EQ(nullptr, arena.verify());
}

TEST(Arena, AMisalignedRegionIsTrimmedTo16Bytes) {
    ScriptedSource source(8, (1ul << 16) - 8);
    MemoryAllocator arena(&source);
    arena.init();
    void* p = arena.alloc(1000);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0u, addr(p) % 16);
    EXPECT_GE(addr(p), addr(source.base()) + 16);
    EXPECT_GE(arena.size(p), 1000u);
    // The region, trimmed to 16-byte bounds and less the arena's 16 bytes of
    // bookkeeping, is the busy block plus the free rest.
    EXPECT_EQ((1ul << 16) - 16 - 16, arena.allocatedMemory() + arena.internalFree());
    EXPECT_EQ(nullptr, arena.verify());
    arena.free(p);
    EXPECT_EQ(0u, arena.allocatedMemory());
    EXPECT_EQ(nullptr, arena.verify());
}

TEST(Arena, RegionsTooSmallToUseAreLeftAlone) {
    struct Case {
        unsigned long offset, bytes;
    } cases[] = {{8, 4}, {0, 8}, {0, 512}};  // misaligned and shorter than the trim; under 16; under the request
    for (Case c : cases) {
        ScriptedSource source(c.offset, c.bytes);
        MemoryAllocator arena(&source);
        arena.init();
        EXPECT_EQ(nullptr, arena.alloc(1000)) << c.offset << "+" << c.bytes;
        EXPECT_EQ(1u, source.requests);
        EXPECT_EQ(nullptr, arena.firstBlock());
        EXPECT_EQ(0u, arena.allocatedMemory() + arena.internalFree());
        EXPECT_EQ(nullptr, arena.verify());
    }
}

// Releases between free neighbours merge them whatever their order of release,
// and the merged block is then the best fit for a request of its size.
TEST(Arena, ReleasesMergeFreeNeighboursInAnyOrder) {
    Arena a;
    void* p[9];
    for (auto& q : p) {
        q = a.alloc(200, 6);
        ASSERT_NE(nullptr, q);
    }
    for (int i = 1; i < 9; ++i) ASSERT_EQ(addr(p[i - 1]) + 208, addr(p[i]));
    unsigned long freeBefore = a.arena.internalFree();
    unsigned long freeSixBefore = a.arena.freeColorMemory(6);
    a.arena.free(p[1]);
    a.arena.free(p[3]);
    a.arena.free(p[5]);
    a.arena.free(p[7]);
    EXPECT_EQ(freeBefore + 4 * 208, a.arena.internalFree());
    EXPECT_ARENA_OK(a);
    a.arena.free(p[2]);  // joins p[1] before it and p[3] after it
    EXPECT_EQ(freeBefore + 5 * 208, a.arena.internalFree());
    EXPECT_EQ(3u * 208, blockSizeOf(p[1]));
    EXPECT_EQ(0u, MemoryAllocator::busy(p[1]));
    EXPECT_EQ(p[4], a.arena.nextBlock(p[1]));
    EXPECT_ARENA_OK(a);
    a.arena.free(p[6]);  // joins p[5] and p[7]
    EXPECT_EQ(3u * 208, blockSizeOf(p[5]));
    EXPECT_EQ(freeBefore + 6 * 208, a.arena.internalFree());
    EXPECT_EQ(freeSixBefore + 6 * 208, a.arena.freeColorMemory(6)) << "released under colour 6";
    EXPECT_ARENA_OK(a);
    // Best fit: the lower of the two 624-byte blocks, not the free rest of the region.
    void* again = a.alloc(600, 6);
    EXPECT_EQ(p[1], again);
    EXPECT_EQ(p[5], a.alloc(600, 6));
    EXPECT_ARENA_OK(a);
    a.arena.free(p[4]);
    a.arena.free(again);
    a.arena.free(p[5]);
    a.arena.free(p[0]);
    a.arena.free(p[8]);
    EXPECT_EQ(0u, a.arena.allocatedMemory());
    EXPECT_EQ(0u, a.arena.allocatedColorMemory(6));
    EXPECT_ARENA_OK(a);
}

// When what would remain of the only free block is under 80 bytes, the request
// gets the whole block.
TEST(Arena, ARequestLeavingUnder80BytesTakesTheWholeFreeBlock) {
    Arena a(1ul << 16);
    void* p = a.alloc(1000);  // a 1008-byte block; the region's other 64512 bytes are free
    ASSERT_NE(nullptr, p);
    ASSERT_EQ(65536ul - 16 - 1008, a.arena.internalFree());
    void* q = a.alloc(64448, 5);  // needs 64464: 48 would remain
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(addr(p) + 1008, addr(q));
    EXPECT_EQ(64512ul - 8, a.arena.size(q));
    EXPECT_EQ(0u, a.arena.internalFree());
    EXPECT_EQ(64512u, a.arena.allocatedColorMemory(5));
    EXPECT_EQ(0u, a.arena.freeColorMemory(0));
    EXPECT_EQ(1u, a.source.requests) << "no new region";
    EXPECT_ARENA_OK(a);
    a.arena.free(q);
    a.arena.free(p);
    EXPECT_EQ(65536ul - 16, a.arena.internalFree());
    EXPECT_ARENA_OK(a);
}

TEST(Arena, AddressesBeforeTheFirstBlockAreNotBlocks) {
    Arena a;
    void* p = a.alloc(100, 3);
    ASSERT_NE(nullptr, p);
    // The region's first bytes are the arena's bookkeeping, before its first block.
    void* before = a.source.base();
    ASSERT_LT(addr(before), addr(a.arena.firstBlock()));
    unsigned long allocated = a.arena.allocatedMemory();
    EXPECT_EQ(0u, a.arena.size(before));
    EXPECT_EQ(0u, a.arena.color(before));
    EXPECT_FALSE(a.arena.valid(before));
    EXPECT_EQ(0x80000003u, a.arena.setColor(before, 4));
    EXPECT_EQ(allocated, a.arena.allocatedMemory());
    EXPECT_EQ(0u, a.arena.allocatedColorMemory(0));
    EXPECT_ARENA_OK(a);
    a.arena.free(p);
}

TEST(Arena, ANewRegionIsNotMergedWithAFreeBlockEndingTheArena) {
    Arena a(1ul << 16);
    void* p = a.arena.alloc(100);  // the rest of the region is one free block
    unsigned long freeBefore = a.arena.internalFree();
    void* q = a.arena.alloc(100000);  // too big for it: a new, adjacent region
    ASSERT_NE(nullptr, q);
    EXPECT_GT(addr(q), addr(p));
    // The old free block is still there, unmerged, ahead of q.
    void* tail = a.arena.nextBlock(p);
    EXPECT_EQ(0u, MemoryAllocator::busy(tail));
    EXPECT_EQ(q, a.arena.nextBlock(tail));
    EXPECT_GE(a.arena.internalFree(), freeBefore);
    EXPECT_ARENA_OK(a);
}

TEST(Arena, CarrierSearchMatchesTheLiteralWalk) {
    Arena a(1ul << 16);
    std::mt19937_64 rng(7);
    std::vector<void*> live;
    for (int round = 0; round < 4000; ++round) {
        if (live.empty() || rng() % 3) {
            unsigned long n = rng() % 4 == 0 ? rng() % 56 : 57 + rng() % 3000;
            void* p = a.arena.alloc(n);
            ASSERT_NE(nullptr, p);
            live.push_back(p);
        } else {
            size_t i = rng() % live.size();
            a.arena.free(live[i]);
            live[i] = live.back();
            live.pop_back();
        }
        for (unsigned int s : {32u, 64u}) ASSERT_EQ(carrierByWalk(a.arena, s), a.arena.carrierCandidate(s)) << round;
    }
    ASSERT_ARENA_OK(a);
}

TEST(Arena, UserBytesLeftInAFreeBlockAreNeverTakenForItsLinks) {
    // A split leaves its remainder free with whatever the caller last wrote there;
    // the arena's bookkeeping must not read a stale word as one of its own marks.
    Arena a;
    void* first = a.alloc(200);
    void* big = a.alloc(1000);
    void* last = a.alloc(200);
    ASSERT_TRUE(first && big && last);
    // The remainder of splitting `big` for a 200-byte request starts 208 bytes in.
    for (unsigned long word = 0; word < 8; ++word) {
        unsigned long one = 1;
        std::memcpy(static_cast<char*>(big) + 200 + word * 8, &one, sizeof one);
    }
    a.arena.free(big);
    void* again = a.alloc(200);  // best fit: big's block, split
    EXPECT_EQ(big, again);
    EXPECT_ARENA_OK(a);
    a.arena.free(last);  // merges backwards into the remainder
    EXPECT_ARENA_OK(a);
    void* x = a.alloc(800);
    EXPECT_EQ(static_cast<char*>(big) + 208, x);
    a.arena.free(x);
    a.arena.free(again);
    a.arena.free(first);
    EXPECT_ARENA_OK(a);
}

// ---------------------------------------------------------------------------
// The arena: randomised run with the verifier
// ---------------------------------------------------------------------------

struct LiveBlock {
    unsigned char* p;
    unsigned long n;
    unsigned char seed;
    unsigned int color;
};

void fillPattern(LiveBlock const& b) {
    if (b.n <= 4096) {
        for (unsigned long i = 0; i < b.n; ++i) b.p[i] = static_cast<unsigned char>(b.seed + i * 7);
    } else {
        for (unsigned long i = 0; i < 256; ++i) b.p[i] = static_cast<unsigned char>(b.seed + i * 7);
        for (unsigned long i = b.n - 256; i < b.n; ++i) b.p[i] = static_cast<unsigned char>(b.seed + i * 7);
        for (unsigned long i = 256; i < b.n - 256; i += 4093) b.p[i] = static_cast<unsigned char>(b.seed + i * 7);
    }
}

bool checkPattern(LiveBlock const& b) {
    auto ok = [&](unsigned long i) { return b.p[i] == static_cast<unsigned char>(b.seed + i * 7); };
    if (b.n <= 4096) {
        for (unsigned long i = 0; i < b.n; ++i)
            if (!ok(i)) return false;
        return true;
    }
    for (unsigned long i = 0; i < 256; ++i)
        if (!ok(i) || !ok(b.n - 256 + i)) return false;
    for (unsigned long i = 256; i < b.n - 256; i += 4093)
        if (!ok(i)) return false;
    return true;
}

TEST(Arena, RandomisedMillionOperationsKeepEveryInvariant) {
    Arena a(1ul << 20, 8ul << 30);
    const unsigned long kOps = zotest::scaled(1000000);
    std::mt19937_64 rng(0xA11C0C);
    std::vector<LiveBlock> live;
    live.reserve(4096);
    unsigned long verified = 0;
    for (unsigned long op = 0; op < kOps; ++op) {
        bool grow = live.size() < 200 || (live.size() < 3000 && rng() % 100 < 52);
        if (grow) {
            unsigned r = static_cast<unsigned>(rng() % 1000);
            unsigned long n;
            if (r < 500)
                n = rng() % 57;  // small blocks
            else if (r < 900)
                n = 57 + rng() % 1000;
            else if (r < 995)
                n = 1057 + rng() % 64000;
            else
                n = rng() % (1ul << 20) + 1;
            unsigned int c = static_cast<unsigned int>(rng() % 64);
            if (rng() % 4 == 0) a.arena.setDefaultColor(c, nullptr);
            void* p = rng() % 2 ? a.arena.alloc(n, c) : a.arena.alloc(n);
            if (!(rng() % 2)) c = a.arena.defaultColor() & 63;
            ASSERT_NE(nullptr, p);
            ASSERT_EQ(0u, addr(p) % 16);
            unsigned long usable = a.arena.size(p);
            ASSERT_GE(usable, n);
            unsigned long need = std::max(32ul, (n + 23) & ~15ul);
            if (need <= 32)
                ASSERT_EQ(24u, usable);
            else if (need <= 64)
                ASSERT_EQ(56u, usable);
            else
                ASSERT_LT(usable + 8, need + 80);
            LiveBlock b{static_cast<unsigned char*>(p), n, static_cast<unsigned char>(rng()), a.arena.color(p)};
            fillPattern(b);
            live.push_back(b);
        } else {
            size_t i = rng() % live.size();
            ASSERT_TRUE(checkPattern(live[i])) << "contents changed, operation " << op;
            ASSERT_EQ(live[i].color, a.arena.color(live[i].p));
            a.arena.free(live[i].p);
            live[i] = live.back();
            live.pop_back();
        }
        if (op < 20000 || op % 250 == 0) {
            ++verified;
            char const* e = a.arena.verify();
            ASSERT_EQ(nullptr, e) << "after operation " << op;
            if (op % 1000 == 0) {
                for (unsigned int s : {32u, 64u}) ASSERT_EQ(carrierByWalk(a.arena, s), a.arena.carrierCandidate(s));
            }
        }
    }
    for (auto& b : live) {
        ASSERT_TRUE(checkPattern(b));
        a.arena.free(b.p);
    }
    ASSERT_ARENA_OK(a);
    // Only carriers counted from _alloc remain allocated, in colour 0.
    EXPECT_EQ(a.arena.allocatedMemory() % 16, 0u);
    for (unsigned c = 1; c < 64; ++c) EXPECT_EQ(0u, a.arena.allocatedColorMemory(c)) << c;
    RecordProperty("verifications", static_cast<int>(verified));
}

// ---------------------------------------------------------------------------
// The host allocator
// ---------------------------------------------------------------------------

TEST(HostAllocator, SizeOfAnyPointerIsTheLastRegionObtained) {
    HostAllocator host;
    EXPECT_EQ(0u, host.size(nullptr));
    void* r = host.alloc(100);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(1ul << 20, host.size(r));
    int unrelated;
    EXPECT_EQ(1ul << 20, host.size(&unrelated));
    void* r2 = host.allocMin((1ul << 20) + 1);
    ASSERT_NE(nullptr, r2);
    EXPECT_EQ(2ul << 20, host.size(nullptr));
    host.free(r);  // does nothing
    EXPECT_EQ(0u, host.allocatedMemory());
    EXPECT_EQ(0u, host.internalFree());
    EXPECT_EQ(0x80000001u, host.setColor(r, 1));
    EXPECT_FALSE(host.valid(r));
}

TEST(HostAllocator, ExhaustionRaisesOutOfMemoryAndResetsTheSize) {
    HostAllocator host;
    host.alloc(10);
    Utils::clearError();
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* r = host.alloc(10);
    ZoIF_TestSetMemLimit(0);
    EXPECT_EQ(nullptr, r);
    EXPECT_EQ(0u, host.size(nullptr));
    EXPECT_EQ(0x80000002u, Utils::lastError());
    Utils::clearError();
}

// ---------------------------------------------------------------------------
// The process allocator
// ---------------------------------------------------------------------------

TEST(ProcessAllocator, IsOneArenaThatNeverChanges) {
    Allocator* a = Allocator::theAllocator();
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(a, Allocator::theAllocator());
    EXPECT_NE(nullptr, dynamic_cast<MemoryAllocator*>(a));
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

TEST(ProcessAllocator, RequestsAboveTheLimitReturnNullAndRaiseNothing) {
    Utils::clearError();
    Allocator* a = Allocator::theAllocator();
    EXPECT_EQ(nullptr, a->alloc(0x4000000));
    EXPECT_EQ(nullptr, a->alloc(0x3FFFFE9, 2));
    EXPECT_EQ(0u, Utils::lastError());
}

// setColor colours nothing: it charges an uncoloured block to colour 0 once more,
// which adjustColorMemory can take back; the arena's verifier tracks both.
TEST(ProcessAllocator, SetColorChargesColourZeroAndAdjustTakesItBack) {
    Allocator* a = Allocator::theAllocator();
    MemoryAllocator* arena = static_cast<MemoryAllocator*>(a);
    void* p = a->alloc(200, 0);
    void* q = a->alloc(200, 9);
    ASSERT_NE(nullptr, p);
    ASSERT_NE(nullptr, q);
    unsigned long block = a->size(p) + 8;
    unsigned long zero = a->allocatedColorMemory(0);
    unsigned long nine = a->allocatedColorMemory(9);
    unsigned long total = a->allocatedMemory();
    EXPECT_EQ(0u, a->setColor(p, 5));
    EXPECT_EQ(zero + block, a->allocatedColorMemory(0));
    EXPECT_EQ(0u, a->color(p)) << "the block keeps its colour";
    EXPECT_EQ(total, a->allocatedMemory());
    EXPECT_EQ(0x80000003u, a->setColor(q, 5)) << "a coloured block";
    EXPECT_EQ(0x80000003u, a->setColor(p, 64)) << "colour 64 is colour 0";
    EXPECT_EQ(nine, a->allocatedColorMemory(9));
    EXPECT_EQ(nullptr, arena->verify());
    a->adjustColorMemory(64, -static_cast<int>(block));  // 64 & 63: colour 0
    EXPECT_EQ(zero, a->allocatedColorMemory(0));
    EXPECT_EQ(total, a->allocatedMemory());
    EXPECT_EQ(nullptr, arena->verify());
    a->free(p);
    a->free(q);
}

TEST(ProcessAllocator, MemoryColorResetRestoresThisThreadsDefaultOnly) {
    Allocator* a = Allocator::theAllocator();
    a->setDefaultColor(2, nullptr);
    std::atomic<unsigned> otherSeen{99};
    std::atomic<int> phase{0};
    std::thread other([&] {
        a->setDefaultColor(11, nullptr);
        phase = 1;
        while (phase.load() != 2) std::this_thread::yield();
        otherSeen = a->defaultColor();
        a->setDefaultColor(0, nullptr);
    });
    while (phase.load() != 1) std::this_thread::yield();
    MemoryColor scope(5);
    EXPECT_EQ(5u, a->defaultColor());
    void* p = a->alloc(100);
    EXPECT_EQ(5u, a->color(p));
    a->free(p);
    scope.reset();
    EXPECT_EQ(2u, a->defaultColor());
    phase = 2;
    other.join();
    EXPECT_EQ(11u, otherSeen.load());
    a->setDefaultColor(0, nullptr);
}

TEST(ProcessAllocator, ExhaustionReturnsNullRaisesOnceAndChangesNoCounter) {
    Allocator* a = Allocator::theAllocator();
    a->free(a->alloc(64));  // the arena holds a region (a limit of 0 would mean none)
    ASSERT_LT(a->internalFree(), 0x3FFFFF0u);  // so the largest request must ask the system layer
    // A first exhaustion lets the error tables make this thread's entry; raising
    // happens after the arena's work, and what it keeps is the tables' own.
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* warm = a->alloc(0x3FFFFE8);
    ZoIF_TestSetMemLimit(0);
    ASSERT_EQ(nullptr, warm);
    Utils::clearError();
    unsigned long allocated = a->allocatedMemory(), freeBytes = a->internalFree();
    // Nothing below may allocate while the limit holds.
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* p = a->alloc(0x3FFFFE8);
    unsigned int raised = Utils::lastError();
    unsigned long allocatedAfter = a->allocatedMemory(), freeAfter = a->internalFree();
    ZoIF_TestSetMemLimit(0);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(0x80000002u, raised);
    EXPECT_EQ(allocated, allocatedAfter);
    EXPECT_EQ(freeBytes, freeAfter);
    Utils::clearError();
    void* q = a->alloc(3u << 20);  // the limit is gone: it works again
    EXPECT_NE(nullptr, q);
    a->free(q);
}

// Listens for out-of-memory and allocates from the process allocator while it is
// told; optionally it asks for more than the exhausted layer can give.
struct AllocatingListener : Utils::ResultListener {
    mutable int calls = 0;
    mutable bool allocatedInside = false;
    bool exhaustAgain = false;
    void resultRaised(unsigned int code) const override {
        if (code != 0x80000002u) return;
        ++calls;
        Allocator* a = Allocator::theAllocator();
        void* p = a->alloc(64);
        allocatedInside = p != nullptr;
        a->free(p);
        if (exhaustAgain) a->free(a->alloc(0x3FFFFE8));  // raises again, inside a raise
    }
};

TEST(ProcessAllocator, OutOfMemoryListenersMayAllocateAndCannotRecurse) {
    Allocator* a = Allocator::theAllocator();
    a->free(a->alloc(64));  // a region and a 64-byte small list for the listener
    ASSERT_LT(a->internalFree(), 0x3FFFFF0u);
    AllocatingListener listener;
    listener.exhaustAgain = true;
    Utils::addResultListener(&listener);
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* p = a->alloc(0x3FFFFE8);
    ZoIF_TestSetMemLimit(0);
    Utils::removeResultListener(&listener);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(1, listener.calls);  // the raise from inside the listener is dropped
    EXPECT_TRUE(listener.allocatedInside);
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
    Utils::clearError();
}

// Threads allocate, hand blocks to each other and release blocks that others
// allocated, checking every block's contents; the arenas verify at the end.
void crossThreadStress(int kThreads) {
    Allocator* a = Allocator::theAllocator();
    const unsigned long kPerThread = zotest::scaled(60000);
    struct Slot {
        std::mutex m;
        std::vector<LiveBlock> blocks;
    };
    std::vector<Slot> exchange(kThreads);
    std::atomic<bool> bad{false};
    auto worker = [&](int id) {
        std::mt19937_64 rng(static_cast<unsigned long>(id) * 77 + 1);
        std::vector<LiveBlock> mine;
        for (unsigned long i = 0; i < kPerThread && !bad; ++i) {
            unsigned r = static_cast<unsigned>(rng() % 100);
            if (r < 55 || mine.empty()) {
                unsigned long n = rng() % 3 ? rng() % 64 : rng() % 20000;
                void* p = a->alloc(n, static_cast<unsigned>(rng() % 4));
                if (!p) {
                    bad = true;
                    break;
                }
                LiveBlock b{static_cast<unsigned char*>(p), n, static_cast<unsigned char>(rng()), 0};
                fillPattern(b);
                if (rng() % 2) {
                    std::lock_guard<std::mutex> g(exchange[static_cast<size_t>((id + 1) % kThreads)].m);
                    exchange[static_cast<size_t>((id + 1) % kThreads)].blocks.push_back(b);
                } else {
                    mine.push_back(b);
                }
            } else if (r < 80) {
                size_t k = rng() % mine.size();
                if (!checkPattern(mine[k])) bad = true;
                a->free(mine[k].p);
                mine[k] = mine.back();
                mine.pop_back();
            } else {
                std::vector<LiveBlock> got;
                {
                    std::lock_guard<std::mutex> g(exchange[static_cast<size_t>(id)].m);
                    got.swap(exchange[static_cast<size_t>(id)].blocks);
                }
                for (auto& b : got) {
                    if (!checkPattern(b)) bad = true;
                    a->free(b.p);  // a block another thread allocated
                }
            }
        }
        for (auto& b : mine) {
            if (!checkPattern(b)) bad = true;
            a->free(b.p);
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
    for (auto& t : threads) t.join();
    for (auto& s : exchange)
        for (auto& b : s.blocks) {
            EXPECT_TRUE(checkPattern(b));
            a->free(b.p);
        }
    EXPECT_FALSE(bad.load());
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

TEST(ProcessAllocator, ThreadsAllocateAndFreeAcrossEachOther) { crossThreadStress(6); }

TEST(ProcessAllocator, EightThreadsAllocateAndFreeAcrossEachOther) { crossThreadStress(8); }

TEST(ProcessAllocator, ForkedChildAllocatesWhileParentThreadsAreBusy) {
    Allocator* a = Allocator::theAllocator();
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (int t = 0; t < 2; ++t)
        busy.emplace_back([&] {
            while (!stop) a->free(a->alloc(40));
        });
    int failures = 0;
    for (int round = 0; round < 20; ++round) {
        pid_t pid = fork();
        if (pid == 0) {
            void* p = a->alloc(100);
            void* q = a->alloc(10);
            bool ok = p && q && static_cast<MemoryAllocator*>(a)->verify() == nullptr;
            a->free(p);
            a->free(q);
            zotest::exitChild(ok ? 0 : 1);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failures;
    }
    stop = true;
    for (auto& t : busy) t.join();
    EXPECT_EQ(0, failures);
}

TEST(ProcessAllocator, WorksInStaticConstructorsDestructorsAndExitHandlers) {
    SKIP_UNDER_SANITIZER();
    std::FILE* f = popen(ALLOCATOR_PROBE, "r");
    ASSERT_NE(nullptr, f);
    std::string out;
    char line[256];
    while (std::fgets(line, sizeof line, f)) out += line;
    int status = pclose(f);
    EXPECT_EQ(0, status);
    EXPECT_EQ("static constructor ok\nmain ok\nexit handler ok\nstatic destructor ok\n", out);
}

// ---------------------------------------------------------------------------
// The process allocator under threads: an arena per allocating thread
// ---------------------------------------------------------------------------

// Runs f on a new thread and waits for it.
template <class F>
void onOtherThread(F f) {
    std::thread t(f);
    t.join();
}

bool inArenaZeroWalk(MemoryAllocator const* a, void* p) {
    for (void* q = a->firstBlock(); q; q = a->nextBlock(q))
        if (q == p) return true;
    return false;
}

TEST(ProcessAllocator, ASecondAllocatingThreadGetsAnArenaOfItsOwn) {
    Allocator* a = Allocator::theAllocator();
    auto* arena0 = static_cast<MemoryAllocator*>(a);
    // Colour 7 is this test's own: thread start-up allocates in colour 0 meanwhile.
    unsigned long before7 = a->allocatedColorMemory(7);
    void* mine = a->alloc(1000, 7);
    void* theirs = nullptr;
    onOtherThread([&] { theirs = a->alloc(1000, 7); });
    ASSERT_NE(nullptr, mine);
    ASSERT_NE(nullptr, theirs);
    // The main thread allocates from arena 0, the walk of theAllocator(); the other
    // thread's block lives in another arena, and is still a block of the process.
    EXPECT_TRUE(inArenaZeroWalk(arena0, mine));
    EXPECT_FALSE(inArenaZeroWalk(arena0, theirs));
    EXPECT_EQ(1000u, a->size(theirs));
    EXPECT_EQ(7u, a->color(theirs));
    EXPECT_TRUE(a->valid(theirs));
    EXPECT_EQ(before7 + 2 * 1008, a->allocatedColorMemory(7));
    a->free(theirs);  // released by a thread that did not allocate it
    a->free(mine);
    EXPECT_EQ(before7, a->allocatedColorMemory(7));
    EXPECT_EQ(nullptr, arena0->verify());
}

TEST(ProcessAllocator, ABlockFreedByAnotherThreadIsReusedByItsArena) {
    Allocator* a = Allocator::theAllocator();
    std::atomic<int> step{0};
    void* first = nullptr;
    void* second = nullptr;
    std::thread producer([&] {
        first = a->alloc(3000);
        step = 1;
        while (step.load() != 2) std::this_thread::yield();
        second = a->alloc(3000);
        a->free(second);
    });
    while (step.load() != 1) std::this_thread::yield();
    a->free(first);  // the consumer's release goes back to the producer's arena
    step = 2;
    producer.join();
    EXPECT_EQ(first, second);
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

TEST(ProcessAllocator, AnEndedThreadsArenaServesTheNextThread) {
    Allocator* a = Allocator::theAllocator();
    void* first = nullptr;
    void* second = nullptr;
    onOtherThread([&] {
        first = a->alloc(5000);
        a->free(first);
    });
    onOtherThread([&] {
        second = a->alloc(5000);
        a->free(second);
    });
    EXPECT_EQ(first, second);
}

TEST(ProcessAllocator, ProducerConsumerMemoryStaysBounded) {
    Allocator* a = Allocator::theAllocator();
    const int kRounds = static_cast<int>(zotest::scaled(400));
    std::mutex m;
    std::vector<void*> handed;
    std::atomic<bool> done{false};
    unsigned long long committedAfterWarmUp = 0;
    std::thread producer([&] {
        std::mt19937 rng(3);
        for (int round = 0; round < kRounds; ++round) {
            std::vector<void*> batch;
            for (int i = 0; i < 200; ++i) batch.push_back(a->alloc(16 + rng() % 2000));
            // At most ten rounds wait for the consumer, so live memory is bounded.
            for (;;) {
                {
                    std::lock_guard<std::mutex> g(m);
                    if (handed.size() < 2000) {
                        handed.insert(handed.end(), batch.begin(), batch.end());
                        break;
                    }
                }
                std::this_thread::yield();
            }
        }
        done = true;
    });
    int consumed = 0;
    for (;;) {
        std::vector<void*> got;
        {
            std::lock_guard<std::mutex> g(m);
            got.swap(handed);
        }
        for (void* p : got) a->free(p);
        consumed += static_cast<int>(got.size());
        if (!committedAfterWarmUp && consumed >= 200 * 20) committedAfterWarmUp = ZoIF_TestMemCommitted();
        if (got.empty()) {
            if (done.load()) break;
            std::this_thread::yield();
        }
    }
    producer.join();
    for (void* p : handed) a->free(p);
    // The consumer's releases return to the producer's arena, which reuses them:
    // 400 rounds of about 200 KiB each, at most about 2 MiB live at once, need no
    // more than a few regions.
    EXPECT_LE(ZoIF_TestMemCommitted(), committedAfterWarmUp + (16ul << 20));
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

TEST(ProcessAllocator, CountersAreExactWhileThreadsHoldBlocks) {
    // Each thread allocates in a colour of its own, so that the colour counts are
    // exactly its blocks (thread start-up and carriers are counted in colour 0).
    Allocator* a = Allocator::theAllocator();
    const int kThreads = 4;
    unsigned long colouredBefore[kThreads];
    for (int t = 0; t < kThreads; ++t) colouredBefore[t] = a->allocatedColorMemory(static_cast<unsigned>(20 + t));
    std::atomic<int> ready{0};
    std::atomic<bool> release{false};
    unsigned long heldBytes[kThreads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::vector<void*> held;
            for (int i = 1; i <= 100; ++i) {
                void* p = a->alloc(static_cast<unsigned long>(i * 40), 20u + static_cast<unsigned>(t));
                held.push_back(p);
                heldBytes[t] += a->size(p) + 8;  // the whole block is counted
            }
            ++ready;
            while (!release.load()) std::this_thread::yield();
            for (void* p : held) a->free(p);
        });
    while (ready.load() != kThreads) std::this_thread::yield();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_GE(heldBytes[t], 100ul * 101 / 2 * 40);
        EXPECT_EQ(colouredBefore[t] + heldBytes[t], a->allocatedColorMemory(static_cast<unsigned>(20 + t))) << t;
    }
    release = true;
    for (auto& t : threads) t.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(colouredBefore[t], a->allocatedColorMemory(static_cast<unsigned>(20 + t))) << t;
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

// ---------------------------------------------------------------------------
// The global operators
// ---------------------------------------------------------------------------

TEST(GlobalOperators, NewOfZeroReturnsDistinctNonNullBlocks) {
    void* p = ::operator new(0);
    void* q = ::operator new(0);
    EXPECT_NE(nullptr, p);
    EXPECT_NE(nullptr, q);
    EXPECT_NE(p, q);
    ::operator delete(p);
    ::operator delete(q);
}

TEST(GlobalOperators, NewAboveTheLimitReturnsNullAndRaisesNothing) {
    SKIP_UNDER_SANITIZER();
    Utils::clearError();
    void* p = ::operator new(0x4000000ul);
    void* q = ::operator new[](0x3FFFFFFul);
    void* r = ::operator new(0x3FFFFE9ul, std::nothrow);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(nullptr, q);
    EXPECT_EQ(nullptr, r);
    EXPECT_EQ(0u, Utils::lastError());
}

// size + alignment would wrap around: refused before the allocator is asked.
TEST(GlobalOperators, AlignedNewWhoseSizeWrapsReturnsNull) {
    SKIP_UNDER_SANITIZER();
    Utils::clearError();
    Allocator* a = Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    // Through a volatile, so that the compiler does not object to the constant.
    std::size_t volatile nearTop = ~std::size_t(0) - 31;
    std::size_t volatile nearTop2 = ~std::size_t(0) - 100;
    void* p = ::operator new(nearTop, std::align_val_t(64), std::nothrow);
    void* q = ::operator new[](nearTop2, std::align_val_t(128), std::nothrow);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(nullptr, q);
    EXPECT_EQ(before, a->allocatedMemory());
    EXPECT_EQ(0u, Utils::lastError());
}

TEST(GlobalOperators, DeleteOfNullDoesNothing) {
    Allocator* a = Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    ::operator delete(nullptr);
    ::operator delete[](nullptr);
    ::operator delete(nullptr, std::align_val_t(64));
    ::operator delete(nullptr, std::nothrow);
    EXPECT_EQ(before, a->allocatedMemory());
}

TEST(GlobalOperators, EveryFormRoutesToTheProcessAllocator) {
    SKIP_UNDER_SANITIZER();
    Allocator* a = Allocator::theAllocator();
    struct Form {
        char const* name;
        void* (*make)();
        void (*drop)(void*);
        std::size_t alignment;
    };
    static const Form forms[] = {
        {"new/delete", [] { return ::operator new(200); }, [](void* p) { ::operator delete(p); }, 16},
        {"new[]/delete[]", [] { return ::operator new[](200); }, [](void* p) { ::operator delete[](p); }, 16},
        {"nothrow new", [] { return ::operator new(200, std::nothrow); },
         [](void* p) { ::operator delete(p, std::nothrow); }, 16},
        {"nothrow new[]", [] { return ::operator new[](200, std::nothrow); },
         [](void* p) { ::operator delete[](p, std::nothrow); }, 16},
        {"sized delete", [] { return ::operator new(200); }, [](void* p) { ::operator delete(p, 200); }, 16},
        {"sized delete[]", [] { return ::operator new[](200); }, [](void* p) { ::operator delete[](p, 200); }, 16},
        {"aligned 64", [] { return ::operator new(200, std::align_val_t(64)); },
         [](void* p) { ::operator delete(p, std::align_val_t(64)); }, 64},
        {"aligned[] 128", [] { return ::operator new[](200, std::align_val_t(128)); },
         [](void* p) { ::operator delete[](p, std::align_val_t(128)); }, 128},
        {"aligned nothrow 256", [] { return ::operator new(200, std::align_val_t(256), std::nothrow); },
         [](void* p) { ::operator delete(p, std::align_val_t(256), std::nothrow); }, 256},
        {"aligned[] nothrow 32", [] { return ::operator new[](200, std::align_val_t(32), std::nothrow); },
         [](void* p) { ::operator delete[](p, std::align_val_t(32), std::nothrow); }, 32},
        {"sized aligned 4096", [] { return ::operator new(200, std::align_val_t(4096)); },
         [](void* p) { ::operator delete(p, 200, std::align_val_t(4096)); }, 4096},
        {"sized aligned[] 64", [] { return ::operator new[](200, std::align_val_t(64)); },
         [](void* p) { ::operator delete[](p, 200, std::align_val_t(64)); }, 64},
        {"aligned 8", [] { return ::operator new(200, std::align_val_t(8)); },
         [](void* p) { ::operator delete(p, std::align_val_t(8)); }, 16},
    };
    for (Form const& f : forms) {
        unsigned long before = a->allocatedMemory();
        void* p = f.make();
        ASSERT_NE(nullptr, p) << f.name;
        EXPECT_EQ(0u, addr(p) % f.alignment) << f.name;
        std::memset(p, 0x5A, 200);
        unsigned long during = a->allocatedMemory();
        EXPECT_GT(during, before) << f.name;
        if (f.alignment <= 16) {
            EXPECT_GE(a->size(p), 200u) << f.name;
            EXPECT_TRUE(a->valid(p)) << f.name;
        }
        f.drop(p);
        EXPECT_EQ(before, a->allocatedMemory()) << f.name;
    }
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

TEST(GlobalOperators, OverAlignedObjectsUseTheAlignedForms) {
    SKIP_UNDER_SANITIZER();
    struct alignas(64) Line {
        char bytes[64];
    };
    Allocator* a = Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    Line* one = new Line;
    Line* many = new Line[5];
    EXPECT_EQ(0u, addr(one) % 64);
    EXPECT_EQ(0u, addr(many) % 64);
    EXPECT_GT(a->allocatedMemory(), before);
    delete one;
    delete[] many;
    EXPECT_EQ(before, a->allocatedMemory());
}

TEST(GlobalOperators, ThrowingNewReturnsNullOnExhaustion) {
    SKIP_UNDER_SANITIZER();
    Utils::clearError();
    // This thread allocates from the first arena: its own free bytes (the process
    // total also counts other threads' arenas) must not hold the largest block.
    auto* arena0 = static_cast<MemoryAllocator*>(Allocator::theAllocator());
    ASSERT_LT(arena0->MemoryAllocator::internalFree(), 0x3FFFFF0u);
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    void* p = ::operator new(0x3FFFFE8ul);
    void* q = ::operator new[](0x3FFFFE0ul);
    void* r = ::operator new(0x3FFFF00ul, std::align_val_t(64));
    unsigned int raised = Utils::lastError();
    ZoIF_TestSetMemLimit(0);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(nullptr, q);
    EXPECT_EQ(nullptr, r);
    EXPECT_EQ(0x80000002u, raised);
    Utils::clearError();
}

TEST(GlobalOperators, StandardContainersRunOnTheArena) {
    SKIP_UNDER_SANITIZER();
    Allocator* a = Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    {
        std::map<std::string, std::vector<int>> m;
        for (int i = 0; i < 1000; ++i) m["key number " + std::to_string(i)].assign(static_cast<size_t>(i % 50), i);
        EXPECT_GT(a->allocatedMemory(), before + 1000 * 32);
    }
    EXPECT_EQ(before, a->allocatedMemory());
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(a)->verify());
}

TEST(GlobalOperators, ProcessStressThroughNewAndDeleteEndsVerified) {
    SKIP_UNDER_SANITIZER();
    const int kThreads = 4;
    const unsigned long kPer = zotest::scaled(50000);
    std::atomic<bool> bad{false};
    std::vector<std::thread> threads;
    std::mutex m;
    std::vector<std::vector<char>*> shared;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t) + 100);
            for (unsigned long i = 0; i < kPer; ++i) {
                auto* v = new std::vector<char>(rng() % 300, static_cast<char>(t));
                std::vector<char>* other = nullptr;
                {
                    std::lock_guard<std::mutex> g(m);
                    shared.push_back(v);
                    if (shared.size() > 500) {
                        size_t k = rng() % shared.size();
                        other = shared[k];
                        shared[k] = shared.back();
                        shared.pop_back();
                    }
                }
                if (other) {
                    if (!other->empty() && std::count(other->begin(), other->end(), (*other)[0]) !=
                                               static_cast<long>(other->size()))
                        bad = true;
                    delete other;
                }
            }
        });
    for (auto& t : threads) t.join();
    for (auto* v : shared) delete v;
    EXPECT_FALSE(bad.load());
    EXPECT_EQ(nullptr, static_cast<MemoryAllocator*>(Allocator::theAllocator())->verify());
}

}  // namespace

// Two free neighbours too large to merge may touch; a block cut from one of them
// must not leave its free tail touching the other when the two would now fit one
// block (found by the arena fuzz target).
TEST(ArenaRegression, SplittingAFreeBlockNextToAnUnmergeableNeighbourMergesTheTail) {
    // Page-granular regions, and requests whose blocks (request + 8, plus 16 for the
    // region's edges) fill whole regions: the blocks lie back to back, no tails.
    Arena a(4096);
    void* first = a.alloc((35ul << 20) - 24);
    void* second = a.alloc((40ul << 20) - 24);
    void* fence = a.alloc(1024);
    ASSERT_TRUE(first && second && fence);
    ASSERT_EQ(addr(first) + blockSizeOf(first), addr(second));
    ASSERT_EQ(addr(second) + blockSizeOf(second), addr(fence));
    a.arena.free(first);
    a.arena.free(second);
    ASSERT_STREQ(a.verify(), nullptr);  // about 75 MiB in two free blocks: too large for one
    void* cut = a.alloc(30ul << 20);  // best fit: the first block, leaving a tail of about 6 MiB
    ASSERT_NE(cut, nullptr);
    EXPECT_STREQ(a.verify(), nullptr);
    unsigned long before = a.arena.allocatedMemory();
    a.arena.free(cut);
    EXPECT_STREQ(a.verify(), nullptr);
    EXPECT_LT(a.arena.allocatedMemory(), before);
    a.arena.free(fence);
    EXPECT_STREQ(a.verify(), nullptr);
}

TEST(GlobalOperators, AlignedNewWhoseSizePlusAlignmentWrapsReturnsNullAndRaisesNothing) {
    SKIP_UNDER_SANITIZER();
    Allocator* a = Allocator::theAllocator();
    Utils::clearError();  // makes this task's error entry before the count is taken
    unsigned long before = a->allocatedMemory();
    volatile std::size_t huge = ~std::size_t(0) - 8;  // + 64 wraps around
    void* p = ::operator new(huge, std::align_val_t(64), std::nothrow);
    void* q = ::operator new[](huge, std::align_val_t(128), std::nothrow);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(nullptr, q);
    EXPECT_EQ(0u, Utils::lastError());
    EXPECT_EQ(before, a->allocatedMemory());
}
