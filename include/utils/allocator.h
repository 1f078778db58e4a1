// Memory: the allocator interface with memory colours, the process allocator that
// serves every operator new of the program, and the allocators offered to
// applications.
//
// A memory colour is a 6-bit tag (0 to 63) carried by allocated blocks, so that a
// program can account its memory by purpose. Allocators with colours count, per
// colour, the bytes allocated and the bytes free, and keep a default colour per task
// (thread) that alloc(size) uses. Colour 0 is the ordinary colour.
#pragma once

#include <cstdio>

#include "utils/export.h"
#include "utils/wtree.h"

namespace Utils {

class String;

namespace detail {
struct FreeHeapNode;  // the links of a free arena block in an address heap (arena.cpp)
struct MemoryCensus;  // what a walk over an allocator's blocks finds (memory report)
}

// ---------------------------------------------------------------------------
// The allocator interface. The operations are virtual, in this slot order;
// allocators without colours keep the defaults of slots 4 and 6 to 13.
// An allocator is never deleted through an Allocator*.
//
// Note for implementers: a class that overrides one alloc overload hides the other;
// add `using Allocator::alloc;` where both should stay visible.
// ---------------------------------------------------------------------------
class ZO_API Allocator {
public:
    // 0: `size` bytes in the calling task's default colour; null on failure.
    virtual void* alloc(unsigned long size) = 0;
    // 1: releases a block; null is ignored.
    virtual void free(void* p) = 0;
    // 2: usable size of a block.
    virtual unsigned long size(void* p) const = 0;
    // 3: bytes currently allocated.
    virtual unsigned long allocatedMemory() const = 0;
    // 4: allocates in an explicit colour. Default: alloc(size), colour ignored.
    virtual void* alloc(unsigned long size, unsigned int color);
    // 5: bytes held by the allocator but free.
    virtual unsigned long internalFree() const = 0;
    // 6: colour of a block. Default: 0.
    virtual unsigned int color(void* p) const;
    // 7: gives a block a colour; a result code. Default: 0x80000001.
    virtual unsigned int setColor(void* p, unsigned int color);
    // 8: whether p is a live block of this allocator. Default: false.
    virtual bool valid(void* p) const;
    // 9: sets the calling task's default colour; if `previous` is not null the old
    //    default is stored there first. A result code. Default: 0x80000001.
    virtual unsigned int setDefaultColor(unsigned int color, unsigned int* previous);
    // 10: the calling task's default colour. Default: 0.
    virtual unsigned int defaultColor() const;
    // 11: bytes allocated in a colour. Default: 0.
    virtual unsigned long allocatedColorMemory(unsigned int color) const;
    // 12: bytes free in a colour. Default: 0.
    virtual unsigned long freeColorMemory(unsigned int color) const;
    // 13: adds delta to a colour's allocated count. Default: nothing.
    virtual void adjustColorMemory(unsigned int color, int delta);

