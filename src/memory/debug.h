// Checks inside the allocators, compiled in by the debug level (ZO_DEBUG_LEVEL,
// from the build's ZOUTILS_DEBUG_LEVEL; the dev and asan presets use 2):
//   0  nothing (release, test and bench builds): the checks cost nothing;
//   1  assertions in the helpers: head and trailer tags of the blocks a split, a
//      merge or a release works on, and the chunk bitmaps of the page allocator;
//   2  also the structure's verifier after public mutations (allocations and
//      releases): after each of a thread's first 4096, then after every 64th; for
//      the process allocator's arenas (every operator new of the program) after
//      every 256th. A verifier walks the whole structure, so verifying after every
//      mutation would make long randomised runs quadratic; the early ones are all
//      checked, and a fault is still caught within 64 operations of its cause.
// A failed check prints what failed and where, then aborts.
#ifndef ZO_MEMORY_DEBUG_H
#define ZO_MEMORY_DEBUG_H

#ifndef ZO_DEBUG_LEVEL
#define ZO_DEBUG_LEVEL 0
#endif

namespace Utils {
namespace detail {
[[noreturn]] void allocatorCheckFailed(char const* what, char const* file, int line) __attribute__((visibility("hidden")));
}  // namespace detail
}  // namespace Utils

#define ZO_CHECK(cond, what)                                                                          \
    do {                                                                                              \
        if (ZO_DEBUG_LEVEL >= 1 && __builtin_expect(!(cond), 0))                                      \
            ::Utils::detail::allocatorCheckFailed(what, __FILE__, __LINE__);                          \
    } while (0)

namespace Utils {
namespace detail {
// Whether this mutation is one to verify after, at level 2: each of the calling
// thread's first 4096, then every `every`th.
inline bool verifyNow(unsigned int every) {
    static thread_local unsigned int mutations;
    ++mutations;
    return mutations <= 4096 || mutations % every == 0;
}
}  // namespace detail
}  // namespace Utils

// The verifier of `object` (a pointer), at level 2, on verifyNow's schedule.
#define ZO_VERIFY_AFTER(object)                                                                       \
    do {                                                                                              \
        if (ZO_DEBUG_LEVEL >= 2 && ::Utils::detail::verifyNow(64))                                     \
            if (char const* fault_ = (object)->verify())                                              \
                ::Utils::detail::allocatorCheckFailed(fault_, __FILE__, __LINE__);                    \
    } while (0)

#endif
