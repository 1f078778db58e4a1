// BSDAllocator: page runs, chunk pages, the directory, colours, every message it
// logs, and a long randomised run checked by the verifier.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "knobs.h"
#include "log_capture.h"
#include "memory/pagealloc_internal.h"
#include "utils/allocator.h"
#include "utils/log.h"
#include "utils/result.h"
#include "utils/string.h"

using Utils::Allocator;
using Utils::BSDAllocator;
using Inspect = Utils::BSDAllocatorInspector;
namespace bsd = Utils::bsd;

namespace {

constexpr unsigned long kPage = 4096;

// A parent over one reserved address range, so that its regions stay close
// together. It hands out regions upwards (or downwards), page aligned or on
// purpose not, exactly as large as asked or larger, and can be told to fail.
class TestParent : public Allocator {
public:
    explicit TestParent(unsigned long reserve = 1ul << 30) : reserveBytes(reserve) {
        void* m = mmap(nullptr, reserve, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        base = m == MAP_FAILED ? nullptr : static_cast<char*>(m);
        low = base;
        high = base ? base + reserve : nullptr;
    }
    ~TestParent() {
        if (base) munmap(base, reserveBytes);
    }
    // False when the address range could not be reserved; the parent then fails every request.
    bool reserved() const { return base != nullptr; }

    // The default colour stands in for a parent with colours: alloc(size) is asked
    // in it, and every request records the colour it was asked in.
    void* alloc(unsigned long size) override {
        coloursAsked.push_back(defaultColour);
        return take(size);
    }
    void* alloc(unsigned long size, unsigned int colour) override {
        coloursAsked.push_back(colour);
        return take(size);
    }
    void* take(unsigned long size) {
        ++calls;
        if (failing || size > budget || !base) return nullptr;
        unsigned long give = size + extraBytes;
        give = (give + kPage - 1) & ~(kPage - 1);
        char* p;
        if (downwards) {
            high -= give + gap;
            p = high;
        } else {
            p = low + gap;
            low = p + give;
        }
        gap = 0;
        budget -= size;
        char* user = p + misalign;
        unsigned long userSize = give - misalign;
        blocks[user] = userSize;
        lastUser = user;
        return user;
    }
    void free(void* p) override {
        ++frees;
        auto it = blocks.find(static_cast<char*>(p));
        if (it == blocks.end()) return;
        // The latest region can be taken back, so that a retry may reuse its place.
        if (it->first == lastUser) {
            if (downwards)
                high = it->first - misalign + it->second + misalign;
            else
                low = it->first - misalign;
            lastUser = nullptr;
        }
        blocks.erase(it);
    }
    unsigned long size(void* p) const override {
        auto it = blocks.find(static_cast<char*>(p));
        return it == blocks.end() ? 0 : it->second;
    }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }

