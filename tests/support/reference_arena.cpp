// ReferenceArena: the straightforward tree-based arena, kept as the reference that
// the production arena (Utils::MemoryAllocator) is compared against. Its index is
// a weight-balanced free tree ordered by size then address, with address trees for
// the carrier search; whatever index the production arena uses, every observable
// result must match this code. Change it only together with a deliberate change of
// what the arena does, never to make it faster.
//
// Block layout (64-bit). H is a block's header address; every header is 12 mod 16,
// so the address handed to callers, U = H + 4, is a multiple of 16.
//
//   H+0   size word: bit 0 busy, bit 1 bridge, bits 2..25 block size (bits 0 and 1
//         read as 0; ordinary blocks are multiples of 16 of at least 80 bytes,
//         small blocks 32 or 64), bits 26..31 colour of a busy block (0 when free)
//
//   busy:   H+4 .. H+size-4   the caller's bytes (size() reports size - 8)
//
//   free ordinary (size >= 80), in three trees:
//   H+4   WTreeNodeBase of the free tree (weight, left, right: 24 bytes)
//   H+28  colour word: the colour the free bytes are counted under; it is the free
//         tree's payload, and the comparison reads the size word 28 bytes before it
//   H+36  WTreeNodeBase of an address tree (addressTree80 for 80-byte blocks,
//         addressTreeBig for larger ones), or, with weight 0, a link of the list of
//         blocks not yet filed there; ends at H+60, before the trailer at H+76
//
//   free small (32 or 64 bytes), in smallLists[5] or smallLists[6]:
//   H+4   next free small block of the same size (8 bytes)
//   H+28  colour word, at the same offset as in a free ordinary block; in a 32-byte
//         block it is the last word
//
//   trailer: the last word of every ordinary block, H+size-4, holds size | 1 with no
//         colour; small blocks have none.
//
//   bridge: a busy block with bit 1 set covering the gap between two regions that
//         do not touch. Its step is the whole size word less 3 (so a bridge may span
//         up to 4 GiB - 16); its trailer, the word before the next block, holds the
//         step | 1. A bridge is never free, so nothing merges backwards into it.
//         A far bridge (a gap of 4 GiB or more) has the size word 3 and the trailer
//         1; its step is kept in farBridges (at most kFarBridges of them). Its
//         trailer makes the block after it find itself as its predecessor, which is
//         busy, so nothing merges into a far bridge either.
//
//   carrier: a busy ordinary block cut into small blocks. Carving starts at H+4 and
//         the first small header is at H+16; the 12 bytes skipped hold, at H+4, the
//         next carrier (the chain verify() walks) and at H+12 the small size, with
//         bit 31 set when the carrier came from _alloc and is counted as allocated.
//
//   The word at arenaEnd is always 0: a walk that reads one header past the last
//   block sees a free block of size 0, which nothing can take.
//
// Regions. The first region's block starts at R + 12 and ends 4 bytes before the
// region's end, where arenaEnd then lies. A region that starts exactly at the end of
// the previous one (R == arenaEnd + 4) continues the arena: its block starts at
// arenaEnd and takes the whole region, so arenaEnd again lies 4 bytes before the
// region's end. Any other region gets its block at R + 12 and a bridge from the old
// arenaEnd. At most kMaxBlock bytes of a region are used as one block.
//
// Merging: two free neighbours merge unless their joint size would not fit the
// size bits (more than kMaxBlock); only such pairs may touch.
//
// Counters (64-bit, exact): allocatedTotal = busy ordinary blocks that are not
// carriers + carriers that came from _alloc + busy small blocks, in whole block
// sizes; allocatedByColor[c] = the same per colour + what setColor and
// adjustColorMemory added (colorAdjustments); freeTotal = free ordinary + free small
// blocks = sum of freeByColor.
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "containers/wtree_core.h"
#include "reference_arena.h"
#include "utils/result.h"
#include "zosys.h"

