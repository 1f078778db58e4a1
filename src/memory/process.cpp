// The process allocator: the arena behind every operator new of the program (the
// operators themselves are in operators.cpp), the per-thread arenas and their
// locks that make it safe and fast under threads, HostAllocator and MemoryColor.
//
// Arenas. Arena 0 is the MemoryAllocator object that theAllocator() returns; its
// parent is the HostAllocator. The first thread that allocates owns it. While it is
// the only thread that has ever allocated, arena 0 alone serves the process and
// every result is the plain arena's. A second thread that allocates gets an arena
// of its own (a shard, up to kArenas - 1 of them, each over a host of its own), so
// that threads allocate without meeting; a block is released into the arena it came
// from, whichever thread releases it, so memory freed by a consumer thread is
// reused by its producer and never piles up. A thread's arena goes back to the pool
// when the thread ends and is given to the next new thread. With every arena owned,
// new threads share them round-robin.
//
// Which arena holds a block: shards record their regions in a two-level table,
// one byte per 1 MiB granule of the system layer's reserve; a block whose granule
// is not recorded belongs to arena 0.
//
// Counters are exact: a query takes every arena's lock, in index order, and adds
// the arenas' counters up, so it sees one moment of the whole process.
//
// Locks. One platform::ProcessLock per arena, statically zero-initialised, so it
// works before any constructor has run; re-entrant from the owning thread, and
// reset in the child after fork (every lock is taken around fork). Arena locks are
// the innermost locks of the library: nothing called with one held takes another
// library lock, and HostAllocator defers raising 0x80000002 until the thread has
// left the allocator, so that listeners and the log run unlocked and may allocate
// (the guards that do this, tInside and the pending raise, are drawn with the
// whole raise/log/allocate cycle in library/reentry.h). No thread holds two arena
// locks except a query or fork, which take them in index order.
//
// No lock while alone. While the process has a single thread and no shard exists,
// arena 0 is used without its lock, as glibc's malloc does (SINGLE_THREAD_P). This
// is safe because __libc_single_threaded is true only while no other thread
// exists: a second thread can only be created by this thread, which is not inside
// the allocator while it calls pthread_create, and pthread_create clears the flag
// before the new thread runs, so every later call of either thread sees it false
// and locks; the new thread sees everything done before its creation. A forked
// child has one thread again; fork's handlers leave every lock free in it.
//
// Lifetime. The host and arena 0 are built in zeroed static storage by the first
// theAllocator() call and never torn down. The arena's destructor, registered with
// atexit, releases nothing; the object stays usable afterwards, so that static
// destructors that run later can still free.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <new>

#include "library/reentry.h"
#include "memory/census.h"
#include "memory/process_internal.h"
#include "memory/watch.h"
#include "misc/constinit.h"
#include "platform/platform.h"
#include "utils/allocator.h"
#include "zosys.h"
#include "zosys_faults.h"

