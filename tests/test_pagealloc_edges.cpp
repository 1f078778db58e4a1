// BSDAllocator at its edges: a first region with exactly one spare page, requests
// too large for any directory, the parent fault seam, a parent that keeps moving its
// regions away, and the verifier naming each fault when one field of the structure
// (directory, chunk pages, run records, chunk lists, counters) is damaged by hand.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "log_capture.h"
#include "memory/pagealloc_internal.h"
#include "region_source.h"
#include "utils/allocator.h"
#include "utils/log.h"
#include "utils/string.h"
#include "zosys_faults.h"

using Utils::Allocator;
using Utils::BSDAllocator;
using Inspect = Utils::BSDAllocatorInspector;
namespace bsd = Utils::bsd;

namespace {

constexpr unsigned long kPage = 4096;
using PgInfo = BSDAllocator::pginfo;
using FreeRun = BSDAllocator::FreeRun;

// --- the fields the inspector does not expose --------------------------------
// An explicit instantiation may name private members; each one below hands out a
// pointer to one member, so that a test can damage exactly that field.
template <class Tag, typename Tag::type M>
struct Expose {
    friend typename Tag::type memberOf(Tag) { return M; }
};
#define ZO_EXPOSE(Name, Type, member)                         \
    struct Name {                                             \
        using type = Type BSDAllocator::*;                    \
    };                                                        \
    Name::type memberOf(Name);                                \
    template struct Expose<Name, &BSDAllocator::member>

using Counters = unsigned int[2 * 256 + 1];
using ChunkLists = PgInfo* [256][12];

ZO_EXPOSE(LastIndexField, unsigned long, lastIndex);
ZO_EXPOSE(DirectorySizeField, unsigned long, directorySize);
ZO_EXPOSE(DirectoryField, unsigned long*, directory);
ZO_EXPOSE(FreeRunsField, FreeRun*, freeRuns);
ZO_EXPOSE(SpareRunField, FreeRun*, spareRun);
ZO_EXPOSE(InternalFreeField, unsigned int, internalFreeBytes);
ZO_EXPOSE(ObtainedField, unsigned long, obtainedBytes);
ZO_EXPOSE(CountersField, Counters, counters);
ZO_EXPOSE(ChunkListsField, ChunkLists, chunkLists);
#undef ZO_EXPOSE

template <class Tag>
auto& field(BSDAllocator& a, Tag tag) {
    return a.*memberOf(tag);
}

// --- the allocator's messages ------------------------------------------------

// Keeps the allocator's lines (text after the header) while it lives.
class Capture {
public:
    // The texts of the page allocator's lines since the last call.
    std::vector<std::string> take() {
        std::vector<std::string> out;
        for (auto const& entry : log.sink->lines) {
            std::string const& line = entry.second;
            if (line.find("|allocator|bsdalloc:") == std::string::npos) continue;
            std::size_t bar = line.find('|', line.find("bsdalloc:"));
            out.push_back(line.substr(bar + 1));
        }
        log.sink->lines.clear();
        return out;
    }

private:
    zotest::LogCapture log;
};

class PageEdges : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(capture.take().empty()); }
    Capture capture;
};

// A parent that serves its first requests from a small private mapping and can be
// given addresses to hand out next instead. Those regions are only ever looked at
// and given back (the allocator refuses them), never written.
class ScriptedParent : public Allocator {
public:
    ScriptedParent() {
        void* m = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        base = m == MAP_FAILED ? nullptr : static_cast<char*>(m);
    }
    ~ScriptedParent() {
        if (base) munmap(base, kBytes);
    }
    using Allocator::alloc;
    void* alloc(unsigned long size) override {
        asked.push_back(size);
        char* p;
        if (!script.empty()) {
            p = script.front();
            script.erase(script.begin());
        } else {
            if (!base || cursor + size > kBytes) return nullptr;
            p = base + cursor;
            cursor += (size + kPage - 1) & ~(kPage - 1);
        }
        last = size;
        return p;
    }
    void free(void* p) override { freed.push_back(static_cast<char*>(p)); }
    unsigned long size(void*) const override { return last; }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }

    static constexpr unsigned long kBytes = 1ul << 20;
    char* base = nullptr;
    std::vector<char*> script;  // handed out next, in order
    std::vector<unsigned long> asked;
    std::vector<char*> freed;

private:
    unsigned long cursor = 0;
    unsigned long last = 0;
};

