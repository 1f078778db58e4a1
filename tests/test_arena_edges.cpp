// The arena's less travelled paths: its verifier names each damaged part of the
// free index (bins, bin map, address heaps, free tree, spare, unfiled list, small
// lists, carriers, counters), the internal steps a subclass may call, block walks
// and validity checks over bridges and odd headers, and the census a memory report
// reads.
//
// Each damage test starts from one known layout, damages one field (or writes a
// fake node into a block the test owns), expects the verifier's exact text, repairs
// the damage and expects the verifier to be quiet again.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "address_cap.h"
#include "child.h"
#include "region_source.h"
#include "utils/allocator.h"
#include "utils/string.h"

using namespace Utils;

namespace {

// The arena with its bookkeeping in reach, as a subclass sees it.
struct Probe : MemoryAllocator {
    explicit Probe(Allocator* parent) : MemoryAllocator(parent) {}
    using HeadPtr = MemHead*;
    using HeapPtr = detail::FreeHeapNode*;
    using MemoryAllocator::allocatedByColor;
    using MemoryAllocator::allocatedTotal;
    using MemoryAllocator::arenaEnd;
    using MemoryAllocator::arenaStart;
    using MemoryAllocator::binMap;
    using MemoryAllocator::bins;
    using MemoryAllocator::binSummary;
    using MemoryAllocator::carriers;
    using MemoryAllocator::freeByColor;
    using MemoryAllocator::freeTotal;
    using MemoryAllocator::freeTree;
    using MemoryAllocator::largeByAddress;
    using MemoryAllocator::smallLists;
    using MemoryAllocator::spare;
    using MemoryAllocator::unfiled;
    using MemoryAllocator::_free;
    using MemoryAllocator::allocSmall;

    static HeadPtr head(void* user) { return reinterpret_cast<HeadPtr>(static_cast<char*>(user) - 4); }
    static HeapPtr heap(void const* p) { return reinterpret_cast<HeapPtr>(const_cast<void*>(p)); }
    static char* at(void const* p) { return static_cast<char*>(const_cast<void*>(p)); }
};

// An address heap's node as the arena lays it out: first child, next sibling,
// previous sibling (or parent).
struct Node {
    Node* child;
    Node* next;
    Node* prev;
};

Node* const kUnfiledMark = reinterpret_cast<Node*>(1);

unsigned int& headerWord(void* p) { return *reinterpret_cast<unsigned int*>(static_cast<char*>(p) - 4); }

// Under AddressSanitizer the arena poisons its bookkeeping inside blocks, so a
// test that writes there by hand cannot run; damage to the arena object itself
// and to blocks the test owns can.
#if defined(__SANITIZE_ADDRESS__)
#define SKIP_UNDER_POISON() GTEST_SKIP() << "the arena's bookkeeping inside blocks is poisoned under AddressSanitizer"
#else
#define SKIP_UNDER_POISON() (void)0
#endif

// One layout, built from the public interface only (64 KiB regions):
//   a[0..9]  200-byte requests (208-byte blocks, colour 3), a[1] taken again as x
//   L1       a free 20016-byte block (large: free tree and its address heap)
//   g, big   busy blocks after it; s a busy 32-byte block in a carrier
//   spare    the 12960-byte rest of the region (below 16 KiB: an exact size)
//   bins[13] a[3] (root) and a[5] (its child), filed by the search for x
//   unfiled  a[7] alone, released after that search
struct Layout {
    zotest::RegionSource source{1ul << 16, 1ul << 28};
    Probe arena{&source};
    void* a[10] = {};
    void* l1 = nullptr;
    void* g = nullptr;
    void* big = nullptr;
    void* s = nullptr;
    void* x = nullptr;

