// The process allocator: one arena in static storage over one host allocator, the
// lock that makes it safe for threads, MemoryColor, and the global operator new and
// operator delete in every replaceable form.
//
// Lock. One futex word, statically zero-initialised, so it works before any
// constructor has run. It is re-entrant from the owning thread (the owner is the
// address of a thread-local byte) and is reset in the child after fork (taken in
// the parent around fork by pthread_atfork). It is the innermost lock of the
// library: nothing called with it held takes another library lock, and
// HostAllocator defers raising 0x80000002 until the outermost release, so that
// listeners and the log run unlocked and may allocate. A thread-local guard keeps a
// raise that itself runs out of memory from raising again.
//
// Lifetime. The host and the arena are built in zeroed static storage by the first
// theAllocator() call and never torn down. The arena's destructor, registered with
// atexit, releases nothing; the object stays usable afterwards, so that static
// destructors that run later can still free.
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/allocator.h"
#include "utils/result.h"
#include "zosys.h"

namespace Utils {

namespace {

// ---------------------------------------------------------------------------
// The process lock.
// ---------------------------------------------------------------------------
__attribute__((tls_model("initial-exec"))) thread_local char tIdentity;
__attribute__((tls_model("initial-exec"))) thread_local bool tPendingOutOfMemory;
__attribute__((tls_model("initial-exec"))) thread_local bool tRaising;

struct ProcessLock {
    std::atomic<int> state;  // 0 free, 1 held, 2 held with sleepers
    std::atomic<std::uintptr_t> owner;
    unsigned int depth;  // written by the owner only
};
ProcessLock gLock;  // zero-initialised: usable before any constructor

inline std::uintptr_t self() { return reinterpret_cast<std::uintptr_t>(&tIdentity); }

void futexWait(std::atomic<int>* word, int value) {
    syscall(SYS_futex, reinterpret_cast<int*>(word), FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}
void futexWake(std::atomic<int>* word) {
    syscall(SYS_futex, reinterpret_cast<int*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void lockSlow() {
    for (int spin = 0; spin < 64; ++spin) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
        int expected = 0;
        if (gLock.state.load(std::memory_order_relaxed) == 0 &&
            gLock.state.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return;
    }
    int c = gLock.state.exchange(2, std::memory_order_acquire);
    while (c != 0) {
        futexWait(&gLock.state, 2);
        c = gLock.state.exchange(2, std::memory_order_acquire);
    }
}

inline void lockProcess() {
    std::uintptr_t me = self();
    if (gLock.owner.load(std::memory_order_relaxed) == me) {
        ++gLock.depth;
        return;
    }
    int expected = 0;
    if (!gLock.state.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
        lockSlow();
    gLock.owner.store(me, std::memory_order_relaxed);
    gLock.depth = 1;
}

void raiseOutOfMemory() {
    if (tRaising) return;  // exhausted again while raising: once is enough
    tRaising = true;
    raiseError(kResultOutOfMemory);
    tRaising = false;
}

inline void unlockProcess() {
    if (--gLock.depth) return;
    gLock.owner.store(0, std::memory_order_relaxed);
    if (gLock.state.exchange(0, std::memory_order_release) == 2) futexWake(&gLock.state);
    if (__builtin_expect(tPendingOutOfMemory, 0)) {
        tPendingOutOfMemory = false;
        raiseOutOfMemory();
    }
}

inline bool heldByCaller() { return gLock.owner.load(std::memory_order_relaxed) == self(); }

struct Locked {
    Locked() { lockProcess(); }
    ~Locked() { unlockProcess(); }
    Locked(Locked const&) = delete;
    Locked& operator=(Locked const&) = delete;
};

void forkPrepare() { lockProcess(); }
void forkParent() { unlockProcess(); }
void forkChild() {
    // Only the forking thread exists in the child; it held the lock.
    gLock.owner.store(0, std::memory_order_relaxed);
    gLock.depth = 0;
    gLock.state.store(0, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------
// The arena of the process: every operation under the lock.
// ---------------------------------------------------------------------------
class ProcessAllocator final : public MemoryAllocator {
public:
    explicit ProcessAllocator(Allocator* host) : MemoryAllocator(host) {}
    ~ProcessAllocator() override {}

    void* alloc(unsigned long size) override {
        Locked l;
        return MemoryAllocator::alloc(size);
    }
    void* alloc(unsigned long size, unsigned int c) override {
        Locked l;
        return MemoryAllocator::alloc(size, c);
    }
    void free(void* p) override {
        if (!p) return;
        Locked l;
        MemoryAllocator::free(p);
    }
    unsigned long size(void* p) const override {
        Locked l;
        return MemoryAllocator::size(p);
    }
    unsigned long allocatedMemory() const override {
        Locked l;
        return MemoryAllocator::allocatedMemory();
    }
    unsigned long internalFree() const override {
        Locked l;
        return MemoryAllocator::internalFree();
    }
    unsigned int color(void* p) const override {
        Locked l;
        return MemoryAllocator::color(p);
    }
    unsigned int setColor(void* p, unsigned int c) override {
        Locked l;
        return MemoryAllocator::setColor(p, c);
    }
    bool valid(void* p) const override {
        Locked l;
        return MemoryAllocator::valid(p);
    }
    // Default colours are per thread and need no lock.
    unsigned long allocatedColorMemory(unsigned int c) const override {
        Locked l;
        return MemoryAllocator::allocatedColorMemory(c);
    }
    unsigned long freeColorMemory(unsigned int c) const override {
        Locked l;
        return MemoryAllocator::freeColorMemory(c);
    }
    void adjustColorMemory(unsigned int c, int delta) override {
        Locked l;
        MemoryAllocator::adjustColorMemory(c, delta);
    }
    char const* verify() const override {
        Locked l;
        return MemoryAllocator::verify();
    }

    // The global operators' paths: no virtual dispatch, same state and lock.
    void* allocDirect(unsigned long size) {
        Locked l;
        return MemoryAllocator::alloc(size);
    }
    void freeDirect(void* p) {
        Locked l;
        MemoryAllocator::free(p);
    }
};

alignas(16) unsigned char gHostStorage[sizeof(HostAllocator)];
alignas(16) unsigned char gArenaStorage[sizeof(ProcessAllocator)];
bool gHostBuilt;
bool gArenaBuilt;
std::atomic<ProcessAllocator*> gProcess;

void destroyArena() {
    // Run the destructor (it releases nothing), then put the dispatch table back:
    // static objects destroyed after this still free through the arena.
    void* table;
    std::memcpy(&table, gArenaStorage, sizeof table);
    reinterpret_cast<ProcessAllocator*>(gArenaStorage)->~ProcessAllocator();
    std::memcpy(gArenaStorage, &table, sizeof table);
}

ProcessAllocator* buildProcessAllocator() {
    ZoIF_MemInit(0);
    Locked l;  // serialises a first call from two threads at once
    if (ProcessAllocator* built = gProcess.load(std::memory_order_acquire)) return built;
    if (!gHostBuilt) {
        gHostBuilt = true;
        ::new (static_cast<void*>(gHostStorage)) HostAllocator();
    }
    ProcessAllocator* arena = reinterpret_cast<ProcessAllocator*>(gArenaStorage);
    if (!gArenaBuilt) {
        ::new (static_cast<void*>(gArenaStorage)) ProcessAllocator(reinterpret_cast<HostAllocator*>(gHostStorage));
        gArenaBuilt = true;
        std::atexit(destroyArena);
        pthread_atfork(forkPrepare, forkParent, forkChild);
    }
    // init() before publishing: a thread that sees the pointer may use the arena
    // at once (init obtains no memory, so the order is otherwise unobservable).
    arena->init();
    gProcess.store(arena, std::memory_order_release);
    return arena;
}

inline ProcessAllocator* processAllocator() {
    ProcessAllocator* a = gProcess.load(std::memory_order_acquire);
    return __builtin_expect(a != nullptr, 1) ? a : buildProcessAllocator();
}

inline void* processAlloc(std::size_t size) { return processAllocator()->allocDirect(size); }

inline void processFree(void* p) {
    if (p) processAllocator()->freeDirect(p);
}

void* alignedAlloc(std::size_t size, std::size_t alignment) {
    if (alignment <= 16) return processAlloc(size);
    if (size + alignment < size) return nullptr;
    // Over-allocate; the block's own address sits in the 8 bytes before the
    // aligned address, which is at least 16 bytes into the block.
    char* raw = static_cast<char*>(processAlloc(size + alignment));
    if (!raw) return nullptr;
    std::uintptr_t aligned = (reinterpret_cast<std::uintptr_t>(raw) + alignment) & ~(std::uintptr_t(alignment) - 1);
    reinterpret_cast<void**>(aligned)[-1] = raw;
    return reinterpret_cast<void*>(aligned);
}

void alignedFree(void* p, std::size_t alignment) {
    if (!p) return;
    processFree(alignment <= 16 ? p : static_cast<void**>(p)[-1]);
}

}  // namespace

Allocator* Allocator::theAllocator() { return processAllocator(); }

// ---------------------------------------------------------------------------
// HostAllocator.
// ---------------------------------------------------------------------------
HostAllocator::HostAllocator() : lastSize(0) {}

void* HostAllocator::alloc(unsigned long size) {
    unsigned int amount = static_cast<unsigned int>(size);
    void* p = size > 0xFFFFFFFFul ? nullptr : ZoIF_MemAllocMin(&amount);
    if (!p) {
        lastSize = 0;
        if (heldByCaller())
            tPendingOutOfMemory = true;  // raised when the process allocator is left
        else
            raiseOutOfMemory();
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

// ---------------------------------------------------------------------------
// The global operators. The throwing forms return null on exhaustion instead of
// throwing: the whole library is written against that.
// ---------------------------------------------------------------------------
using Utils::alignedAlloc;
using Utils::alignedFree;
using Utils::processAlloc;
using Utils::processFree;

#define ZO_NEW_API __attribute__((visibility("default")))

ZO_NEW_API void* operator new(std::size_t size) { return processAlloc(size); }
ZO_NEW_API void* operator new[](std::size_t size) { return processAlloc(size); }
ZO_NEW_API void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return processAlloc(size); }
ZO_NEW_API void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return processAlloc(size); }
ZO_NEW_API void* operator new(std::size_t size, std::align_val_t a) {
    return alignedAlloc(size, static_cast<std::size_t>(a));
}
ZO_NEW_API void* operator new[](std::size_t size, std::align_val_t a) {
    return alignedAlloc(size, static_cast<std::size_t>(a));
}
ZO_NEW_API void* operator new(std::size_t size, std::align_val_t a, std::nothrow_t const&) noexcept {
    return alignedAlloc(size, static_cast<std::size_t>(a));
}
ZO_NEW_API void* operator new[](std::size_t size, std::align_val_t a, std::nothrow_t const&) noexcept {
    return alignedAlloc(size, static_cast<std::size_t>(a));
}

ZO_NEW_API void operator delete(void* p) noexcept { processFree(p); }
ZO_NEW_API void operator delete[](void* p) noexcept { processFree(p); }
ZO_NEW_API void operator delete(void* p, std::nothrow_t const&) noexcept { processFree(p); }
ZO_NEW_API void operator delete[](void* p, std::nothrow_t const&) noexcept { processFree(p); }
ZO_NEW_API void operator delete(void* p, std::size_t) noexcept { processFree(p); }
ZO_NEW_API void operator delete[](void* p, std::size_t) noexcept { processFree(p); }
ZO_NEW_API void operator delete(void* p, std::align_val_t a) noexcept { alignedFree(p, static_cast<std::size_t>(a)); }
ZO_NEW_API void operator delete[](void* p, std::align_val_t a) noexcept {
    alignedFree(p, static_cast<std::size_t>(a));
}
ZO_NEW_API void operator delete(void* p, std::align_val_t a, std::nothrow_t const&) noexcept {
    alignedFree(p, static_cast<std::size_t>(a));
}
ZO_NEW_API void operator delete[](void* p, std::align_val_t a, std::nothrow_t const&) noexcept {
    alignedFree(p, static_cast<std::size_t>(a));
}
ZO_NEW_API void operator delete(void* p, std::size_t, std::align_val_t a) noexcept {
    alignedFree(p, static_cast<std::size_t>(a));
}
ZO_NEW_API void operator delete[](void* p, std::size_t, std::align_val_t a) noexcept {
    alignedFree(p, static_cast<std::size_t>(a));
}