// ---------------------------------------------------------------------------
// Set-up and requests no directory can serve
// ---------------------------------------------------------------------------

TEST_F(PageEdges, AFirstRegionWithOneSparePageGivesTheSpareRecordWithoutAnotherRegion) {
    // Two pages: the directory, and one surplus page which, released, becomes the
    // page of run records; the record it takes is kept as the spare.
    zotest::RegionSource source{2 * kPage, 1ul << 24};
    BSDAllocator a(&source);
    a.init();
    EXPECT_EQ(source.requests, 1u);
    EXPECT_TRUE(Inspect::hasSpareRun(a));
    EXPECT_EQ(a.allocatedMemory(), 2 * kPage);
    EXPECT_EQ(a.internalFree(), 0u);
    EXPECT_TRUE(Inspect::freeRuns(a).empty());
    EXPECT_EQ(a.freeColorMemory(0), kPage - (1ul << bsd::kRunShift));
    EXPECT_EQ(Inspect::verify(a), "");
}

TEST_F(PageEdges, ARequestOfTwoToTheTwentySevenPagesOrMoreFailsWithoutAskingTheParent) {
    zotest::RegionSource source{1ul << 16, 1ul << 24};
    BSDAllocator a(&source);
    a.init();
    unsigned long asked = source.requests;
    unsigned long allocated = a.allocatedMemory();
    for (unsigned long size : {bsd::kMaxDirectoryEntries << bsd::kPageShift, ~0ul}) {
        EXPECT_EQ(a.alloc(size, 3), nullptr) << size;
        EXPECT_EQ(capture.take(), std::vector<std::string>{"Failed to map new pages: Out of Memory"}) << size;
    }
    EXPECT_EQ(source.requests, asked);
    // Both page counts are multiples of 2^20 pages: counted early in 32 bits, they add 0.
    EXPECT_EQ(a.allocatedMemory(), allocated);
    EXPECT_EQ(a.allocatedColorMemory(3), 0u);
    // One page less than the limit is still asked of the parent (which has no such region).
    EXPECT_EQ(a.alloc((bsd::kMaxDirectoryEntries - 1) << bsd::kPageShift, 3), nullptr);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"Failed to map new pages: Out of Memory"});
    EXPECT_EQ(source.requests, asked + 1);
}

TEST_F(PageEdges, TheParentFaultSeamFailsInitAndLaterRegionsWithoutAskingTheParent) {
    zotest::RegionSource source{1ul << 16, 1ul << 24};
    BSDAllocator a(&source);
    ZoIF_TestFaultArm(ZOIF_FAULT_PARENT, 1, 0);
    a.init();
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"parent alloc failed, check limits"});
    EXPECT_EQ(source.requests, 0u);
    EXPECT_EQ(Inspect::directory(a), nullptr);
    EXPECT_EQ(Inspect::verify(a), "");

    // The next allocation sets the allocator up; its region fills from the front.
    void* p = a.alloc(100, 0);
    ASSERT_NE(p, nullptr);
    unsigned long asked = source.requests;
    unsigned long free = a.internalFree();
    ASSERT_LT(free, 20 * kPage);
    // A run larger than every free run needs a region: the seam refuses it.
    ZoIF_TestFaultArm(ZOIF_FAULT_PARENT, 1, 0);
    EXPECT_EQ(a.alloc(20 * kPage, 0), nullptr);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"Failed to map new pages: Out of Memory"});
    EXPECT_EQ(source.requests, asked);
    EXPECT_EQ(a.internalFree(), free);
    a.free(p);
}

TEST_F(PageEdges, ARecordPageRefusedAtInitLeavesTheDirectoryAloneWithItsEarlyCount) {
    // The first region is exactly the directory's page; the parent refuses the next.
    zotest::RegionSource source{kPage, 1ul << 24};
    BSDAllocator a(&source);
    ZoIF_TestFaultArm(ZOIF_FAULT_PARENT, 2, 0);
    a.init();
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"Failed to map new pages: Out of Memory"});
    ASSERT_NE(Inspect::directory(a), nullptr);
    EXPECT_EQ(Inspect::lastIndex(a), 0u);
    EXPECT_FALSE(Inspect::hasSpareRun(a));
    // The record page was counted before it was asked for, and stays counted: the
    // directory is the one page there is, the counters say two.
    EXPECT_EQ(a.allocatedMemory(), 2 * kPage);
    EXPECT_EQ(Inspect::verify(a), "allocatedByColor (0, 8192)");
    EXPECT_EQ(source.requests, 1u);
}