    Layout() {
        arena.init();
        for (void*& p : a) p = arena.alloc(200, 3);
        l1 = arena.alloc(20000, 4);
        g = arena.alloc(200, 3);
        big = arena.alloc(20000, 3);
        s = arena.alloc(20, 2);
        arena.free(a[1]);
        arena.free(a[3]);
        arena.free(a[5]);
        arena.free(l1);
        x = arena.alloc(200, 3);
        arena.free(a[7]);
    }
    Node* node(void* user) const { return static_cast<Node*>(user); }                       // exact heap, unfiled
    Node* largeNode(void* user) const { return reinterpret_cast<Node*>(Probe::at(user) + 32); }  // large heap
    char* spareAt() const { return reinterpret_cast<char*>(arena.spare); }
};

// Checks that the layout is the one described above.
void expectLayout(Layout& l) {
    Probe& p = l.arena;
    ASSERT_EQ(p.verify(), nullptr);
    for (int i = 1; i < 10; ++i) ASSERT_EQ(Probe::at(l.a[i]), Probe::at(l.a[i - 1]) + 208);
    ASSERT_EQ(l.x, l.a[1]);
    ASSERT_EQ(Probe::at(l.l1), Probe::at(l.a[9]) + 208);
    ASSERT_EQ(Probe::at(l.g), Probe::at(l.l1) + 20016);
    ASSERT_NE(p.spare, nullptr);
#if !defined(__SANITIZE_ADDRESS__)  // a free block's header is poisoned there
    ASSERT_EQ(headerWord(l.spareAt() + 4) & 0x03FFFFFCu, 12960u);
#endif
    ASSERT_EQ(p.unfiled, Probe::heap(l.a[7]));
    ASSERT_EQ(p.bins[13], Probe::heap(l.a[3]));
    ASSERT_EQ(p.binSummary, 1ul);
    ASSERT_EQ(p.binMap[0], 1ul << 13);
    ASSERT_EQ(p.largeByAddress, Probe::heap(l.largeNode(l.l1)));
    ASSERT_NE(p.freeTree.root, nullptr);
    ASSERT_NE(p.carriers, nullptr);
    ASSERT_NE(p.smallLists[5], nullptr);
    ASSERT_EQ(p.smallLists[6], nullptr);
}

void expectFault(Layout& l, char const* fault, std::function<void()> const& damage, std::function<void()> const& repair) {
    ASSERT_EQ(l.arena.verify(), nullptr);
    damage();
    char const* found = l.arena.verify();
    repair();
    ASSERT_NE(found, nullptr) << "the damage for \"" << fault << "\" went unnoticed";
    EXPECT_STREQ(found, fault);
    EXPECT_EQ(l.arena.verify(), nullptr);
}

// Sets a pointer-sized field to `value` for the damage and back for the repair.
template <class T>
void expectFieldFault(Layout& l, char const* fault, T& field, T value) {
    T saved = field;
    expectFault(l, fault, [&] { field = value; }, [&] { field = saved; });
}

// --- the bins and their bitmaps ----------------------------------------------

TEST(ArenaIndexVerify, TheLayoutIsSound) {
    Layout l;
    expectLayout(l);
}

TEST(ArenaIndexVerify, NamesABinMapBitWithoutABin) {
    Layout l;
    expectLayout(l);
    expectFieldFault(l, "bin map disagrees with its bins", l.arena.binMap[0], l.arena.binMap[0] | (1ul << 20));
}

TEST(ArenaIndexVerify, NamesABinBelowEightyBytes) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    expectFault(l, "a bin below 80 bytes is used",
                [&] {
                    p.bins[3] = p.bins[13];
                    p.binMap[0] |= 1ul << 3;
                },
                [&] {
                    p.bins[3] = nullptr;
                    p.binMap[0] &= ~(1ul << 3);
                });
}

TEST(ArenaIndexVerify, NamesASummaryThatDisagreesWithTheBinMap) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    // A summary bit for a bin-map word that is empty, one past the bin map's
    // 16 words, and a missing bit for the word that holds bin 13.
    expectFieldFault(l, "bin summary disagrees with the bin map", p.binSummary, p.binSummary | (1ul << 3));
    expectFieldFault(l, "bin summary disagrees with the bin map", p.binSummary, p.binSummary | (1ul << 20));
    expectFieldFault(l, "bin summary disagrees with the bin map", p.binSummary, 0ul);
}

// --- the address heaps ---------------------------------------------------------

TEST(ArenaIndexVerify, NamesAHeapRootWithAParent) {
    Layout l;
    expectLayout(l);
    // a[5] is a[3]'s child: its prev is a[3].
    expectFieldFault(l, "heap root with a parent or a sibling", l.arena.bins[13], Probe::heap(l.a[5]));
}

TEST(ArenaIndexVerify, NamesAHeapRootWithASibling) {
    Layout l;
    expectLayout(l);
    // a[0] released too: the unfiled list is a[0], a[7], and its head has a next.
    l.arena.free(l.a[0]);
    ASSERT_EQ(l.arena.unfiled, Probe::heap(l.a[0]));
    expectFieldFault(l, "heap root with a parent or a sibling", l.arena.bins[13], Probe::heap(l.a[0]));
}

