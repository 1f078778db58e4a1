// The allocators' verifiers find what they are there to find: each test damages
// one invariant of a live arena or page allocator by hand, checks that the
// verifier names that fault, repairs it and checks that the verifier is quiet
// again. (Every other test relies on these verifiers saying "sound" only when the
// structure is.)
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "memory/pagealloc_internal.h"
#include "region_source.h"
#include "utils/allocator.h"

using namespace Utils;

namespace {

// --- the arena -------------------------------------------------------------

unsigned int& headerWord(void* p) { return *reinterpret_cast<unsigned int*>(static_cast<char*>(p) - 4); }
unsigned int& tailWord(void* p) {
    unsigned int size = headerWord(p) & 0x03FFFFFCu;
    return *reinterpret_cast<unsigned int*>(static_cast<char*>(p) - 4 + size - 4);
}

// Under AddressSanitizer the arena poisons its block headers, so the damage
// cannot be done by hand there.
#if defined(__SANITIZE_ADDRESS__)
#define SKIP_UNDER_POISON() GTEST_SKIP() << "the arena's headers are poisoned under AddressSanitizer"
#else
#define SKIP_UNDER_POISON() (void)0
#endif

struct Arena {
    zotest::RegionSource source{1ul << 20, 1ul << 28};
    MemoryAllocator arena{&source};
    void* busy[4] = {};
    void* small = nullptr;
    Arena() {
        arena.init();
        for (void*& p : busy) p = arena.alloc(200, 3);
        small = arena.alloc(20, 2);
        arena.free(busy[1]);  // one free ordinary block between busy ones
    }
};

// Damages with `damage`, expects `fault`, repairs with `repair`.
void expectFault(Arena& a, char const* fault, std::function<void()> const& damage, std::function<void()> const& repair) {
    ASSERT_EQ(a.arena.verify(), nullptr);
    damage();
    char const* found = a.arena.verify();
    repair();
    ASSERT_NE(found, nullptr) << "the damage for \"" << fault << "\" went unnoticed";
    EXPECT_STREQ(found, fault);
    EXPECT_EQ(a.arena.verify(), nullptr);
}

TEST(ArenaVerify, NamesADamagedTail) {
    SKIP_UNDER_POISON();
    Arena a;
    unsigned int saved = tailWord(a.busy[0]);
    expectFault(a, "tail size does not match", [&] { tailWord(a.busy[0]) = saved + 16; },
                [&] { tailWord(a.busy[0]) = saved; });
}

TEST(ArenaVerify, NamesABlockSizeOutOfRange) {
    SKIP_UNDER_POISON();
    Arena a;
    unsigned int saved = headerWord(a.busy[0]);
    expectFault(a, "ordinary block size out of range", [&] { headerWord(a.busy[0]) = (saved & ~0x03FFFFFCu) | 64u; },
                [&] { headerWord(a.busy[0]) = saved; });
}

TEST(ArenaVerify, NamesAFreeBlockWithColourBits) {
    SKIP_UNDER_POISON();
    Arena a;
    unsigned int saved = headerWord(a.busy[1]);
    expectFault(a, "free block with colour bits", [&] { headerWord(a.busy[1]) = saved | (5u << 26); },
                [&] { headerWord(a.busy[1]) = saved; });
}

TEST(ArenaVerify, NamesAFreeSmallBlockWithAColour) {
    SKIP_UNDER_POISON();
    Arena a;
    a.arena.free(a.small);  // on the 32-byte list now, its size word without colour
    unsigned int saved = headerWord(a.small);
    expectFault(a, "free small block with colour bits", [&] { headerWord(a.small) = saved | (7u << 26); },
                [&] { headerWord(a.small) = saved; });
}

TEST(ArenaVerify, NamesAWordAtTheEndThatIsNotZero) {
    SKIP_UNDER_POISON();
    Arena a;
    // The word at arenaEnd is the one nextBlock's walk stops on; the walk yields
    // the address just past the arena (plus 4) once, after the last block.
    void* past = nullptr;
    for (void* p = a.arena.firstBlock(); p; p = a.arena.nextBlock(p)) past = p;
    ASSERT_NE(past, nullptr);
    unsigned int& end = headerWord(past);
    unsigned int saved = end;
    expectFault(a, "the word at arenaEnd is not 0", [&] { end = 0x1234; }, [&] { end = saved; });
}

// The block of the arena's walk that holds address p (a carrier for a small block).
void* blockHolding(MemoryAllocator const& arena, void* p) {
    char* target = static_cast<char*>(p);
    for (void* b = arena.firstBlock(); b; b = arena.nextBlock(b)) {
        unsigned int size = headerWord(b) & 0x03FFFFFCu;
        char* start = static_cast<char*>(b);
        if (target >= start && target < start + size) return b;
    }
    return nullptr;
}

TEST(ArenaVerify, NamesAFreeBlockColourWordOutOfRange) {
    SKIP_UNDER_POISON();
    Arena a;
    // A free ordinary block keeps the colour that freed it in the word at H + 28.
    unsigned int& colour = *reinterpret_cast<unsigned int*>(static_cast<char*>(a.busy[1]) + 24);
    ASSERT_EQ(colour, 3u);
    expectFault(a, "free block colour word", [&] { colour = 64; }, [&] { colour = 3; });
}

TEST(ArenaVerify, NamesTwoFreeOrdinaryBlocksThatTouch) {
    SKIP_UNDER_POISON();
    Arena a;
    ASSERT_EQ(static_cast<char*>(a.busy[2]), static_cast<char*>(a.busy[1]) + 208);
    unsigned int saved = headerWord(a.busy[2]);
    // busy[2] marked free (and colourless) right after the free busy[1].
    expectFault(a, "two free ordinary blocks touch", [&] { headerWord(a.busy[2]) = saved & 0x03FFFFFCu; },
                [&] { headerWord(a.busy[2]) = saved; });
}

TEST(ArenaVerify, NamesABlockThatRunsPastTheEnd) {
    SKIP_UNDER_POISON();
    Arena a;
    void* last = nullptr;
    void* past = nullptr;
    for (void* p = a.arena.firstBlock(); p; p = a.arena.nextBlock(p)) {
        last = past;
        past = p;
    }
    ASSERT_NE(last, nullptr);
    unsigned int saved = headerWord(last);
    expectFault(a, "block runs past arenaEnd", [&] { headerWord(last) = saved + 16; },
                [&] { headerWord(last) = saved; });
}

TEST(ArenaVerify, NamesCarrierFaults) {
    SKIP_UNDER_POISON();
    Arena a;
    void* carrier = blockHolding(a.arena, a.small);
    ASSERT_NE(carrier, nullptr);
    ASSERT_NE(carrier, a.small);
    unsigned int saved = headerWord(carrier);
    ASSERT_EQ(saved & 1u, 1u) << "a carrier is a busy block";
    expectFault(a, "carrier with a colour", [&] { headerWord(carrier) = saved | (1u << 26); },
                [&] { headerWord(carrier) = saved; });
    // The carrier's small size sits at H + 12, beside a flag in the top bit.
    unsigned int& info = *reinterpret_cast<unsigned int*>(static_cast<char*>(carrier) + 8);
    unsigned int savedInfo = info;
    ASSERT_EQ(savedInfo & 0x7FFFFFFFu, 32u);
    expectFault(a, "carrier small size", [&] { info = (savedInfo & 0x80000000u) | 48u; },
                [&] { info = savedInfo; });
}

TEST(ArenaVerify, NamesSmallBlockFaults) {
    SKIP_UNDER_POISON();
    Arena a;
    unsigned int saved = headerWord(a.small);
    ASSERT_EQ(saved & 0x03FFFFFCu, 32u);
    expectFault(a, "small block size word", [&] { headerWord(a.small) = (saved & ~0x03FFFFFCu) | 64u; },
                [&] { headerWord(a.small) = saved; });
    a.arena.free(a.small);
    ASSERT_EQ(a.arena.verify(), nullptr);
    // A free 32-byte block keeps its colour in its last word.
    unsigned int& colour = *reinterpret_cast<unsigned int*>(static_cast<char*>(a.small) + 24);
    ASSERT_EQ(colour, 2u);
    expectFault(a, "free small block colour word", [&] { colour = 200; }, [&] { colour = 2; });
}

TEST(ArenaVerify, NamesBridgeFaults) {
    SKIP_UNDER_POISON();
    Arena a;
    a.source.leaveGap(1ul << 16);
    void* far = a.arena.alloc(1100000, 1);  // more than the first region holds
    ASSERT_NE(far, nullptr);
    void* bridge = nullptr;
    for (void* b = a.arena.firstBlock(); b; b = a.arena.nextBlock(b))
        if ((headerWord(b) & 3u) == 3u) bridge = b;
    ASSERT_NE(bridge, nullptr);
    unsigned int saved = headerWord(bridge);
    unsigned long step = saved - 3;
    ASSERT_EQ(step, (1ul << 16) + 16);
    expectFault(a, "bridge without its busy bit", [&] { headerWord(bridge) = saved & ~1u; },
                [&] { headerWord(bridge) = saved; });
    expectFault(a, "bridge size out of range", [&] { headerWord(bridge) = 8u | 3u; },
                [&] { headerWord(bridge) = saved; });
    unsigned int& tail = *reinterpret_cast<unsigned int*>(static_cast<char*>(bridge) - 4 + step - 4);
    unsigned int savedTail = tail;
    ASSERT_EQ(savedTail, static_cast<unsigned int>(step | 1u));
    expectFault(a, "bridge tail size does not match", [&] { tail = savedTail + 16; }, [&] { tail = savedTail; });
    a.arena.free(far);
    EXPECT_EQ(a.arena.verify(), nullptr);
}

TEST(ArenaVerify, AnEmptyArenaIsSoundAndHasNoBlocks) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    EXPECT_EQ(arena.verify(), nullptr);
    EXPECT_EQ(arena.firstBlock(), nullptr);
    EXPECT_EQ(arena.nextBlock(nullptr), nullptr);
    EXPECT_EQ(MemoryAllocator::busy(nullptr), 0u);
    EXPECT_EQ(arena.checkArena(), 0u);
    EXPECT_EQ(arena.carrierCandidate(32), nullptr);
    EXPECT_EQ(source.requests, 0u) << "init obtains no memory";
}