TEST_F(PageEdges, AParentThatKeepsMovingItsRegionsAwayIsGivenUpOnAfterFourRegions) {
    ScriptedParent parent;
    if (!parent.base) GTEST_SKIP() << "no memory for the parent";
    BSDAllocator a(&parent);
    a.init();
    ASSERT_EQ(Inspect::verify(a), "");
    ASSERT_EQ(Inspect::directorySize(a), 512u);
    unsigned long allocated = a.allocatedMemory();
    // Each region lies four times further away than the last: each needs a directory
    // larger than the region asked for, so each is given back and asked again larger.
    auto base = reinterpret_cast<std::uintptr_t>(parent.base);
    for (std::uintptr_t distance = 1ul << 30; parent.script.size() < 5; distance *= 4)
        parent.script.push_back(reinterpret_cast<char*>(base + distance));
    std::size_t before = parent.asked.size();
    EXPECT_EQ(a.alloc(2 * kPage, 0), nullptr);
    EXPECT_EQ(capture.take(), std::vector<std::string>{"Failed to map new pages: Out of Memory"});
    std::vector<unsigned long> asked(parent.asked.begin() + static_cast<long>(before), parent.asked.end());
    ASSERT_EQ(asked.size(), 4u);
    EXPECT_EQ(parent.freed.size(), 4u);
    EXPECT_EQ(parent.script.size(), 1u);
    // Two pages, then two pages and a directory spanning 1 GiB and two pages more
    // (2^18 + 2 entries: 513 pages); then ever larger.
    EXPECT_EQ(asked[0], 2 * kPage);
    EXPECT_EQ(asked[1], (2 + 513) * kPage);
    EXPECT_GT(asked[2], asked[1]);
    EXPECT_GT(asked[3], asked[2]);
    // The two pages were counted before mapping, and stay counted.
    EXPECT_EQ(a.allocatedMemory(), allocated + 2 * kPage);
    EXPECT_EQ(Inspect::directorySize(a), 512u);
    // A parent back to its own regions serves the next request.
    parent.script.clear();
    void* p = a.alloc(2 * kPage, 0);
    ASSERT_NE(p, nullptr);
    std::memset(p, 0x5A, 2 * kPage);
    EXPECT_EQ(a.size(p), 2 * kPage);
}

// A directory that must move below its origin keeps room below the new region, down
// to page 0 when the span is that close to it.
TEST_F(PageEdges, ADirectoryMovedNearAddressZeroStartsAtPageZero) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not give out the lowest addresses";
#else
    // Two private mappings at fixed low addresses: 1 MiB (page 256) and 2 MiB (page 512).
    auto fixed = [](std::uintptr_t at) -> char* {
        void* m = mmap(reinterpret_cast<void*>(at), 16 * kPage, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (m == MAP_FAILED) return nullptr;
        if (m != reinterpret_cast<void*>(at)) {
            munmap(m, 16 * kPage);
            return nullptr;
        }
        return static_cast<char*>(m);
    };
    char* low = fixed(1ul << 20);
    char* high = fixed(2ul << 20);
    if (!low || !high) {
        if (low) munmap(low, 16 * kPage);
        if (high) munmap(high, 16 * kPage);
        GTEST_SKIP() << "the addresses at 1 and 2 MiB cannot be mapped here";
    }
    {
        ScriptedParent parent;
        // The directory and the record page at 2 MiB, then every later region at 1 MiB.
        parent.script = {high, high + kPage, low, low};
        BSDAllocator a(&parent);
        a.init();
        ASSERT_EQ(Inspect::originPage(a), 512u);
        void* p = a.alloc(2 * kPage, 0);
        // The first region at 1 MiB had no room for the moved directory: given back,
        // asked again two pages larger.
        EXPECT_EQ(parent.asked, (std::vector<unsigned long>{kPage, kPage, 2 * kPage, 4 * kPage}));
        EXPECT_EQ(parent.freed, std::vector<char*>{low});
        // Pages 256 to 513 in a directory of 1024 entries: it starts at page 0.
        EXPECT_EQ(Inspect::originPage(a), 0u);
        EXPECT_EQ(Inspect::directorySize(a), 1024u);
        EXPECT_EQ(Inspect::lastIndex(a), 513u);
        EXPECT_EQ(Inspect::directory(a), reinterpret_cast<unsigned long*>(low));
        EXPECT_EQ(p, low + 2 * kPage);
        EXPECT_EQ(Inspect::entryOf(a, high), bsd::kFreePage);
        EXPECT_EQ(Inspect::verify(a), "");
        std::memset(p, 0x11, 2 * kPage);
        a.free(p);
        EXPECT_EQ(Inspect::verify(a), "");
        EXPECT_EQ(a.internalFree(), 3 * kPage);
    }
    munmap(low, 16 * kPage);
    munmap(high, 16 * kPage);
#endif
}