    bool failing = false;
    unsigned long budget = ~0ul;   // bytes it will still hand out
    unsigned long extraBytes = 0;  // added to every region
    unsigned long misalign = 0;    // offset of the returned address from a page boundary
    unsigned long gap = 0;         // bytes skipped before the next region
    bool downwards = false;
    unsigned long calls = 0, frees = 0;
    unsigned int defaultColour = 0;
    std::vector<unsigned int> coloursAsked;

private:
    unsigned long reserveBytes;
    char* base;
    char* low;
    char* high;
    char* lastUser = nullptr;
    std::map<char*, unsigned long> blocks;
};

using Capture = zotest::LogCapture;

Capture* capture = nullptr;

struct Message {
    bool error;
    std::string text;
};

// The allocator's lines since the last call, checked for their header: class
// without a level in brackets (the levels are negative), the category
// "allocator", the source name "bsdalloc" with a line number.
std::vector<Message> takeMessages() {
    std::vector<Message> out;
    for (auto const& [c, line] : capture->sink->lines) {
        if (line.find("|allocator|") == std::string::npos) continue;  // e.g. a raised error in "utils"
        EXPECT_TRUE(c == Utils::MessageError || c == Utils::MessageWarning) << line;
        std::string head = (c == Utils::MessageError ? "error" : "warning") + std::string("|allocator|bsdalloc:");
        EXPECT_EQ(line.rfind(head, 0), 0u) << line;
        std::size_t bar = line.find('|', head.size());
        EXPECT_NE(bar, std::string::npos) << line;
        EXPECT_GT(std::atoi(line.c_str() + head.size()), 0) << line;
        out.push_back({c == Utils::MessageError, line.substr(bar + 1)});
    }
    capture->sink->lines.clear();
    return out;
}

void expectOneMessage(char const* text, bool error) {
    std::vector<Message> m = takeMessages();
    ASSERT_EQ(m.size(), 1u) << text;
    EXPECT_EQ(m[0].text, text);
    EXPECT_EQ(m[0].error, error) << text;
}

void expectNoMessage() {
    std::vector<Message> m = takeMessages();
    EXPECT_TRUE(m.empty()) << m.front().text;
}

#define VERIFY(a) ASSERT_EQ(Inspect::verify(a), "")

char* page(void* p) { return reinterpret_cast<char*>(reinterpret_cast<std::uintptr_t>(p) & ~(kPage - 1)); }

class BSDAllocatorTest : public ::testing::Test {
protected:
    void SetUp() override { capture = new Capture; }
    void TearDown() override {
        expectNoMessage();
        delete capture;
        capture = nullptr;
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Set-up
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, InitTakesOnePageOfDirectoryAndOnePageOfRunRecords) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    VERIFY(a);
    // The directory page, then the page that the spare run record came from.
    EXPECT_EQ(a.allocatedMemory(), 2 * kPage);
    EXPECT_EQ(a.allocatedColorMemory(0), 2 * kPage);
    EXPECT_EQ(a.internalFree(), 0u);
    EXPECT_EQ(Inspect::directorySize(a), kPage / sizeof(unsigned long));
    EXPECT_TRUE(Inspect::hasSpareRun(a));
    // The record page's free chunk bytes: the page less the one record taken.
    EXPECT_EQ(a.freeColorMemory(0), kPage - (1ul << bsd::kRunShift));
    unsigned long* dir = Inspect::directory(a);
    EXPECT_EQ(Inspect::entryOf(a, dir), 2u);
    EXPECT_EQ(Inspect::originPage(a), reinterpret_cast<std::uintptr_t>(dir) / kPage);
}

TEST_F(BSDAllocatorTest, InitAsksForTheDirectoryInTheParentsDefaultColour) {
    TestParent parent;
    parent.defaultColour = 5;
    BSDAllocator a(&parent);
    a.init();
    // The directory through alloc(4096), then the record page through alloc(4096, 0).
    EXPECT_EQ(parent.coloursAsked, (std::vector<unsigned int>{5, 0}));
    void* p = a.alloc(3 * kPage, 7);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(parent.coloursAsked, (std::vector<unsigned int>{5, 0, 0}));
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, AnUnalignedDirectoryIsAskedAgainInTheDefaultColour) {
    TestParent parent;
    parent.defaultColour = 9;
    parent.misalign = 16;
    BSDAllocator a(&parent);
    a.init();
    std::vector<Message> m = takeMessages();
    ASSERT_GE(m.size(), 1u);
    EXPECT_EQ(m[0].text, "init - Allocation is not page aligned");  // later regions are unaligned too
    // The directory: asked, given back unaligned, asked one page larger, both in the
    // default colour; then the record page's region, twice in colour 0.
    EXPECT_EQ(parent.coloursAsked, (std::vector<unsigned int>{9, 9, 0, 0}));
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, SurplusOfTheFirstRegionBecomesFreeRuns) {
    TestParent parent;
    parent.extraBytes = 15 * kPage;
    BSDAllocator a(&parent);
    a.init();
    VERIFY(a);
    // 16 pages: the directory, one page turned into run records, 14 free.
    EXPECT_EQ(a.allocatedMemory(), 2 * kPage);
    EXPECT_EQ(a.internalFree(), 14 * kPage);
    ASSERT_EQ(Inspect::freeRuns(a).size(), 1u);
}

TEST_F(BSDAllocatorTest, DefaultColourIsZeroBeforeInit) {
    TestParent parent;
    BSDAllocator a(&parent);
    EXPECT_EQ(a.defaultColor(), 0u);
}

TEST_F(BSDAllocatorTest, UsedWithoutInitSetsItselfUp) {
    TestParent parent;
    BSDAllocator a(&parent);
    void* p = a.alloc(100, 0);
    ASSERT_NE(p, nullptr);
    VERIFY(a);
    a.free(p);
    VERIFY(a);
}

// ---------------------------------------------------------------------------
// Chunks and pages
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, Request2048TakesAChunkAnd2049TakesAPage) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    void* chunk = a.alloc(2048, 0);
    void* run = a.alloc(2049, 0);
    ASSERT_NE(chunk, nullptr);
    ASSERT_NE(run, nullptr);
    EXPECT_EQ(a.size(chunk), 2048u);
    EXPECT_GT(Inspect::entryOf(a, chunk), bsd::kRunFollow);
    EXPECT_EQ(a.size(run), 4096u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(run) % kPage, 0u);
    EXPECT_EQ(Inspect::entryOf(a, run), 2u);
    VERIFY(a);
    a.free(chunk);
    a.free(run);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ChunkSizesArePowersOfTwoFrom16) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    struct Case { unsigned long request, chunk; };
    for (Case c : {Case{0, 16}, Case{1, 16}, Case{16, 16}, Case{17, 32}, Case{33, 64}, Case{100, 128},
                   Case{200, 256}, Case{300, 512}, Case{1000, 1024}, Case{1025, 2048}}) {
        void* p = a.alloc(c.request, 0);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(a.size(p), c.chunk) << c.request;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % c.chunk, 0u) << c.request;
        a.free(p);
        VERIFY(a);
    }
}

TEST_F(BSDAllocatorTest, PageRunSizeCountsWholePages) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    void* p = a.alloc(3 * kPage + 1, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(a.size(p), 4 * kPage);
    // From a following page: the pages up to the end of the run.
    EXPECT_EQ(a.size(static_cast<char*>(p) + 2 * kPage), 2 * kPage);
    EXPECT_EQ(Inspect::entryOf(a, static_cast<char*>(p) + kPage), 258u);
    a.free(p);
    VERIFY(a);
}