TEST(ArenaIndexVerify, NamesAHeapThatMissesAFreeBlock) {
    Layout l;
    expectLayout(l);
    expectFieldFault(l, "address heaps miss free blocks", l.arena.largeByAddress, Probe::HeapPtr{});
}

TEST(ArenaIndexVerify, NamesAnUnfiledBlockInAHeap) {
    Layout l;
    expectLayout(l);
    // a[7] is the only unfiled block (no neighbours in the list), of bin 13's size.
    expectFieldFault(l, "an unfiled block in an address heap", l.arena.bins[13], Probe::heap(l.a[7]));
}

TEST(ArenaIndexVerify, NamesABlockInTheBinOfAnotherSize) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    expectFault(l, "free block in the heap of another size",
                [&] {
                    p.bins[14] = p.bins[13];
                    p.bins[13] = nullptr;
                    p.binMap[0] = 1ul << 14;
                },
                [&] {
                    p.bins[13] = p.bins[14];
                    p.bins[14] = nullptr;
                    p.binMap[0] = 1ul << 13;
                });
}

TEST(ArenaIndexVerify, NamesAnExactSizeBlockInTheLargeHeap) {
    Layout l;
    expectLayout(l);
    // The large heap's root made a[7]'s node: the large-heap node of a block 32
    // bytes below a[7], inside a[6], which the test owns and dresses up as the
    // header of a free 208-byte block.
    unsigned int& fake = *reinterpret_cast<unsigned int*>(Probe::at(l.a[7]) - 36);
    fake = 208;
    expectFieldFault(l, "free block in the heap of another size", l.arena.largeByAddress, Probe::heap(l.a[7]));
}

TEST(ArenaIndexVerify, NamesTheSpareInAHeap) {
    Layout l;
    expectLayout(l);
    // a[3], bin 13's root, declared the spare: the real spare is then counted as an
    // exact free block and the walk is content.
    Probe::HeadPtr was = l.arena.spare;
    expectFieldFault(l, "the spare is in an address heap", l.arena.spare, Probe::head(l.a[3]));
    EXPECT_EQ(l.arena.spare, was);
}

TEST(ArenaIndexVerify, NamesHeapNodesOutsideTheArenaOrMisaligned) {
    Layout l;
    expectLayout(l);
    static Node outside{};  // in the program's data, far from the arena
    Node onStack{};
    expectFieldFault(l, "heap node outside the arena", l.arena.bins[13], Probe::heap(&outside));
    expectFieldFault(l, "heap node outside the arena", l.arena.bins[13], Probe::heap(&onStack));
    // Inside a busy block, 8 bytes off: its block header would be 4 mod 16.
    Node* misaligned = reinterpret_cast<Node*>(Probe::at(l.a[0]) + 8);
    *misaligned = Node{};
    expectFieldFault(l, "heap node outside the arena", l.arena.bins[13], Probe::heap(misaligned));
}

TEST(ArenaIndexVerify, NamesAHeapNodeOfABusyBlock) {
    Layout l;
    expectLayout(l);
    *l.node(l.a[0]) = Node{};
    expectFieldFault(l, "heap node of a block that is not free", l.arena.bins[13], Probe::heap(l.a[0]));
}

// The large heap's root (L1) given children that live in busy blocks.
TEST(ArenaIndexVerify, NamesHeapChildrenThatDoNotBelong) {
    SKIP_UNDER_POISON();
    Layout l;
    expectLayout(l);
    Node* root = l.largeNode(l.l1);
    ASSERT_EQ(root->child, nullptr);
    auto withChild = [&](char const* fault, Node* child) {
        expectFault(l, fault, [&] { root->child = child; }, [&] { root->child = nullptr; });
    };
    // Above the root and linked back: one node more than there are free blocks.
    Node* above = l.node(l.g);
    *above = Node{nullptr, nullptr, root};
    withChild("address heaps hold more nodes than there are free blocks", above);
    // Five children: the pending stack outgrows the free blocks.
    Node* five = l.node(l.g);
    for (int k = 0; k < 5; ++k) five[k] = Node{nullptr, k < 4 ? &five[k + 1] : nullptr, k ? &five[k - 1] : root};
    withChild("address heaps hold more nodes than there are free blocks", five);
    // A first child whose prev is not its parent, a sibling whose prev is not its
    // left neighbour.
    five[0].prev = &five[0];
    withChild("heap node not linked back", five);
    five[0].prev = root;
    five[2].prev = root;
    withChild("heap node not linked back", five);
    // Linked back, but below its parent.
    Node* below = l.node(l.a[0]);
    *below = Node{nullptr, nullptr, root};
    withChild("heap child below its parent", below);
}