    // The process-wide allocator behind every operator new and operator delete of
    // the program; built on first use and never null afterwards. It is an arena
    // (MemoryAllocator) over a HostAllocator. Unlike a plain MemoryAllocator it is
    // safe to use from several threads at once (blocks may be freed by another
    // thread than the one that allocated them), it survives fork(), and it keeps
    // working before static constructors and after static destructors have run.
    //
    // Threads. While only one thread has ever allocated, the arena behaves exactly
    // as a plain MemoryAllocator (same blocks, same counters), and while the
    // process has a single thread it takes no lock at all. Each further thread that
    // allocates gets an arena of its own (up to 63; beyond that, threads share
    // them), so that threads do not wait for each other:
    //  - a block is released into the arena it came from, whichever thread releases
    //    it, and is reused there; a thread's arena passes to the next new thread
    //    when the thread ends;
    //  - allocatedMemory(), internalFree() and the colour counts add up every
    //    arena, read at one moment, so they stay exact; size(), color(), valid()
    //    and setColor() work for any live block; default colours stay per thread;
    //  - the block walk (firstBlock/nextBlock), checkArena and carrierCandidate of
    //    the object returned here cover the first arena only (that of the thread
    //    that allocated first, normally the main thread); verify() checks all;
    //  - which address a request gets depends on the thread that asks.
    //
    // The library defines every replaceable form of the global operator new and
    // operator delete (plain, array, nothrow, sized, aligned and their mixes) on
    // this allocator:
    //  - operator new returns null when memory is exhausted or the request is above
    //    0x3FFFFE8 bytes: the throwing forms do not throw std::bad_alloc and call no
    //    new-handler. Exhaustion of the system layer raises 0x80000002 (raiseError)
    //    once the allocator's lock has been released; a request refused by size
    //    raises nothing.
    //  - Blocks are 16-byte aligned; the aligned forms honour larger alignments by
    //    over-allocating (size + alignment) and keeping the block's own address in
    //    the 8 bytes before the address returned, so they must be released with the
    //    matching aligned operator delete. Such an address is not the start of a
    //    block: size(), color() and valid() do not apply to it.
    //
    // Debugging aid: when the configuration key ZoUtils.Memory.SystemAllocator
    // (environment variable ZOUTILS_MEMORY_SYSTEMALLOCATOR, ZOSYS_CONFIG, the XDG
    // files; see zosys.h) is a number other than 0 when this allocator is built,
    // the global operator new and operator delete use the C library's malloc and
    // free instead, so that heap tools and glibc's checks see the whole program.
    // Only the operators change: this allocator stays the arena (String buffers
    // and alloc() calls keep using it). Under the switch a block from operator new
    // is not the arena's: size() and color() answer 0 for it, valid() false, it
    // is in no counter (allocatedMemory(), colours, MemoryColor do not apply), and
    // the limit of 0x3FFFFE8 bytes and the null on exhaustion are malloc's. The
    // key is read once; changing it later has no effect on the running process.
    //
    // Memory checkers. Blocks of this allocator, of every MemoryAllocator,
    // BSDAllocator and SimpleAllocator are described to valgrind's memcheck when
    // the program runs under it (the requested bytes are the caller's, released
    // blocks and the allocator's bookkeeping are off limits), and, in a library
    // built with AddressSanitizer, poisoned the same way. size() makes the whole
    // usable size the caller's. The lone-thread path of this allocator is left
    // while memcheck watches, and when it does not the description costs it
    // nothing.
    static Allocator* theAllocator();

protected:
    Allocator() = default;
    ~Allocator() = default;
};

// Sets the calling task's default colour of the process allocator, remembering the
// previous one. There is deliberately no destructor that restores it: call reset()
// when the colour's scope ends.
class ZO_API MemoryColor {
public:
    explicit MemoryColor(unsigned int color);
    // Restores the default colour that was in force when this object was made.
    void reset();

private:
    unsigned int previous;
};

// ===========================================================================
// The arena: the allocator behind theAllocator(), and so behind every operator
// new of the process. It grows one arena out of regions drawn from a parent
// allocator and never gives memory back.
//
//  - Requests up to 56 bytes get 32-byte (up to 24 bytes) or 64-byte (25 to 56)
//    small blocks from per-size free lists; the lists are refilled by cutting a
//    10240-byte carrier into small blocks. Small blocks never return to the tree.
//  - Larger requests get an ordinary block of (request + 8) rounded up to 16 bytes,
//    best fit from a tree of free blocks (the smallest sufficient size, the lowest
//    address among equal sizes), split when 80 bytes or more would remain, merged
//    with free neighbours on release.
//  - Every address returned is a multiple of 16; size() of a block is its block
//    size less 8, at least the request.
//  - Requests above 0x3FFFFE8 bytes (67108840) return null without raising
//    anything: a larger block would not fit the 26 size bits of the block header.
//  - Counters are exact and 64-bit: allocatedMemory() counts busy blocks as whole
//    block sizes; internalFree() counts free blocks, small ones included; per
//    colour likewise. Freed memory is counted under the colour of the block whose
//    release made it free, neighbours merged into it included.
//  - Regions must come from the parent at increasing addresses (the host's always
//    do). A region that starts where the previous one ended extends the arena; any
//    other is joined to it by a bridge block (up to 16 gaps of 4 GiB or more are
//    bridged too; a further one, or a region below the arena, is left unused and
//    the allocation fails).
//  - No locks: an instance is driven by one thread at a time. The process
//    allocator behind theAllocator() adds locks and per-thread arenas.
//  - Under 16 KiB a request finds its block through a bitmap of the sizes that
//    have free blocks and an address heap per size (amortised logarithmic in the
//    free blocks of that size); above, through a tree search. A release costs
//    constant time plus the merges with its neighbours.
// ===========================================================================
class ZO_API MemoryAllocator : public Allocator {
public:
    // An empty arena over `parent`; call init() before the first allocation.
    explicit MemoryAllocator(Allocator* parent = nullptr);
    // Releases nothing: the regions stay with the process.
    virtual ~MemoryAllocator();