namespace zotest {

using Utils::kResultBadArgument;
using Utils::WTreeBase;
using Utils::WTreeCompare;
using Utils::WTreeNodeBase;
namespace wtcore = Utils::wtcore;

struct ReferenceArena::MemHead {
    unsigned int word;
};

namespace {

using Head = char;  // headers are handled as byte addresses

constexpr unsigned int kBusy = 1;
constexpr unsigned int kBridge = 2;
constexpr unsigned int kSizeMask = 0x03FFFFFCu;
constexpr unsigned int kColorMask = 0xFC000000u;
constexpr unsigned int kColorShift = 26;
constexpr unsigned long kMaxBlock = 0x03FFFFF0ul;    // largest multiple of 16 the size bits hold
constexpr unsigned long kMaxRequest = 0x03FFFFE8ul;  // (kMaxRequest + 23) & ~15 == kMaxBlock
constexpr unsigned long kCarrierSize = 10240;
constexpr unsigned long kMaxBridge = 0xFFFFFFF0ul;
constexpr unsigned int kFarBridges = 16;
constexpr unsigned int kSearchKeyMark = 0xFFFFFFFFu;  // never a colour word (those are 0..63)
constexpr unsigned int kCarrierCounted = 0x80000000u;

constexpr std::size_t kTreeNode = 4;      // H + 4
constexpr std::size_t kColorWord = 28;    // H + 28
constexpr std::size_t kAddressNode = 36;  // H + 36
constexpr std::size_t kCarrierLink = 4;   // H + 4
constexpr std::size_t kCarrierInfo = 12;  // H + 12
constexpr std::size_t kFirstSmall = 16;   // H + 16

static_assert(sizeof(WTreeNodeBase) == 24, "tree node layout");
static_assert(kTreeNode + sizeof(WTreeNodeBase) == kColorWord, "the colour word is the free tree's payload");
static_assert(kAddressNode + sizeof(WTreeNodeBase) <= 76, "the address node ends before an 80-byte block's trailer");

inline unsigned int& word(Head* h) { return *reinterpret_cast<unsigned int*>(h); }
inline unsigned int word(Head const* h) { return *reinterpret_cast<unsigned int const*>(h); }
inline unsigned int& colorWord(Head* h) { return word(h + kColorWord); }
inline unsigned long blockSize(Head const* h) { return word(h) & kSizeMask; }
inline void setTrailer(Head* h, unsigned long size) { word(h + size - 4) = static_cast<unsigned int>(size | kBusy); }
inline WTreeNodeBase* treeNode(Head* h) { return reinterpret_cast<WTreeNodeBase*>(h + kTreeNode); }
inline WTreeNodeBase* addressNode(Head* h) { return reinterpret_cast<WTreeNodeBase*>(h + kAddressNode); }
inline Head* fromTreeNode(WTreeNodeBase* n) { return reinterpret_cast<Head*>(n) - kTreeNode; }
inline Head* fromAddressNode(WTreeNodeBase* n) { return reinterpret_cast<Head*>(n) - kAddressNode; }
inline Head*& smallNext(Head* h) { return *reinterpret_cast<Head**>(h + 4); }
inline Head*& carrierNext(Head* h) { return *reinterpret_cast<Head**>(h + kCarrierLink); }
inline unsigned int& carrierInfo(Head* h) { return word(h + kCarrierInfo); }

// Free-tree order: size, then address. The search key of allocCandidate carries
// kSearchKeyMark as its colour word and ranks before every block of its size, so
// removesup finds the lowest-addressed block of the smallest sufficient size.
// Addresses are compared, never subtracted: a difference would not fit an int.
int compareFree(void const* a, void const* b) {
    Head const* ha = static_cast<Head const*>(a) - kColorWord;
    Head const* hb = static_cast<Head const*>(b) - kColorWord;
    unsigned int sa = word(ha) & kSizeMask, sb = word(hb) & kSizeMask;
    if (sa != sb) return sb > sa ? 1 : -1;
    if (*static_cast<unsigned int const*>(b) == kSearchKeyMark) return -1;
    std::uintptr_t xa = reinterpret_cast<std::uintptr_t>(ha), xb = reinterpret_cast<std::uintptr_t>(hb);
    return xb > xa ? 1 : (xb < xa ? -1 : 0);
}

int compareAddress(void const* a, void const* b) {
    std::uintptr_t xa = reinterpret_cast<std::uintptr_t>(a), xb = reinterpret_cast<std::uintptr_t>(b);
    return xb > xa ? 1 : (xb < xa ? -1 : 0);
}

// The same orders as comparison objects, so that the tree steps inline them.
struct FreeOrder {
    int operator()(void const* a, void const* b) const { return compareFree(a, b); }
};
struct AddressOrder {
    int operator()(void const* a, void const* b) const { return compareAddress(a, b); }
};

// Laid out like a free block from its size word to its colour word.
struct SearchKey {
    unsigned int pad;
    unsigned int sizeWord;
    WTreeNodeBase node;
    unsigned int mark;
};
static_assert(offsetof(SearchKey, mark) - offsetof(SearchKey, sizeWord) == kColorWord, "key layout");

// Index of the highest set bit, by halving the range.
unsigned int highestBit(unsigned int v) {
    unsigned int k = 0;
    if (v >> 16) { v >>= 16; k += 16; }
    if (v >> 8) { v >>= 8; k += 8; }
    if (v >> 4) { v >>= 4; k += 4; }
    if (v >> 2) { v >>= 2; k += 2; }
    if (v >> 1) k += 1;
    return k;
}

WTreeNodeBase* findExact(WTreeNodeBase* n, void const* payload, WTreeCompare compare) {
    while (n) {
        int k = compare(n->payload(), payload);
        if (k == 0) return n;
        n = k < 0 ? n->left : n->right;
    }
    return nullptr;
}

// Scratch memory for verify, straight from the kernel: verify must not allocate
// through the allocator it checks.
struct Scratch {
    void* p = nullptr;
    std::size_t bytes = 0;
    explicit Scratch(std::size_t n) : bytes(n ? n : 1) {
        p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) p = nullptr;
    }
    ~Scratch() {
        if (p) munmap(p, bytes);
    }
};

}  // namespace

