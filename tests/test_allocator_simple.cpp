// SimpleAllocator: header, alignment, guard word, counters and the oddities kept
// on purpose.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "knobs.h"
#include "utils/allocator.h"

using Utils::Allocator;
using Utils::SimpleAllocator;

namespace {

// The malloc block start stored in the 8 bytes before a block.
char* mallocStart(void* p) {
    char* m;
    std::memcpy(&m, static_cast<char*>(p) - sizeof m, sizeof m);
    return m;
}

std::uint32_t headerWord(void* p) {
    std::uint32_t h;
    std::memcpy(&h, mallocStart(p), sizeof h);
    return h;
}

std::uint32_t guardWord(void* p, unsigned long usable) {
    std::uint32_t g;
    std::memcpy(&g, static_cast<char*>(p) + (usable & ~3ul) - 4, sizeof g);
    return g;
}

}  // namespace

TEST(SimpleAllocator, AllocZeroUsesA128ByteMallocBlock) {
    SimpleAllocator a;
    void* p = a.alloc(0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u);
    char* m = mallocStart(p);
    EXPECT_GE(static_cast<char*>(p) - m, 8);
    EXPECT_LE(static_cast<char*>(p) - m, 71);
    // size reports the bytes from the block to the end of the 128-byte malloc block.
    EXPECT_EQ(static_cast<long>(a.size(p)), 128 - (static_cast<char*>(p) - m));
    a.free(p);
}

TEST(SimpleAllocator, Alloc57RoundsTo256) {
    SimpleAllocator a;
    void* p = a.alloc(57);
    ASSERT_NE(p, nullptr);
    char* m = mallocStart(p);
    EXPECT_EQ(static_cast<long>(a.size(p)) + (static_cast<char*>(p) - m), 256);
    a.free(p);
}

TEST(SimpleAllocator, RoundedSizeIsRequestPlus72UpTo128) {
    SimpleAllocator a;
    struct Case { unsigned long request, rounded; };
    for (Case c : {Case{0, 128}, Case{56, 128}, Case{57, 256}, Case{184, 256}, Case{185, 384}, Case{1000, 1152}}) {
        void* p = a.alloc(c.request);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(a.size(p) + static_cast<unsigned long>(static_cast<char*>(p) - mallocStart(p)), c.rounded)
            << c.request;
        EXPECT_GE(a.size(p), c.request);
        a.free(p);
    }
}

TEST(SimpleAllocator, BlocksAre64ByteAligned) {
    SimpleAllocator a;
    std::vector<void*> blocks;
    for (unsigned long s = 0; s < 2000; s += 37) {
        void* p = a.alloc(s);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u) << s;
        blocks.push_back(p);
    }
    for (void* p : blocks) a.free(p);
    EXPECT_EQ(a.allocatedMemory(), 0u);
}

TEST(SimpleAllocator, HeaderHoldsSizeAndColourAndGuardEndsTheBlock) {
    SimpleAllocator a;
    void* p = a.alloc(100, static_cast<char>(9));
    ASSERT_NE(p, nullptr);
    unsigned long u = a.size(p);
    EXPECT_EQ(headerWord(p), static_cast<std::uint32_t>(u | (9u << 24)));
    EXPECT_EQ(guardWord(p, u), 0xDEADDEADu);
    EXPECT_EQ(a.color(p), 9u);
    a.free(p);
}

TEST(SimpleAllocator, SizeIsWhatTheCountersTookAndFreeGivesItBack) {
    SimpleAllocator a;
    void* p = a.alloc(300, static_cast<char>(3));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.allocatedMemory(), a.size(p));
    EXPECT_EQ(a.allocatedColorMemory(3), a.size(p));
    void* q = a.alloc(1000, static_cast<char>(3));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(a.allocatedMemory(), a.size(p) + a.size(q));
    EXPECT_EQ(a.allocatedColorMemory(3), a.size(p) + a.size(q));
    a.free(p);
    EXPECT_EQ(a.allocatedMemory(), a.size(q));
    EXPECT_EQ(a.allocatedColorMemory(3), a.size(q));
    a.free(q);
    EXPECT_EQ(a.allocatedMemory(), 0u);
    EXPECT_EQ(a.allocatedColorMemory(3), 0u);
}

