// Internal layout of the page allocator (BSDAllocator), shared by pagealloc.cpp and
// the tests: the chunk page record, the free-run record, the constants, and the
// tests' view of the structure (its verifier is BSDAllocator::verify, in
// pagealloc.cpp, with the invariants drawn at the top of that file).
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

    // The verifier, as the tests have always called it: empty when sound.
    static std::string verify(A const& a) {
        char const* fault = a.verify();
        return fault ? fault : "";
    }
};

}  // namespace Utils