namespace Utils {

using detail::raiseOutOfMemory;
using detail::tInside;
using detail::tPendingOutOfMemory;

namespace {

constexpr unsigned int kArenas = 64;  // arena 0 and up to 63 shards

// This thread's arena, as index + 1; 0 until its first allocation.
__attribute__((tls_model("initial-exec"))) thread_local unsigned char tArena;
// This thread's default colour, mirrored from the arena's thread-local slot so that
// an allocation does not call into the system layer for it.
__attribute__((tls_model("initial-exec"))) thread_local unsigned int tDefaultColor;

using platform::ProcessLock;

// Zero-initialised: usable before any constructor.
ProcessLock gLocks[kArenas];

// Marks the calling thread as inside the allocator; the out-of-memory raise that
// the host deferred runs when the outermost call leaves.
// The raise may throw (a listener's exception passes through raiseError); by then
// every lock of the operation has been released.
struct Inside {
    Inside() { ++tInside; }
    ~Inside() noexcept(false) {
        if (--tInside == 0 && __builtin_expect(tPendingOutOfMemory, 0)) {
            tPendingOutOfMemory = false;
            raiseOutOfMemory();
        }
    }
    Inside(Inside const&) = delete;
    Inside& operator=(Inside const&) = delete;
};

// ---------------------------------------------------------------------------
// Shards and the table of their regions.
// ---------------------------------------------------------------------------
std::atomic<unsigned int> gShardCount;  // shards built; arenas in use = 1 + this
// Nonzero once the lone-thread path is closed for good: a shard exists, or a
// memory checker watches (the locked path goes through the arena's virtual entry
// points, which describe blocks to it). One word, so the lone-thread test costs
// what it cost before there was a checker to think of.
std::atomic<unsigned int> gSharedPath;
// ZoUtils.Memory.SystemAllocator: the global operators use malloc and free. Set
// once, before the first block is handed out, together with gSharedPath.
bool gSystemOperators;

// Granule g = (address - phase) / 1 MiB, phase being the reserve's offset within a
// MiB (the same for every region). gRegionTop[g >> 16] points to 65536 bytes, each
// the arena index + 1 of the shard that owns that granule, or 0.
constexpr unsigned kGranuleShift = 20;
constexpr unsigned kLeafBits = 16;
constexpr unsigned kTopEntries = 1u << (47 - kGranuleShift - kLeafBits);
std::atomic<std::atomic<unsigned char>*> gRegionTop[kTopEntries];
std::atomic<std::uintptr_t> gPhase;  // phase + 1 once a shard region is recorded

inline std::atomic<unsigned char>* regionLeaf(std::uintptr_t granule) {
    std::uintptr_t top = granule >> kLeafBits;
    return top < kTopEntries ? gRegionTop[top].load(std::memory_order_acquire) : nullptr;
}

// Records that [region, region + bytes) belongs to arena `index`. Leaves come
// straight from the kernel: the table must not allocate through the allocator it
// serves. Without a leaf the region is simply not used by the shard.
bool recordRegion(void* region, unsigned long bytes, unsigned int index) {
    std::uintptr_t start = reinterpret_cast<std::uintptr_t>(region);
    std::uintptr_t phase = start & ((1ul << kGranuleShift) - 1);
    std::uintptr_t expected = 0;
    gPhase.compare_exchange_strong(expected, phase + 1, std::memory_order_relaxed);
    if ((gPhase.load(std::memory_order_relaxed) - 1) != phase) return false;
    for (std::uintptr_t g = (start - phase) >> kGranuleShift; g < (start - phase + bytes) >> kGranuleShift; ++g) {
        std::uintptr_t top = g >> kLeafBits;
        if (top >= kTopEntries) return false;
        std::atomic<unsigned char>* leaf = gRegionTop[top].load(std::memory_order_acquire);
        if (!leaf) {
            void* fresh = platform::mapScratch(1ul << kLeafBits);
            if (!fresh) return false;
            std::atomic<unsigned char>* mine = static_cast<std::atomic<unsigned char>*>(fresh);
            if (gRegionTop[top].compare_exchange_strong(leaf, mine, std::memory_order_acq_rel))
                leaf = mine;
            else
                platform::unmapScratch(fresh, 1ul << kLeafBits);
        }
        leaf[g & ((1ul << kLeafBits) - 1)].store(static_cast<unsigned char>(index + 1), std::memory_order_release);
    }
    return true;
}

// The arena that holds block p: 0 unless a shard recorded p's granule.
inline unsigned int arenaOf(void const* p) {
    if (gShardCount.load(std::memory_order_relaxed) == 0) return 0;
    std::uintptr_t phase = gPhase.load(std::memory_order_relaxed);
    if (!phase) return 0;
    std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p) - (phase - 1);
    std::uintptr_t g = a >> kGranuleShift;
    std::atomic<unsigned char>* leaf = regionLeaf(g);
    if (!leaf) return 0;
    unsigned int v = leaf[g & ((1ul << kLeafBits) - 1)].load(std::memory_order_acquire);
    return v ? v - 1 : 0;
}

// The host of arena 0: a HostAllocator whose raise of 0x80000002 always waits
// until the allocator has been left (it is only ever called from inside an arena
// operation), so that the lone thread's path needs no Inside mark of its own: it
// only looks for a pending raise on the way out.
class ProcessHost final : public HostAllocator {
public:
    void* alloc(unsigned long size) override {
        ++tInside;
        void* region = HostAllocator::alloc(size);
        --tInside;
        return region;
    }
    using HostAllocator::alloc;
};

// Exhaustion found by a parent: raised at once outside the process allocator,
// when it is left otherwise.
void exhausted() {
    if (tInside)
        tPendingOutOfMemory = true;
    else
        raiseOutOfMemory();
}

// A shard's parent: the system layer, like the host, with its regions recorded.
class ShardHost final : public HostAllocator {
public:
    explicit ShardHost(unsigned int arenaIndex) : index(arenaIndex) {}
    void* alloc(unsigned long size) override {
        void* region = HostAllocator::alloc(size);
        if (region && !recordRegion(region, HostAllocator::size(region), index)) {
            // Without its table entry the region's blocks would be taken for arena
            // 0's: it stays unused, and the request fails like any exhaustion.
            exhausted();
            return nullptr;
        }
        return region;
    }
    using HostAllocator::alloc;

private:
    unsigned int index;
};

// A secondary arena. It shares arena 0's thread-local slot of default colours, so
// that a thread's default colour is one value whichever arena serves it.
class Shard final : public MemoryAllocator {
public:
    Shard(unsigned int arenaIndex, unsigned int colorSlotOfArena0) : MemoryAllocator(&host), host(arenaIndex) {
        initialised = 1;
        colorSlot = colorSlotOfArena0;
    }

private:
    ShardHost host;
};

// ---------------------------------------------------------------------------
// The process allocator: arena 0, and the dispatch to every arena.
// ---------------------------------------------------------------------------
class ProcessAllocator;
alignas(16) unsigned char gHostStorage[sizeof(ProcessHost)];
alignas(64) unsigned char gArenaStorage[sizeof(MemoryAllocator) + 64];
// Shards start on cache lines of their own, so that two arenas' hot fields never
// share one.
alignas(64) unsigned char gShardStorage[kArenas - 1][(sizeof(Shard) + 63) & ~std::size_t(63)];
bool gHostBuilt;
bool gArenaBuilt;
std::atomic<ProcessAllocator*> gProcess;

// Arena i as the plain arena (operations called through it are not re-dispatched).
inline MemoryAllocator* arena(unsigned int i) {
    return i == 0 ? reinterpret_cast<MemoryAllocator*>(gArenaStorage)
                  : reinterpret_cast<MemoryAllocator*>(gShardStorage[i - 1]);
}

inline bool alone() { return platform::singleThreaded() && gSharedPath.load(std::memory_order_relaxed) == 0; }

// Holds one arena for the duration of an operation: its lock, unless alone.
class Hold {
public:
    explicit Hold(unsigned int i) : lock_(alone() ? nullptr : &gLocks[i]) {
        if (lock_) lock_->lock();
    }
    ~Hold() {
        if (lock_) lock_->unlock();
    }
    Hold(Hold const&) = delete;
    Hold& operator=(Hold const&) = delete;

private:
    Inside inside_;
    ProcessLock* lock_;
};

// Holds every arena in use, in index order: a consistent view of the process.
class HoldAll {
public:
    // The arenas are counted once: a shard built meanwhile is not read without its
    // lock (its blocks all come after this view's moment).
    HoldAll() : arenas_(1 + gShardCount.load(std::memory_order_acquire)), locked_(alone() ? 0 : arenas_) {
        for (unsigned int i = 0; i < locked_; ++i) gLocks[i].lock();
    }
    ~HoldAll() {
        for (unsigned int i = locked_; i-- > 0;) gLocks[i].unlock();
    }
    unsigned int arenas() const { return arenas_; }
    HoldAll(HoldAll const&) = delete;
    HoldAll& operator=(HoldAll const&) = delete;

private:
    Inside inside_;
    unsigned int arenas_;
    unsigned int locked_;
};

// Arena ownership: owned[i] is set while a live thread has arena i as its own.
std::atomic<bool> gOwned[kArenas];
std::atomic<unsigned int> gShareTurn;
platform::ThreadEndSlot gThreadEnd;
// Guards building arena 0 and claiming or building an arena for a new thread.
ZO_CONSTINIT platform::TableLock gClaimLock;

// Runs when a thread that owns an arena ends: the arena goes back to the pool.
void releaseArena(void* value) {
    unsigned int i = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(value)) - 1;
    if (i < kArenas) gOwned[i].store(false, std::memory_order_release);
}

