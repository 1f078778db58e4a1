// The global operator new and operator delete, in every replaceable form, over the
// process allocator (process.cpp). They are exported from the library so that
// every module of the program, the library's own included, allocates through it.
//
// The throwing forms return null on exhaustion instead of throwing: the whole
// library is written against that.
//
// Over-aligned blocks (alignment above 16) are over-allocated by the alignment; the
// block's own address sits in the 8 bytes before the aligned address, which is at
// least 16 bytes into the block, and the aligned delete forms read it back.
#include <cstdint>
#include <new>

#include "memory/process_internal.h"

namespace {

using Utils::processAlloc;
using Utils::processFree;

void* alignedAlloc(std::size_t size, std::size_t alignment) {
    if (alignment <= 16) return processAlloc(size);
    if (size + alignment < size) return nullptr;
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