    // Resets the counters and takes a thread-local slot for the default colours.
    // Obtains no memory: the first allocation that finds nothing free does.
    void init();

    // In the calling thread's default colour; null when the request is above
    // 0x3FFFFE8 bytes or the parent has no region.
    void* alloc(unsigned long size) override;
    // In colour `color` & 63; null as above.
    void* alloc(unsigned long size, unsigned int color) override;
    // Releases a block of this arena; null is ignored. Foreign pointers are not
    // detected.
    void free(void* p) override;
    // Block size less 8 (24 for a 32-byte small block, 56 for a 64-byte one); 0 for
    // null or a block that is outside the arena or not allocated. Only the busy bit
    // is checked: the block address of a bridge between two regions (busy for good)
    // gives the gap's length less 6, its size word read like any other.
    unsigned long size(void* p) const override;
    unsigned long allocatedMemory() const override;
    unsigned long internalFree() const override;
    // The colour of an allocated block (0 when not allocated or outside the arena).
    unsigned int color(void* p) const override;
    // 0x80000003 when p is null, color & 63 is 0, p is outside the arena or not
    // allocated, or the block already has a colour. Otherwise adds the block's size
    // to the allocated count of colour 0 and returns 0, leaving the block's colour
    // and every other counter unchanged (kept on purpose: callers rely on it).
    unsigned int setColor(void* p, unsigned int color) override;
    // True for an allocated ordinary block of this arena whose trailer agrees with
    // its header. Always false for small blocks (up to 56 bytes), which carry no
    // trailer.
    bool valid(void* p) const override;
    // Stores the old default in *previous when not null, then sets the calling
    // thread's default colour (stored as given; alloc uses its low 6 bits). Returns 0.
    unsigned int setDefaultColor(unsigned int color, unsigned int* previous) override;
    unsigned int defaultColor() const override;
    unsigned long allocatedColorMemory(unsigned int color) const override;
    unsigned long freeColorMemory(unsigned int color) const override;
    // Adds delta to the allocated count of color & 63; allocatedMemory() is not
    // touched. For memory the caller accounts itself.
    void adjustColorMemory(unsigned int color, int delta) override;

    // Free blocks below kExactBins * 16 bytes are indexed by exact size.
    static constexpr unsigned kExactBins = 1024;

    // Block walking, in address order. firstBlock is the address of the first
    // block (as handed to callers), or null. nextBlock steps over one block (a
    // bridge included); after the last block it yields, once, the address just
    // past the arena plus 4, then null. busy is 0 for null, else the header's busy
    // bit. checkArena walks every block and returns 0.
    void* firstBlock() const;
    void* nextBlock(void* p) const;
    static unsigned int busy(void* p);
    unsigned int checkArena() const;

    // Diagnostics. verify walks every block and checks the tiling, the head and
    // trailer tags, that no two free ordinary blocks touch, that the free trees
    // hold exactly the free ordinary blocks, the small lists and every counter
    // identity. Null when all holds, else a static text naming the first fault.
    // It allocates nothing. (The process allocator checks under its lock.)
    virtual char const* verify() const;
    // The free block (its address as handed to callers) that would become the
    // next carrier of `smallBlockSize`-byte blocks (32 or 64): the first free block
    // in address order of at least smallBlockSize + 20 bytes. Null when none.
    void* carrierCandidate(unsigned int smallBlockSize) const;
    // Adds this arena's blocks, regions and free space to a memory report's census.
    ZO_INTERNAL void census(detail::MemoryCensus& c) const;

protected:
    struct MemHead;  // the 4-byte size word at the start of every block