// Makes arena i the calling thread's; `own` also registers it for release at the
// thread's end.
void adopt(unsigned int i, bool own) {
    tArena = static_cast<unsigned char>(i + 1);
    if (own) gThreadEnd.set(reinterpret_cast<void*>(static_cast<std::uintptr_t>(i + 1)));
}

class ProcessAllocator final : public MemoryAllocator {
public:
    explicit ProcessAllocator(Allocator* host) : MemoryAllocator(host) {}
    ~ProcessAllocator() override {}

    // The calling thread's arena, chosen on its first allocation: arena 0 if
    // nobody owns it, else a free shard, else a new shard, else one shared in turn.
    unsigned int myArena() {
        unsigned int mine = tArena;
        if (__builtin_expect(mine != 0, 1)) return mine - 1;
        gClaimLock.lock();
        unsigned int count = 1 + gShardCount.load(std::memory_order_relaxed);
        unsigned int chosen = kArenas;
        for (unsigned int i = 0; i < count && chosen == kArenas; ++i)
            if (!gOwned[i].load(std::memory_order_acquire)) chosen = i;
        if (chosen == kArenas && count < kArenas) {
            ::new (static_cast<void*>(gShardStorage[count - 1])) Shard(count, colorSlot);
            gShardCount.store(count, std::memory_order_release);
            gSharedPath.store(1, std::memory_order_relaxed);
            chosen = count;
        }
        bool own = chosen != kArenas;
        if (own)
            gOwned[chosen].store(true, std::memory_order_relaxed);
        else
            chosen = gShareTurn.fetch_add(1, std::memory_order_relaxed) % count;
        gClaimLock.unlock();
        adopt(chosen, own);
        return chosen;
    }

