// The platform layer inside the library: every place where the library talks to
// the operating system itself rather than through the system layer (zosys.h).
// Nothing else under src/ includes an OS header for these jobs.
//
// What it offers, and what each promises:
//
//  - TableLock: a plain (not re-entrant) mutual-exclusion lock over one futex
//    word. Constant-initialised and trivially destructible, so it works before any
//    constructor of any library has run and after every static destructor; it
//    never allocates, so it may guard tables that the process allocator's own
//    out-of-memory path reaches. It guards the library's shared tables (the log
//    hub, the result tables, the version slot and counts, the process allocator's
//    arena claims). A thread that already holds it must not take it again.
//
//  - ProcessLock: a TableLock's word with an owner, re-entrant from the owning
//    thread (the owner is the address of a thread-local byte, so telling owners
//    apart costs no system call). One cache line each, so that locks used by
//    different threads never share a line. The process allocator's arena locks.
//
//  - Fork hooks: onFork registers prepare/parent/child handlers once per process.
//    The handler that takes locks before fork takes them in a fixed order; the
//    child handler runs in the only thread of the child and must leave every lock
//    it owns free (resetAfterFork), since the threads that held them are gone.
//
//  - Thread-end slot: one value per thread and a function called with it when the
//    thread ends (if the value is not null).
//
//  - Scratch mappings: zeroed pages straight from the kernel, for code that must
//    not allocate through the allocator it serves or checks (the arena verifier,
//    the process allocator's region table). mapScratch returns null on failure.
//
//  - singleThreaded(): true only while the process has never had a second thread
//    (the C library's own flag; a second thread clears it before it runs).
//
// Lock order: a TableLock's holder may allocate, so every TableLock comes before
// every ProcessLock, and nothing done while a ProcessLock is held takes a
// TableLock. The process allocator's fork handler takes its arena-claim lock,
// then the arena locks in index order.
#pragma once

#include <sys/single_threaded.h>

#include <atomic>
#include <cstdint>

namespace Utils {
namespace platform {

// ---------------------------------------------------------------------------
// Locks
// ---------------------------------------------------------------------------

// The slow path of taking a futex word: spins a little, then sleeps. `state` is
// 0 free, 1 held, 2 held with (possible) sleepers.
void lockWordSlow(std::atomic<int>& state);
// Wakes one sleeper on a word that was 2 when it was released.
void wakeWord(std::atomic<int>& state);

inline void lockWord(std::atomic<int>& state) {
    int expected = 0;
    if (!state.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
        lockWordSlow(state);
}

inline void unlockWord(std::atomic<int>& state) {
    if (state.exchange(0, std::memory_order_release) == 2) wakeWord(state);
}

class TableLock {
public:
    constexpr TableLock() : state_(0) {}
    TableLock(TableLock const&) = delete;
    TableLock& operator=(TableLock const&) = delete;

    void lock() { lockWord(state_); }
    void unlock() { unlockWord(state_); }
    // Frees the lock whoever held it: only in the child after fork.
    void resetAfterFork() { state_.store(0, std::memory_order_relaxed); }

private:
    std::atomic<int> state_;
};

// Holds a TableLock for a scope.
class TableHold {
public:
    explicit TableHold(TableLock& l) : lock_(l) { lock_.lock(); }
    ~TableHold() { lock_.unlock(); }
    TableHold(TableHold const&) = delete;
    TableHold& operator=(TableHold const&) = delete;

private:
    TableLock& lock_;
};

// The identity of the calling thread for lock ownership: the address of a
// thread-local byte (never 0). __thread rather than thread_local: a byte with no
// initialiser needs no wrapper call on every use.
extern __thread char tLockIdentity __attribute__((tls_model("initial-exec")));
inline std::uintptr_t lockIdentity() { return reinterpret_cast<std::uintptr_t>(&tLockIdentity); }

struct alignas(64) ProcessLock {
    std::atomic<int> state;  // the futex word, as in TableLock
    std::atomic<std::uintptr_t> owner;
    unsigned int depth;  // written by the owner only

    void lock() {
        std::uintptr_t me = lockIdentity();
        if (owner.load(std::memory_order_relaxed) == me) {
            ++depth;
            return;
        }
        lockWord(state);
        owner.store(me, std::memory_order_relaxed);
        depth = 1;
    }
    void unlock() {
        if (--depth) return;
        owner.store(0, std::memory_order_relaxed);
        unlockWord(state);
    }
    // Frees the lock whoever held it: only in the child after fork.
    void resetAfterFork() {
        owner.store(0, std::memory_order_relaxed);
        depth = 0;
        state.store(0, std::memory_order_relaxed);
    }
};

// ---------------------------------------------------------------------------
// Process and threads
// ---------------------------------------------------------------------------

// Registers the three fork handlers (pthread_atfork). False if they could not be.
bool onFork(void (*prepare)(), void (*parent)(), void (*child)());

inline bool singleThreaded() { return __libc_single_threaded; }

// One value per thread, handed to `atEnd` when a thread that set it ends.
class ThreadEndSlot {
public:
    // False if the system has no slot left.
    bool create(void (*atEnd)(void*));
    void set(void* value);

private:
    unsigned int key_ = 0;
};

// ---------------------------------------------------------------------------
// Scratch memory
// ---------------------------------------------------------------------------

// `bytes` (rounded up to pages, at least one) of zeroed read-write memory, or null.
void* mapScratch(unsigned long bytes);
// Gives back what mapScratch returned, with the same `bytes`; null is ignored.
void unmapScratch(void* p, unsigned long bytes);

}  // namespace platform
}  // namespace Utils