// --- the free tree ------------------------------------------------------------

TEST(ArenaIndexVerify, NamesALargeBlockMissingFromTheFreeTree) {
    Layout l;
    expectLayout(l);
    expectFieldFault(l, "large free block missing from the free tree", l.arena.freeTree.root,
                     static_cast<WTreeNodeBase*>(nullptr));
}

TEST(ArenaIndexVerify, PassesOnTheFreeTreesOwnFault) {
    Layout l;
    expectLayout(l);
    // A one-node tree whose weight says three nodes.
    static WTreeNodeBase wrong{};
    wrong.weight = 4;
    expectFieldFault(l, "a weight differs from its node count + 1", l.arena.freeTree.root, &wrong);
}

TEST(ArenaIndexVerify, NamesATreeThatHoldsMoreThanTheLargeFreeBlocks) {
    Layout l;
    expectLayout(l);
    // L1 declared the spare: it is no longer counted as a large free block.
    expectFieldFault(l, "free tree holds blocks that are not large free blocks", l.arena.spare, Probe::head(l.l1));
}

// --- the walk: arena bounds, spare, unfiled list --------------------------------

TEST(ArenaIndexVerify, NamesAWalkThatDoesNotEndAtArenaEnd) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    expectFieldFault(l, "blocks do not end at arenaEnd", p.arenaStart,
                     reinterpret_cast<Probe::HeadPtr>(reinterpret_cast<char*>(p.arenaEnd) + 16));
}

TEST(ArenaIndexVerify, NamesASpareThatIsNotAFreeBlock) {
    Layout l;
    expectLayout(l);
    expectFieldFault(l, "the spare is not a free ordinary block of the arena", l.arena.spare, Probe::head(l.a[0]));
}

TEST(ArenaIndexVerify, NamesUnfiledListFaults) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    // a[7] declared the spare: the list holds a block the walk does not count as unfiled.
    expectFieldFault(l, "unfiled list longer than its free blocks", p.spare, Probe::head(l.a[7]));
    expectFieldFault(l, "unfiled list misses free blocks", p.unfiled, Probe::HeapPtr{});
    // A filed block (a[3], whose child is a[5]) as the list.
    expectFieldFault(l, "unfiled list links", p.unfiled, Probe::heap(l.a[3]));
    // A listed node whose prev is set although it heads the list.
    Node* headed = l.node(l.a[0]);
    *headed = Node{kUnfiledMark, nullptr, reinterpret_cast<Node*>(Probe::at(l.a[2]))};
    expectFieldFault(l, "unfiled list links", p.unfiled, Probe::heap(headed));
}

TEST(ArenaIndexVerify, NamesUnfiledNodesThatAreNotFreeBlocks) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    static Node outside{kUnfiledMark, nullptr, nullptr};
    Node onStack{kUnfiledMark, nullptr, nullptr};
    expectFieldFault(l, "unfiled list holds a block that is not free", p.unfiled, Probe::heap(&outside));
    expectFieldFault(l, "unfiled list holds a block that is not free", p.unfiled, Probe::heap(&onStack));
    Node* busy = l.node(l.a[0]);
    *busy = Node{kUnfiledMark, nullptr, nullptr};
    expectFieldFault(l, "unfiled list holds a block that is not free", p.unfiled, Probe::heap(busy));
}

// --- carriers and small lists ---------------------------------------------------

TEST(ArenaIndexVerify, NamesCarrierChainFaults) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    // a[0] posing as a carrier whose link (its first 8 bytes) leads back to itself.
    char* h = Probe::at(l.a[0]) - 4;
    std::memcpy(l.a[0], &h, sizeof h);
    expectFieldFault(l, "carrier chain does not end", p.carriers, reinterpret_cast<Probe::HeadPtr>(h));
    // A carrier in the middle of a[0], linked to the real chain: the walk never
    // meets it.
    char* inside = Probe::at(l.a[0]) + 12;  // 12 mod 16, like every block header
    char* real = reinterpret_cast<char*>(p.carriers);
    std::memcpy(inside + 4, &real, sizeof real);
    expectFieldFault(l, "a carrier is not a block of the arena", p.carriers, reinterpret_cast<Probe::HeadPtr>(inside));
}

