// Telling memory checkers what the allocators hand out.
//
// The arena, the page allocator and the simple allocator carve their blocks out of
// memory that valgrind's memcheck and AddressSanitizer see as one large, valid
// area. The helpers here describe the blocks to them, so that an overrun, a use
// after release, a read of never-written bytes and a leak are reported for arena
// memory as they are for malloc's:
//
//   handed out   the bytes asked for are addressable and undefined (memcheck: a
//                malloc-like block, or a pool chunk, of the requested size);
//   released     the block's bytes are no-access (memcheck also forgets the block);
//   bookkeeping  headers, trailers, free-list links and tree nodes inside free
//                blocks are no-access; the allocator reads and writes them with
//                memcheck's error reporting switched off (Quiet below), which is
//                how it reaches them without reports and without making them
//                addressable to the program.
//
// Memcheck: every helper is one predictable branch on `memcheckOn` when the
// program is not under valgrind; the process allocator's single-thread fast path
// does not call them at all (it routes through its locked path when watched).
// AddressSanitizer: when the library is built with it, ZO_POISON is defined and
// the allocator sources are compiled without instrumentation (they read their own
// poisoned bookkeeping); the program's accesses are checked against the poisoning.
//
// Nesting: memcheck rejects a block that overlaps another block, except pool
// chunks inside a malloc-like block. The arena's blocks are malloc-like; the page
// and simple allocators' blocks are chunks of a pool named by the allocator's
// address. An arena whose parent is one of ours takes the parent's record of each
// region off memcheck's books (adoptRegion), so arenas nest too.
#ifndef ZO_MEMORY_WATCH_H
#define ZO_MEMORY_WATCH_H

#include <cstddef>

#if defined(__has_include)
#if __has_include(<valgrind/memcheck.h>) && !defined(ZO_NO_MEMCHECK)
#include <valgrind/memcheck.h>
#define ZO_MEMCHECK 1
#endif
#endif
#ifndef ZO_MEMCHECK
#define ZO_MEMCHECK 0
#endif

#ifdef ZO_POISON
extern "C" void __asan_poison_memory_region(void const volatile* addr, std::size_t size);
extern "C" void __asan_unpoison_memory_region(void const volatile* addr, std::size_t size);
#endif

namespace Utils {
class Allocator;

namespace watch {

#ifdef ZO_POISON
constexpr bool kPoison = true;
#else
constexpr bool kPoison = false;
#endif

// True when the process runs under valgrind (set by start()).
extern bool memcheckOn __attribute__((visibility("hidden")));

// Looks once whether the process runs under valgrind; returns whether any checker
// watches (memcheck, or the library's own AddressSanitizer build).
bool start() __attribute__((visibility("hidden")));

inline bool memcheck() { return ZO_MEMCHECK && __builtin_expect(memcheckOn, false); }
inline bool on() { return kPoison || memcheck(); }

// Memcheck's error reporting off for the calling thread while it lives: the
// allocator at work on its no-access bookkeeping. Nests.
class Quiet {
public:
    Quiet() : on_(memcheck()) {
#if ZO_MEMCHECK
        if (on_) VALGRIND_DISABLE_ERROR_REPORTING;
#endif
    }
    ~Quiet() {
#if ZO_MEMCHECK
        if (on_) VALGRIND_ENABLE_ERROR_REPORTING;
#endif
    }
    Quiet(Quiet const&) = delete;
    Quiet& operator=(Quiet const&) = delete;

private:
    bool on_;
};

// No-access: free space and bookkeeping.
inline void hide(void const* p, std::size_t n) {
#if ZO_MEMCHECK
    if (memcheck()) (void)VALGRIND_MAKE_MEM_NOACCESS(p, n);
#endif
#ifdef ZO_POISON
    __asan_poison_memory_region(p, n);
#endif
    (void)p;
    (void)n;
}

// Addressable, contents undefined: memory the allocator is about to use itself.
inline void expose(void const* p, std::size_t n) {
#if ZO_MEMCHECK
    if (memcheck()) (void)VALGRIND_MAKE_MEM_UNDEFINED(p, n);
#endif
#ifdef ZO_POISON
    __asan_unpoison_memory_region(p, n);
#endif
    (void)p;
    (void)n;
}

// Addressable and defined: memory given back to whoever owned it before.
inline void release(void const* p, std::size_t n) {
#if ZO_MEMCHECK
    if (memcheck()) (void)VALGRIND_MAKE_MEM_DEFINED(p, n);
#endif
#ifdef ZO_POISON
    __asan_unpoison_memory_region(p, n);
#endif
    (void)p;
    (void)n;
}

// An arena block handed out: `request` bytes at p (of `usable`) are the caller's.
inline void handOut(void* p, std::size_t request, std::size_t usable) {
#if ZO_MEMCHECK
    if (memcheck()) VALGRIND_MALLOCLIKE_BLOCK(p, request, 0, 0);
#endif
#ifdef ZO_POISON
    __asan_unpoison_memory_region(p, request);
    __asan_poison_memory_region(static_cast<char*>(p) + request, usable - request);
#endif
    (void)p;
    (void)request;
    (void)usable;
}

// An arena block released: all `usable` bytes become no-access. Memcheck reports a
// release of something that is not a live block (a double release) here.
inline void takeBack(void* p, std::size_t usable) {
#if ZO_MEMCHECK
    if (memcheck()) {
        VALGRIND_FREELIKE_BLOCK(p, 0);
        (void)VALGRIND_MAKE_MEM_NOACCESS(p, usable);
    }
#endif
#ifdef ZO_POISON
    __asan_poison_memory_region(p, usable);
#endif
    (void)p;
    (void)usable;
}

// Pools: the page and simple allocators' blocks, `pool` being the allocator.
void poolStart(void const* pool) __attribute__((visibility("hidden")));
inline void poolHandOut(void const* pool, void* p, std::size_t request, std::size_t usable) {
#if ZO_MEMCHECK
    if (memcheck()) {
        VALGRIND_MEMPOOL_ALLOC(pool, p, request);
        if (usable > request) (void)VALGRIND_MAKE_MEM_NOACCESS(static_cast<char*>(p) + request, usable - request);
    }
#endif
#ifdef ZO_POISON
    __asan_unpoison_memory_region(p, request);
    __asan_poison_memory_region(static_cast<char*>(p) + request, usable - request);
#endif
    (void)pool;
    (void)p;
    (void)request;
    (void)usable;
}
inline void poolTakeBack(void const* pool, void* p) {
#if ZO_MEMCHECK
    if (memcheck()) VALGRIND_MEMPOOL_FREE(pool, p);
#endif
    (void)pool;
    (void)p;
}

// The caller asked for a block's usable size, and may now use all of it: the bytes
// past the request become addressable (undefined), the request's bytes keep their
// state.
void widen(void* p, std::size_t usable) __attribute__((visibility("hidden")));

// A region just obtained from `parent` for good: if the parent is one of the
// library's allocators, memcheck forgets the parent's record of it (the region is
// now the child's to describe, and nothing overlaps).
void disown(Allocator* parent, void* region) __attribute__((visibility("hidden")));
// disown, then the whole region is hidden.
void adoptRegion(Allocator* parent, void* region, std::size_t bytes) __attribute__((visibility("hidden")));

}  // namespace watch
}  // namespace Utils

#endif