#define H(x) reinterpret_cast<Head*>(x)
#define MH(x) reinterpret_cast<MemHead*>(x)

ReferenceArena::ReferenceArena(Utils::Allocator* parentAllocator)
    : parent(parentAllocator),
      freeTree(),
      arenaStart(nullptr),
      arenaEnd(nullptr),
      freeTotal(0),
      smallLists(),
      allocatedTotal(0),
      initialised(0),
      colorSlot(0),
      allocatedByColor(),
      freeByColor(),
      addressTree80(),
      addressTreeBig(),
      addressPending(nullptr),
      carriers(nullptr),
      colorAdjustments(),
      farBridges(),
      farBridgeSteps(),
      farBridgeCount(0) {}

ReferenceArena::~ReferenceArena() {}

void ReferenceArena::init() {
    arenaStart = nullptr;
    arenaEnd = nullptr;
    initialised = 1;
    freeTotal = 0;
    allocatedTotal = 0;
    colorSlot = ZoIF_AllocateTLSCoop();
    for (int c = 0; c < 64; ++c) {
        allocatedByColor[c] = 0;
        freeByColor[c] = 0;
        colorAdjustments[c] = 0;
    }
    for (int k = 0; k <= 5; ++k) smallLists[k] = nullptr;
    // smallLists[6] and the trees are left as constructed (empty).
}

// ---------------------------------------------------------------------------
// Tree membership of free ordinary blocks.
// ---------------------------------------------------------------------------
// Address order. A block that becomes free is pushed on addressPending (its
// address node's weight 0 marks it, left and right link the list both ways); one
// that stops being free leaves the list in constant time, or its address tree if
// it was filed. Before a carrier is looked for, fileAddresses() moves every waiting
// block into its tree, so the trees then hold exactly the free ordinary blocks.
// Each block is filed at most once per stay in the free state, and most blocks
// are allocated or merged again before a carrier is ever needed.
void ReferenceArena::linkFree(MemHead* m) {
    Head* h = H(m);
    wtcore::insert(treeNode(h), &freeTree.root, FreeOrder{});
    WTreeNodeBase* a = addressNode(h);
    a->weight = 0;
    a->left = nullptr;
    a->right = addressPending;
    if (addressPending) addressPending->left = a;
    addressPending = a;
}

void ReferenceArena::unlinkAddress(MemHead* m) {
    Head* h = H(m);
    WTreeNodeBase* a = addressNode(h);
    if (a->weight == 0) {
        if (a->left)
            a->left->right = a->right;
        else
            addressPending = a->right;
        if (a->right) a->right->left = a->left;
        return;
    }
    WTreeBase& byAddress = blockSize(h) == 80 ? addressTree80 : addressTreeBig;
    wtcore::removeAt<false>(a->payload(), &byAddress.root, AddressOrder{});
}

void ReferenceArena::unlinkFree(MemHead* m) {
    wtcore::removeAt<false>(treeNode(H(m))->payload(), &freeTree.root, FreeOrder{});
    unlinkAddress(m);
}