// The record and bitmap sizes are those of this build; the chunk counts follow
// from them and are computed here, not assumed.
TEST_F(BSDAllocatorTest, ChunkPagesHoldTheChunksTheirRecordLeaves) {
    for (unsigned shift = bsd::kMinShift; shift <= bsd::kMaxShift; ++shift) {
        unsigned long chunk = 1ul << shift;
        unsigned long n = kPage >> shift;
        unsigned long record = Inspect::pginfoBytes(shift);
        bool inPage = !(chunk > 2 * record);
        EXPECT_EQ(Inspect::pginfoInPage(shift), inPage) << shift;
        unsigned long expected = inPage ? n - (record + chunk - 1) / chunk : n;
        EXPECT_EQ(Inspect::chunksPerPage(shift), expected) << shift;

        TestParent parent;
        BSDAllocator a(&parent);
        a.init();
        std::vector<char*> got;
        for (unsigned long k = 0; k < expected; ++k) got.push_back(static_cast<char*>(a.alloc(chunk, 3)));
        for (char* p : got) EXPECT_EQ(page(p), page(got[0])) << shift;
        if (inPage)
            EXPECT_EQ(Inspect::entryOf(a, got[0]), reinterpret_cast<std::uintptr_t>(page(got[0])));
        else
            EXPECT_NE(Inspect::entryOf(a, got[0]), reinterpret_cast<std::uintptr_t>(page(got[0])));
        char* next = static_cast<char*>(a.alloc(chunk, 3));
        EXPECT_NE(page(next), page(got[0])) << shift;
        EXPECT_EQ(a.allocatedColorMemory(3), 2 * kPage);
        EXPECT_EQ(a.freeColorMemory(3), 2 * kPage - (expected + 1) * chunk);
        VERIFY(a);
        a.free(next);
        for (char* p : got) a.free(p);
        VERIFY(a);
        EXPECT_EQ(a.allocatedColorMemory(3), 0u);
        EXPECT_EQ(a.freeColorMemory(3), 0u);
    }
}

TEST_F(BSDAllocatorTest, RecordAndBitmapSizesAreTheNatural64BitOnes) {
    // next and page pointers, then size, shift, colour, free, total: 24 bytes.
    EXPECT_EQ(Inspect::pginfoBytes(4), 24u + 4u * 8u);
    EXPECT_EQ(Inspect::pginfoBytes(11), 24u + 4u);
    // next, back link, start, end, size: five words.
    EXPECT_EQ(Inspect::runRecordSize(), 5 * sizeof(void*));
    EXPECT_EQ(bsd::kRunShift, 6u);
}

TEST_F(BSDAllocatorTest, ReleasingAChunkPagesLastChunkReturnsThePageToTheRuns) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    unsigned perPage = Inspect::chunksPerPage(6);
    std::vector<void*> chunks;
    for (unsigned k = 0; k < perPage; ++k) chunks.push_back(a.alloc(64, 5));
    char* chunkPage = page(chunks[0]);
    EXPECT_EQ(a.allocatedColorMemory(5), kPage);
    unsigned long allocated = a.allocatedMemory(), before = a.internalFree();
    for (unsigned k = 0; k + 1 < perPage; ++k) a.free(chunks[k]);
    EXPECT_GT(Inspect::entryOf(a, chunkPage), bsd::kRunFollow);
    a.free(chunks.back());
    EXPECT_EQ(Inspect::entryOf(a, chunkPage), 1u);
    EXPECT_EQ(a.allocatedColorMemory(5), 0u);
    EXPECT_EQ(a.freeColorMemory(5), 0u);
    EXPECT_EQ(a.allocatedMemory(), allocated - kPage);
    EXPECT_EQ(a.internalFree(), before + kPage);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ReleasingTheLastChunkAlsoReleasesASeparateRecord) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    ASSERT_FALSE(Inspect::pginfoInPage(11));
    void* x = a.alloc(2048, 5);
    void* y = a.alloc(2048, 5);
    ASSERT_EQ(page(x), page(y));
    // The chunk page, and the colour-0 page holding its record.
    unsigned long allocated = a.allocatedMemory();
    a.free(x);
    a.free(y);
    EXPECT_EQ(Inspect::entryOf(a, y), 1u);
    EXPECT_EQ(a.allocatedMemory(), allocated - 2 * kPage);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ChunkPagesWithFreeChunksAreListedByAddress) {
    TestParent parent;
    parent.extraBytes = 20 * kPage;
    BSDAllocator a(&parent);
    a.init();
    unsigned perPage = Inspect::chunksPerPage(9);
    std::vector<void*> blocks;
    for (unsigned k = 0; k < 3 * perPage; ++k) blocks.push_back(a.alloc(512, 1));
    EXPECT_TRUE(Inspect::listedFree(a, 1, 9).empty());
    // One chunk back on the third page, then on the first: listed by page address.
    a.free(blocks[2 * perPage]);
    a.free(blocks[0]);
    ASSERT_EQ(Inspect::listedFree(a, 1, 9).size(), 2u);
    EXPECT_EQ(page(a.alloc(512, 1)), page(blocks[0]));
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ColoursNeverSharePages) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    void* p1 = a.alloc(16, 1);
    void* p2 = a.alloc(16, 2);
    void* q1 = a.alloc(16, 1);
    EXPECT_EQ(page(p1), page(q1));
    EXPECT_NE(page(p1), page(p2));
    EXPECT_EQ(a.color(p1), 1u);
    EXPECT_EQ(a.color(p2), 2u);
    void* run = a.alloc(10000, 200);
    EXPECT_EQ(a.color(run), 200u);
    EXPECT_EQ(a.color(static_cast<char*>(run) + kPage + 5), 200u);
    EXPECT_EQ(a.allocatedColorMemory(200), 3 * kPage);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, AllocationColoursUseTheirLowEightBits) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    void* p = a.alloc(5000, 300);
    EXPECT_EQ(a.color(p), 44u);
    EXPECT_EQ(a.allocatedColorMemory(44), 2 * kPage);
    void* q = a.alloc(40, 256);
    EXPECT_EQ(a.color(q), 0u);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, FirstFitTakesTheFrontOfTheFirstRunLargeEnough) {
    TestParent parent;
    parent.extraBytes = 30 * kPage;
    BSDAllocator a(&parent);
    a.init();
    char* r1 = static_cast<char*>(a.alloc(2 * kPage, 0));
    char* big = static_cast<char*>(a.alloc(5 * kPage, 0));
    char* after = static_cast<char*>(a.alloc(kPage * 2, 0));
    ASSERT_NE(r1, nullptr);
    a.free(big);  // a 5-page hole before `after`
    VERIFY(a);
    char* x = static_cast<char*>(a.alloc(3 * kPage, 0));
    EXPECT_EQ(x, big);
    char* y = static_cast<char*>(a.alloc(2 * kPage, 0));
    EXPECT_EQ(y, big + 3 * kPage);  // exactly the rest: its record is unlinked
    (void)after;
    VERIFY(a);
}