TEST(ArenaIndexVerify, NamesSmallListFaults) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    expectFieldFault(l, "a small list other than 32 and 64 bytes is used", p.smallLists[3], p.smallLists[5]);
    expectFieldFault(l, "small list holds a block that is not free or of another size", p.smallLists[6],
                     p.smallLists[5]);
    expectFieldFault(l, "small list misses free small blocks", p.smallLists[5], Probe::HeadPtr{});
    // A free-looking 32-byte block inside a[0] put before the real list.
    char* fake = Probe::at(l.a[0]) + 12;  // 12 mod 16, like every small header
    unsigned int size = 32;
    std::memcpy(fake, &size, sizeof size);
    char* next = reinterpret_cast<char*>(p.smallLists[5]);
    std::memcpy(fake + 4, &next, sizeof next);
    expectFieldFault(l, "small list longer than its free blocks", p.smallLists[5],
                     reinterpret_cast<Probe::HeadPtr>(fake));
}

// --- the counters ---------------------------------------------------------------

TEST(ArenaIndexVerify, NamesCounterFaults) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    expectFieldFault(l, "free count of a colour", p.freeByColor[3], p.freeByColor[3] + 16);
    expectFieldFault(l, "allocated count of a colour", p.allocatedByColor[3], p.allocatedByColor[3] + 16);
    expectFieldFault(l, "freeTotal is not the sum of the free colours", p.freeTotal, p.freeTotal + 16);
    expectFieldFault(l, "allocatedTotal differs from the busy blocks", p.allocatedTotal, p.allocatedTotal + 16);
}

// --- an empty arena -------------------------------------------------------------

TEST(ArenaIndexVerify, NamesAnEmptyArenaWithAnEndOrAnIndex) {
    zotest::RegionSource source;
    Probe p(&source);
    p.init();
    ASSERT_EQ(p.verify(), nullptr);
    static Node node{};
    static WTreeNodeBase tree{};
    char* somewhere = reinterpret_cast<char*>(&node);
    auto expectEmptyFault = [&](char const* fault, std::function<void()> const& damage,
                                std::function<void()> const& repair) {
        damage();
        char const* found = p.verify();
        repair();
        EXPECT_STREQ(found, fault);
        EXPECT_EQ(p.verify(), nullptr);
    };
    expectEmptyFault("arenaEnd set on an empty arena", [&] { p.arenaEnd = reinterpret_cast<Probe::HeadPtr>(somewhere); },
                     [&] { p.arenaEnd = nullptr; });
    char const* index = "free index of an empty arena";
    expectEmptyFault(index, [&] { p.freeTree.root = &tree; }, [&] { p.freeTree.root = nullptr; });
    expectEmptyFault(index, [&] { p.largeByAddress = Probe::heap(&node); }, [&] { p.largeByAddress = nullptr; });
    expectEmptyFault(index, [&] { p.binSummary = 1; }, [&] { p.binSummary = 0; });
    expectEmptyFault(index, [&] { p.spare = reinterpret_cast<Probe::HeadPtr>(somewhere); }, [&] { p.spare = nullptr; });
    expectEmptyFault(index, [&] { p.unfiled = Probe::heap(&node); }, [&] { p.unfiled = nullptr; });
}

// --- block headers: sizes and bridges --------------------------------------------

TEST(ArenaIndexVerify, NamesAnOrdinarySizeThatIsNotAMultipleOf16) {
    SKIP_UNDER_POISON();
    Layout l;
    expectLayout(l);
    unsigned int saved = headerWord(l.a[0]);
    expectFault(l, "ordinary block size out of range", [&] { headerWord(l.a[0]) = saved + 8; },
                [&] { headerWord(l.a[0]) = saved; });
}

// An arena of two regions joined by a bridge.
struct Bridged {
    zotest::RegionSource source{1ul << 20, 1ul << 28};
    Probe arena{&source};
    void* first = nullptr;
    void* far = nullptr;
    void* bridge = nullptr;
    Bridged() {
        arena.init();
        first = arena.alloc(200, 1);
        source.leaveGap(1ul << 16);
        far = arena.alloc(1100000, 1);  // more than the first region holds
        // The first region's last 4 bytes hold the bridge's header.
        bridge = source.base() + (1ul << 20);
    }
};