void ReferenceArena::fileAddresses() const {
    while (WTreeNodeBase* a = addressPending) {
        addressPending = a->right;
        Head* h = fromAddressNode(a);
        WTreeBase& byAddress = blockSize(h) == 80 ? addressTree80 : addressTreeBig;
        wtcore::insert(a, &byAddress.root, AddressOrder{});
    }
}

void ReferenceArena::freeLoser(MemHead* m) {
    Head* h = H(m);
    word(h) &= ~kBusy;
    linkFree(m);
    unsigned long size = blockSize(h);
    freeTotal += size;
    freeByColor[colorWord(h) & 63] += size;
}

void ReferenceArena::removeMe(MemHead* m) {
    Head* h = H(m);
    unlinkFree(m);
    unsigned long size = blockSize(h);
    freeTotal -= size;
    freeByColor[colorWord(h) & 63] -= size;
}

ReferenceArena::MemHead* ReferenceArena::allocCandidate(unsigned long need) {
    SearchKey key;
    key.sizeWord = static_cast<unsigned int>(need);
    key.mark = kSearchKeyMark;
    WTreeNodeBase* n = wtcore::removeAt<true>(&key.mark, &freeTree.root, FreeOrder{});
    if (!n) return nullptr;
    Head* h = fromTreeNode(n);
    unlinkAddress(MH(h));
    unsigned long size = blockSize(h);
    freeTotal -= size;
    freeByColor[colorWord(h) & 63] -= size;
    word(h) |= kBusy;
    return MH(h);
}

void ReferenceArena::splitBlock(MemHead* m, unsigned long n) {
    Head* h = H(m);
    unsigned long remainder = blockSize(h) - n;
    if (remainder < 65) return;  // for multiples of 16: under 80 bytes, the caller gets it all
    Head* t = h + n;
    word(t) = static_cast<unsigned int>(remainder | kBusy);
    colorWord(t) = colorWord(h);
    setTrailer(t, remainder);
    word(h) = static_cast<unsigned int>(n | kBusy);
    setTrailer(h, n);
    // A free block may touch a free neighbour when the two are too large for one
    // block; its tail is smaller and may now fit together with that neighbour.
    freeLoser(coalesce(MH(t)));
}

ReferenceArena::MemHead* ReferenceArena::coalesce(MemHead* m) {
    Head* h = H(m);
    // Neighbours whose joint size would not fit the size bits stay apart.
    Head* next = h + blockSize(h);
    if (next < H(arenaEnd) && !(word(next) & kBusy) && blockSize(h) + blockSize(next) <= kMaxBlock) {
        removeMe(MH(next));
        unsigned long size = blockSize(h) + blockSize(next);
        word(h) = static_cast<unsigned int>(size | kBusy);
        setTrailer(h, size);
    }
    if (h <= H(arenaStart)) return MH(h);
    Head* previous = h - (word(h - 4) - 1);
    if (word(previous) & kBusy) return MH(h);  // bridges and carriers are busy for good
    if (blockSize(previous) + blockSize(h) > kMaxBlock) return MH(h);
    removeMe(MH(previous));
    unsigned long size = blockSize(previous) + blockSize(h);
    word(previous) = static_cast<unsigned int>(size | kBusy);
    setTrailer(previous, size);
    return MH(previous);
}