// ---------------------------------------------------------------------------
// Free runs
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, FreedAdjacentRunsMergeIntoOneRecord) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    char* r[4];
    for (char*& p : r) p = static_cast<char*>(a.alloc(2 * kPage, 0));
    for (int k = 1; k < 4; ++k) ASSERT_EQ(r[k], r[k - 1] + 2 * kPage);
    unsigned long base = Inspect::freeRuns(a).size();
    a.free(r[0]);
    a.free(r[2]);
    EXPECT_EQ(Inspect::freeRuns(a).size(), base + 2);
    VERIFY(a);
    // r[1] touches both: appended to r[0]'s run, which then absorbs r[2]'s.
    a.free(r[1]);
    std::vector<Inspect::Run> runs = Inspect::freeRuns(a);
    EXPECT_EQ(runs.size(), base + 1);
    bool found = false;
    for (auto const& run : runs)
        if (run.start == r[0]) {
            EXPECT_EQ(run.end, r[0] + 6 * kPage);
            found = true;
        }
    EXPECT_TRUE(found);
    VERIFY(a);
    // r[3] is prepended to nothing and appended to the merged run.
    a.free(r[3]);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ReleaseMergesWithTheFollowingRun) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    char* x = static_cast<char*>(a.alloc(3 * kPage, 0));
    char* y = static_cast<char*>(a.alloc(3 * kPage, 0));
    char* z = static_cast<char*>(a.alloc(3 * kPage, 0));
    a.free(y);
    a.free(x);  // prepended to y's run
    auto runs = Inspect::freeRuns(a);
    ASSERT_FALSE(runs.empty());
    EXPECT_EQ(runs.front().start, x);
    EXPECT_EQ(runs.front().end, x + 6 * kPage);
    VERIFY(a);
    a.free(z);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, SpareRecordAbsorbsUnlinkedRecords) {
    TestParent parent;
    parent.extraBytes = 10 * kPage;
    BSDAllocator a(&parent);
    a.init();
    // The whole free run is taken: its record becomes the spare, or goes back to
    // its chunk page if there already is one.
    unsigned long free = a.internalFree();
    void* all = a.alloc(free, 0);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(a.internalFree(), 0u);
    EXPECT_TRUE(Inspect::hasSpareRun(a));
    VERIFY(a);
    a.free(all);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, AReleaseWithoutRecordsTurnsItsFirstPageIntoRecords) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    // Use up the spare and every free record chunk, keeping the record page full.
    std::vector<void*> records;
    while (!Inspect::listedFree(a, 0, bsd::kRunShift).empty()) records.push_back(a.alloc(64, 0));
    char* x = static_cast<char*>(a.alloc(3 * kPage, 0));
    char* wall = static_cast<char*>(a.alloc(kPage * 2, 0));
    char* y = static_cast<char*>(a.alloc(3 * kPage, 0));
    (void)wall;
    VERIFY(a);
    a.free(x);  // consumes the spare record
    EXPECT_FALSE(Inspect::hasSpareRun(a));
    VERIFY(a);
    unsigned long allocated = a.allocatedColorMemory(0);
    a.free(y);  // no record anywhere: y's first page becomes a page of records
    VERIFY(a);
    EXPECT_GT(Inspect::entryOf(a, y), bsd::kRunFollow);
    EXPECT_EQ(Inspect::entryOf(a, y + kPage), 1u);
    EXPECT_EQ(a.allocatedColorMemory(0), allocated - 2 * kPage);
    for (void* p : records) a.free(p);
    VERIFY(a);
}