    // alloc(size, color) and free(p), bound directly by the process allocator.
    ZO_INTERNAL void* allocBlock(unsigned long size, unsigned int color);
    ZO_INTERNAL void releaseBlock(void* p);

    void* _alloc(unsigned long size, unsigned int color);
    unsigned long _free(void* p);
    MemHead* allocSmall(unsigned int k);
    void freeSmall(MemHead* h);
    MemHead* allocCandidate(unsigned long need);
    void freeLoser(MemHead* t);
    void splitBlock(MemHead* h, unsigned long n);
    void removeMe(MemHead* h);
    MemHead* coalesce(MemHead* h);

    Allocator* parent;
    WTreeBase freeTree;
    MemHead* arenaStart;
    MemHead* arenaEnd;
    unsigned long freeTotal;
    MemHead* smallLists[7];
    unsigned long allocatedTotal;
    unsigned int initialised;
    unsigned int colorSlot;
    unsigned long allocatedByColor[64];
    unsigned long freeByColor[64];
    // The index of free ordinary blocks (see arena.cpp for the drawing). Blocks
    // below kExactBins * 16 bytes sit in one bin per size, each bin a heap ordered
    // by address whose root is its lowest block; binMap has a bit per non-empty
    // bin and binSummary a bit per non-zero binMap word. Larger blocks sit in
    // freeTree (size, then address) and in the address heap largeByAddress.
    detail::FreeHeapNode* bins[1024];
    unsigned long binMap[kExactBins / 64];
    unsigned long binSummary;
    detail::FreeHeapNode* largeByAddress;
    // The spare: the free block that the latest split left over, or that absorbed
    // it on release, kept out of the index so that carving one block after another
    // from it, or merging into it, costs no index work. Null when none.
    MemHead* spare;
    // Blocks released since the last search, not yet filed into the index: a list
    // through their first words, so that a block merged again before any search
    // never costs index work. Every search files them first.
    detail::FreeHeapNode* unfiled;
    // Carriers, chained through their first unused bytes (for verify).
    MemHead* carriers;
    // What setColor and adjustColorMemory added to the allocated counts (for verify).
    unsigned long colorAdjustments[64];
    // Bridges over gaps of 4 GiB or more, whose step does not fit their size word.
    MemHead* farBridges[16];
    unsigned long farBridgeSteps[16];
    unsigned int farBridgeCount;

private:
    MemHead* growArena(unsigned long need);
    void linkFree(MemHead* h);
    void fileBlock(MemHead* h);
    unsigned long freeSmallBlock(MemHead* h);
    unsigned long freeOrdinaryBlock(MemHead* h);
    void releaseOrdinary(void* p);
    void fileUnfiled();
    void unlist(detail::FreeHeapNode* n);
    void unlinkFree(MemHead* h);
    void keepAsSpare(MemHead* h);
    ZO_INTERNAL void absorbNext(MemHead* h);
    MemHead* takeBestFit(unsigned long need);
    unsigned long bridgeStep(MemHead* h) const;
    char const* verifyIndex(unsigned long freeExact, unsigned long freeLarge) const;
    MemHead* header(void* p) const;
    // alloc and free as seen by a memory checker (memory/watch.h).
    ZO_INTERNAL void* watchedAlloc(unsigned long size, unsigned int color);
    ZO_INTERNAL void watchedRelease(void* p);
    ZO_INTERNAL unsigned long plainSize(void* p) const;
};

// The parent of the process arena: draws raw regions from the system layer and
// never gives them back.
class ZO_API HostAllocator : public Allocator {
public:
    HostAllocator();