TEST(ArenaIndexVerify, NamesBridgeStepsOutOfRange) {
    SKIP_UNDER_POISON();
    Bridged b;
    ASSERT_NE(b.far, nullptr);
    ASSERT_NE(b.bridge, nullptr);
    ASSERT_EQ(b.arena.verify(), nullptr);
    unsigned int& word = headerWord(b.bridge);
    unsigned int saved = word;
    ASSERT_EQ(saved, static_cast<unsigned int>((1ul << 16) + 16) | 3u);
    auto expectStep = [&](unsigned int damaged) {
        word = damaged;
        char const* found = b.arena.verify();
        word = saved;
        EXPECT_STREQ(found, "bridge size out of range") << std::hex << damaged;
        EXPECT_EQ(b.arena.verify(), nullptr);
    };
    expectStep(24u | 3u);           // a step that is not a multiple of 16
    expectStep(0x7FFFFFF0u | 3u);   // a step past the arena's end
    expectStep(3u);                 // a far bridge the table does not know: step 0
}

TEST(ArenaWalk, ValidIsFalseForABridgeAndTheWalkStepsOverIt) {
    Bridged b;
    ASSERT_NE(b.far, nullptr);
    ASSERT_NE(b.bridge, nullptr);
    EXPECT_FALSE(b.arena.valid(b.bridge));
    // A bridge is busy for good, and size() checks only the busy bit: its size word
    // (the gap with bits 0 and 1 set) less 9.
    EXPECT_EQ(b.arena.size(b.bridge), (1ul << 16) + 16 - 6);
    EXPECT_EQ(b.arena.color(b.bridge), 0u);
    void* after = b.arena.nextBlock(b.bridge);
    EXPECT_EQ(Probe::at(after), Probe::at(b.bridge) + (1ul << 16) + 16);
    EXPECT_EQ(after, b.far);
    EXPECT_TRUE(b.arena.valid(b.far));
    EXPECT_TRUE(b.arena.valid(b.first));
}

// A pointer into a block the caller owns, preceded by a word that reads as a busy
// header too large for the arena: neither valid nor a step of the walk.
TEST(ArenaWalk, AHeaderRunningPastTheEndIsNotValidAndEndsTheWalk) {
    Layout l;
    expectLayout(l);
    char* inside = Probe::at(l.a[0]) + 16;
    unsigned int fake = 0x03FFFFF0u | 1u;
    std::memcpy(inside - 4, &fake, sizeof fake);
    EXPECT_FALSE(l.arena.valid(inside));
    EXPECT_EQ(l.arena.nextBlock(inside), nullptr);
    EXPECT_EQ(l.arena.verify(), nullptr);
}

// --- internal steps a subclass may call ------------------------------------------

TEST(ArenaSteps, FreeReturnsTheBlockSizeAndLeavesTheTotalToTheCaller) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    unsigned long total = p.allocatedMemory();
    unsigned long colour2 = p.allocatedColorMemory(2), colour3 = p.allocatedColorMemory(3);
    unsigned long freeBytes = p.internalFree();
    EXPECT_EQ(p._free(l.s), 32u);
    EXPECT_EQ(p.allocatedColorMemory(2), colour2 - 32);
    EXPECT_EQ(p._free(l.a[0]), 208u);
    EXPECT_EQ(p.allocatedColorMemory(3), colour3 - 208);
    EXPECT_EQ(p.internalFree(), freeBytes + 32 + 208);
    EXPECT_EQ(p.allocatedMemory(), total) << "_free leaves allocatedTotal to its caller";
    EXPECT_STREQ(p.verify(), "allocatedTotal differs from the busy blocks");
    p.allocatedTotal -= 32 + 208;
    EXPECT_EQ(p.verify(), nullptr);
}