// ---------------------------------------------------------------------------
// The directory
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, DirectoryGrowsWhenRegionsPassItsEnd) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    unsigned long* first = Inspect::directory(a);
    unsigned long capacity = Inspect::directorySize(a);
    std::vector<unsigned char*> blocks;
    // Runs of 7 pages, each mapped from the parent, until the span passes the capacity.
    while (Inspect::directory(a) == first) {
        auto* p = static_cast<unsigned char*>(a.alloc(7 * kPage, 0));
        ASSERT_NE(p, nullptr);
        std::memset(p, static_cast<int>(blocks.size() & 0xFF), 7 * kPage);
        blocks.push_back(p);
        ASSERT_LT(blocks.size(), capacity);
    }
    VERIFY(a);
    EXPECT_GE(Inspect::directorySize(a), 2 * capacity);
    EXPECT_EQ(Inspect::directorySize(a) % (kPage / sizeof(unsigned long)), 0u);
    // The old directory went back to the free runs.
    EXPECT_EQ(Inspect::entryOf(a, first), 1u);
    for (std::size_t k = 0; k < blocks.size(); ++k) {
        EXPECT_EQ(blocks[k][0], k & 0xFF);
        EXPECT_EQ(blocks[k][7 * kPage - 1], k & 0xFF);
        EXPECT_EQ(a.size(blocks[k]), 7 * kPage);
    }
    for (auto* p : blocks) a.free(p);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, DirectoryMovesItsOriginForRegionsBelowIt) {
    TestParent parent;
    parent.downwards = true;
    BSDAllocator a(&parent);
    a.init();
    unsigned long origin = Inspect::originPage(a);
    std::vector<char*> blocks;
    for (int k = 0; k < 50; ++k) {
        char* p = static_cast<char*>(a.alloc(30 * kPage, static_cast<unsigned>(k % 4)));
        ASSERT_NE(p, nullptr);
        p[0] = static_cast<char>(k);
        blocks.push_back(p);
        VERIFY(a);
    }
    EXPECT_LT(Inspect::originPage(a), origin);
    for (int k = 0; k < 50; ++k) {
        EXPECT_EQ(blocks[k][0], static_cast<char>(k));
        EXPECT_EQ(a.color(blocks[k]), static_cast<unsigned>(k % 4));
    }
    for (char* p : blocks) a.free(p);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, RegionsLeavingGapsLeaveUnownedEntries) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    parent.gap = 10 * kPage;
    char* p = static_cast<char*>(a.alloc(kPage * 2, 0));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Inspect::entryOf(a, p - kPage), 0u);
    EXPECT_FALSE(a.valid(p - kPage));
    EXPECT_EQ(a.size(p - kPage), 0u);
    a.free(p - kPage);
    expectOneMessage("pointer to wrong page", false);
    a.free(p);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, RegionsTooFarApartForOneDirectoryAreRefused) {
    TestParent parent(1ul << 41);
    if (!parent.reserved())
        GTEST_SKIP() << "2 TiB of address space could not be reserved here (ThreadSanitizer keeps most of it)";
    BSDAllocator a(&parent);
    a.init();
    unsigned long allocated = a.allocatedMemory();
    parent.gap = 1ul << 40;  // 2^28 pages: more than one directory may span
    EXPECT_EQ(a.alloc(kPage * 2, 0), nullptr);
    expectOneMessage("Failed to map new pages: Out of Memory", true);
    // Counted before the mapping failed, and kept.
    EXPECT_EQ(a.allocatedMemory(), allocated + 2 * kPage);
    EXPECT_EQ(parent.frees, 1u);
}

TEST_F(BSDAllocatorTest, APageAllocatorServesAsAnotherOnesParent) {
    TestParent parent;
    BSDAllocator outer(&parent);
    outer.init();
    BSDAllocator inner(&outer);
    inner.init();
    std::vector<char*> blocks;
    for (int k = 0; k < 200; ++k) {
        char* p = static_cast<char*>(inner.alloc(static_cast<unsigned long>(k) * 97 % 9000, 1));
        ASSERT_NE(p, nullptr);
        blocks.push_back(p);
    }
    VERIFY(inner);
    VERIFY(outer);
    for (char* p : blocks) inner.free(p);
    VERIFY(inner);
    VERIFY(outer);
    EXPECT_EQ(inner.allocatedColorMemory(1), 0u);
    EXPECT_GT(outer.allocatedMemory(), inner.allocatedMemory());
}

// The process allocator aligns its blocks to 16 bytes, not to pages: every region
// that happens not to be page aligned is logged, given back and asked again one
// page larger, and the page allocator works on the whole pages inside.
TEST_F(BSDAllocatorTest, TheProcessAllocatorServesAsAParentThroughWholePages) {
    BSDAllocator a(Allocator::theAllocator());
    a.init();
    std::mt19937 rng(5);
    std::vector<std::pair<unsigned char*, unsigned long>> blocks;
    for (int k = 0; k < 2000; ++k) {
        unsigned long n = rng() % 3 ? rng() % 2049 : 2049 + rng() % 30000;
        auto* p = static_cast<unsigned char*>(a.alloc(n, rng() % 3));
        ASSERT_NE(p, nullptr);
        std::memset(p, k & 0xFF, n);
        blocks.push_back({p, n});
        if (k % 3 == 2) {
            auto [q, m] = blocks[static_cast<std::size_t>(rng()) % blocks.size()];
            if (m) {
                ASSERT_EQ(q[m - 1], q[0]);
            }
        }
    }
    VERIFY(a);
    for (auto [p, n] : blocks) a.free(p);
    VERIFY(a);
    for (Message const& m : takeMessages()) {
        EXPECT_TRUE(m.text == "Allocation is not page aligned" || m.text == "init - Allocation is not page aligned")
            << m.text;
        EXPECT_TRUE(m.error);
    }
}

// ---------------------------------------------------------------------------
// Queries
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, ValidIsTrueForRunsAndForFreeChunksOnly) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    char* run = static_cast<char*>(a.alloc(3 * kPage, 0));
    EXPECT_TRUE(a.valid(run));
    EXPECT_TRUE(a.valid(run + kPage + 1));
    char* c1 = static_cast<char*>(a.alloc(256, 0));
    char* c2 = static_cast<char*>(a.alloc(256, 0));
    // kept: an allocated chunk is not valid, a free aligned one is.
    EXPECT_FALSE(a.valid(c1));
    EXPECT_TRUE(a.valid(c2 + 256));
    EXPECT_FALSE(a.valid(c2 + 257));
    a.free(c1);
    EXPECT_TRUE(a.valid(c1));
    EXPECT_FALSE(a.valid(nullptr));
    int local;
    EXPECT_FALSE(a.valid(&local));
    a.free(c2);
    a.free(run);
    EXPECT_FALSE(a.valid(run));
    expectNoMessage();
}