    // A region of at least `size` bytes from the system layer (rounded up by the
    // layer to its granule), or null after raising 0x80000002 (out of memory).
    // When the calling thread is inside the process allocator the raise waits
    // until the process allocator has been left, so that listeners and the log
    // may allocate.
    void* alloc(unsigned long size) override;
    using Allocator::alloc;
    // Does nothing: regions are never returned.
    void free(void* p) override;
    // The size of the most recent region obtained, whatever p is (0 after a
    // failure). Kept: its one client asks right after obtaining a region.
    unsigned long size(void* p) const override;
    // Both 0.
    unsigned long allocatedMemory() const override;
    unsigned long internalFree() const override;
    // Forwards to alloc(size).
    virtual void* allocMin(unsigned long size);

private:
    unsigned int lastSize;
};


// ===========================================================================
// Allocators offered to applications: BSDAllocator (pages and chunks over a
// parent allocator) and SimpleAllocator (over malloc). Nothing in the library
// creates either; an application makes one and keeps it for as long as its
// blocks live.
// ===========================================================================

// A page-directory allocator over a parent allocator. It takes page-aligned
// regions from the parent and keeps one directory entry per 4096-byte page.
// Requests above 2048 bytes are served as runs of whole pages (first fit over an
// address-ordered list of free runs, merged again on release); requests of up to
// 2048 bytes get a power-of-two chunk (16 to 2048 bytes) carved from a page that
// holds chunks of one size only. Runs and chunk pages are kept apart for each of
// 256 colours, so memory of two colours never shares a page. Memory taken from the
// parent is never given back.
//
// The parent should hand out page-aligned regions. One that does not (the process
// allocator, Allocator::theAllocator(), aligns to 16 bytes) still works: each such
// region is logged as "Allocation is not page aligned", given back, and asked again
// one page larger, and only the whole pages inside it are used.
//
// The directory maps the address span from the lowest to the highest page taken
// from the parent, and moves (doubling) when a region falls outside it; regions
// more than 512 GiB apart cannot share one directory and such a request fails as
// "Failed to map new pages: Out of Memory". Each init() takes one of the system
// layer's thread-local slots for the default colours.
//
// Misuse found on release, and parent trouble, are reported to the log category
// "allocator" (allocLogger) with the source name "bsdalloc"; nothing raises an
// error except setColor.
//
// Not thread-safe: one thread at a time drives an instance. Default colours are
// per thread.
class ZO_API BSDAllocator : public Allocator {
public:
    // Stores the parent; init() must be called before use (an allocator used
    // without init() sets itself up on its first allocation).
    explicit BSDAllocator(Allocator* parent);

    // `size` bytes in the calling thread's default colour; null when the parent
    // has no more memory.
    void* alloc(unsigned long size) override;
    // Releases a block. Null is ignored. Releasing a page twice, an address inside
    // a run, or an address that is not a block's start page is logged and
    // ignored. Chunks are not checked: a chunk released twice is counted twice.
    void free(void* p) override;
    // Usable size: the chunk size for a chunk, 4096 x the pages from p's page to
    // the end of its run for a page run, 0 for null or a page that holds no
    // block. Logs "junk pointer, too high to make sense" (returning 0) for an
    // address outside the pages this allocator owns.
    unsigned long size(void* p) const override;
    // Bytes in allocated pages (chunk pages count whole), the directory included.
    unsigned long allocatedMemory() const override;
    // Allocates in colour `color` & 255.
    void* alloc(unsigned long size, unsigned int color) override;
    // Bytes in free runs.
    unsigned long internalFree() const override;
    // Colour of a block; 0 for null or a page that holds no block; logs "junk
    // pointer" like size().
    unsigned int color(void* p) const override;
    // Blocks are never recoloured: raises 0x80000000 and returns it.
    unsigned int setColor(void* p, unsigned int color) override;
    // False for null and foreign addresses; true for any address in a page run.
    // For a chunk page it is true when p is aligned to the chunk size and that
    // chunk is FREE, false for an allocated chunk (kept: callers rely on it).
    bool valid(void* p) const override;
    // Stores the old default in *previous (when not null), then sets the calling
    // thread's default colour (stored as given; allocation uses its low 8 bits).
    // Returns 0.
    unsigned int setDefaultColor(unsigned int color, unsigned int* previous) override;
    // The calling thread's default colour; 0 before init().
    unsigned int defaultColor() const override;
    // The three counter operations take colours 0 to 256 and answer 0 (or do
    // nothing) above. Colour 256 is deliberately admitted although no block has it:
    // its counters are the words that follow each table, so it aliases others:
    //   allocatedColorMemory(256) reads allocatedMemory();
    //   freeColorMemory(256) reads allocatedColorMemory(0);
    //   adjustColorMemory(256, d) moves allocatedMemory() by d.
    // Bytes of allocated pages in a colour (chunk pages count whole).
    unsigned long allocatedColorMemory(unsigned int color) const override;
    // Free chunk bytes in a colour: each chunk page of the colour counts 4096 less
    // its allocated chunks.
    unsigned long freeColorMemory(unsigned int color) const override;
    // Adds delta to a colour's allocated counter; allocatedMemory() is not touched
    // (except through colour 256, above).
    void adjustColorMemory(unsigned int color, int delta) override;
    // Releases nothing: the parent keeps whatever was taken from it.
    virtual ~BSDAllocator();

