// BSDAllocator: pages and power-of-two chunks over a parent allocator.
//
// Pages are 4096 bytes. The directory holds one entry per page, from originPage
// on; entries are unsigned long so that a pginfo address fits in one:
//
//   entry            meaning
//   0                page not owned by this allocator
//   1                free page, part of a free run
//   2 + c, c < 256   first page of an allocated run of colour c
//   258              following page of an allocated run
//   above 258        address of the pginfo of a chunk page
//
// The first directory is one page, 512 eight-byte entries (mapping 2 MiB); it
// grows in whole pages. Byte counters are 32-bit and wrap like the arena's.
//
//   directory:  [2][258][1][1][1][pginfo*][2+7][258][258][0][0][1] ...
//               \dir's /\free run/ chunk pg \run of colour 7/ not ours
//
// Invariants (BSDAllocatorInspector::verify checks each one):
//  - The directory lies in pages it owns, recorded as a run of colour 0; entries
//    past lastIndex are 0. A 258 entry follows a 2..258 entry.
//  - freeRuns is ordered by address; runs are whole pages, never overlap and never
//    touch (a release merges touching runs); their pages are exactly the 1 entries.
//    Each record, and spareRun, is an allocated colour-0 chunk of this allocator.
//  - A chunk page's bitmap has one set bit per free chunk and `free` counts them;
//    0 <= free < total (a page whose chunks are all free goes back to the runs at
//    once). chunkLists[c][s] holds exactly the pages of colour c and shift s with
//    free > 0.
//  - allocatedByColor[c] = 4096 x (pages of colour c in runs and chunk pages);
//    allocatedTotal = their sum; internalFreeBytes = bytes in free runs;
//    freeByColor[c] = sum over chunk pages of colour c of 4096 - allocated chunk
//    bytes (the bytes a pginfo covers count as free).
//  These counter identities hold until adjustColorMemory is used or a failed
//  allocation leaves its early counter changes behind (both kept on purpose).
//
// Nothing on the release path allocates pages: a release that needs a new run
// record and finds neither spareRun nor a free record chunk turns the first page
// of the run it releases into a page of records. So mapPages (which releases
// surplus pages and old directories) can never recurse into itself.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "memory/pagealloc_internal.h"
#include "memory/census.h"
#include "memory/debug.h"
#include "memory/watch.h"
#include "utils/log.h"
#include "utils/result.h"
#include "zosys.h"
#include "zosys_faults.h"