TEST_F(BSDAllocatorTest, SizeAndColorOfNullAreZeroWithoutAMessage) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    EXPECT_EQ(a.size(nullptr), 0u);
    EXPECT_EQ(a.color(nullptr), 0u);
    a.free(nullptr);
}

TEST_F(BSDAllocatorTest, SizeOfAPointerAboveTheDirectoryIsJunk) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    char* far = reinterpret_cast<char*>((Inspect::originPage(a) + Inspect::lastIndex(a) + 1) * kPage);
    EXPECT_EQ(a.size(far), 0u);
    expectOneMessage("junk pointer, too high to make sense", false);
    EXPECT_EQ(a.color(far), 0u);
    expectOneMessage("junk pointer, too high to make sense", false);
}

TEST_F(BSDAllocatorTest, APointerBelowTheOriginWrapsToJunk) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    char* below = reinterpret_cast<char*>((Inspect::originPage(a) - 1) * kPage);
    EXPECT_EQ(a.size(below), 0u);
    expectOneMessage("junk pointer, too high to make sense", false);
    EXPECT_EQ(a.color(below), 0u);
    expectOneMessage("junk pointer, too high to make sense", false);
    EXPECT_FALSE(a.valid(below));
    expectNoMessage();
}

TEST_F(BSDAllocatorTest, SizeAndColorOfAFreePageAreZero) {
    TestParent parent;
    parent.extraBytes = 4 * kPage;
    BSDAllocator a(&parent);
    a.init();
    ASSERT_FALSE(Inspect::freeRuns(a).empty());
    char* freePage = Inspect::freeRuns(a).front().start;
    EXPECT_EQ(a.size(freePage), 0u);
    EXPECT_EQ(a.color(freePage), 0u);
    EXPECT_FALSE(a.valid(freePage));
}

// ---------------------------------------------------------------------------
// Colours
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, SetColorRaisesFailure) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    void* p = a.alloc(32, 4);
    Utils::clearError();
    EXPECT_EQ(a.setColor(p, 9), 0x80000000u);
    EXPECT_EQ(Utils::lastError(), 0x80000000u);
    EXPECT_EQ(a.color(p), 4u);
    Utils::clearError();
}

TEST_F(BSDAllocatorTest, SetDefaultColorStoresThePreviousFirst) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    EXPECT_EQ(a.defaultColor(), 0u);
    unsigned int old = 77;
    EXPECT_EQ(a.setDefaultColor(5, &old), 0u);
    EXPECT_EQ(old, 0u);
    EXPECT_EQ(a.defaultColor(), 5u);
    void* p = a.alloc(100);
    EXPECT_EQ(a.color(p), 5u);
    EXPECT_EQ(a.setDefaultColor(6, nullptr), 0u);
    EXPECT_EQ(a.defaultColor(), 6u);
    a.setDefaultColor(0, nullptr);
}

TEST_F(BSDAllocatorTest, DefaultColoursArePerThread) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    a.setDefaultColor(9, nullptr);
    unsigned int seen = 99;
    std::thread t([&] { seen = a.defaultColor(); });
    t.join();
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(a.defaultColor(), 9u);
    a.setDefaultColor(0, nullptr);
}

TEST_F(BSDAllocatorTest, ColourTwoHundredFiftySixAliasesTheWordAfterEachTable) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    ASSERT_NE(a.alloc(3 * kPage, 7), nullptr);
    // Directory and record page in colour 0, three pages in colour 7.
    EXPECT_EQ(a.allocatedMemory(), 20480u);
    EXPECT_EQ(a.allocatedColorMemory(0), 8192u);
    EXPECT_EQ(a.allocatedColorMemory(256), 20480u);  // allocatedMemory()
    EXPECT_EQ(a.freeColorMemory(256), 8192u);        // allocatedColorMemory(0)
    a.adjustColorMemory(256, 100);
    EXPECT_EQ(a.allocatedMemory(), 20580u);
    EXPECT_EQ(a.allocatedColorMemory(256), 20580u);
    EXPECT_EQ(a.allocatedColorMemory(0), 8192u);
    a.adjustColorMemory(0, 16);
    EXPECT_EQ(a.freeColorMemory(256), 8208u);
    a.adjustColorMemory(0, -16);
    a.adjustColorMemory(256, -100);
    EXPECT_EQ(a.allocatedMemory(), 20480u);
    // Above 256: nothing.
    a.adjustColorMemory(257, 5);
    EXPECT_EQ(a.allocatedColorMemory(257), 0u);
    EXPECT_EQ(a.freeColorMemory(257), 0u);
    EXPECT_EQ(a.allocatedColorMemory(0xFFFFFFFFu), 0u);
    EXPECT_EQ(a.allocatedMemory(), 20480u);
    EXPECT_EQ(a.allocatedColorMemory(255), 0u);
    a.adjustColorMemory(3, -100);
    EXPECT_EQ(a.allocatedColorMemory(3), 0x100000000ul - 100);
    a.adjustColorMemory(3, 100);
    EXPECT_EQ(a.allocatedColorMemory(3), 0u);
    VERIFY(a);
}

// ---------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------