// ---------------------------------------------------------------------------
// Growing the arena.
// ---------------------------------------------------------------------------
ReferenceArena::MemHead* ReferenceArena::growArena(unsigned long need) {
    if (!parent) return nullptr;
    void* region = parent->alloc(need + 16);
    if (!region) return nullptr;
    unsigned long regionSize = parent->size(region);
    Head* r = H(region);
    // Regions are granule-aligned in practice; any other parent is trimmed to 16.
    unsigned long misalign = reinterpret_cast<std::uintptr_t>(r) & 15;
    if (misalign) {
        if (regionSize < 16 - misalign) return nullptr;
        regionSize -= 16 - misalign;
        r += 16 - misalign;
    }
    regionSize &= ~15ul;

    Head* h;
    unsigned long size;
    Head* end = H(arenaEnd);
    if (arenaStart && r == end + 4) {
        h = end;
        size = regionSize;
    } else {
        if (regionSize < 16) return nullptr;
        h = r + 12;
        size = regionSize - 16;
        if (arenaStart) {
            // Regions below the arena stay unused, and so do far ones once the
            // table of far bridges is full.
            if (r < end + 4) return nullptr;
            if (static_cast<unsigned long>(h - end) > kMaxBridge && farBridgeCount == kFarBridges) return nullptr;
        }
    }
    if (size > kMaxBlock) size = kMaxBlock;
    if (size < need) return nullptr;
    if (arenaStart && h != end) {
        unsigned long gap = static_cast<unsigned long>(h - end);
        if (gap <= kMaxBridge) {
            word(end) = static_cast<unsigned int>(gap | kBusy | kBridge);
            word(h - 4) = static_cast<unsigned int>(gap | kBusy);
        } else {
            farBridges[farBridgeCount] = MH(end);
            farBridgeSteps[farBridgeCount] = gap;
            ++farBridgeCount;
            word(end) = kBusy | kBridge;
            word(h - 4) = kBusy;
        }
    }
    word(h) = static_cast<unsigned int>(size | kBusy);
    setTrailer(h, size);
    if (!arenaStart) arenaStart = MH(h);
    arenaEnd = MH(h + size);
    word(H(arenaEnd)) = 0;
    colorWord(h) = 0;
    splitBlock(MH(h), need);
    return MH(h);
}

// ---------------------------------------------------------------------------
// Allocation and release.
// ---------------------------------------------------------------------------
void* ReferenceArena::_alloc(unsigned long request, unsigned int color) {
    unsigned long need = (request + 23) & ~15ul;
    if (need < 32) need = 32;
    MemHead* m;
    if (need <= 64) {
        unsigned int k = highestBit(static_cast<unsigned int>(need));
        if (need != (1ul << k)) ++k;  // 48 becomes 64
        m = allocSmall(k);
        if (!m) return nullptr;
    } else {
        m = allocCandidate(need);
        if (m) {
            splitBlock(m, need);
        } else {
            m = growArena(need);
            if (!m) return nullptr;
        }
    }
    Head* h = H(m);
    unsigned long size = blockSize(h);
    allocatedTotal += size;
    word(h) |= (color & 63) << kColorShift;
    allocatedByColor[color & 63] += size;
    return h + 4;
}

void* ReferenceArena::carrierCandidate(unsigned int smallBlockSize) const {
    // The first free block in address order of at least s + 20 bytes: 80-byte
    // blocks qualify for 32-byte small blocks only (84 bytes are needed for one
    // 64-byte block after the 12 bytes skipped for alignment).
    fileAddresses();
    WTreeNodeBase* big = addressTreeBig.minNode();
    Head* h = big ? fromAddressNode(big) : nullptr;
    if (smallBlockSize + 20 <= 80) {
        WTreeNodeBase* small = addressTree80.minNode();
        if (small && (!h || fromAddressNode(small) < h)) h = fromAddressNode(small);
    }
    return h ? h + 4 : nullptr;
}

ReferenceArena::MemHead* ReferenceArena::allocSmall(unsigned int k) {
    unsigned long s = 1ul << k;
    if (!smallLists[k]) {
        Head* carrier;
        Head* start;
        unsigned long length;
        unsigned int info = static_cast<unsigned int>(s);
        if (void* candidate = carrierCandidate(static_cast<unsigned int>(s))) {
            carrier = H(candidate) - 4;
            removeMe(MH(carrier));
            colorWord(carrier) = 0;
            word(carrier) |= kBusy;
            if (blockSize(carrier) > kCarrierSize) splitBlock(MH(carrier), kCarrierSize);
            start = carrier + 4;
            length = blockSize(carrier) - 8;
        } else {
            // Counted as allocated, like any block of colour 0.
            void* block = _alloc(kCarrierSize, 0);
            if (!block) return nullptr;
            carrier = H(block) - 4;
            start = H(block);
            length = kCarrierSize;
            info |= kCarrierCounted;
        }
        carrierNext(carrier) = H(carriers);
        carriers = MH(carrier);
        carrierInfo(carrier) = info;
        // The first small header makes header + 4 a multiple of 16.
        Head* h = H((reinterpret_cast<std::uintptr_t>(start) + 19) & ~std::uintptr_t(15)) - 4;
        length -= static_cast<unsigned long>(h - start);
        while (length >= s) {
            word(h) = static_cast<unsigned int>(s);
            colorWord(h) = 0;
            smallNext(h) = H(smallLists[k]);
            smallLists[k] = MH(h);
            freeTotal += s;
            freeByColor[0] += s;
            h += s;
            length -= s;
        }
    }
    Head* h = H(smallLists[k]);
    smallLists[k] = MH(smallNext(h));
    freeTotal -= s;
    freeByColor[colorWord(h) & 63] -= s;
    word(h) |= kBusy;
    return MH(h);
}