    // Takes the first region from the parent for the directory with
    // parent->alloc(4096), i.e. in the calling thread's default colour of a parent
    // with colours (later regions are asked in colour 0), logging "parent alloc
    // failed, check limits" or "init - Allocation is not page aligned" on trouble;
    // clears every list and counter and takes a thread-local slot for the default
    // colours. Call once.
    void init();
    // alloc with an explicit colour (low 8 bits used); chunks up to 2048 bytes,
    // page runs above.
    void* imalloc(unsigned long size, unsigned int color);
    // free without the null check; an address outside the directory is logged as
    // "pointer to wrong page".
    void ifree(void* p);
    // Does nothing; the verifier used by the tests checks the structure instead.
    void checkCounts();
    // Adds this allocator's blocks, regions and free runs to a memory report's census.
    ZO_INTERNAL void census(detail::MemoryCensus& c) const;
    // Checks the directory, the free runs, the chunk pages and lists, and every
    // counter against each other. Null when all holds, else a text naming the
    // first fault (valid until the calling thread's next verify). Allocates nothing.
    char const* verify() const;

    BSDAllocator(BSDAllocator const&) = delete;
    BSDAllocator& operator=(BSDAllocator const&) = delete;

    // Internal records (a chunk page's bitmap, a free run), defined beside the
    // sources.
    struct pginfo;
    struct FreeRun;

private:
    friend struct BSDAllocatorInspector;

    static constexpr unsigned kColors = 256;
    static constexpr unsigned kShifts = 12;

    bool setUp();
    // imalloc and ifree without telling a memory checker: the allocator's own
    // records and pages.
    ZO_INTERNAL void* take(unsigned long size, unsigned int color);
    ZO_INTERNAL void give(void* p);
    ZO_INTERNAL unsigned long usable(void* p) const;
    ZO_INTERNAL void keepRegion(void* raw, unsigned long bytes);
    ZO_INTERNAL unsigned long entryAt(void const* p) const;
    ZO_INTERNAL bool lookup(void const* p, bool junk, unsigned long* index, unsigned long* entry) const;
    ZO_INTERNAL unsigned long runPages(unsigned long index) const;
    ZO_INTERNAL void fillRun(unsigned long index, unsigned long pages, unsigned int color);
    ZO_INTERNAL bool isLiveRecord(void const* rec) const;
    char* adoptRegion(char* start, unsigned long got, unsigned long directoryPages, unsigned long origin,
                      unsigned long pages);
    unsigned long directoryPagesFor(char const* start, unsigned long got, unsigned long* origin) const;
    void markRun(unsigned long index, unsigned long pages, unsigned int color);
    char* parentPages(unsigned long pages, bool defaultColour, void** raw, unsigned long* bytes,
                      unsigned long* got, bool* misaligned);
    void* allocPages(unsigned long size, unsigned int color);
    void* mapPages(unsigned long pages);
    void freePages(void* p, unsigned long index, unsigned long entry);
    enum class Place { Empty, Before, Append, Prepend, Tail, Broken };
    Place placeRun(char* start, char* end, FreeRun** at) const;
    void insertRun(char* start, char* end, Place place, FreeRun* at);
    bool makeChunks(unsigned int shift, unsigned int color);
    void adoptChunkPage(char* page, pginfo* info, unsigned int shift, unsigned int color);
    void* allocBytes(unsigned long size, unsigned int color);
    void freeBytes(void* p, unsigned long index, pginfo* info);
    void releaseRecord(FreeRun* run);
    bool inDirectory(unsigned long index) const { return directory != nullptr && index <= lastIndex; }