TEST_F(BSDAllocatorTest, ReleasingAPageTwiceLogsPageIsAlreadyFree) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    void* p = a.alloc(3 * kPage, 0);
    a.free(p);
    expectNoMessage();
    unsigned long allocated = a.allocatedMemory(), free = a.internalFree();
    a.free(p);
    expectOneMessage("page is already free", false);
    EXPECT_EQ(a.allocatedMemory(), allocated);
    EXPECT_EQ(a.internalFree(), free);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ReleasingAnAddressInsideARunLogsModifiedPointer) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    char* p = static_cast<char*>(a.alloc(3 * kPage, 0));
    a.free(p + 100);
    expectOneMessage("modified (page-) pointer", false);
    EXPECT_EQ(a.size(p), 3 * kPage);
    // A following page is not where a run starts.
    a.free(p + kPage);
    expectOneMessage("pointer to wrong page", false);
    a.free(p);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ReleasingAForeignAddressLogsPointerToWrongPage) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    int local = 0;
    a.free(&local);
    expectOneMessage("pointer to wrong page", false);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, AnOverlappingRunLogsFreelistIsDestroyed) {
    TestParent parent;
    parent.extraBytes = 8 * kPage;
    BSDAllocator a(&parent);
    a.init();
    auto runs = Inspect::freeRuns(a);
    ASSERT_FALSE(runs.empty());
    // Corrupt the directory: a page of a free run claims to start a run of colour 0.
    char* inside = runs.front().start + kPage;
    Inspect::setEntryOf(a, inside, 2);
    a.free(inside);
    expectOneMessage("freelist is destroyed", true);
}

TEST_F(BSDAllocatorTest, AnOverlappingRunWithMoreRunsAfterItLogsFreelistIsDestroyed) {
    TestParent parent;
    parent.extraBytes = 12 * kPage;
    BSDAllocator a(&parent);
    a.init();
    // Split the free pages into two runs by keeping one page in between.
    char* first = static_cast<char*>(a.alloc(3 * kPage, 0));
    char* wall = static_cast<char*>(a.alloc(kPage * 1 + 1, 0));
    a.free(first);
    (void)wall;
    auto runs = Inspect::freeRuns(a);
    ASSERT_EQ(runs.size(), 2u);
    VERIFY(a);
    char* inside = runs.front().start + kPage;
    Inspect::setEntryOf(a, inside, 2);
    a.free(inside);
    expectOneMessage("freelist is destroyed", true);
}

TEST_F(BSDAllocatorTest, ParentFailureAtInitLogsAndTheNextAllocationRetries) {
    TestParent parent;
    parent.failing = true;
    BSDAllocator a(&parent);
    a.init();
    expectOneMessage("parent alloc failed, check limits", true);
    EXPECT_EQ(a.allocatedMemory(), 0u);
    EXPECT_EQ(a.alloc(10, 0), nullptr);
    expectOneMessage("parent alloc failed, check limits", true);
    VERIFY(a);
    parent.failing = false;
    void* p = a.alloc(10, 0);
    ASSERT_NE(p, nullptr);
    VERIFY(a);
    a.free(p);
    VERIFY(a);
}

// A parent whose regions turn out smaller than asked: each is given back.
TEST_F(BSDAllocatorTest, ARegionShorterThanAskedIsGivenBackAndTheRequestFails) {
    struct ShortParent : TestParent {
        unsigned long size(void* p) const override { return TestParent::size(p) / 2; }
    } parent;
    BSDAllocator a(&parent);
    a.init();
    expectOneMessage("parent alloc failed, check limits", true);
    EXPECT_EQ(parent.frees, 1u);
    EXPECT_EQ(a.alloc(100, 0), nullptr);
    expectOneMessage("parent alloc failed, check limits", true);
    EXPECT_EQ(parent.frees, 2u);
    EXPECT_EQ(a.allocatedMemory(), 0u);
    EXPECT_EQ(a.internalFree(), 0u);
    VERIFY(a);
    // Nothing kept: the report walks no region and no block.
    Utils::String text;
    Utils::writeMemoryReport(&a, text);
    std::string report = text.text();
    EXPECT_NE(report.find("regions        0 (0 bytes from the parent)"), std::string::npos) << report;
    EXPECT_NE(report.find("blocks         0 busy, 0 free"), std::string::npos) << report;
}

TEST_F(BSDAllocatorTest, UnalignedParentAtInitIsLoggedAndOnlyWholePagesAreUsed) {
    TestParent parent;
    parent.misalign = 16;
    BSDAllocator a(&parent);
    a.init();
    std::vector<Message> m = takeMessages();
    ASSERT_GE(m.size(), 1u);
    EXPECT_EQ(m[0].text, "init - Allocation is not page aligned");
    EXPECT_TRUE(m[0].error);
    // The record page's region was not aligned either.
    for (std::size_t k = 1; k < m.size(); ++k) EXPECT_EQ(m[k].text, "Allocation is not page aligned");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(Inspect::directory(a)) % kPage, 0u);
    VERIFY(a);
    void* p = a.alloc(5 * kPage, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % kPage, 0u);
    m = takeMessages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].text, "Allocation is not page aligned");
    EXPECT_TRUE(m[0].error);
    std::memset(p, 0xAB, 5 * kPage);
    VERIFY(a);
    a.free(p);
    VERIFY(a);
}