TEST(SimpleAllocator, DefaultColourIsStoredButDefaultColorReadsZero) {
    SimpleAllocator a;
    EXPECT_EQ(a.setDefaultColor(7, nullptr), 0u);
    void* p = a.alloc(10);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.color(p), 7u);
    EXPECT_EQ(a.allocatedColorMemory(7), a.size(p));
    EXPECT_EQ(a.defaultColor(), 0u);
    unsigned int old = 99;
    EXPECT_EQ(a.setDefaultColor(2, &old), 0u);
    EXPECT_EQ(old, 7u);
    EXPECT_EQ(a.defaultColor(), 0u);
    a.free(p);
}

TEST(SimpleAllocator, DefaultColourIsSharedByAllThreads) {
    SimpleAllocator a;
    a.setDefaultColor(11, nullptr);
    void* p = nullptr;
    std::thread t([&] { p = a.alloc(20); });
    t.join();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.color(p), 11u);
    a.free(p);
}

TEST(SimpleAllocator, DefaultColourUsesItsLowByte) {
    SimpleAllocator a;
    a.setDefaultColor(0x1FE, nullptr);
    void* p = a.alloc(20);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.color(p), 0xFEu);
    EXPECT_EQ(a.allocatedColorMemory(0xFE), a.size(p));
    a.free(p);
    EXPECT_EQ(a.allocatedColorMemory(0xFE), 0u);
}

TEST(SimpleAllocator, NegativeCharColourIsItsByteValue) {
    SimpleAllocator a;
    void* p = a.alloc(20, static_cast<char>(-1));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.color(p), 255u);
    EXPECT_EQ(a.allocatedColorMemory(255), a.size(p));
    a.free(p);
    EXPECT_EQ(a.allocatedColorMemory(255), 0u);
}

TEST(SimpleAllocator, SetColorOfNullReturnsFailure) {
    SimpleAllocator a;
    EXPECT_EQ(a.setColor(nullptr, 1), 0x80000000u);
}

TEST(SimpleAllocator, SetColorChangesTheHeaderButNotTheCounters) {
    SimpleAllocator a;
    void* p = a.alloc(40, static_cast<char>(1));
    ASSERT_NE(p, nullptr);
    unsigned long u = a.size(p);
    EXPECT_EQ(a.setColor(p, 5), 0u);
    EXPECT_EQ(a.color(p), 5u);
    EXPECT_EQ(a.size(p), u);
    EXPECT_EQ(a.allocatedColorMemory(1), u);
    EXPECT_EQ(a.allocatedColorMemory(5), 0u);
    // The release takes the bytes from the block's present colour: colour 5 wraps
    // below zero and colour 1 keeps them.
    a.free(p);
    EXPECT_EQ(a.allocatedColorMemory(1), u);
    EXPECT_EQ(a.allocatedColorMemory(5), 0x100000000ul - u);
    EXPECT_EQ(a.allocatedMemory(), 0u);
}

TEST(SimpleAllocator, SetColorKeepsOnlyTheLowByte) {
    SimpleAllocator a;
    void* p = a.alloc(40);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.setColor(p, 0x123), 0u);
    EXPECT_EQ(a.color(p), 0x23u);
    a.setColor(p, 0);
    a.free(p);
}

TEST(SimpleAllocator, ValidIsAlwaysTrue) {
    SimpleAllocator a;
    int local = 0;
    EXPECT_TRUE(a.valid(nullptr));
    EXPECT_TRUE(a.valid(&local));
}

TEST(SimpleAllocator, NullIsIgnoredByFreeSizeAndColor) {
    SimpleAllocator a;
    a.free(nullptr);
    EXPECT_EQ(a.size(nullptr), 0u);
    EXPECT_EQ(a.color(nullptr), 0u);
    EXPECT_EQ(a.allocatedMemory(), 0u);
}

TEST(SimpleAllocator, InternalFreeAndFreeColorMemoryAreNotKnown) {
    SimpleAllocator a;
    EXPECT_EQ(a.internalFree(), 0xFFFFFFFFu);
    EXPECT_EQ(a.freeColorMemory(0), 0xFFFFFFFFu);
    EXPECT_EQ(a.freeColorMemory(300), 0xFFFFFFFFu);
}

TEST(SimpleAllocator, ColoursAbove255ReadZero) {
    SimpleAllocator a;
    void* p = a.alloc(40, static_cast<char>(0));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.allocatedColorMemory(256), 0u);
    EXPECT_EQ(a.allocatedColorMemory(0xFFFFFFFFu), 0u);
    a.free(p);
}

