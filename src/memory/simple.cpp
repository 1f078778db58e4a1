// SimpleAllocator: colour accounting over the platform's malloc and free.
//
// Layout of one block, inside one malloc block of r = (size + 72) rounded up to
// 128 bytes:
//
//   m                                   a = (m + 71) & ~63             m + r
//   | header | unused ... | malloc addr | usable bytes ...  | guard |  |
//   +--4 B---+            +-----8 B-----+------------------------------+
//   header = usable size | colour << 24     guard = 0xDEADDEAD at a + (u & ~3) - 4
//
// Usable size u = r - (a - m). malloc returns 16-byte aligned memory, so a - m is
// 16, 32, 48 or 64: the header word and the stored malloc address never overlap.
//
// Accounting identity: allocatedTotal is the sum of the usable sizes of the live
// blocks, and also the sum of allocatedByColor, as long as nobody calls setColor
// (which deliberately leaves the bytes under the old colour).
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "memory/watch.h"
#include "utils/allocator.h"
#include "utils/result.h"

namespace Utils {

namespace {

constexpr std::uint32_t kGuard = 0xDEADDEADu;
constexpr unsigned long kNotKnown = 0xFFFFFFFFul;

static_assert(alignof(std::max_align_t) >= 16,
              "the header word and the stored malloc address need 16 bytes before the block");

inline std::uint32_t* headerOf(void* p) {
    void* m;
    __builtin_memcpy(&m, static_cast<char*>(p) - sizeof(void*), sizeof m);
    return static_cast<std::uint32_t*>(m);
}

}  // namespace

SimpleAllocator::SimpleAllocator()
    : allocatedTotal(0), allocatedByColor{}, defaultColorValue(0), sizeMask(0xFFFFFF) {
    // Blocks are chunks of a memory-checker pool inside malloc's blocks
    // (memory/watch.h): the request is the program's, the rest up to the guard is
    // no-access.
    watch::start();
    watch::poolStart(this);
}

void* SimpleAllocator::alloc(unsigned long size) {
    return alloc(size, static_cast<char>(defaultColorValue & 0xFF));
}

void* SimpleAllocator::alloc(unsigned long size, char color) {
    // Larger requests would give a usable size that does not fit the 24 size bits
    // (the size + 199 below cannot overflow once this holds).
    if (size > kMaxRequest) return nullptr;
    // The colour is the char's byte value, so that it always indexes the counters.
    unsigned int c = static_cast<unsigned char>(color);
    unsigned long r = (size + 199) & ~127ul;
    char* m = static_cast<char*>(std::malloc(r));
    if (!m) return nullptr;
    char* a = reinterpret_cast<char*>((reinterpret_cast<std::uintptr_t>(m) + 71) & ~std::uintptr_t(63));
    __builtin_memcpy(a - sizeof(void*), &m, sizeof m);
    std::uint32_t u = static_cast<std::uint32_t>(r - static_cast<unsigned long>(a - m));
    std::uint32_t header = u | (c << 24);
    __builtin_memcpy(m, &header, sizeof header);
    allocatedTotal += u;
    allocatedByColor[c] += u;
    __builtin_memcpy(a + (u & ~3u) - 4, &kGuard, sizeof kGuard);
    if (watch::on()) watch::poolHandOut(this, a, size, u);
    return a;
}

void SimpleAllocator::free(void* p) {
    if (!p) return;
    if (watch::on()) watch::poolTakeBack(this, p);
    // Read through the object, as a subclass may account differently.
    unsigned long s = size(p);
    unsigned int c = color(p);
    allocatedTotal -= static_cast<unsigned int>(s);
    allocatedByColor[c & 0xFF] -= static_cast<unsigned int>(s);
    std::free(headerOf(p));
}

// A caller told the usable size may use all of it.
unsigned long SimpleAllocator::size(void* p) const {
    if (!p) return 0;
    unsigned long n = *headerOf(p) & sizeMask;
    if (watch::on()) {
        watch::widen(p, n);
        // The guard in the last word keeps the value the allocator wrote there.
        watch::release(static_cast<char*>(p) + (n & ~3ul) - 4, 4);
    }
    return n;
}

unsigned long SimpleAllocator::allocatedMemory() const { return allocatedTotal; }

unsigned long SimpleAllocator::internalFree() const { return kNotKnown; }

unsigned int SimpleAllocator::color(void* p) const {
    if (!p) return 0;
    return *headerOf(p) >> 24;
}

unsigned int SimpleAllocator::setColor(void* p, unsigned int color) {
    if (!p) return kResultFailure;
    std::uint32_t* h = headerOf(p);
    // kept: the counters are not moved to the new colour.
    *h = (*h & sizeMask) | (color << 24);
    return 0;
}

// kept: every pointer is taken for one of ours.
bool SimpleAllocator::valid(void*) const { return true; }

unsigned int SimpleAllocator::setDefaultColor(unsigned int color, unsigned int* previous) {
    if (previous) *previous = defaultColorValue;
    defaultColorValue = color;
    return 0;
}

unsigned long SimpleAllocator::allocatedColorMemory(unsigned int color) const {
    return color < 256 ? allocatedByColor[color] : 0;
}

unsigned long SimpleAllocator::freeColorMemory(unsigned int) const { return kNotKnown; }

}  // namespace Utils