// The census counts a stretch of owned pages as one region: two regions that touch
// are one, a gap of pages not owned between them makes two.
TEST_F(PageEdges, TheReportCountsRegionsSeparatedByUnownedPagesApart) {
    for (unsigned long gap : {0ul, 4 * kPage}) {
        SCOPED_TRACE(gap);
        zotest::RegionSource source{4 * kPage, 1ul << 24};
        BSDAllocator a(&source);
        // Four pages: the directory, a page of run records, a free run of two pages.
        a.init();
        ASSERT_EQ(a.internalFree(), 2 * kPage);
        source.leaveGap(gap);
        // Three pages do not fit in the free run: a second region of four pages, one
        // of them surplus.
        void* p = a.alloc(3 * kPage, 1);
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(source.requests, 2u);
        ASSERT_EQ(Inspect::verify(a), "");
        Utils::String text;
        Utils::writeMemoryReport(&a, text);
        std::string report = text.text();
        std::string regions = gap ? "regions        2 (32768 bytes from the parent)"
                                  : "regions        1 (32768 bytes from the parent)";
        EXPECT_NE(report.find(regions), std::string::npos) << report;
        // Busy: the directory, the run, two run records; free: the other 61 record
        // chunks and the two runs.
        EXPECT_NE(report.find("blocks         4 busy, 63 free"), std::string::npos) << report;
        EXPECT_NE(report.find("largest free   8192 bytes"), std::string::npos) << report;
        EXPECT_EQ(a.internalFree(), 3 * kPage);
    }
}

// ---------------------------------------------------------------------------
// The verifier: one damaged field, one exact message
// ---------------------------------------------------------------------------

// A page allocator with every kind of page: run records, chunk pages with their
// record inside (64 bytes, colour 4: two pages full, one with one chunk used) and
// outside (2048 bytes, colour 5, full), a 32-byte chunk of colour 4, page runs of
// colour 6 and free runs between them.
struct Built {
    zotest::RegionSource source{1ul << 16, 1ul << 28};
    BSDAllocator a{&source};
    void* recordSized = nullptr;  // a colour-0 chunk of the run record's size class
    void* small32 = nullptr;      // colour-0 32-byte chunk
    void* small4 = nullptr;       // colour-4 32-byte chunk
    std::vector<void*> chunks;    // colour-4 64-byte chunks
    void* big[2] = {};
    void* run = nullptr;          // one page, colour 6
    Built() {
        a.init();
        recordSized = a.alloc(64, 0);
        small32 = a.alloc(32, 0);
        small4 = a.alloc(32, 4);
        unsigned int perPage = Inspect::chunksPerPage(6);
        for (unsigned int k = 0; k < 2 * perPage + 1; ++k) chunks.push_back(a.alloc(64, 4));
        a.free(chunks[perPage]);  // the second page gets one free chunk: both it and the third are listed
        big[0] = a.alloc(2048, 5);
        big[1] = a.alloc(2048, 5);
        run = a.alloc(kPage, 6);
        void* p = a.alloc(2 * kPage, 6);
        a.alloc(kPage, 6);
        void* q = a.alloc(3 * kPage, 6);
        a.alloc(kPage, 6);
        a.free(p);
        a.free(q);
    }
    PgInfo* info(void const* p) { return reinterpret_cast<PgInfo*>(Inspect::entryOf(a, p)); }
    unsigned long indexOf(void const* p) { return bsd::pageNumber(p) - Inspect::originPage(a); }
    FreeRun* firstRun() { return field(a, FreeRunsField{}); }
    FreeRun* lastRun() {
        FreeRun* r = firstRun();
        while (r && r->next) r = r->next;
        return r;
    }
    PgInfo*& list(unsigned int color, unsigned int shift) { return field(a, ChunkListsField{})[color][shift]; }
};