TEST(SimpleAllocator, InterfaceColourOverloadIgnoresTheColour) {
    SimpleAllocator a;
    a.setDefaultColor(4, nullptr);
    Allocator& base = a;
    void* p = base.alloc(30, 9u);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.color(p), 4u);
    a.free(p);
}

TEST(SimpleAllocator, AdjustColorMemoryDoesNothing) {
    SimpleAllocator a;
    a.adjustColorMemory(3, 100);
    EXPECT_EQ(a.allocatedColorMemory(3), 0u);
    EXPECT_EQ(a.allocatedMemory(), 0u);
}

TEST(SimpleAllocator, RequestsWhoseSizeDoesNotFit24BitsAreRefused) {
    SimpleAllocator a;
    EXPECT_EQ(SimpleAllocator::kMaxRequest, 0xFFFFB8u);
    EXPECT_EQ(a.alloc(0xFFFFB9), nullptr);
    EXPECT_EQ(a.alloc(0xFFFFFFFFFFFFFFFFul), nullptr);
    EXPECT_EQ(a.allocatedMemory(), 0u);
    void* p = a.alloc(0xFFFFB8);
    ASSERT_NE(p, nullptr);
    EXPECT_GE(a.size(p), 0xFFFFB8u);
    EXPECT_LE(a.size(p), 0xFFFFFFu);
    EXPECT_EQ(a.allocatedMemory(), a.size(p));
    EXPECT_EQ(guardWord(p, a.size(p)), 0xDEADDEADu);
    a.free(p);
    EXPECT_EQ(a.allocatedMemory(), 0u);
}

// malloc failing: the address space is capped in a child process so that a
// 16 MiB malloc cannot be mapped.
TEST(SimpleAllocatorDeathTest, MallocFailureReturnsNullAndLeavesCountersAlone) {
    if (zotest::foreignOperatorNew()) GTEST_SKIP() << "sanitizers and valgrind need their address space";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            SimpleAllocator a;
            void* keep = a.alloc(100);
            unsigned long before = a.allocatedMemory();
            std::FILE* f = std::fopen("/proc/self/statm", "r");
            unsigned long pages = 0;
            if (!f || std::fscanf(f, "%lu", &pages) != 1) std::_Exit(3);
            std::fclose(f);
            rlimit lim{};
            lim.rlim_cur = lim.rlim_max = pages * 4096 + (1ul << 20);
            if (setrlimit(RLIMIT_AS, &lim) != 0) std::_Exit(4);
            void* p = a.alloc(0xFFFF00, static_cast<char>(2));
            bool ok = p == nullptr && a.allocatedMemory() == before && a.allocatedColorMemory(2) == 0 &&
                      a.allocatedColorMemory(0) == before;
            a.free(keep);
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(SimpleAllocator, RandomisedCountersAndContents) {
    SimpleAllocator a;
    std::mt19937 rng(1234);
    struct Live { unsigned char* p; unsigned long n; unsigned char fill; unsigned int colour; };
    std::vector<Live> live;
    unsigned long expectTotal = 0, expectColour[256] = {};
    unsigned long ops = zotest::scaled(20000);
    for (unsigned long i = 0; i < ops; ++i) {
        if (live.empty() || rng() % 2) {
            unsigned long n = rng() % 3000;
            unsigned int c = rng() % 256;
            auto* p = static_cast<unsigned char*>(a.alloc(n, static_cast<char>(c)));
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(a.color(p), c);
            unsigned char fill = static_cast<unsigned char>(rng());
            // The guard sits in the last word of the usable bytes: keep the fill before it.
            std::memset(p, fill, n);
            ASSERT_EQ(guardWord(p, a.size(p)), 0xDEADDEADu);
            expectTotal += a.size(p);
            expectColour[c] += a.size(p);
            live.push_back({p, n, fill, c});
        } else {
            std::size_t k = rng() % live.size();
            Live l = live[k];
            for (unsigned long j = 0; j < l.n; ++j) ASSERT_EQ(l.p[j], l.fill);
            expectTotal -= a.size(l.p);
            expectColour[l.colour] -= a.size(l.p);
            a.free(l.p);
            live[k] = live.back();
            live.pop_back();
        }
        ASSERT_EQ(a.allocatedMemory(), expectTotal);
    }
    for (unsigned c = 0; c < 256; ++c) ASSERT_EQ(a.allocatedColorMemory(c), expectColour[c]) << c;
    for (Live& l : live) a.free(l.p);
    EXPECT_EQ(a.allocatedMemory(), 0u);
}