    // The global operators' paths: the lone thread's steps inline, the rest out of
    // line so that the common path keeps a small frame.
    void* allocate(unsigned long size, unsigned int c) {
        if (__builtin_expect(__atomic_load_n(&ZoIF_TestFaultSites_, __ATOMIC_RELAXED) != 0, 0))
            return allocateArmed(size, c);
        if (__builtin_expect(!alone(), 0)) return allocateShared(size, c);
        return allocateAlone(size, c);
    }
    // While a test arms the injection table: a process failure is exhaustion, an
    // arena failure the arena's own null (the shared path's arena asks for it in
    // MemoryAllocator::alloc).
    __attribute__((noinline)) void* allocateArmed(unsigned long size, unsigned int c) {
        if (ZoIF_Faulty(ZOIF_FAULT_PROCESS)) return refuse();
        if (!alone()) return allocateShared(size, c);
        if (ZoIF_Faulty(ZOIF_FAULT_ARENA)) return nullptr;
        return allocateAlone(size, c);
    }
    void* allocateAlone(unsigned long size, unsigned int c) {
        void* p = allocBlock(size, c);
        if (__builtin_expect(tPendingOutOfMemory, 0) && tInside == 0) raisePending();
        return p;
    }
    // A release never asks the host for memory, so it needs no Inside mark alone.
    void release(void* p) {
        if (__builtin_expect(!alone(), 0)) return releaseShared(p);
        releaseBlock(p);
    }
    void releaseAlone(void* p) { releaseBlock(p); }
    __attribute__((noinline)) void* allocateShared(unsigned long size, unsigned int c) {
        unsigned int i = myArena();
        Hold hold(i);
        return arena(i)->MemoryAllocator::alloc(size, c);
    }
    __attribute__((noinline)) void releaseShared(void* p) {
        unsigned int i = arenaOf(p);
        Hold hold(i);
        arena(i)->MemoryAllocator::free(p);
    }
    // A failure injected by a test: exactly what the host's exhaustion does.
    __attribute__((noinline)) static void* refuse() {
        exhausted();
        return nullptr;
    }
    __attribute__((noinline)) static void raisePending() {
        tPendingOutOfMemory = false;
        raiseOutOfMemory();
    }

