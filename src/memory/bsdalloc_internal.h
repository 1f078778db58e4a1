// Internal layout of BSDAllocator, shared by bsdalloc.cpp and the tests: the chunk
// page record, the free-run record, the constants, and the verifier that checks a
// whole allocator against its invariants (listed at the top of bsdalloc.cpp).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "utils/allocator.h"

namespace Utils {

namespace bsd {

constexpr unsigned int kPageShift = 12;
constexpr unsigned long kPageSize = 1ul << kPageShift;
constexpr unsigned int kMinShift = 4;   // 16-byte chunks
constexpr unsigned int kMaxShift = 11;  // 2048-byte chunks
constexpr unsigned long kMaxChunk = 1ul << kMaxShift;

// Directory entry values; anything above kRunFollow is a pginfo address.
constexpr unsigned long kNotOwned = 0;
constexpr unsigned long kFreePage = 1;
constexpr unsigned long kRunFirst = 2;  // + colour
constexpr unsigned long kRunFollow = 258;

// Entries are wide enough to hold a pginfo address, so one page holds 512 of them.
constexpr unsigned long kEntriesPerPage = kPageSize / sizeof(unsigned long);
// A directory spanning more pages than this (512 GiB of addresses, a 1 GiB
// directory) is refused as out of memory: a parent whose regions lie that far
// apart cannot be served by one directory.
constexpr unsigned long kMaxDirectoryEntries = 1ul << 27;

inline unsigned long pageNumber(void const* p) {
    return reinterpret_cast<std::uintptr_t>(p) >> kPageShift;
}

// log2 of the chunk for `size` bytes (at most kMaxChunk): the smallest power of
// two not below size, at least 16.
constexpr unsigned int shiftFor(unsigned long size) {
    return size <= (1ul << kMinShift) ? kMinShift : 64u - static_cast<unsigned int>(__builtin_clzl(size - 1));
}

}  // namespace bsd

// One per chunk page: which chunks are free (bit set = free).
struct BSDAllocator::pginfo {
    pginfo* next;          // next chunk page with a free chunk, same colour and size
    char* page;            // the page's address
    std::uint16_t size;    // chunk size in bytes
    std::uint8_t shift;    // log2 of size
    std::uint8_t color;
    std::uint16_t free;    // free chunks (set bits)
    std::uint16_t total;   // chunks in use or free: the page's chunks less those the record covers
    // The bitmap follows the record: one bit per chunk of the page, in 32-bit words.
    std::uint32_t* bits() { return reinterpret_cast<std::uint32_t*>(this + 1); }
    std::uint32_t const* bits() const { return reinterpret_cast<std::uint32_t const*>(this + 1); }

    // Record plus bitmap, in bytes, for chunks of 1 << shift.
    static constexpr unsigned long bytesFor(unsigned int shift) {
        return sizeof(pginfo) + 4 * (((bsd::kPageSize >> shift) + 31) / 32);
    }
    // The record lies at the start of its page unless a chunk is more than twice
    // its size; the chunks it covers are then never handed out.
    static constexpr bool inPage(unsigned int shift) { return !((1ul << shift) > 2 * bytesFor(shift)); }
    // Chunks of a page that can be handed out.
    static constexpr unsigned int chunksPerPage(unsigned int shift) {
        return static_cast<unsigned int>((bsd::kPageSize >> shift) -
                                         (inPage(shift) ? (bytesFor(shift) + (1ul << shift) - 1) >> shift : 0));
    }
};

// One free run of whole pages; the list is ordered by address and no two runs touch.
struct BSDAllocator::FreeRun {
    FreeRun* next;
    FreeRun** prev;        // the previous record's next field, or the list head
    char* start;           // first address of the run
    char* end;             // address just past the run
    unsigned long size;    // end - start
};

namespace bsd {
// Records are allocated from the allocator itself, as colour-0 chunks of this shift.
constexpr unsigned int kRunShift = shiftFor(sizeof(BSDAllocator::FreeRun));
}  // namespace bsd

// Test access to the structure, and the verifier.
struct BSDAllocatorInspector {
    using A = BSDAllocator;

    static unsigned long* directory(A const& a) { return a.directory; }
    static unsigned long originPage(A const& a) { return a.originPage; }
    static unsigned long lastIndex(A const& a) { return a.lastIndex; }
    static unsigned long directorySize(A const& a) { return a.directorySize; }
    static unsigned long obtainedBytes(A const& a) { return a.obtainedBytes; }
    static bool hasSpareRun(A const& a) { return a.spareRun != nullptr; }
    static constexpr unsigned long runRecordSize() { return sizeof(A::FreeRun); }
    static constexpr unsigned long pginfoBytes(unsigned int shift) { return A::pginfo::bytesFor(shift); }
    static constexpr bool pginfoInPage(unsigned int shift) { return A::pginfo::inPage(shift); }
    static constexpr unsigned int chunksPerPage(unsigned int shift) { return A::pginfo::chunksPerPage(shift); }