void ReferenceArena::freeSmall(MemHead* m) {
    Head* h = H(m);
    unsigned long s = blockSize(h);
    unsigned int k = s == 32 ? 5 : 6;
    word(h) &= ~kBusy;
    smallNext(h) = H(smallLists[k]);
    smallLists[k] = m;
    freeTotal += s;
    freeByColor[colorWord(h) & 63] += s;
}

unsigned long ReferenceArena::_free(void* p) {
    Head* h = H(p) - 4;
    unsigned int c = word(h) >> kColorShift;
    word(h) &= ~kColorMask;
    colorWord(h) = c;
    unsigned long size = blockSize(h);
    allocatedByColor[c] -= size;
    if (size > 64) {
        // The merged space, neighbours included, is counted under this block's
        // colour from now on: kept, the colour of a release wins.
        Head* merged = H(coalesce(MH(h)));
        colorWord(merged) = c;
        freeLoser(MH(merged));
    } else {
        freeSmall(MH(h));
    }
    return size;
}

// ---------------------------------------------------------------------------
// The interface.
// ---------------------------------------------------------------------------
void* ReferenceArena::alloc(unsigned long size) {
    if (size > kMaxRequest) return nullptr;
    return _alloc(size, defaultColor());
}

void* ReferenceArena::alloc(unsigned long size, unsigned int color) {
    if (size > kMaxRequest) return nullptr;
    return _alloc(size, color);
}

void ReferenceArena::free(void* p) {
    if (!p) return;
    allocatedTotal -= _free(p);
}

ReferenceArena::MemHead* ReferenceArena::header(void* p) const {
    if (!p) return nullptr;
    Head* h = H(p) - 4;
    if (h < H(arenaStart) || h >= H(arenaEnd)) return nullptr;
    if (!(word(h) & kBusy)) return nullptr;
    return MH(h);
}

unsigned long ReferenceArena::size(void* p) const {
    MemHead* m = header(p);
    if (!m) return 0;
    return (m->word & ~kColorMask) - 9;
}

unsigned int ReferenceArena::color(void* p) const {
    MemHead* m = header(p);
    return m ? m->word >> kColorShift : 0;
}

unsigned int ReferenceArena::setColor(void* p, unsigned int c) {
    if (!p || (c & 63) == 0) return kResultBadArgument;
    MemHead* m = header(p);
    if (!m || (m->word >> kColorShift) != 0) return kResultBadArgument;
    unsigned long size = m->word & kSizeMask;
    allocatedByColor[0] += size;
    colorAdjustments[0] += size;
    return 0;
}

bool ReferenceArena::valid(void* p) const {
    MemHead* m = header(p);
    if (!m) return false;
    Head* h = H(m);
    unsigned int w = word(h) & ~kColorMask;
    if (w & kBridge) return false;
    unsigned long size = w & kSizeMask;
    if (size <= 64) return false;  // small blocks carry no trailer
    if (h + size > H(arenaEnd)) return false;
    return word(h + size - 4) == w;
}

unsigned int ReferenceArena::setDefaultColor(unsigned int c, unsigned int* previous) {
    if (previous) *previous = defaultColor();
    ZoIF_SetTLSCoop(colorSlot, c);
    return 0;
}

unsigned int ReferenceArena::defaultColor() const { return ZoIF_GetTLSCoop(colorSlot); }

unsigned long ReferenceArena::allocatedMemory() const { return allocatedTotal; }
unsigned long ReferenceArena::internalFree() const { return freeTotal; }
unsigned long ReferenceArena::allocatedColorMemory(unsigned int c) const { return allocatedByColor[c & 63]; }
unsigned long ReferenceArena::freeColorMemory(unsigned int c) const { return freeByColor[c & 63]; }

void ReferenceArena::adjustColorMemory(unsigned int c, int delta) {
    unsigned long d = static_cast<unsigned long>(static_cast<long>(delta));
    allocatedByColor[c & 63] += d;
    colorAdjustments[c & 63] += d;
}