    void* alloc(unsigned long size) override { return allocate(size, tDefaultColor); }
    void* alloc(unsigned long size, unsigned int c) override { return allocate(size, c); }
    void free(void* p) override {
        if (p) release(p);
    }
    unsigned long size(void* p) const override {
        unsigned int i = arenaOf(p);
        Hold hold(i);
        return arena(i)->MemoryAllocator::size(p);
    }
    unsigned int color(void* p) const override {
        unsigned int i = arenaOf(p);
        Hold hold(i);
        return arena(i)->MemoryAllocator::color(p);
    }
    unsigned int setColor(void* p, unsigned int c) override {
        unsigned int i = arenaOf(p);
        Hold hold(i);
        return arena(i)->MemoryAllocator::setColor(p, c);
    }
    bool valid(void* p) const override {
        unsigned int i = arenaOf(p);
        Hold hold(i);
        return arena(i)->MemoryAllocator::valid(p);
    }
    // Counters: the sum over every arena, at one moment.
    unsigned long allocatedMemory() const override {
        return sum([](MemoryAllocator* a) { return a->MemoryAllocator::allocatedMemory(); });
    }
    unsigned long internalFree() const override {
        return sum([](MemoryAllocator* a) { return a->MemoryAllocator::internalFree(); });
    }
    unsigned long allocatedColorMemory(unsigned int c) const override {
        return sum([c](MemoryAllocator* a) { return a->MemoryAllocator::allocatedColorMemory(c); });
    }
    unsigned long freeColorMemory(unsigned int c) const override {
        return sum([c](MemoryAllocator* a) { return a->MemoryAllocator::freeColorMemory(c); });
    }
    void adjustColorMemory(unsigned int c, int delta) override {
        Hold hold(0);
        MemoryAllocator::adjustColorMemory(c, delta);
    }
    // Default colours are per thread and need no lock; the mirror follows the slot.
    unsigned int setDefaultColor(unsigned int c, unsigned int* previous) override {
        unsigned int result = MemoryAllocator::setDefaultColor(c, previous);
        tDefaultColor = c;
        return result;
    }
    unsigned int defaultColor() const override { return tDefaultColor; }
    char const* verify() const override {
        HoldAll all;
        for (unsigned int i = 0; i < all.arenas(); ++i)
            if (char const* e = arena(i)->MemoryAllocator::verify()) return e;
        return nullptr;
    }

private:
    template <class Read>
    static unsigned long sum(Read read) {
        HoldAll all;
        unsigned long total = 0;
        for (unsigned int i = 0; i < all.arenas(); ++i) total += read(arena(i));
        return total;
    }
};

static_assert(sizeof(ProcessAllocator) <= sizeof(gArenaStorage), "arena 0's storage");

void forkPrepare() {
    gClaimLock.lock();
    unsigned int count = 1 + gShardCount.load(std::memory_order_acquire);
    for (unsigned int i = 0; i < count; ++i) gLocks[i].lock();
}
void forkParent() {
    unsigned int count = 1 + gShardCount.load(std::memory_order_relaxed);
    for (unsigned int i = count; i-- > 0;) gLocks[i].unlock();
    gClaimLock.unlock();
}
void forkChild() {
    // Only the forking thread exists in the child; it held every lock, and the
    // arenas of the other threads have no owner any more.
    for (unsigned int i = 0; i < kArenas; ++i) {
        gLocks[i].resetAfterFork();
        gOwned[i].store(tArena == i + 1, std::memory_order_relaxed);
    }
    gClaimLock.resetAfterFork();
}

void destroyArena() {
    // Run the destructor (it releases nothing), then put the dispatch table back:
    // static objects destroyed after this still free through the arena.
    void* table;
    std::memcpy(&table, gArenaStorage, sizeof table);
    reinterpret_cast<ProcessAllocator*>(gArenaStorage)->~ProcessAllocator();
    std::memcpy(gArenaStorage, &table, sizeof table);
}

void reportAtExit() { writeMemoryReport(Allocator::theAllocator(), stderr, "process allocator at exit"); }