// Damages with `damage`, expects exactly `fault`, repairs with `repair`, and expects
// the verifier quiet before and after.
void expectFault(BSDAllocator& a, std::string const& fault, std::function<void()> const& damage,
                 std::function<void()> const& repair) {
    ASSERT_EQ(Inspect::verify(a), "") << "before the damage for \"" << fault << "\"";
    damage();
    std::string found = Inspect::verify(a);
    repair();
    EXPECT_EQ(found, fault);
    EXPECT_EQ(Inspect::verify(a), "") << "after repairing the damage for \"" << fault << "\"";
}

// Sets `member` to `wrong`, then back.
template <class T, class U>
void expectFieldFault(BSDAllocator& a, std::string const& fault, T& member, U wrong) {
    T saved = member;
    expectFault(a, fault, [&] { member = static_cast<T>(wrong); }, [&] { member = saved; });
}

std::string numbered(char const* what, unsigned long x, unsigned long y) {
    return std::string(what) + " (" + std::to_string(x) + ", " + std::to_string(y) + ")";
}

TEST_F(PageEdges, VerifierNamesCountersOrRunsWithoutADirectory) {
    zotest::RegionSource source{1ul << 16, 1ul << 24};
    source.exhausted = true;
    BSDAllocator a(&source);
    a.init();
    EXPECT_EQ(capture.take(), std::vector<std::string>{"parent alloc failed, check limits"});
    ASSERT_EQ(Inspect::directory(a), nullptr);
    char const* kFault = "counters or runs without a directory";
    // Colour 256 moves allocatedMemory() itself.
    expectFault(a, kFault, [&] { a.adjustColorMemory(256, 4096); }, [&] { a.adjustColorMemory(256, -4096); });
    FreeRun stray{};
    expectFieldFault(a, kFault, field(a, FreeRunsField{}), &stray);
    expectFieldFault(a, kFault, field(a, InternalFreeField{}), 4096u);
    // Per-colour counters are not looked at without a directory.
    a.adjustColorMemory(3, 4096);
    EXPECT_EQ(Inspect::verify(a), "");
    a.adjustColorMemory(3, -4096);
}

TEST_F(PageEdges, VerifierNamesDirectoryFaults) {
    Built b;
    BSDAllocator& a = b.a;
    unsigned long size = Inspect::directorySize(a);
    ASSERT_EQ(size, 512u);
    ASSERT_LT(Inspect::lastIndex(a) + 1, size - 1);
    expectFieldFault(a, numbered("lastIndex beyond the directory", size, size), field(a, LastIndexField{}), size);
    expectFieldFault(a, numbered("directory not whole pages", size - 1, 0), field(a, DirectorySizeField{}), size - 1);

    // Copies of the directory elsewhere: one page aligned, one a word past a page.
    unsigned long* dir = Inspect::directory(a);
    auto* copies = static_cast<unsigned long*>(std::aligned_alloc(kPage, 4 * kPage));
    ASSERT_NE(copies, nullptr);
    std::memset(copies, 0, 4 * kPage);
    std::memcpy(copies, dir, kPage);
    std::memcpy(copies + 2 * bsd::kEntriesPerPage + 1, dir, kPage - sizeof(unsigned long));
    expectFieldFault(a, "directory not page aligned", field(a, DirectoryField{}), copies + 2 * bsd::kEntriesPerPage + 1);
    // The aligned copy lies outside the pages the directory maps.
    unsigned long copyIndex = bsd::pageNumber(copies) - Inspect::originPage(a);
    ASSERT_GT(copyIndex, Inspect::lastIndex(a));
    expectFieldFault(a, numbered("directory's first page not a colour-0 run", copyIndex, 0), field(a, DirectoryField{}),
                     copies);
    std::free(copies);

    // The page after the directory's single page claims to continue its run.
    unsigned long dirIndex = b.indexOf(dir);
    expectFieldFault(a, "directory run too long", dir[dirIndex + 1], bsd::kRunFollow);
}

