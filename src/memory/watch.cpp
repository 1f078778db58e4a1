// The out-of-line parts of watch.h: the one-time look for valgrind, pools, and the
// hand-over of a region between two of the library's allocators.
#include "memory/watch.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "memory/debug.h"
#include "utils/allocator.h"

namespace Utils {
namespace watch {

bool memcheckOn = false;

// Memcheck, not just any valgrind tool: under callgrind or cachegrind the
// allocators must run exactly as they do outside valgrind. Memcheck preloads its
// own malloc replacement, named after the tool, which tells it apart.
bool memcheckRuns() {
#if ZO_MEMCHECK
    if (RUNNING_ON_VALGRIND == 0) return false;
    char const* preload = std::getenv("LD_PRELOAD");
    return preload && std::strstr(preload, "vgpreload_memcheck");
#else
    return false;
#endif
}

bool start() {
    static bool const looked = (memcheckOn = memcheckRuns(), true);
    (void)looked;
    return on();
}

void poolStart(void const* pool) {
#if ZO_MEMCHECK
    if (!memcheck()) return;
    // An allocator built where an earlier one lived takes over its name.
    if (VALGRIND_MEMPOOL_EXISTS(pool)) VALGRIND_DESTROY_MEMPOOL(pool);
    VALGRIND_CREATE_MEMPOOL(pool, 0, 0);
#endif
    (void)pool;
}

void widen(void* p, std::size_t usable) {
#if ZO_MEMCHECK
    if (memcheck()) {
        // The bytes past the request are the only no-access ones of the block; the
        // check finds the first of them without a report (reporting is off).
        Quiet quiet;
        char* first = reinterpret_cast<char*>(VALGRIND_CHECK_MEM_IS_ADDRESSABLE(p, usable));
        if (first) (void)VALGRIND_MAKE_MEM_UNDEFINED(first, static_cast<char*>(p) + usable - first);
    }
#endif
#ifdef ZO_POISON
    __asan_unpoison_memory_region(p, usable);
#endif
    (void)p;
    (void)usable;
}

void disown(Allocator* parent, void* region) {
#if ZO_MEMCHECK
    if (memcheck() && parent) {
        if (dynamic_cast<MemoryAllocator*>(parent)) {
            VALGRIND_FREELIKE_BLOCK(region, 0);
        } else if (dynamic_cast<BSDAllocator*>(parent) || dynamic_cast<SimpleAllocator*>(parent)) {
            VALGRIND_MEMPOOL_FREE(parent, region);
        }
    }
#endif
    (void)parent;
    (void)region;
}

void adoptRegion(Allocator* parent, void* region, std::size_t bytes) {
    disown(parent, region);
    hide(region, bytes);
}

}  // namespace watch

void detail::allocatorCheckFailed(char const* what, char const* file, int line) {
    std::fprintf(stderr, "zoutils: allocator check failed at %s:%d: %s\n", file, line, what);
    std::abort();
}

}  // namespace Utils