TEST(ArenaSteps, AllocSmallTakesTheHeadOfAListThatHasBlocks) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    char* headOfList = reinterpret_cast<char*>(p.smallLists[5]);
    unsigned long freeBytes = p.internalFree();
    unsigned long carriers = reinterpret_cast<std::uintptr_t>(p.carriers);
    Probe::HeadPtr m = p.allocSmall(5);
    EXPECT_EQ(reinterpret_cast<char*>(m), headOfList);
    EXPECT_EQ(p.internalFree(), freeBytes - 32);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p.carriers), carriers) << "no new carrier";
    EXPECT_EQ(MemoryAllocator::busy(headOfList + 4), 1u);
    // The caller counts the block, as alloc does.
    p.allocatedTotal += 32;
    p.allocatedByColor[0] += 32;
    EXPECT_EQ(p.verify(), nullptr);
    p.free(headOfList + 4);
    EXPECT_EQ(p.verify(), nullptr);
    EXPECT_EQ(p.internalFree(), freeBytes);
}

// Releasing the block before a filed large free block merges the two; the merged
// block serves a request of exactly its size.
TEST(ArenaSteps, ReleaseMergesWithAFiledLargeBlock) {
    Layout l;
    expectLayout(l);
    Probe& p = l.arena;
    unsigned long total = p.allocatedMemory(), freeBytes = p.internalFree();
    p.free(l.a[9]);
    EXPECT_EQ(p.verify(), nullptr);
    EXPECT_EQ(p.largeByAddress, nullptr) << "L1 left the large heap when a[9] absorbed it";
    EXPECT_EQ(p.allocatedMemory(), total - 208);
    EXPECT_EQ(p.internalFree(), freeBytes + 208);
    void* merged = p.alloc(208 + 20016 - 8, 6);
    EXPECT_EQ(merged, l.a[9]);
    EXPECT_EQ(p.size(merged), 208u + 20016u - 8u);
    EXPECT_EQ(p.verify(), nullptr);
}

// --- the census behind the memory report -------------------------------------------

std::string reportOf(Allocator* a) {
    String out;
    writeMemoryReport(a, out, "edges");
    return std::string(out.view());
}

TEST(ArenaCensus, AnEmptyArenaReportsNoRegionsAndNoFragmentation) {
    zotest::RegionSource source;
    MemoryAllocator arena(&source);
    arena.init();
    std::string report = reportOf(&arena);
    EXPECT_NE(report.find("  regions        0 (0 bytes from the parent)\n"), std::string::npos) << report;
    EXPECT_NE(report.find("  blocks         0 busy, 0 free\n"), std::string::npos) << report;
    EXPECT_NE(report.find("  fragmentation  0.0 %"), std::string::npos) << report;
}

TEST(ArenaCensus, ABridgeCountsTheRegionsItJoins) {
    Bridged b;
    ASSERT_NE(b.far, nullptr);
    std::string report = reportOf(&b.arena);
    // Two regions, each counted with its 16 bytes of framing plus its blocks; the
    // bridge itself is not a block.
    EXPECT_NE(report.find("  regions        2 ("), std::string::npos) << report;
    EXPECT_NE(report.find("  blocks         2 busy, 2 free\n"), std::string::npos) << report;
}