    // The directory entry of p's page; 0 outside the directory.
    static unsigned long entryOf(A const& a, void const* p) {
        unsigned long index = bsd::pageNumber(p) - a.originPage;
        return a.inDirectory(index) ? a.directory[index] : 0;
    }
    static void setEntryOf(A& a, void const* p, unsigned long value) {
        a.directory[bsd::pageNumber(p) - a.originPage] = value;
    }

    struct Run { char* start; char* end; };
    static std::vector<Run> freeRuns(A const& a) {
        std::vector<Run> out;
        for (A::FreeRun* r = a.freeRuns; r; r = r->next) out.push_back({r->start, r->end});
        return out;
    }
    // Chunk pages listed for a colour and a shift, with their free counts.
    static std::vector<unsigned int> listedFree(A const& a, unsigned int color, unsigned int shift) {
        std::vector<unsigned int> out;
        for (A::pginfo* i = a.chunkLists[color][shift]; i; i = i->next) out.push_back(i->free);
        return out;
    }

    // Checks every invariant; returns an empty string, or what is wrong.
    static std::string verify(A const& a) {
        char buf[256];
        auto fail = [&](char const* what, unsigned long x, unsigned long y) {
            std::snprintf(buf, sizeof buf, "%s (%lu, %lu)", what, x, y);
            return std::string(buf);
        };
        if (!a.directory) {
            if (a.freeRuns || a.allocatedTotal() || a.internalFreeBytes) return "counters or runs without a directory";
            return {};
        }
        if (a.lastIndex >= a.directorySize) return fail("lastIndex beyond the directory", a.lastIndex, a.directorySize);
        if (a.directorySize % bsd::kEntriesPerPage) return fail("directory not whole pages", a.directorySize, 0);
        for (unsigned long i = a.lastIndex + 1; i < a.directorySize; ++i)
            if (a.directory[i]) return fail("entry beyond lastIndex", i, a.directory[i]);

        // The directory's own pages: a colour-0 run of exactly its size.
        unsigned long dirIndex = bsd::pageNumber(a.directory) - a.originPage;
        unsigned long dirPages = a.directorySize / bsd::kEntriesPerPage;
        if (reinterpret_cast<std::uintptr_t>(a.directory) % bsd::kPageSize) return "directory not page aligned";
        if (!a.inDirectory(dirIndex) || a.directory[dirIndex] != bsd::kRunFirst)
            return fail("directory's first page not a colour-0 run", dirIndex, 0);
        for (unsigned long k = 1; k < dirPages; ++k)
            if (a.directory[dirIndex + k] != bsd::kRunFollow) return fail("directory run too short", k, dirPages);
        if (dirIndex + dirPages <= a.lastIndex && a.directory[dirIndex + dirPages] == bsd::kRunFollow)
            return "directory run too long";

        unsigned long allocated[A::kColors + 1] = {};
        unsigned long freeChunkBytes[A::kColors + 1] = {};
        unsigned long listedExpected[A::kColors][A::kShifts] = {};
        unsigned long freePages = 0, ownedPages = 0, allocatedPages = 0;
        unsigned long runColor = 0;
        bool inRun = false;
        for (unsigned long i = 0; i <= a.lastIndex; ++i) {
            unsigned long e = a.directory[i];
            char* page = reinterpret_cast<char*>((a.originPage + i) << bsd::kPageShift);
            if (e == bsd::kNotOwned) { inRun = false; continue; }
            ++ownedPages;
            if (e == bsd::kFreePage) { ++freePages; inRun = false; continue; }
            if (e < bsd::kRunFollow) {
                runColor = e - bsd::kRunFirst;
                inRun = true;
                allocated[runColor] += bsd::kPageSize;
                ++allocatedPages;
                continue;
            }
            if (e == bsd::kRunFollow) {
                if (!inRun) return fail("following page without a run", i, 0);
                allocated[runColor] += bsd::kPageSize;
                ++allocatedPages;
                continue;
            }
            inRun = false;
            A::pginfo const* info = reinterpret_cast<A::pginfo const*>(e);
            if (info->page != page) return fail("pginfo of another page", i, 0);
            if (info->shift < bsd::kMinShift || info->shift > bsd::kMaxShift) return fail("bad shift", i, info->shift);
            if (info->size != (1u << info->shift)) return fail("size and shift disagree", i, info->size);
            if (A::pginfo::inPage(info->shift) != (reinterpret_cast<char const*>(info) == page))
                return fail("pginfo placement", i, info->shift);
            if (info->total != A::pginfo::chunksPerPage(info->shift)) return fail("chunk total", i, info->total);
            unsigned long n = bsd::kPageSize >> info->shift, set = 0;
            unsigned long covered = n - info->total;
            for (unsigned long w = 0; w < (n + 31) / 32; ++w) {
                // Bits may be set only for the chunks [covered, n) that this word holds.
                unsigned long lo = covered > 32 * w ? covered - 32 * w : 0;
                unsigned long hi = n < 32 * w + 32 ? n - 32 * w : 32;
                std::uint32_t allowed = 0;
                if (hi > lo) allowed = static_cast<std::uint32_t>(((hi - lo == 32 ? ~0ul : (1ul << (hi - lo)) - 1)) << lo);
                std::uint32_t word = info->bits()[w];
                if (word & ~allowed) return fail("bit set outside the chunks", i, w);
                set += static_cast<unsigned long>(__builtin_popcount(word));
            }
            if (set != info->free) return fail("free count differs from bitmap", i, set);
            if (info->free >= info->total) return fail("all chunks free but page kept", i, info->free);
            allocated[info->color] += bsd::kPageSize;
            ++allocatedPages;
            freeChunkBytes[info->color] +=
                bsd::kPageSize - static_cast<unsigned long>(info->total - info->free) * info->size;
            if (info->free) ++listedExpected[info->color][info->shift];
        }

        // Free runs against the directory.
        unsigned long runBytes = 0, runPages = 0;
        A::FreeRun* const* expectPrev = &a.freeRuns;
        char* lastEnd = nullptr;
        for (A::FreeRun* r = a.freeRuns; r; r = r->next) {
            if (r->prev != expectPrev) return "run record's back link";
            expectPrev = &r->next;
            if (r->start >= r->end || r->size != static_cast<unsigned long>(r->end - r->start))
                return "run record's bounds";
            if ((reinterpret_cast<std::uintptr_t>(r->start) | r->size) % bsd::kPageSize) return "run not whole pages";
            if (lastEnd && r->start <= lastEnd) return "runs out of order or touching";
            lastEnd = r->end;
            for (char* p = r->start; p < r->end; p += bsd::kPageSize)
                if (entryOf(a, p) != bsd::kFreePage) return fail("page of a run not marked free", bsd::pageNumber(p), 0);
            if (!isLiveRecord(a, r)) return "run record is not a live record chunk";
            runBytes += r->size;
            runPages += r->size >> bsd::kPageShift;
        }
        if (runPages != freePages) return fail("free pages outside the runs", freePages, runPages);
        if (a.spareRun && !isLiveRecord(a, a.spareRun)) return "spare record is not a live record chunk";

        // Chunk lists against the directory.
        for (unsigned c = 0; c < A::kColors; ++c)
            for (unsigned s = 0; s < A::kShifts; ++s) {
                unsigned long listed = 0;
                for (A::pginfo* i = a.chunkLists[c][s]; i; i = i->next) {
                    if (i->color != c || i->shift != s || i->free == 0) return fail("listed page", c, s);
                    if (entryOf(a, i->page) != reinterpret_cast<unsigned long>(i)) return fail("listed page's entry", c, s);
                    if (++listed > listedExpected[c][s]) return fail("list longer than its pages", c, s);
                }
                if (listed != listedExpected[c][s]) return fail("chunk page with free chunks not listed", c, s);
            }

        // Counters.
        unsigned long total = 0;
        for (unsigned c = 0; c < A::kColors; ++c) {
            total += allocated[c];
            if (a.allocatedByColor()[c] != static_cast<unsigned int>(allocated[c]))
                return fail("allocatedByColor", c, a.allocatedByColor()[c]);
            if (a.freeByColor()[c] != static_cast<unsigned int>(freeChunkBytes[c]))
                return fail("freeByColor", c, a.freeByColor()[c]);
        }
        if (a.allocatedTotal() != static_cast<unsigned int>(total)) return fail("allocatedTotal", a.allocatedTotal(), total);
        if (total != allocatedPages * bsd::kPageSize) return "allocated pages";
        if (a.internalFreeBytes != static_cast<unsigned int>(runBytes))
            return fail("internalFree", a.internalFreeBytes, runBytes);
        if (a.obtainedBytes < ownedPages * bsd::kPageSize) return fail("owned more than obtained", ownedPages, a.obtainedBytes);
        return {};
    }

private:
    // A free-run record is a colour-0 chunk of the record size that is allocated.
    static bool isLiveRecord(A const& a, void const* rec) {
        unsigned long e = entryOf(a, rec);
        if (e <= bsd::kRunFollow) return false;
        A::pginfo const* info = reinterpret_cast<A::pginfo const*>(e);
        if (info->color != 0 || info->shift != bsd::kRunShift) return false;
        unsigned long k = (reinterpret_cast<std::uintptr_t>(rec) % bsd::kPageSize) >> info->shift;
        if (reinterpret_cast<std::uintptr_t>(rec) % info->size) return false;
        return !((info->bits()[k / 32] >> (k % 32)) & 1);
    }
};

}  // namespace Utils