    Allocator* parent;
    unsigned long originPage;        // page number (address / 4096) of directory[0]
    unsigned long lastIndex;         // index of the last directory entry in use
    unsigned long* directory;        // one entry per page from originPage on; see pagealloc.cpp
    pginfo* chunkLists[kColors][kShifts];  // chunk pages with a free chunk, by colour and shift
    unsigned long directorySize;     // capacity of the directory in entries
    FreeRun* freeRuns;               // free runs in address order
    FreeRun* spareRun;               // one cached record, so that a release rarely allocates one
    int colorSlot;                   // thread-local slot of the default colour, -1 until init()
    // The byte counters, one array in this order: free chunk bytes by colour, bytes
    // of allocated pages by colour, then their total. One array, so that colour 256,
    // which the counter operations admit, reads the word after each table: the free
    // counter of colour 256 is the allocated counter of colour 0, and the allocated
    // counter of colour 256 is the total.
    unsigned int counters[2 * kColors + 1];
    unsigned int* freeByColor() { return counters; }
    unsigned int const* freeByColor() const { return counters; }
    unsigned int* allocatedByColor() { return counters + kColors; }
    unsigned int const* allocatedByColor() const { return counters + kColors; }
    unsigned int& allocatedTotal() { return counters[2 * kColors]; }
    unsigned int allocatedTotal() const { return counters[2 * kColors]; }
    unsigned int internalFreeBytes;  // bytes in free runs
    // Set once the allocator has logged a fault or failed a request, either of which
    // may leave it off its invariants by design; stops the debug build's automatic
    // verification (it fills what was padding before obtainedBytes).
    mutable unsigned int faulted;
    unsigned long obtainedBytes;     // bytes of the regions kept from the parent
};

// An allocator over the platform's malloc and free, for programs that want colour
// accounting without the arena. Each block is aligned to 64 bytes and carries a
// hidden header (24 bits of usable size, 8 bits of colour) at the start of its
// malloc block, the malloc address in the 8 bytes before the returned address, and
// the guard word 0xDEADDEAD in the last 4-byte word of its usable bytes (written,
// never checked: it is there for inspecting overruns).
//
// Oddities kept on purpose: valid() is always true; defaultColor() is always 0
// whatever setDefaultColor stored; setColor changes a block's colour without
// moving its bytes between the colour counters; internalFree() and
// freeColorMemory() answer 0xFFFFFFFF (not known). The default colour is one value
// for the whole allocator, shared by all threads. No locks: one thread at a time.
// Live blocks are not released when the allocator ends.
class ZO_API SimpleAllocator : public Allocator {
public:
    SimpleAllocator();

    // alloc(size, char) with the low byte of the stored default colour.
    void* alloc(unsigned long size) override;
    // Takes size(p) back from the total and from the counter of color(p), then
    // frees the malloc block. Null is ignored; a foreign pointer is not detected.
    void free(void* p) override;
    // The usable size from the header; 0 for null.
    unsigned long size(void* p) const override;
    // Usable bytes of all live blocks.
    unsigned long allocatedMemory() const override;
    // The interface's colour overload stays the default: it ignores the colour and
    // calls alloc(size). Pass a char to alloc(size, char) to choose a colour.
    using Allocator::alloc;
    // Always 0xFFFFFFFF: not known.
    unsigned long internalFree() const override;
    // The colour byte of the header; 0 for null.
    unsigned int color(void* p) const override;
    // 0x80000000 for null; otherwise replaces the header's colour byte with the
    // low byte of `color` and returns 0. The counters keep the bytes under the old
    // colour (kept: blocks are recoloured for inspection only).
    unsigned int setColor(void* p, unsigned int color) override;
    // Always true (kept: the allocator cannot tell its blocks from others).
    bool valid(void* p) const override;
    // Stores the old value in *previous (when not null), then the new default for
    // all threads. Returns 0.
    unsigned int setDefaultColor(unsigned int color, unsigned int* previous) override;
    // defaultColor() is the interface's: 0, whatever setDefaultColor stored (kept).
    // Usable bytes of live blocks in a colour, 0 to 255; 0 for other colours.
    unsigned long allocatedColorMemory(unsigned int color) const override;
    // Always 0xFFFFFFFF: not known.
    unsigned long freeColorMemory(unsigned int color) const override;