namespace Utils {

using namespace bsd;

namespace {

// One message to the "allocator" category under the source name "bsdalloc" and the
// line of the call: errors at level -3, warnings at -2. Nothing here holds a lock
// while logging (the allocator has none), so the hub may allocate freely.
void report(MessageClass c, unsigned int line, char const* text) {
    LineLogLevel(c, c == MessageError ? -3 : -2, "bsdalloc", line).print(allocLogger, "%s", text);
}

#define BSD_ERROR(text) (faulted = 1, report(MessageError, __LINE__, text))
#define BSD_WARNING(text) (faulted = 1, report(MessageWarning, __LINE__, text))

static_assert(BSDAllocator::pginfo::inPage(kRunShift),
              "a page of run records must carry its own pginfo: turning a released page into one "
              "must not allocate");
static_assert(sizeof(BSDAllocator::pginfo) % 4 == 0, "the bitmap follows the record");

inline std::uintptr_t addr(void const* p) { return reinterpret_cast<std::uintptr_t>(p); }

}  // namespace

BSDAllocator::BSDAllocator(Allocator* parent)
    : parent(parent),
      originPage(0),
      lastIndex(0),
      directory(nullptr),
      chunkLists{},
      directorySize(0),
      freeRuns(nullptr),
      spareRun(nullptr),
      colorSlot(-1),
      counters{},
      internalFreeBytes(0),
      faulted(0),
      obtainedBytes(0) {
    watch::start();
    watch::poolStart(this);
}

BSDAllocator::~BSDAllocator() {
    // A parent may reuse the regions once this allocator is gone: take the
    // poisoning off the pages the directory spans (unless unreasonably many).
    if (watch::kPoison && directory && lastIndex < (1ul << 16))
        watch::release(reinterpret_cast<char*>(originPage << kPageShift), (lastIndex + 1) << kPageShift);
}

void BSDAllocator::init() {
    watch::start();
    watch::poolStart(this);
    faulted = 0;
    originPage = 0;
    lastIndex = 0;
    directory = nullptr;
    std::memset(chunkLists, 0, sizeof chunkLists);
    directorySize = 0;
    freeRuns = nullptr;
    spareRun = nullptr;
    std::memset(counters, 0, sizeof counters);
    internalFreeBytes = 0;
    obtainedBytes = 0;
    if (setUp() && !spareRun) spareRun = static_cast<FreeRun*>(take(sizeof(FreeRun), 0));
    colorSlot = static_cast<int>(ZoIF_AllocateTLSCoop());
}

// The first region: one page for the directory (more when the parent hands out a
// region too large for one page of entries); the rest becomes free runs. It is
// asked with parent->alloc(4096), the parent's default colour, unlike every later
// region (colour 0): on a parent with colours the directory is charged to the
// calling task's default colour. Failing here leaves the allocator without a
// directory; the next allocation tries again, the same way.
bool BSDAllocator::setUp() {
    void* raw = nullptr;
    unsigned long bytes = 0, got = 0;
    bool misaligned = false;
    char* start = parentPages(1, true, &raw, &bytes, &got, &misaligned);
    if (misaligned) BSD_ERROR("init - Allocation is not page aligned");
    if (!start) {
        BSD_ERROR("parent alloc failed, check limits");
        return false;
    }
    if (got > kMaxDirectoryEntries) got = kMaxDirectoryEntries;
    keepRegion(raw, bytes);
    obtainedBytes += bytes;
    unsigned long origin = 0;
    unsigned long directoryPages = directoryPagesFor(start, got, &origin);
    adoptRegion(start, got, directoryPages, origin, 0);
    return true;
}

// Takes from the parent a region holding at least `pages` whole pages and returns
// its first page; asked with alloc(size) when `defaultColour`, else alloc(size, 0).
// A region that is not page aligned is given back and asked again (the same way)
// one page larger, so that it holds the pages from its first page boundary on:
// only whole pages inside a region are ever used. Null when the parent fails or
// hands out less than asked.
char* BSDAllocator::parentPages(unsigned long pages, bool defaultColour, void** raw, unsigned long* bytes,
                                unsigned long* got, bool* misaligned) {
    *misaligned = false;
    if (pages >= kMaxDirectoryEntries) return nullptr;
    unsigned long want = pages << kPageShift;
    auto ask = [this, defaultColour](unsigned long size) -> void* {
        if (ZoIF_Faulty(ZOIF_FAULT_PARENT)) return nullptr;
        return defaultColour ? parent->alloc(size) : parent->alloc(size, 0);
    };
    void* r = ask(want);
    if (!r) return nullptr;
    if (addr(r) % kPageSize) {
        *misaligned = true;
        parent->free(r);
        r = ask(want + kPageSize);
        if (!r) return nullptr;
    }
    unsigned long s = parent->size(r);
    std::uintptr_t first = (addr(r) + kPageSize - 1) & ~(kPageSize - 1);
    std::uintptr_t end = (addr(r) + s) & ~(kPageSize - 1);
    *got = end > first ? (end - first) >> kPageShift : 0;
    if (*got < pages) {
        parent->free(r);
        return nullptr;
    }
    *raw = r;
    *bytes = s;
    return reinterpret_cast<char*>(first);
}

// A region kept from the parent: memcheck forgets the parent's record of it, so
// that the chunks described inside it overlap nothing (memory/watch.h).
void BSDAllocator::keepRegion(void* raw, unsigned long bytes) {
    if (!watch::on()) return;
    watch::disown(parent, raw);
    watch::expose(raw, bytes);
}

// Pages of directory that a region of `got` pages at `start` requires in front of
// it: 0 when the present directory covers it, ~0 when the span is too large. A
// directory that must change grows to at least twice its capacity, in whole pages,
// with the room on the side where the region fell (above for a region past its
// end, below for one before its origin), so that a parent handing out regions in
// one direction rarely makes it move. *origin receives its new first page.
unsigned long BSDAllocator::directoryPagesFor(char const* start, unsigned long got, unsigned long* origin) const {
    unsigned long first = pageNumber(start), last = first + got - 1;
    unsigned long lo = first, hi = last;
    if (directory) {
        if (first >= originPage && last - originPage < directorySize) return 0;
        if (originPage < lo) lo = originPage;
        if (originPage + lastIndex > hi) hi = originPage + lastIndex;
    }
    unsigned long entries = hi - lo + 1;
    if (entries > kMaxDirectoryEntries) return ~0ul;
    unsigned long capacity = entries;
    if (2 * directorySize > capacity && 2 * directorySize <= kMaxDirectoryEntries) capacity = 2 * directorySize;
    capacity = (capacity + kEntriesPerPage - 1) / kEntriesPerPage * kEntriesPerPage;
    *origin = lo;
    if (directory && first < originPage) *origin = hi + 1 >= capacity ? hi + 1 - capacity : 0;
    return capacity / kEntriesPerPage;
}

// A run's directory entries: its first page, then the following pages.
void BSDAllocator::fillRun(unsigned long index, unsigned long pages, unsigned int color) {
    directory[index] = kRunFirst + color;
    for (unsigned long k = 1; k < pages; ++k) directory[index + k] = kRunFollow;
}

void BSDAllocator::markRun(unsigned long index, unsigned long pages, unsigned int color) {
    fillRun(index, pages, color);
    allocatedTotal() += static_cast<unsigned int>(pages << kPageShift);
    allocatedByColor()[color] += static_cast<unsigned int>(pages << kPageShift);
}

// Takes a region of `got` pages into the directory: first `directoryPages` pages of
// new directory (when it must grow or move), then the `pages` asked for (returned,
// entries still 0: the caller marks them), then the surplus, which is marked as a
// colour-0 run and released into the free runs. The old directory is released last.
char* BSDAllocator::adoptRegion(char* start, unsigned long got, unsigned long directoryPages,
                                unsigned long origin, unsigned long pages) {
    unsigned long first = pageNumber(start), last = first + got - 1;
    unsigned long* oldDirectory = directory;
    if (directoryPages) {
        unsigned long hi = last;
        if (oldDirectory && originPage + lastIndex > hi) hi = originPage + lastIndex;
        unsigned long* grown = reinterpret_cast<unsigned long*>(start);
        // The whole new directory is cleared, then the old entries are copied to
        // where their pages now fall: pages between the old span and the region
        // read 0 (not owned).
        std::memset(grown, 0, directoryPages << kPageShift);
        if (oldDirectory)
            std::memcpy(grown + (originPage - origin), oldDirectory, (lastIndex + 1) * sizeof(unsigned long));
        directory = grown;
        directorySize = directoryPages * kEntriesPerPage;
        originPage = origin;
        lastIndex = hi - origin;
        markRun(first - originPage, directoryPages, 0);
    } else if (last - originPage > lastIndex) {
        lastIndex = last - originPage;
    }
    char* requested = start + (directoryPages << kPageShift);
    unsigned long surplus = got - directoryPages - pages;
    if (surplus) {
        char* extra = requested + (pages << kPageShift);
        markRun(pageNumber(extra) - originPage, surplus, 0);
        give(extra);
    }
    if (directoryPages && oldDirectory) give(oldDirectory);
    return requested;
}

void* BSDAllocator::mapPages(unsigned long pages) {
    unsigned long directoryPages = 0;
    // A region that needs a larger directory than it has room for is given back and
    // asked again with room; a parent that keeps moving its regions far away ends
    // this after a few tries.
    for (int attempt = 0; attempt < 4; ++attempt) {
        void* raw = nullptr;
        unsigned long bytes = 0, got = 0;
        bool misaligned = false;
        char* start = parentPages(pages + directoryPages, false, &raw, &bytes, &got, &misaligned);
        if (misaligned) BSD_ERROR("Allocation is not page aligned");
        if (!start) break;
        unsigned long origin = 0;
        unsigned long need = directoryPagesFor(start, got, &origin);
        if (need == ~0ul) {
            parent->free(raw);
            break;
        }
        if (got < pages + need) {
            parent->free(raw);
            directoryPages = need;
            continue;
        }
        keepRegion(raw, bytes);
        obtainedBytes += bytes;
        return adoptRegion(start, got, need, origin, pages);
    }
    BSD_ERROR("Failed to map new pages: Out of Memory");
    return nullptr;
}

void* BSDAllocator::allocPages(unsigned long size, unsigned int color) {
    unsigned long pages = (size >> kPageShift) + ((size & (kPageSize - 1)) != 0);
    unsigned int bytes = static_cast<unsigned int>(pages << kPageShift);  // the counters are 32-bit
    char* p = nullptr;
    FreeRun* unlinked = nullptr;
    for (FreeRun* r = freeRuns; r; r = r->next) {
        if ((r->size >> kPageShift) < pages) continue;
        p = r->start;
        if ((r->size >> kPageShift) == pages) {
            *r->prev = r->next;
            if (r->next) r->next->prev = r->prev;
            unlinked = r;
        } else {
            r->start += pages << kPageShift;
            r->size -= pages << kPageShift;
        }
        internalFreeBytes -= bytes;
        break;
    }
    // Counted before mapping, so also when mapping fails (kept).
    allocatedTotal() += bytes;
    allocatedByColor()[color] += bytes;
    if (!p) {
        p = static_cast<char*>(mapPages(pages));
        if (!p) return nullptr;
    }
    // Counted above, before mapping: the entries only.
    fillRun(pageNumber(p) - originPage, pages, color);
    if (unlinked) releaseRecord(unlinked);
    watch::expose(p, pages << kPageShift);
    return p;
}

void BSDAllocator::releaseRecord(FreeRun* run) {
    if (!spareRun)
        spareRun = run;
    else
        give(run);
}

// Where a run [start, end) goes in the list: *at is the first run that ends at or
// after start, or the last run when all end before it.
BSDAllocator::Place BSDAllocator::placeRun(char* start, char* end, FreeRun** at) const {
    FreeRun* r = freeRuns;
    while (r && r->end < start && r->next) r = r->next;
    *at = r;
    if (!r) return Place::Empty;
    if (r->start > end) return Place::Before;
    if (r->end == start) return Place::Append;
    if (r->start == end) return Place::Prepend;
    if (r->end < start) return Place::Tail;
    return Place::Broken;  // overlaps a run: the list and the directory disagree
}

void BSDAllocator::insertRun(char* start, char* end, Place place, FreeRun* at) {
    unsigned long size = static_cast<unsigned long>(end - start);
    watch::hide(start, size);  // free runs hold nothing: no-access while free
    if (place == Place::Prepend) {
        at->start = start;
        at->size += size;
        return;
    }
    if (place == Place::Append) {
        at->end = end;
        at->size += size;
        FreeRun* next = at->next;
        if (next && next->start == at->end) {
            at->end = next->end;
            at->size += next->size;
            at->next = next->next;
            if (next->next) next->next->prev = &at->next;
            releaseRecord(next);
        }
        return;
    }
    FreeRun* rec = spareRun;
    spareRun = nullptr;
    rec->start = start;
    rec->end = end;
    rec->size = size;
    if (place == Place::Empty) {
        rec->next = nullptr;
        rec->prev = &freeRuns;
        freeRuns = rec;
    } else if (place == Place::Before) {
        rec->next = at;
        rec->prev = at->prev;
        *at->prev = rec;
        at->prev = &rec->next;
    } else {  // Tail
        rec->next = nullptr;
        rec->prev = &at->next;
        at->next = rec;
    }
}

void BSDAllocator::freePages(void* ptr, unsigned long index, unsigned long entry) {
    if (entry == kFreePage) {
        BSD_WARNING("page is already free");
        return;
    }
    if (entry < kRunFirst || entry >= kRunFollow) {
        BSD_WARNING("pointer to wrong page");
        return;
    }
    if (addr(ptr) % kPageSize) {
        BSD_WARNING("modified (page-) pointer");
        return;
    }
    unsigned int color = static_cast<unsigned int>(entry - kRunFirst);
    unsigned long pages = runPages(index);
    char* start = static_cast<char*>(ptr);
    char* end = start + (pages << kPageShift);
    for (unsigned long k = 0; k < pages; ++k) directory[index + k] = kFreePage;
    allocatedTotal() -= static_cast<unsigned int>(pages << kPageShift);
    allocatedByColor()[color] -= static_cast<unsigned int>(pages << kPageShift);

    FreeRun* at = nullptr;
    Place place = placeRun(start, end, &at);
    if (place == Place::Broken) {
        BSD_ERROR("freelist is destroyed");
        return;
    }
    bool needsRecord = place == Place::Empty || place == Place::Before || place == Place::Tail;
    if (needsRecord && !spareRun) {
        if (!chunkLists[0][kRunShift]) {
            // No record chunk is free, and getting one must not allocate pages: the
            // run's first page becomes a page of records. The run keeps its place.
            pginfo* info = reinterpret_cast<pginfo*>(start);
            watch::expose(start, kPageSize);  // released a moment ago: the record is written here
            directory[index] = reinterpret_cast<unsigned long>(info);
            allocatedTotal() += static_cast<unsigned int>(kPageSize);
            allocatedByColor()[0] += static_cast<unsigned int>(kPageSize);
            adoptChunkPage(start, info, kRunShift, 0);
            start += kPageSize;
        }
        spareRun = static_cast<FreeRun*>(allocBytes(sizeof(FreeRun), 0));
        if (start == end) return;
    }
    internalFreeBytes += static_cast<unsigned int>(end - start);
    insertRun(start, end, place, at);
}

void BSDAllocator::adoptChunkPage(char* page, pginfo* info, unsigned int shift, unsigned int color) {
    unsigned int n = static_cast<unsigned int>(kPageSize >> shift);
    info->page = page;
    info->size = static_cast<std::uint16_t>(1u << shift);
    info->shift = static_cast<std::uint8_t>(shift);
    info->color = static_cast<std::uint8_t>(color);
    std::uint32_t* bits = info->bits();
    for (unsigned int w = 0; w < (n + 31) / 32; ++w) bits[w] = n - 32 * w >= 32 ? ~0u : (1u << (n - 32 * w)) - 1;
    unsigned int covered = n - pginfo::chunksPerPage(shift);
    if (reinterpret_cast<char*>(info) == page)
        for (unsigned int k = 0; k < covered; ++k) bits[k / 32] &= ~(1u << (k % 32));
    info->total = static_cast<std::uint16_t>(pginfo::chunksPerPage(shift));
    info->free = info->total;
    // Free chunks are no-access; a record at the page's start stays readable.
    char* firstFree = reinterpret_cast<char*>(info) == page ? page + (static_cast<unsigned long>(covered) << shift) : page;
    watch::hide(firstFree, static_cast<unsigned long>(page + kPageSize - firstFree));
    info->next = chunkLists[color][shift];
    chunkLists[color][shift] = info;
    freeByColor()[color] += static_cast<unsigned int>(kPageSize);
}

bool BSDAllocator::makeChunks(unsigned int shift, unsigned int color) {
    char* page = static_cast<char*>(allocPages(kPageSize, color));
    if (!page) return false;
    pginfo* info;
    if (pginfo::inPage(shift)) {
        info = reinterpret_cast<pginfo*>(page);
    } else {
        // Kept in colour 0 with the other bookkeeping (run records).
        info = static_cast<pginfo*>(take(pginfo::bytesFor(shift), 0));
        if (!info) {
            give(page);
            return false;
        }
    }
    directory[pageNumber(page) - originPage] = reinterpret_cast<unsigned long>(info);
    adoptChunkPage(page, info, shift, color);
    return true;
}

void* BSDAllocator::allocBytes(unsigned long size, unsigned int color) {
    unsigned int shift = shiftFor(size);
    // Taken before anything can fail, and kept when it does.
    freeByColor()[color] -= 1u << shift;
    if (!chunkLists[color][shift] && !makeChunks(shift, color)) return nullptr;
    pginfo* info = chunkLists[color][shift];
    std::uint32_t* bits = info->bits();
    unsigned int w = 0;
    while (!bits[w]) ++w;
    unsigned int b = static_cast<unsigned int>(__builtin_ctz(bits[w]));
    ZO_CHECK(info->free > 0 && info->free <= info->total && 32 * w + b < (kPageSize >> shift) &&
                 32 * w + b >= (kPageSize >> shift) - info->total,
             "allocBytes: a listed chunk page whose free count or bitmap is wrong");
    bits[w] &= ~(1u << b);
    if (--info->free == 0) chunkLists[color][shift] = info->next;
    char* chunk = info->page + (static_cast<unsigned long>(32 * w + b) << shift);
    watch::expose(chunk, 1ul << shift);
    return chunk;
}

void BSDAllocator::freeBytes(void* p, unsigned long index, pginfo* info) {
    watch::hide(p, info->size);
    unsigned int k = static_cast<unsigned int>((addr(p) % kPageSize) >> info->shift);
    ZO_CHECK(info->page == reinterpret_cast<char*>(addr(p) & ~(kPageSize - 1)) && info->free < info->total,
             "freeBytes: the chunk's page record is of another page, or has no chunk in use");
    ZO_CHECK(k >= (kPageSize >> info->shift) - info->total, "freeBytes: a chunk under the page's own record");
    info->bits()[k / 32] |= 1u << (k % 32);
    ++info->free;
    freeByColor()[info->color] += info->size;
    pginfo** head = &chunkLists[info->color][info->shift];
    if (info->free == 1) {
        pginfo** at = head;
        while (*at && (*at)->page < info->page) at = &(*at)->next;
        info->next = *at;
        *at = info;
    }
    if (info->free == info->total) {
        pginfo** at = head;
        while (*at != info) at = &(*at)->next;
        *at = info->next;
        directory[index] = kRunFirst + info->color;
        // The page leaves the colour's chunk pages: take back what makeChunks added,
        // so that the counter keeps meaning free chunk bytes.
        freeByColor()[info->color] -= static_cast<unsigned int>(kPageSize);
        char* page = info->page;
        if (reinterpret_cast<char*>(info) != page) give(info);
        give(page);
    }
}

void* BSDAllocator::take(unsigned long size, unsigned int color) {
    color &= kColors - 1;
    if (!directory && !setUp()) return nullptr;
    return size <= kMaxChunk ? allocBytes(size, color) : allocPages(size, color);
}

// The program's blocks are chunks of a memory-checker pool named by the allocator
// (memory/watch.h); its own records and pages are not.
void* BSDAllocator::imalloc(unsigned long size, unsigned int color) {
    void* p = take(size, color);
    if (p && watch::on()) {
        unsigned long usable = size <= kMaxChunk ? 1ul << shiftFor(size) : (size + kPageSize - 1) & ~(kPageSize - 1);
        watch::poolHandOut(this, p, size, usable);
    }
    if (!p) faulted = 1;
    if (!faulted) ZO_VERIFY_AFTER(this);
    return p;
}

void BSDAllocator::ifree(void* p) {
    // Reports a release of anything but a live block.
    if (watch::on()) watch::poolTakeBack(this, p);
    give(p);
    if (!faulted) ZO_VERIFY_AFTER(this);
}

void BSDAllocator::give(void* p) {
    unsigned long index = pageNumber(p) - originPage;
    unsigned long entry = inDirectory(index) ? directory[index] : kNotOwned;
    if (entry > kRunFollow)
        freeBytes(p, index, reinterpret_cast<pginfo*>(entry));
    else
        freePages(p, index, entry);
}

void* BSDAllocator::alloc(unsigned long size) {
    return imalloc(size, ZoIF_GetTLSCoop(static_cast<unsigned int>(colorSlot)));
}

void* BSDAllocator::alloc(unsigned long size, unsigned int color) { return imalloc(size, color); }

void BSDAllocator::free(void* p) {
    if (p) ifree(p);
}

// A caller told the usable size may use all of it.
unsigned long BSDAllocator::size(void* p) const {
    unsigned long n = usable(p);
    if (n && watch::on()) watch::widen(p, n);
    return n;
}

// The prologue of size, color and valid: false for null and for an address
// outside the directory (logged as junk when `junk`), else p's page index and its
// directory entry.
bool BSDAllocator::lookup(void const* p, bool junk, unsigned long* index, unsigned long* entry) const {
    if (!p) return false;
    // Unsigned: an address below the origin wraps to a large index.
    unsigned long i = pageNumber(p) - originPage;
    if (!inDirectory(i)) {
        if (junk) BSD_WARNING("junk pointer, too high to make sense");
        return false;
    }
    *index = i;
    *entry = directory[i];
    return true;
}

// The pages of the run whose first page has directory index `index`: it and the
// following pages after it.
unsigned long BSDAllocator::runPages(unsigned long index) const {
    unsigned long pages = 1;
    while (index + pages <= lastIndex && directory[index + pages] == kRunFollow) ++pages;
    return pages;
}

unsigned long BSDAllocator::usable(void* p) const {
    unsigned long index, entry;
    if (!lookup(p, true, &index, &entry)) return 0;
    if (entry > kRunFollow) return reinterpret_cast<pginfo*>(entry)->size;
    if (entry < kRunFirst) return 0;
    return runPages(index) << kPageShift;
}

unsigned int BSDAllocator::color(void* p) const {
    unsigned long index, entry;
    if (!lookup(p, true, &index, &entry)) return 0;
    if (entry > kRunFollow) return reinterpret_cast<pginfo*>(entry)->color;
    if (entry < kRunFirst) return 0;
    // A following page answers for its run.
    while (entry == kRunFollow) entry = directory[--index];
    return static_cast<unsigned int>(entry - kRunFirst);
}

unsigned int BSDAllocator::setColor(void*, unsigned int) { return raiseError(kResultFailure); }

bool BSDAllocator::valid(void* p) const {
    unsigned long index, entry;
    if (!lookup(p, false, &index, &entry)) return false;
    if (entry > kRunFollow) {
        pginfo const* info = reinterpret_cast<pginfo const*>(entry);
        if (addr(p) % info->size) return false;
        unsigned int k = static_cast<unsigned int>((addr(p) % kPageSize) >> info->shift);
        // kept: a set bit means free, so this answers true for a free chunk.
        return (info->bits()[k / 32] >> (k % 32)) & 1;
    }
    return entry >= kRunFirst;
}

unsigned int BSDAllocator::setDefaultColor(unsigned int color, unsigned int* previous) {
    if (previous) *previous = defaultColor();
    ZoIF_SetTLSCoop(static_cast<unsigned int>(colorSlot), color);
    return 0;
}

unsigned int BSDAllocator::defaultColor() const {
    return colorSlot < 0 ? 0 : ZoIF_GetTLSCoop(static_cast<unsigned int>(colorSlot));
}

// The bound admits 256 on purpose: its entry is the word after each table, i.e.
// freeByColor()[256] is allocatedByColor()[0] and allocatedByColor()[256] is
// allocatedTotal() (one counters array, so the aliasing is well defined).
unsigned long BSDAllocator::allocatedColorMemory(unsigned int color) const {
    return color > kColors ? 0 : allocatedByColor()[color];
}

unsigned long BSDAllocator::freeColorMemory(unsigned int color) const {
    return color > kColors ? 0 : freeByColor()[color];
}

void BSDAllocator::adjustColorMemory(unsigned int color, int delta) {
    if (color <= kColors) allocatedByColor()[color] += static_cast<unsigned int>(delta);
}

unsigned long BSDAllocator::allocatedMemory() const { return allocatedTotal(); }

unsigned long BSDAllocator::internalFree() const { return internalFreeBytes; }

void BSDAllocator::checkCounts() {}

// ---------------------------------------------------------------------------
// The verifier: every invariant of the drawing at the top, checked against the
// directory, the runs, the chunk lists and the counters.
// ---------------------------------------------------------------------------
// The directory entry of p's page; kNotOwned outside the directory.
unsigned long BSDAllocator::entryAt(void const* p) const {
    unsigned long index = pageNumber(p) - originPage;
    return inDirectory(index) ? directory[index] : kNotOwned;
}

// A free-run record is a colour-0 chunk of the record size that is allocated.
bool BSDAllocator::isLiveRecord(void const* rec) const {
    unsigned long e = entryAt(rec);
    if (e <= kRunFollow) return false;
    pginfo const* info = reinterpret_cast<pginfo const*>(e);
    if (info->color != 0 || info->shift != kRunShift) return false;
    unsigned long k = (reinterpret_cast<std::uintptr_t>(rec) % kPageSize) >> info->shift;
    if (reinterpret_cast<std::uintptr_t>(rec) % info->size) return false;
    return !((info->bits()[k / 32] >> (k % 32)) & 1);
}

char const* BSDAllocator::verify() const {
    BSDAllocator const& a = *this;
    using A = BSDAllocator;
    // Faults that carry numbers are formatted into a per-thread buffer.
    static thread_local char buf[256];
    auto fail = [&](char const* what, unsigned long x, unsigned long y) -> char const* {
        std::snprintf(buf, sizeof buf, "%s (%lu, %lu)", what, x, y);
        return buf;
    };
    if (!a.directory) {
        if (a.freeRuns || a.allocatedTotal() || a.internalFreeBytes) return "counters or runs without a directory";
        return nullptr;
    }
    if (a.lastIndex >= a.directorySize) return fail("lastIndex beyond the directory", a.lastIndex, a.directorySize);
    if (a.directorySize % kEntriesPerPage) return fail("directory not whole pages", a.directorySize, 0);
    for (unsigned long i = a.lastIndex + 1; i < a.directorySize; ++i)
        if (a.directory[i]) return fail("entry beyond lastIndex", i, a.directory[i]);

    // The directory's own pages: a colour-0 run of exactly its size.
    unsigned long dirIndex = pageNumber(a.directory) - a.originPage;
    unsigned long dirPages = a.directorySize / kEntriesPerPage;
    if (reinterpret_cast<std::uintptr_t>(a.directory) % kPageSize) return "directory not page aligned";
    if (!a.inDirectory(dirIndex) || a.directory[dirIndex] != kRunFirst)
        return fail("directory's first page not a colour-0 run", dirIndex, 0);
    for (unsigned long k = 1; k < dirPages; ++k)
        if (a.directory[dirIndex + k] != kRunFollow) return fail("directory run too short", k, dirPages);
    if (dirIndex + dirPages <= a.lastIndex && a.directory[dirIndex + dirPages] == kRunFollow)
        return "directory run too long";

    unsigned long allocated[A::kColors + 1] = {};
    unsigned long freeChunkBytes[A::kColors + 1] = {};
    unsigned long listedExpected[A::kColors][A::kShifts] = {};
    unsigned long freePages = 0, ownedPages = 0, allocatedPages = 0;
    unsigned long runColor = 0;
    bool inRun = false;
    for (unsigned long i = 0; i <= a.lastIndex; ++i) {
        unsigned long e = a.directory[i];
        char* page = reinterpret_cast<char*>((a.originPage + i) << kPageShift);
        if (e == kNotOwned) { inRun = false; continue; }
        ++ownedPages;
        if (e == kFreePage) { ++freePages; inRun = false; continue; }
        if (e < kRunFollow) {
            runColor = e - kRunFirst;
            inRun = true;
            allocated[runColor] += kPageSize;
            ++allocatedPages;
            continue;
        }
        if (e == kRunFollow) {
            if (!inRun) return fail("following page without a run", i, 0);
            allocated[runColor] += kPageSize;
            ++allocatedPages;
            continue;
        }
        inRun = false;
        A::pginfo const* info = reinterpret_cast<A::pginfo const*>(e);
        if (info->page != page) return fail("pginfo of another page", i, 0);
        if (info->shift < kMinShift || info->shift > kMaxShift) return fail("bad shift", i, info->shift);
        if (info->size != (1u << info->shift)) return fail("size and shift disagree", i, info->size);
        if (A::pginfo::inPage(info->shift) != (reinterpret_cast<char const*>(info) == page))
            return fail("pginfo placement", i, info->shift);
        if (info->total != A::pginfo::chunksPerPage(info->shift)) return fail("chunk total", i, info->total);
        unsigned long n = kPageSize >> info->shift, set = 0;
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
        allocated[info->color] += kPageSize;
        ++allocatedPages;
        freeChunkBytes[info->color] +=
            kPageSize - static_cast<unsigned long>(info->total - info->free) * info->size;
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
        if ((reinterpret_cast<std::uintptr_t>(r->start) | r->size) % kPageSize) return "run not whole pages";
        if (lastEnd && r->start <= lastEnd) return "runs out of order or touching";
        lastEnd = r->end;
        for (char* p = r->start; p < r->end; p += kPageSize)
            if (entryAt(p) != kFreePage) return fail("page of a run not marked free", pageNumber(p), 0);
        if (!isLiveRecord(r)) return "run record is not a live record chunk";
        runBytes += r->size;
        runPages += r->size >> kPageShift;
    }
    if (runPages != freePages) return fail("free pages outside the runs", freePages, runPages);
    if (a.spareRun && !isLiveRecord(a.spareRun)) return "spare record is not a live record chunk";

    // Chunk lists against the directory.
    for (unsigned c = 0; c < A::kColors; ++c)
        for (unsigned s = 0; s < A::kShifts; ++s) {
            unsigned long listed = 0;
            for (A::pginfo* i = a.chunkLists[c][s]; i; i = i->next) {
                if (i->color != c || i->shift != s || i->free == 0) return fail("listed page", c, s);
                if (entryAt(i->page) != reinterpret_cast<unsigned long>(i)) return fail("listed page's entry", c, s);
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
    if (total != allocatedPages * kPageSize) return "allocated pages";
    if (a.internalFreeBytes != static_cast<unsigned int>(runBytes))
        return fail("internalFree", a.internalFreeBytes, runBytes);
    if (a.obtainedBytes < ownedPages * kPageSize) return fail("owned more than obtained", ownedPages, a.obtainedBytes);
    return nullptr;
}


// The census for the memory report: page runs and chunks from the directory, free
// runs from their list; a region is a stretch of owned directory entries (regions
// that touch count as one).
void BSDAllocator::census(detail::MemoryCensus& c) const {
    c.walked = true;
    c.obtained += obtainedBytes;
    if (!directory) return;
    bool owned = false;
    for (unsigned long i = 0; i <= lastIndex;) {
        unsigned long entry = directory[i];
        if (entry != kNotOwned && !owned) ++c.regions;
        owned = entry != kNotOwned;
        if (entry > kRunFollow) {
            pginfo const* info = reinterpret_cast<pginfo const*>(entry);
            for (unsigned k = 0; k < info->total; ++k) c.count(info->size, k >= info->free);
            ++i;
        } else if (entry >= kRunFirst && entry < kRunFollow) {
            unsigned long pages = runPages(i);
            c.count(pages << kPageShift, true);
            i += pages;
        } else {
            ++i;
        }
    }
    for (FreeRun const* r = freeRuns; r; r = r->next) c.count(r->size, false);
}

}  // namespace Utils