TEST(ArenaCensus, CarriersCountTheirSmallBlocksAndLargeFreeBlocksHaveAClass) {
    // A first request that is small: its carrier comes from _alloc, counted as
    // allocated, and the region's rest (over 1 MiB) stays free.
    zotest::RegionSource source{4ul << 20, 1ul << 28};
    MemoryAllocator arena(&source);
    arena.init();
    void* s = arena.alloc(10, 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(arena.allocatedMemory(), 10256u + 32u) << "the carrier's block and the small block are counted";
    std::string report = reportOf(&arena);
    // 10240 bytes of the carrier hold 319 32-byte blocks after the 12 skipped.
    EXPECT_NE(report.find("  blocks         1 busy, 319 free\n"), std::string::npos) << report;
    EXPECT_NE(report.find("> 1 MiB"), std::string::npos) << report;
    // A second carrier, cut from a free block, for 64-byte blocks.
    void* m = arena.alloc(40, 0);
    ASSERT_NE(m, nullptr);
    report = reportOf(&arena);
    EXPECT_NE(report.find("  blocks         2 busy, 477 free\n"), std::string::npos) << report;
    EXPECT_EQ(arena.verify(), nullptr);
}

// With a free count damaged below the largest free block, the report does not
// make up a fragmentation figure.
TEST(ArenaCensus, ADamagedFreeCountGivesNoFragmentation) {
    Layout l;
    expectLayout(l);
    std::string sound = reportOf(&l.arena);
    EXPECT_EQ(sound.find("  fragmentation  0.0 %"), std::string::npos) << sound;
    unsigned long saved = l.arena.freeTotal;
    l.arena.freeTotal = 16;
    std::string damaged = reportOf(&l.arena);
    l.arena.freeTotal = saved;
    EXPECT_NE(damaged.find("  free           16 bytes\n"), std::string::npos) << damaged;
    EXPECT_NE(damaged.find("  largest free   20016 bytes\n"), std::string::npos) << damaged;
    EXPECT_NE(damaged.find("  fragmentation  0.0 %"), std::string::npos) << damaged;
    EXPECT_EQ(l.arena.verify(), nullptr);
}

// A census stops at a block of size 0 (verify says where the damage is) and
// counts no small blocks in a carrier whose small size is 0.
TEST(ArenaCensus, StopsAtAZeroSizeAndSkipsACarrierWithoutASmallSize) {
    SKIP_UNDER_POISON();
    zotest::RegionSource source{1ul << 20, 1ul << 28};
    MemoryAllocator arena(&source);
    arena.init();
    void* p = arena.alloc(200, 1);
    void* q = arena.alloc(200, 1);
    ASSERT_EQ(Probe::at(q), Probe::at(p) + 208);
    unsigned int saved = headerWord(q);
    headerWord(q) = 0;
    std::string report = reportOf(&arena);
    char const* found = arena.verify();
    headerWord(q) = saved;
    EXPECT_NE(report.find("  regions        1 (224 bytes from the parent)\n"), std::string::npos) << report;
    EXPECT_NE(report.find("  blocks         1 busy, 0 free\n"), std::string::npos) << report;
    EXPECT_STREQ(found, "ordinary block size out of range");
    EXPECT_EQ(arena.verify(), nullptr);

    void* s = arena.alloc(20, 1);  // a carrier cut from the free rest
    ASSERT_NE(s, nullptr);
    char* carrier = nullptr;
    for (void* b = arena.firstBlock(); b; b = arena.nextBlock(b))
        if (Probe::at(s) > Probe::at(b) && Probe::at(s) < Probe::at(b) + 10240) carrier = Probe::at(b);
    ASSERT_NE(carrier, nullptr);
    unsigned int& info = *reinterpret_cast<unsigned int*>(carrier + 8);
    unsigned int savedInfo = info;
    ASSERT_EQ(savedInfo, 32u);
    info = 0;
    report = reportOf(&arena);
    found = arena.verify();
    info = savedInfo;
    // p, q and the region's rest; the carrier itself is never counted as a block.
    EXPECT_NE(report.find("  blocks         2 busy, 1 free\n"), std::string::npos) << report;
    EXPECT_STREQ(found, "carrier small size");
    EXPECT_EQ(arena.verify(), nullptr);
}

// --- scratch memory for the verifier ---------------------------------------------------

// Run in a child whose address space is capped at what it already uses: the
// verifier needs pages of its own and, finding none, says so instead of failing.
// Caps the child's address space `slack` bytes above its current size, runs
// verify and exits 0 when it named `fault`.
int verifyUnderCap(Layout& l, unsigned long slack, char const* fault) {
    pid_t pid = fork();
    if (pid == 0) {
        struct rlimit was;
        getrlimit(RLIMIT_AS, &was);
        unsigned long now = zotest::mappedBytes();
        struct rlimit cap = {now + slack, was.rlim_max};
        if (now == 0 || setrlimit(RLIMIT_AS, &cap) != 0) zotest::exitChild(2);
        char const* found = l.arena.verify();
        setrlimit(RLIMIT_AS, &was);  // room again, for writing out what the child counted
        zotest::exitChild(found && std::strcmp(found, fault) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

TEST(ArenaIndexVerify, SaysWhenItCannotMapScratchMemory) {
    SKIP_UNDER_SANITIZER_RESERVATIONS();
    Layout l;
    expectLayout(l);
    EXPECT_EQ(verifyUnderCap(l, 0, "verify could not map scratch memory"), 0);
    // Room for the carriers' page only: the address heaps' pages fail.
    EXPECT_EQ(verifyUnderCap(l, 4096, "verify could not map scratch memory"), 0);
    // Room for the carriers' page and the heaps' seen list: their stack fails.
    EXPECT_EQ(verifyUnderCap(l, 8192, "verify could not map scratch memory"), 0);
    EXPECT_EQ(l.arena.verify(), nullptr);
}

}  // namespace