// ---------------------------------------------------------------------------
// Walking.
// ---------------------------------------------------------------------------
void* ReferenceArena::firstBlock() const { return arenaStart ? H(arenaStart) + 4 : nullptr; }

void* ReferenceArena::nextBlock(void* p) const {
    if (!p) return nullptr;
    Head* h = H(p) - 4;
    if (h >= H(arenaEnd)) return nullptr;
    unsigned int w = word(h);
    unsigned long step = (w & kBridge) ? bridgeStep(MH(h)) : (w & kSizeMask);
    Head* next = h + step;
    if (next - 4 > H(arenaEnd)) return nullptr;
    return next + 4;
}

unsigned long ReferenceArena::bridgeStep(MemHead* m) const {
    unsigned int w = m->word;
    if (w != (kBusy | kBridge)) return w - 3ul;
    for (unsigned int i = 0; i < farBridgeCount; ++i)
        if (farBridges[i] == m) return farBridgeSteps[i];
    return 0;
}

unsigned int ReferenceArena::busy(void* p) { return p ? word(H(p) - 4) & kBusy : 0; }

unsigned int ReferenceArena::checkArena() const {
    for (void* p = firstBlock(); p; p = nextBlock(p)) {
    }
    return 0;
}

// ---------------------------------------------------------------------------
// The verifier.
// ---------------------------------------------------------------------------
char const* ReferenceArena::verify() const {
    unsigned long walkAllocated = 0, walkFree = 0;
    unsigned long walkAllocatedByColor[64] = {}, walkFreeByColor[64] = {};
    unsigned long freeOrdinary = 0, free80 = 0, freePending = 0, freeSmallCount[7] = {};

    if (!arenaStart) {
        if (arenaEnd) return "arenaEnd set on an empty arena";
        if (freeTree.root || addressTree80.root || addressTreeBig.root || addressPending)
            return "free trees of an empty arena";
    }
    if (char const* e = WTreeBase::verify(freeTree.root, compareFree, false)) return e;
    if (char const* e = WTreeBase::verify(addressTree80.root, compareAddress, false)) return e;
    if (char const* e = WTreeBase::verify(addressTreeBig.root, compareAddress, false)) return e;

    // Carriers, sorted by address, so that the walk meets them in order.
    unsigned long carrierCount = 0;
    unsigned long carrierBound = arenaStart ? static_cast<unsigned long>(H(arenaEnd) - H(arenaStart)) / 80 + 1 : 0;
    for (Head* c = H(carriers); c; c = carrierNext(c))
        if (++carrierCount > carrierBound) return "carrier chain does not end";
    Scratch scratch(carrierCount * sizeof(Head*));
    if (!scratch.p) return "verify could not map scratch memory";
    Head** sorted = static_cast<Head**>(scratch.p);
    {
        unsigned long i = 0;
        for (Head* c = H(carriers); c; c = carrierNext(c)) sorted[i++] = c;
        std::sort(sorted, sorted + carrierCount);
    }
    unsigned long nextCarrier = 0;

    bool previousFree = false;
    unsigned long previousSize = 0;
    Head* h = H(arenaStart);
    Head* end = H(arenaEnd);
    while (h && h < end) {
        unsigned int w = word(h);
        if (w & kBridge) {
            if (!(w & kBusy)) return "bridge without its busy bit";
            unsigned long step = bridgeStep(MH(h));
            if (step < 16 || (step & 15) || h + step > end) return "bridge size out of range";
            bool far = w == (kBusy | kBridge);
            if (word(h + step - 4) != (far ? kBusy : (step | kBusy))) return "bridge tail size does not match";
            previousFree = false;
            h += step;
            continue;
        }
        unsigned long size = w & kSizeMask;
        if (size < 80 || (size & 15)) return "ordinary block size out of range";
        if (h + size > end) return "block runs past arenaEnd";
        if (word(h + size - 4) != (size | kBusy)) return "tail size does not match";
        unsigned int c = w >> kColorShift;
        if (w & kBusy) {
            previousFree = false;
            bool isCarrier = nextCarrier < carrierCount && sorted[nextCarrier] == h;
            if (!isCarrier) {
                walkAllocated += size;
                walkAllocatedByColor[c] += size;
            } else {
                ++nextCarrier;
                if (c != 0) return "carrier with a colour";
                unsigned int info = carrierInfo(h);
                unsigned long s = info & ~kCarrierCounted;
                if (s != 32 && s != 64) return "carrier small size";
                bool counted = (info & kCarrierCounted) != 0;
                if (counted) {
                    walkAllocated += size;
                    walkAllocatedByColor[0] += size;
                }
                unsigned long length = (counted ? kCarrierSize : size - 8) - (kFirstSmall - 4);
                Head* sb = h + kFirstSmall;
                for (; length >= s; sb += s, length -= s) {
                    unsigned int sw = word(sb);
                    if ((sw & ~(kBusy | kColorMask)) != s) return "small block size word";
                    if (sw & kBusy) {
                        walkAllocated += s;
                        walkAllocatedByColor[sw >> kColorShift] += s;
                    } else {
                        if (sw & kColorMask) return "free small block with colour bits";
                        unsigned int cw = colorWord(sb);
                        if (cw > 63) return "free small block colour word";
                        walkFree += s;
                        walkFreeByColor[cw] += s;
                        ++freeSmallCount[s == 32 ? 5 : 6];
                    }
                }
            }
        } else {
            if (c != 0) return "free block with colour bits";
            if (previousFree && previousSize + size <= kMaxBlock) return "two free ordinary blocks touch";
            previousFree = true;
            previousSize = size;
            unsigned int cw = colorWord(h);
            if (cw > 63) return "free block colour word";
            walkFree += size;
            walkFreeByColor[cw] += size;
            ++freeOrdinary;
            WTreeNodeBase* root = freeTree.root;
            if (findExact(root, treeNode(h)->payload(), compareFree) != treeNode(h)) return "free block missing from the free tree";
            if (addressNode(h)->weight == 0) {
                ++freePending;
            } else {
                if (size == 80) ++free80;
                WTreeNodeBase* byAddress = size == 80 ? addressTree80.root : addressTreeBig.root;
                if (findExact(byAddress, addressNode(h)->payload(), compareAddress) != addressNode(h))
                    return "free block missing from its address tree";
            }
        }
        h += size;
    }
    if (h != end) return "blocks do not end at arenaEnd";
    if (end && word(end) != 0) return "the word at arenaEnd is not 0";
    if (nextCarrier != carrierCount) return "a carrier is not a block of the arena";
    if (WTreeBase::sizeAux(freeTree.root) != freeOrdinary) return "free tree holds blocks that are not free";
    if (WTreeBase::sizeAux(addressTree80.root) != free80) return "80-byte address tree size";
    if (WTreeBase::sizeAux(addressTreeBig.root) != freeOrdinary - free80 - freePending) return "address tree size";
    {
        unsigned long pending = 0;
        WTreeNodeBase* previous = nullptr;
        for (WTreeNodeBase* a = addressPending; a; previous = a, a = a->right) {
            if (++pending > freePending) return "pending address list longer than its free blocks";
            if (a->weight != 0 || a->left != previous) return "pending address list links";
            Head* ph = fromAddressNode(a);
            if (ph < H(arenaStart) || ph >= end || (word(ph) & (kBusy | kBridge)) || blockSize(ph) < 80)
                return "pending address list holds a block that is not free";
        }
        if (pending != freePending) return "pending address list misses free blocks";
    }

    for (unsigned int k = 0; k < 7; ++k) {
        unsigned long count = 0;
        for (Head* s = H(smallLists[k]); s; s = smallNext(s)) {
            if (k < 5) return "a small list other than 32 and 64 bytes is used";
            if (word(s) != (1u << k)) return "small list holds a block that is not free or of another size";
            if (++count > freeSmallCount[k]) return "small list longer than its free blocks";
        }
        if (count != freeSmallCount[k]) return "small list misses free small blocks";
    }

    unsigned long sumFree = 0;
    for (int c = 0; c < 64; ++c) {
        sumFree += freeByColor[c];
        if (freeByColor[c] != walkFreeByColor[c]) return "free count of a colour";
        if (allocatedByColor[c] != walkAllocatedByColor[c] + colorAdjustments[c]) return "allocated count of a colour";
    }
    if (sumFree != freeTotal) return "freeTotal is not the sum of the free colours";
    if (freeTotal != walkFree) return "freeTotal differs from the free blocks";
    if (allocatedTotal != walkAllocated) return "allocatedTotal differs from the busy blocks";
    return nullptr;
}

#undef H
#undef MH

}  // namespace zotest