// --- the page allocator --------------------------------------------------------

using Inspector = BSDAllocatorInspector;

struct Pages {
    zotest::RegionSource source{1ul << 16, 1ul << 28};
    BSDAllocator bsd{&source};
    void* chunk = nullptr;  // a 64-byte chunk: its page keeps its record inside
    void* big = nullptr;    // a 2048-byte chunk: its record lies elsewhere
    void* run = nullptr;    // three pages
    Pages() {
        bsd.init();
        chunk = bsd.alloc(64, 4);
        big = bsd.alloc(2048, 5);
        run = bsd.alloc(3 * 4096, 6);
        void* gone = bsd.alloc(5 * 4096, 6);
        bsd.free(gone);  // a free run
    }
    BSDAllocator::pginfo* info(void* p) { return reinterpret_cast<BSDAllocator::pginfo*>(Inspector::entryOf(bsd, p)); }
};

void expectFault(Pages& a, char const* fault, std::function<void()> const& damage, std::function<void()> const& repair) {
    ASSERT_EQ(Inspector::verify(a.bsd), "");
    damage();
    std::string found = Inspector::verify(a.bsd);
    repair();
    EXPECT_EQ(found.substr(0, std::strlen(fault)), fault) << "found: \"" << found << "\"";
    EXPECT_EQ(Inspector::verify(a.bsd), "");
}