ProcessAllocator* buildProcessAllocator() {
    ZoIF_MemInit(0);
    gClaimLock.lock();  // serialises a first call from two threads at once
    ProcessAllocator* built = gProcess.load(std::memory_order_acquire);
    if (!built) {
        if (!gHostBuilt) {
            gHostBuilt = true;
            ::new (static_cast<void*>(gHostStorage)) ProcessHost();
        }
        ProcessAllocator* a = reinterpret_cast<ProcessAllocator*>(gArenaStorage);
        if (!gArenaBuilt) {
            ::new (static_cast<void*>(gArenaStorage)) ProcessAllocator(reinterpret_cast<ProcessHost*>(gHostStorage));
            gArenaBuilt = true;
            std::atexit(destroyArena);
            gThreadEnd.create(releaseArena);
            platform::onFork(forkPrepare, forkParent, forkChild);
            // The exit report, registered now so that it runs after the exit
            // handlers and static destructors that come later.
            int report = 0;
            if (ZoIF_GetConfigNumber("ZoUtils.Memory.ReportAtExit", &report) == 0 && report != 0)
                std::atexit(reportAtExit);
        }
        // init() before publishing: a thread that sees the pointer may use the
        // arena at once (init obtains no memory, so the order is otherwise
        // unobservable). The building thread owns arena 0.
        a->init();
        if (watch::start()) gSharedPath.store(1, std::memory_order_relaxed);
        int system = 0;
        if (ZoIF_GetConfigNumber("ZoUtils.Memory.SystemAllocator", &system) == 0 && system != 0) {
            gSystemOperators = true;
            gSharedPath.store(1, std::memory_order_relaxed);
        }
        gOwned[0].store(true, std::memory_order_relaxed);
        adopt(0, true);
        gProcess.store(a, std::memory_order_release);
        built = a;
    }
    gClaimLock.unlock();
    return built;
}

inline ProcessAllocator* processAllocator() {
    ProcessAllocator* a = gProcess.load(std::memory_order_acquire);
    return __builtin_expect(a != nullptr, 1) ? a : buildProcessAllocator();
}

// The global operators. Off the lone-thread path (other threads, a memory
// checker, or the system-allocator switch) one out-of-line step decides between
// malloc and the arena, so the lone thread's path is the arena's and nothing else.
__attribute__((noinline)) void* processAllocShared(ProcessAllocator* a, std::size_t size) {
    if (gSystemOperators) return std::malloc(size);
    return a->allocateShared(size, tDefaultColor);
}

__attribute__((noinline)) void processFreeShared(ProcessAllocator* a, void* p) {
    if (gSystemOperators) return std::free(p);
    a->releaseShared(p);
}

}  // namespace

void* processAlloc(std::size_t size) {
    ProcessAllocator* a = processAllocator();
    // While a test injects failures, the interface's path, which asks the table.
    if (__builtin_expect(__atomic_load_n(&ZoIF_TestFaultSites_, __ATOMIC_RELAXED) != 0, 0))
        return a->allocate(size, tDefaultColor);
    if (__builtin_expect(!alone(), 0)) return processAllocShared(a, size);
    return a->allocateAlone(size, tDefaultColor);
}

void processFree(void* p) {
    if (!p) return;
    ProcessAllocator* a = processAllocator();
    if (__builtin_expect(!alone(), 0)) return processFreeShared(a, p);
    a->releaseAlone(p);
}

Allocator* Allocator::theAllocator() { return processAllocator(); }

void detail::processCensus(MemoryCensus& census) {
    processAllocator();
    HoldAll all;
    for (unsigned int i = 0; i < all.arenas(); ++i) arena(i)->census(census);
}

// ---------------------------------------------------------------------------
// HostAllocator.
// ---------------------------------------------------------------------------
HostAllocator::HostAllocator() : lastSize(0) {}

void* HostAllocator::alloc(unsigned long size) {
    unsigned int amount = static_cast<unsigned int>(size);
    void* p = size > 0xFFFFFFFFul ? nullptr : ZoIF_MemAllocMin(&amount);
    if (!p) {
        lastSize = 0;
        exhausted();
        return nullptr;
    }
    lastSize = amount;
    return p;
}

void HostAllocator::free(void*) {}
unsigned long HostAllocator::size(void*) const { return lastSize; }
unsigned long HostAllocator::allocatedMemory() const { return 0; }
unsigned long HostAllocator::internalFree() const { return 0; }
void* HostAllocator::allocMin(unsigned long size) { return alloc(size); }

// ---------------------------------------------------------------------------
// MemoryColor.
// ---------------------------------------------------------------------------
MemoryColor::MemoryColor(unsigned int color) : previous(0) {
    Allocator::theAllocator()->setDefaultColor(color, &previous);
}

void MemoryColor::reset() { Allocator::theAllocator()->setDefaultColor(previous, nullptr); }

}  // namespace Utils