TEST_F(BSDAllocatorTest, ParentExhaustionLogsOutOfMemoryAndKeepsTheEarlyCounts) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    unsigned long allocated = a.allocatedMemory(), colour = a.allocatedColorMemory(7);
    parent.failing = true;
    EXPECT_EQ(a.alloc(3 * kPage, 7), nullptr);
    expectOneMessage("Failed to map new pages: Out of Memory", true);
    // The run was counted before it was mapped, and stays counted.
    EXPECT_EQ(a.allocatedMemory(), allocated + 3 * kPage);
    EXPECT_EQ(a.allocatedColorMemory(7), colour + 3 * kPage);
    // A chunk: its bytes were taken from the free count before the page was asked for.
    EXPECT_EQ(a.alloc(100, 8), nullptr);
    expectOneMessage("Failed to map new pages: Out of Memory", true);
    EXPECT_EQ(a.freeColorMemory(8), 0x100000000ul - 128);
    EXPECT_EQ(a.allocatedColorMemory(8), kPage);
    parent.failing = false;
    void* p = a.alloc(100, 9);
    EXPECT_NE(p, nullptr);
}

TEST_F(BSDAllocatorTest, FailingToPlaceASeparateRecordGivesThePageBack) {
    TestParent parent;
    BSDAllocator a(&parent);
    a.init();
    ASSERT_EQ(a.internalFree(), 0u);
    // Room for one more page only: the 128-byte chunk page gets it, the colour-0
    // page that its separate record needs does not.
    parent.budget = kPage;
    ASSERT_FALSE(Inspect::pginfoInPage(7));
    EXPECT_EQ(a.alloc(128, 3), nullptr);
    expectOneMessage("Failed to map new pages: Out of Memory", true);
    EXPECT_EQ(a.internalFree(), kPage);
    EXPECT_EQ(a.allocatedColorMemory(3), 0u);
    // Kept from the failed steps: colour 0 counted the page it never got, and both
    // colours gave up a chunk's worth of free bytes.
    EXPECT_EQ(a.allocatedColorMemory(0), 3 * kPage);
    EXPECT_EQ(a.freeColorMemory(3), 0x100000000ul - 128);
    EXPECT_EQ(a.freeColorMemory(0), kPage - 64 - 32);
    // The page given back serves the next request.
    parent.budget = 0;
    void* p = a.alloc(4000, 3);
    EXPECT_NE(p, nullptr);
}

// ---------------------------------------------------------------------------
// The long run
// ---------------------------------------------------------------------------

namespace {

struct Block {
    unsigned char* p;
    unsigned long n;
    unsigned char fill;
    unsigned int colour;
};

void checkContents(Block const& b) {
    for (unsigned long k = 0; k < b.n; k += (b.n > 256 ? 61 : 1)) ASSERT_EQ(b.p[k], b.fill);
    if (b.n) {
        ASSERT_EQ(b.p[b.n - 1], b.fill);
    }
}

void randomRun(TestParent& parent, unsigned long ops, unsigned seed) {
    BSDAllocator a(&parent);
    a.init();
    VERIFY(a);
    std::mt19937_64 rng(seed);
    std::vector<Block> live;
    static const unsigned kColours[] = {0, 1, 2, 3, 17, 255};
    for (unsigned long i = 0; i < ops; ++i) {
        unsigned r = static_cast<unsigned>(rng() % 100);
        // Grow towards a few thousand blocks, then hover.
        bool allocate = live.empty() || r < (live.size() < 3000 ? 60u : 48u);
        if (allocate) {
            unsigned long n;
            unsigned kind = static_cast<unsigned>(rng() % 10);
            if (kind < 7)
                n = rng() % 2049;
            else if (kind < 9)
                n = 2049 + rng() % (4 * kPage);
            else
                n = rng() % (40 * kPage);
            unsigned colour = kColours[rng() % 6];
            unsigned char* p;
            if (rng() % 8 == 0) {
                a.setDefaultColor(colour, nullptr);
                p = static_cast<unsigned char*>(a.alloc(n));
            } else {
                p = static_cast<unsigned char*>(a.alloc(n, colour));
            }
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(a.color(p), colour);
            unsigned long s = a.size(p);
            ASSERT_GE(s, n);
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % (s < kPage ? s : kPage), 0u);
            unsigned char fill = static_cast<unsigned char>(rng());
            std::memset(p, fill, n);
            live.push_back({p, n, fill, colour});
        } else {
            std::size_t k = rng() % live.size();
            Block b = live[k];
            checkContents(b);
            a.free(b.p);
            live[k] = live.back();
            live.pop_back();
        }
        if (i % 64 == 0 || i < 3000) {
            ASSERT_EQ(Inspect::verify(a), "") << " after operation " << i;
        }
    }
    VERIFY(a);
    for (Block const& b : live) {
        checkContents(b);
        a.free(b.p);
    }
    VERIFY(a);
    // Everything released: what is left is bookkeeping in colour 0 (the directory,
    // pages of run records) and free runs.
    for (unsigned c = 1; c < 256; ++c) {
        ASSERT_EQ(a.allocatedColorMemory(c), 0u) << c;
        ASSERT_EQ(a.freeColorMemory(c), 0u) << c;
    }
    ASSERT_EQ(a.allocatedMemory(), a.allocatedColorMemory(0));
    a.setDefaultColor(0, nullptr);
}

}  // namespace

TEST_F(BSDAllocatorTest, RandomisedRunKeepsEveryInvariantAndContents) {
    TestParent parent;
    randomRun(parent, zotest::scaled(200000), 42);
}

TEST_F(BSDAllocatorTest, RandomisedRunOverAnUnalignedParentWithSurplus) {
    TestParent parent;
    parent.misalign = 48;
    parent.extraBytes = 3 * kPage + 100;
    randomRun(parent, zotest::scaled(20000), 7);
    takeMessages();  // every region was logged as not page aligned
}

TEST_F(BSDAllocatorTest, RandomisedRunOverADownwardParent) {
    TestParent parent;
    parent.downwards = true;
    randomRun(parent, zotest::scaled(20000), 99);
}