TEST_F(PageEdges, VerifierNamesADirectoryRunCutShort) {
    zotest::RegionSource source{1ul << 16, 1ul << 28};
    BSDAllocator a(&source);
    a.init();
    // A region 8 MiB past the directory's span: the directory grows into it.
    // (More pages than the first region left free, so that a region is asked.)
    source.leaveGap(8ul << 20);
    void* p = a.alloc(20 * kPage, 2);
    ASSERT_NE(p, nullptr);
    unsigned long dirPages = Inspect::directorySize(a) / bsd::kEntriesPerPage;
    ASSERT_GE(dirPages, 2u);
    unsigned long* dir = Inspect::directory(a);
    unsigned long dirIndex = bsd::pageNumber(dir) - Inspect::originPage(a);
    expectFieldFault(a, numbered("directory run too short", 1, dirPages), dir[dirIndex + 1], bsd::kFreePage);
    expectFieldFault(a, numbered("directory run too short", dirPages - 1, dirPages), dir[dirIndex + dirPages - 1],
                     bsd::kRunFirst);
}

TEST_F(PageEdges, VerifierNamesChunkPageFaults) {
    Built b;
    BSDAllocator& a = b.a;
    PgInfo* first = b.info(b.chunks.front());
    ASSERT_NE(first, nullptr);
    expectFieldFault(a, numbered("bad shift", b.indexOf(first->page), 12), first->shift, 12);
    // The third page has one chunk in use: marking it free too leaves a page whose
    // chunks are all free.
    void* last = b.chunks.back();
    PgInfo* third = b.info(last);
    ASSERT_EQ(third->free + 1u, third->total);
    unsigned int k = static_cast<unsigned int>((reinterpret_cast<std::uintptr_t>(last) % kPage) >> 6);
    std::uint32_t saved = third->bits()[k / 32];
    expectFault(a, numbered("all chunks free but page kept", b.indexOf(last), third->total),
                [&] {
                    third->bits()[k / 32] |= 1u << (k % 32);
                    ++third->free;
                },
                [&] {
                    third->bits()[k / 32] = saved;
                    --third->free;
                });
}

TEST_F(PageEdges, VerifierNamesRunRecordFaults) {
    Built b;
    BSDAllocator& a = b.a;
    FreeRun* r1 = b.firstRun();
    ASSERT_NE(r1, nullptr);
    FreeRun* r2 = r1->next;
    ASSERT_NE(r2, nullptr);
    ASSERT_LT(r1->end, r2->start);

    expectFieldFault(a, "run record's back link", r1->prev, &r1->next);
    expectFieldFault(a, "run record's bounds", r1->end, r1->start);
    expectFieldFault(a, "run record's bounds", r1->size, r1->size + kPage);
    FreeRun saved = *r1;
    expectFault(a, "run not whole pages",
                [&] {
                    r1->start += 8;
                    r1->end += 8;
                },
                [&] { *r1 = saved; });
    // The second run reaching back over the pages between: runs out of order.
    FreeRun saved2 = *r2;
    expectFault(a, "runs out of order or touching",
                [&] {
                    r2->start = r1->end;
                    r2->size = static_cast<unsigned long>(r2->end - r2->start);
                },
                [&] { *r2 = saved2; });
    // The first run reaching 1 GiB below the directory's first page: that page is
    // none of the allocator's.
    char* below = reinterpret_cast<char*>(reinterpret_cast<std::uintptr_t>(r1->start) - (1ul << 30));
    EXPECT_EQ(Inspect::entryOf(a, below), 0u);
    expectFault(a, numbered("page of a run not marked free", bsd::pageNumber(below), 0),
                [&] {
                    r1->start = below;
                    r1->size += 1ul << 30;
                },
                [&] { *r1 = saved; });

    // Dropping the last record leaves its pages free outside every run.
    FreeRun* tail = b.lastRun();
    unsigned long freePages = a.internalFree() / kPage;
    expectFieldFault(a, numbered("free pages outside the runs", freePages, freePages - tail->size / kPage), *tail->prev,
                     nullptr);
}

// Moves the record r to `to` (at least a record's size of writable bytes), fixing
// the links to it; the same with the old place undoes it.
FreeRun* moveRecord(FreeRun* r, void* to) {
    auto* n = static_cast<FreeRun*>(to);
    std::memcpy(static_cast<void*>(n), r, sizeof(FreeRun));
    *n->prev = n;
    if (n->next) n->next->prev = &n->next;
    return n;
}