    // Allocates in colour `color`, read as its byte value 0 to 255. The malloc
    // block is (size + 72) rounded up to 128 bytes; the returned address is a
    // multiple of 64. Null when malloc fails or when the usable size would not fit
    // the 24-bit size field (size above 0xFFFFB8 = 16777144 bytes); the counters
    // are then untouched.
    void* alloc(unsigned long size, char color);

    // The largest request alloc accepts.
    static constexpr unsigned long kMaxRequest = 0xFFFFB8;

private:
    unsigned int allocatedTotal;
    unsigned int allocatedByColor[256];
    unsigned int defaultColorValue;  // only its low byte is used
    unsigned int sizeMask;           // 0xFFFFFF: the size bits of a header
};

// ---------------------------------------------------------------------------
// Memory reports.
// ---------------------------------------------------------------------------
// writeMemoryReport writes a human-readable report of allocator `a` to `out`
// (flushed), or appends it to `out`, under the heading "memory report: <title>"
// ("allocator" when title is null or empty). Lines, in this order:
//   allocated      N bytes            allocatedMemory()
//   free           N bytes            internalFree() ("unknown" for an allocator
//                                     that keeps no free count: SimpleAllocator)
//   regions        N (M bytes from the parent)
//                                     regions taken from the parent (for an
//                                     arena, a region that continues the previous
//                                     one counts with it; for a BSDAllocator,
//                                     regions that touch count as one)
//   blocks         N busy, M free     blocks in the allocator (busy includes the
//                                     allocator's own bookkeeping blocks; an
//                                     arena counts carriers' small blocks, not
//                                     the carriers)
//   largest free   N bytes            the largest free block
//   fragmentation  P % (...)          100 x (1 - largest free / free): 0 when the
//                                     free memory is one block
//   colour  name  allocated  free     one row per colour with bytes allocated or
//                                     free (allocatedColorMemory,
//                                     freeColorMemory), with the colour's name
//   block size  busy  free            block counts by whole block size: <= 64 B,
//                                     <= 256 B, <= 1 KiB, <= 4 KiB, <= 16 KiB,
//                                     <= 64 KiB, <= 1 MiB, > 1 MiB (rows with
//                                     blocks only)
// The regions, blocks, largest free and fragmentation lines come from a walk over
// the blocks of a MemoryAllocator (the process allocator: every arena, each under
// its lock) or a BSDAllocator; any other allocator reports "blocks not walked"
// instead. Each figure is exact at the moment it is read; the walk and the
// counters are not one moment when other threads allocate meanwhile.
// The FILE* form never allocates (it can run at exit or after a fault); the String
// form appends through the string's buffer allocator. A null `a` writes one line
// saying so.
//
// The process allocator's report is written to standard error at exit when the
// configuration key ZoUtils.Memory.ReportAtExit (environment variable
// ZOUTILS_MEMORY_REPORTATEXIT, ZOSYS_CONFIG, the XDG files; see zosys.h) is a
// number other than 0 when the process allocator starts; its title is
// "process allocator at exit". The handler is registered when the process
// allocator is built, so it runs after the exit handlers and static destructors
// registered later.
ZO_API void writeMemoryReport(Allocator* a, FILE* out, char const* title = nullptr);
ZO_API void writeMemoryReport(Allocator* a, String& out, char const* title = nullptr);

// Names colour `color` (0 to 255) for memory reports: the name is copied (at most
// 31 characters kept); null or "" removes it. Names are process-wide and shared by
// every allocator. Returns 0, or 0x80000003 (kResultBadArgument) for a colour
// above 255 (nothing raised).
ZO_API unsigned int setMemoryColorName(unsigned int color, char const* name);
// Copies colour `color`'s name (empty when it has none) into buffer (of `size`
// bytes, always NUL-terminated when size > 0, truncated to fit) and returns the
// name's full length.
ZO_API unsigned long memoryColorName(unsigned int color, char* buffer, unsigned long size);

}  // namespace Utils