TEST(PageVerify, NamesChunkRecordFaults) {
    Pages a;
    BSDAllocator::pginfo* i = a.info(a.chunk);
    ASSERT_NE(i, nullptr);
    auto field = [&](char const* fault, auto& member, auto wrong) {
        auto saved = member;
        expectFault(a, fault, [&] { member = static_cast<std::remove_reference_t<decltype(member)>>(wrong); },
                    [&] { member = saved; });
    };
    field("bad shift", i->shift, 3);
    field("size and shift disagree", i->size, 48);
    field("chunk total", i->total, i->total - 1);
    field("free count differs from bitmap", i->free, i->free + 1);
    field("pginfo of another page", i->page, i->page + 4096);
    field("listed page", i->color, 9);
    std::uint32_t saved = i->bits()[0];
    // The first chunks of the page hold the record itself and are never free.
    expectFault(a, "bit set outside the chunks", [&] { i->bits()[0] |= 1u; }, [&] { i->bits()[0] = saved; });
    BSDAllocator::pginfo* outside = a.info(a.big);
    ASSERT_NE(outside, nullptr);
    expectFault(a, "pginfo placement",
                [&] {
                    outside->shift = 4;
                    outside->size = 16;
                },
                [&] {
                    outside->shift = 11;
                    outside->size = 2048;
                });
}

TEST(PageVerify, NamesDirectoryFaults) {
    Pages a;
    unsigned long* dir = Inspector::directory(a.bsd);
    unsigned long last = Inspector::lastIndex(a.bsd);
    ASSERT_LT(last + 1, Inspector::directorySize(a.bsd));
    expectFault(a, "entry beyond lastIndex", [&] { dir[last + 1] = bsd::kFreePage; }, [&] { dir[last + 1] = 0; });
    unsigned long dirIndex = bsd::pageNumber(dir) - Inspector::originPage(a.bsd);
    expectFault(a, "directory's first page not a colour-0 run", [&] { dir[dirIndex] = bsd::kRunFirst + 1; },
                [&] { dir[dirIndex] = bsd::kRunFirst; });
    unsigned long runFirst = Inspector::entryOf(a.bsd, a.run);
    expectFault(a, "following page without a run", [&] { Inspector::setEntryOf(a.bsd, a.run, bsd::kFreePage); },
                [&] { Inspector::setEntryOf(a.bsd, a.run, runFirst); });
    std::vector<Inspector::Run> runs = Inspector::freeRuns(a.bsd);
    ASSERT_FALSE(runs.empty());
    char* freePage = runs.front().start;
    expectFault(a, "page of a run not marked free", [&] { Inspector::setEntryOf(a.bsd, freePage, bsd::kRunFirst); },
                [&] { Inspector::setEntryOf(a.bsd, freePage, bsd::kFreePage); });
}

TEST(PageVerify, NamesCounterFaults) {
    Pages a;
    expectFault(a, "allocatedByColor", [&] { a.bsd.adjustColorMemory(6, 4096); },
                [&] { a.bsd.adjustColorMemory(6, -4096); });
    // Colour 256 is the word after the table: allocatedMemory() itself.
    expectFault(a, "allocatedTotal", [&] { a.bsd.adjustColorMemory(256, 4096); },
                [&] { a.bsd.adjustColorMemory(256, -4096); });
}

}  // namespace