TEST_F(PageEdges, VerifierChecksThatEachRunRecordIsALiveRecordChunk) {
    Built b;
    BSDAllocator& a = b.a;
    FreeRun* r = b.firstRun();
    ASSERT_NE(r, nullptr);
    ASSERT_NE(r->next, nullptr);
    auto* home = static_cast<char*>(static_cast<void*>(r));
    char const* kFault = "run record is not a live record chunk";
    struct Place {
        char const* what;
        char* at;
        char const* fault;  // empty: a sound place
    };
    std::vector<Place> places = {
        {"a colour-0 chunk of the record size", static_cast<char*>(b.recordSized), ""},
        {"a page run", static_cast<char*>(b.run), kFault},
        {"a chunk of colour 4", static_cast<char*>(b.chunks[1]), kFault},
        {"a colour-0 chunk of 32 bytes", static_cast<char*>(b.small32), kFault},
        {"eight bytes into a record-sized chunk", static_cast<char*>(b.recordSized) + 8, kFault},
    };
    for (Place const& p : places) {
        SCOPED_TRACE(p.what);
        expectFault(a, p.fault, [&] { moveRecord(r, p.at); },
                    [&] { moveRecord(reinterpret_cast<FreeRun*>(p.at), home); });
    }
    // In a record-sized chunk whose bit says free.
    PgInfo* info = b.info(b.recordSized);
    unsigned int k = static_cast<unsigned int>((reinterpret_cast<std::uintptr_t>(b.recordSized) % kPage) >> info->shift);
    expectFault(a, kFault,
                [&] {
                    moveRecord(r, b.recordSized);
                    info->bits()[k / 32] |= 1u << (k % 32);
                    ++info->free;
                },
                [&] {
                    info->bits()[k / 32] &= ~(1u << (k % 32));
                    --info->free;
                    moveRecord(static_cast<FreeRun*>(b.recordSized), home);
                });
}

TEST_F(PageEdges, VerifierChecksTheSpareRecord) {
    Built b;
    BSDAllocator& a = b.a;
    FreeRun*& spare = field(a, SpareRunField{});
    char const* kFault = "spare record is not a live record chunk";
    expectFieldFault(a, kFault, spare, b.run);
    expectFieldFault(a, kFault, spare, b.chunks[1]);
    expectFieldFault(a, kFault, spare, static_cast<void*>(static_cast<char*>(b.recordSized) + 16));
    expectFieldFault(a, "", spare, b.recordSized);  // any live record chunk will do
}

TEST_F(PageEdges, VerifierNamesChunkListFaults) {
    Built b;
    BSDAllocator& a = b.a;
    PgInfo* head = b.list(4, 6);
    ASSERT_NE(head, nullptr);
    PgInfo* second = head->next;
    ASSERT_NE(second, nullptr);
    ASSERT_EQ(second->next, nullptr);
    std::string listed = numbered("listed page", 4, 6);
    // The first 64-byte page has no free chunk.
    PgInfo* full = b.info(b.chunks.front());
    ASSERT_EQ(full->free, 0u);
    expectFieldFault(a, listed, second->next, full);
    // A colour-4 page of 32-byte chunks.
    PgInfo* other = b.info(b.small4);
    ASSERT_EQ(other->next, nullptr);
    expectFieldFault(a, listed, second->next, other);
    // A copy of a listed record: right colour, size and free count, but not the record
    // its page's entry names.
    PgInfo copy = *second;
    copy.next = nullptr;
    expectFieldFault(a, numbered("listed page's entry", 4, 6), second->next, &copy);
    expectFieldFault(a, numbered("list longer than its pages", 4, 6), second->next, head);
    expectFieldFault(a, numbered("chunk page with free chunks not listed", 4, 6), head->next, nullptr);
    expectFieldFault(a, numbered("chunk page with free chunks not listed", 4, 6), b.list(4, 6), nullptr);
}

TEST_F(PageEdges, VerifierNamesCounterFaults) {
    Built b;
    BSDAllocator& a = b.a;
    unsigned int* counters = field(a, CountersField{});
    unsigned int freeOf4 = counters[4];
    EXPECT_EQ(freeOf4, a.freeColorMemory(4));
    expectFieldFault(a, numbered("freeByColor", 4, freeOf4 + 64), counters[4], freeOf4 + 64);
    unsigned int runBytes = field(a, InternalFreeField{});
    expectFieldFault(a, numbered("internalFree", runBytes + kPage, runBytes), field(a, InternalFreeField{}),
                     runBytes + kPage);
    unsigned long owned = 0;
    for (unsigned long i = 0; i <= Inspect::lastIndex(a); ++i) owned += Inspect::directory(a)[i] != 0;
    expectFieldFault(a, numbered("owned more than obtained", owned, owned * kPage - 1), field(a, ObtainedField{}),
                     owned * kPage - 1);
}

}  // namespace
