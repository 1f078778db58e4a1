// MemoryAllocator: the arena behind the process allocator.
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
//   free ordinary (size >= 80): in exactly one of four places.
//   - the spare slot: the remainder of the latest split, or a block that merged
//     with it on release. Consecutive requests carve it and releases next to it
//     grow it without any index work.
//   - the unfiled list: blocks released since the last search. A block that merges
//     again before the next search leaves the list in constant time; a search (best
//     fit, or a carrier) first files the whole list into the index.
//   - exact (size < kExactLimit, 16 KiB): bins[size / 16], a pairing heap ordered
//     by address, so the bin's root is its lowest block.
//   - large (size >= kExactLimit): freeTree, ordered by size then address, and the
//     address heap largeByAddress.
//   Layout while free:
//   H+4   FreeHeapNode (24 bytes): child (first child, at a higher address), next
//         (next sibling), prev (previous sibling, or the parent for a first child;
//         null at the root). For an unfiled block: child is kUnfiled (1), next and
//         prev link the list. For a large block in freeTree: its WTreeNodeBase
//         (weight, left, right) instead.
//   H+28  colour word: the colour the free bytes are counted under; for a large
//         block it is the free tree's payload, and the comparison reads the size
//         word 28 bytes before it
//   H+36  large blocks: the FreeHeapNode of largeByAddress; ends at H+60
//
//   binMap has bit i set exactly when bins[i] is not empty, and binSummary bit j
//   exactly when binMap[j] is not zero. Best fit for `need` (smallest size, then
//   lowest address) is the better, in that order, of the spare and the index's
//   candidate: the root of the first non-empty bin from need / 16 on, or, when
//   there is none, the least block of freeTree not below need. The first free
//   block in address order (the next carrier) is the lowest of the spare, the
//   bins' roots and largeByAddress's root. Where a free block waits never changes
//   which block a request gets.
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
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "containers/wtree_core.h"
#include "memory/census.h"
#include "memory/debug.h"
#include "memory/watch.h"
#include "platform/platform.h"
#include "utils/allocator.h"
#include "utils/result.h"
#include "zosys.h"
#include "zosys_faults.h"

namespace Utils {

struct MemoryAllocator::MemHead {
    unsigned int word;
};

// A free block's place in an address heap. Heap order: every node lies at a
// lower address than its children. The first child's prev is its parent, the
// root's prev and next are null.
struct detail::FreeHeapNode {
    FreeHeapNode* child;
    FreeHeapNode* next;
    FreeHeapNode* prev;
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

constexpr unsigned long kExactLimit = MemoryAllocator::kExactBins * 16;  // smallest large block

constexpr std::size_t kTreeNode = 4;      // H + 4
constexpr std::size_t kHeapNode = 4;      // H + 4, exact blocks
constexpr std::size_t kColorWord = 28;    // H + 28
constexpr std::size_t kLargeHeapNode = 36;  // H + 36, large blocks
constexpr std::size_t kCarrierLink = 4;   // H + 4
constexpr std::size_t kCarrierInfo = 12;  // H + 12
constexpr std::size_t kFirstSmall = 16;   // H + 16

static_assert(sizeof(WTreeNodeBase) == 24, "tree node layout");
static_assert(kTreeNode + sizeof(WTreeNodeBase) == kColorWord, "the colour word is the free tree's payload");

inline unsigned int& word(Head* h) { return *reinterpret_cast<unsigned int*>(h); }
inline unsigned int word(Head const* h) { return *reinterpret_cast<unsigned int const*>(h); }
inline unsigned int& colorWord(Head* h) { return word(h + kColorWord); }
inline unsigned long blockSize(Head const* h) { return word(h) & kSizeMask; }
inline void setTrailer(Head* h, unsigned long size) { word(h + size - 4) = static_cast<unsigned int>(size | kBusy); }
inline WTreeNodeBase* treeNode(Head* h) { return reinterpret_cast<WTreeNodeBase*>(h + kTreeNode); }
inline Head* fromTreeNode(WTreeNodeBase* n) { return reinterpret_cast<Head*>(n) - kTreeNode; }
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

// The free tree's order as a comparison object, so that the tree steps inline it.
struct FreeOrder {
    int operator()(void const* a, void const* b) const { return compareFree(a, b); }
};

// ---------------------------------------------------------------------------
// Address heaps: pairing heaps over the FreeHeapNodes inside free blocks. A node's
// address orders it, since every node lies at the same offset in its block.
// Insertion and melding are constant time; removing the root or any other node
// pairs up the removed node's children, amortised logarithmic. Nothing allocates.
// ---------------------------------------------------------------------------
using detail::FreeHeapNode;

// Two roots (prev and next null) into one; the lower becomes the root.
inline FreeHeapNode* meld(FreeHeapNode* a, FreeHeapNode* b) {
    if (b < a) std::swap(a, b);
    b->prev = a;
    b->next = a->child;
    if (a->child) a->child->prev = b;
    a->child = b;
    return a;
}

// The sibling list from `first` on into one heap (two-pass pairing: pairs left to
// right, then the pairs melded right to left). Null for an empty list.
FreeHeapNode* combine(FreeHeapNode* first) {
    if (!first) return nullptr;
    FreeHeapNode* pairs = nullptr;  // melded pairs, the last one first, linked by next
    while (first) {
        FreeHeapNode* a = first;
        FreeHeapNode* b = a->next;
        first = b ? b->next : nullptr;
        a->prev = a->next = nullptr;
        if (b) {
            b->prev = b->next = nullptr;
            a = meld(a, b);
        }
        a->next = pairs;
        pairs = a;
    }
    FreeHeapNode* root = pairs;
    pairs = pairs->next;
    root->next = nullptr;
    while (pairs) {
        FreeHeapNode* n = pairs;
        pairs = pairs->next;
        n->next = nullptr;
        root = meld(root, n);
    }
    root->prev = nullptr;
    return root;
}

inline void heapInsert(FreeHeapNode*& root, FreeHeapNode* x) {
    x->child = x->next = x->prev = nullptr;
    root = root ? meld(root, x) : x;
}

inline void heapRemove(FreeHeapNode*& root, FreeHeapNode* x) {
    if (x == root) {
        root = combine(x->child);
        return;
    }
    // A first child's prev is its parent; anyone else's is its left sibling.
    if (x->prev->child == x)
        x->prev->child = x->next;
    else
        x->prev->next = x->next;
    if (x->next) x->next->prev = x->prev;
    if (FreeHeapNode* rest = combine(x->child)) root = meld(root, rest);
}

inline FreeHeapNode* heapNode(Head* h) { return reinterpret_cast<FreeHeapNode*>(h + kHeapNode); }
inline FreeHeapNode* largeHeapNode(Head* h) { return reinterpret_cast<FreeHeapNode*>(h + kLargeHeapNode); }
inline Head* fromHeapNode(FreeHeapNode const* n) { return reinterpret_cast<Head*>(const_cast<FreeHeapNode*>(n)) - kHeapNode; }
inline Head* fromLargeHeapNode(FreeHeapNode const* n) {
    return reinterpret_cast<Head*>(const_cast<FreeHeapNode*>(n)) - kLargeHeapNode;
}

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
    explicit Scratch(std::size_t n) : p(platform::mapScratch(n)), bytes(n) {}
    ~Scratch() { platform::unmapScratch(p, bytes); }
    Scratch(Scratch const&) = delete;
    Scratch& operator=(Scratch const&) = delete;
};

}  // namespace

// The steps of one allocation or release, inlined into their callers: each is
// small, and the calls cost as much as the work. A coverage build keeps them as
// ordinary functions, so that each decision is counted once and not once per
// inlined copy.
#if defined(ZOUTILS_COVERAGE)
#define ZO_STEP inline
#else
#define ZO_STEP inline __attribute__((always_inline))
#endif

#define H(x) reinterpret_cast<Head*>(x)
#define MH(x) reinterpret_cast<MemHead*>(x)

MemoryAllocator::MemoryAllocator(Allocator* parentAllocator)
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
      bins(),
      binMap(),
      binSummary(0),
      largeByAddress(nullptr),
      spare(nullptr),
      unfiled(nullptr),
      carriers(nullptr),
      colorAdjustments(),
      farBridges(),
      farBridgeSteps(),
      farBridgeCount(0) {}

MemoryAllocator::~MemoryAllocator() {
    // A parent may reuse the regions once this arena is gone: take the poisoning
    // off them (bridged gaps included, unless the span is unreasonably wide).
    if (watch::kPoison && arenaStart) {
        char* from = H(arenaStart) - 12;
        char* to = H(arenaEnd) + 4;
        if (static_cast<unsigned long>(to - from) <= (256ul << 20)) watch::release(from, static_cast<unsigned long>(to - from));
    }
}

void MemoryAllocator::init() {
    arenaStart = nullptr;
    arenaEnd = nullptr;
    initialised = 1;
    freeTotal = 0;
    allocatedTotal = 0;
    colorSlot = ZoIF_AllocateTLSCoop();
    watch::start();
    for (int c = 0; c < 64; ++c) {
        allocatedByColor[c] = 0;
        freeByColor[c] = 0;
        colorAdjustments[c] = 0;
    }
    for (int k = 0; k <= 5; ++k) smallLists[k] = nullptr;
    // smallLists[6] and the trees are left as constructed (empty).
}

// ---------------------------------------------------------------------------
// The index of free ordinary blocks.
// ---------------------------------------------------------------------------
// Every free ordinary block is in exactly one place: the spare slot, the unfiled
// list, the heap of its exact bin, or (large) both freeTree and largeByAddress.
// fileBlock and unlinkFree keep binMap and binSummary in step with the bins.
//
// An unfiled block uses its exact-bin node: child holds kUnfiled, next and prev
// link the list (prev null at its head). No filed node has that child value (a
// heap node's child is a block address or null, a large block's first word is a
// tree weight of at least 2 in its low half).
namespace {
FreeHeapNode* const kUnfiled = reinterpret_cast<FreeHeapNode*>(1);
}

// Takes an unfiled block's node out of the list.
ZO_STEP void MemoryAllocator::unlist(FreeHeapNode* n) {
    if (n->prev)
        n->prev->next = n->next;
    else
        unfiled = n->next;
    if (n->next) n->next->prev = n->prev;
    n->child = nullptr;  // no longer listed
}

ZO_STEP void MemoryAllocator::linkFree(MemHead* m) {
    FreeHeapNode* n = heapNode(H(m));
    n->child = kUnfiled;
    n->prev = nullptr;
    n->next = unfiled;
    if (unfiled) unfiled->prev = n;
    unfiled = n;
}

void MemoryAllocator::fileBlock(MemHead* m) {
    Head* h = H(m);
    unsigned long size = blockSize(h);
    if (size < kExactLimit) {
        unsigned long i = size >> 4;
        heapInsert(bins[i], heapNode(h));
        binMap[i >> 6] |= 1ul << (i & 63);
        binSummary |= 1ul << (i >> 6);
    } else {
        wtcore::insert(treeNode(h), &freeTree.root, FreeOrder{});
        heapInsert(largeByAddress, largeHeapNode(h));
    }
}

void MemoryAllocator::fileUnfiled() {
    while (FreeHeapNode* n = unfiled) {
        unfiled = n->next;
        fileBlock(MH(fromHeapNode(n)));
    }
}

void MemoryAllocator::unlinkFree(MemHead* m) {
    if (m == spare) {
        spare = nullptr;
        return;
    }
    Head* h = H(m);
    FreeHeapNode* n = heapNode(h);
    if (n->child == kUnfiled) {
        unlist(n);
        return;
    }
    unsigned long size = blockSize(h);
    if (size < kExactLimit) {
        unsigned long i = size >> 4;
        heapRemove(bins[i], n);
        if (!bins[i]) {
            binMap[i >> 6] &= ~(1ul << (i & 63));
            if (!binMap[i >> 6]) binSummary &= ~(1ul << (i >> 6));
        }
    } else {
        wtcore::removeAt<false>(treeNode(h)->payload(), &freeTree.root, FreeOrder{});
        heapRemove(largeByAddress, largeHeapNode(h));
    }
}

// Best fit: the smallest free block of at least `need` bytes, the lowest-addressed
// among equal sizes, taken out of the index or the spare slot (counters untouched).
// The index's best block is found first without removing it, then compared with
// the spare in the same order, so the spare never changes which block is chosen.
MemoryAllocator::MemHead* MemoryAllocator::takeBestFit(unsigned long need) {
    if (unfiled) fileUnfiled();
    // Nothing indexed: the spare is the only candidate.
    if (!binSummary && !freeTree.root) {
        if (!spare || blockSize(H(spare)) < need) return nullptr;
        MemHead* m = spare;
        spare = nullptr;
        return m;
    }
    Head* s = H(spare);
    unsigned long spareSize = s ? blockSize(s) : 0;
    bool spareFits = spareSize >= need;
    if (need < kExactLimit) {
        unsigned long i = need >> 4;
        unsigned long w = i >> 6;
        unsigned long bits = binMap[w] & (~0ul << (i & 63));
        if (!bits) {
            unsigned long later = w + 1 < kExactBins / 64 ? binSummary & (~0ul << (w + 1)) : 0;
            if (later) {
                w = static_cast<unsigned long>(__builtin_ctzl(later));
                bits = binMap[w];
            }
        }
        if (bits) {
            unsigned long b = (w << 6) + static_cast<unsigned long>(__builtin_ctzl(bits));
            FreeHeapNode* root = bins[b];
            Head* h = fromHeapNode(root);
            unsigned long size = b << 4;
            if (spareFits && (spareSize < size || (spareSize == size && s < h))) {
                spare = nullptr;
                return MH(s);
            }
            bins[b] = combine(root->child);
            if (!bins[b]) {
                binMap[w] &= ~(1ul << (b & 63));
                if (!binMap[w]) binSummary &= ~(1ul << w);
            }
            return MH(h);
        }
        // No exact block fits; every large block is larger than a spare below
        // kExactLimit.
        if (spareFits && spareSize < kExactLimit) {
            spare = nullptr;
            return MH(s);
        }
    }
    // The least large block not below need (the search key ranks before every
    // block of its size).
    SearchKey key;
    key.sizeWord = static_cast<unsigned int>(need < kExactLimit ? kExactLimit : need);
    key.mark = kSearchKeyMark;
    WTreeNodeBase* best = nullptr;
    for (WTreeNodeBase* n = freeTree.root; n;) {
        if (compareFree(n->payload(), &key.mark) < 0) {
            best = n;
            n = n->left;
        } else {
            n = n->right;
        }
    }
    if (spareFits) {
        Head* h = best ? fromTreeNode(best) : nullptr;
        if (!h || spareSize < blockSize(h) || (spareSize == blockSize(h) && s < h)) {
            spare = nullptr;
            return MH(s);
        }
    }
    if (!best) return nullptr;
    wtcore::removeAt<false>(best->payload(), &freeTree.root, FreeOrder{});
    Head* h = fromTreeNode(best);
    heapRemove(largeByAddress, largeHeapNode(h));
    return MH(h);
}

// Makes a busy block the free spare; the spare it replaces goes to the index.
ZO_STEP void MemoryAllocator::keepAsSpare(MemHead* m) {
    Head* h = H(m);
    word(h) &= ~kBusy;
    unsigned long size = blockSize(h);
    freeTotal += size;
    freeByColor[colorWord(h) & 63] += size;
    if (spare) linkFree(spare);
    heapNode(h)->child = nullptr;  // the spare is never taken for an unfiled block
    spare = m;
}

ZO_STEP void MemoryAllocator::freeLoser(MemHead* m) {
    Head* h = H(m);
    word(h) &= ~kBusy;
    linkFree(m);
    unsigned long size = blockSize(h);
    freeTotal += size;
    freeByColor[colorWord(h) & 63] += size;
}

ZO_STEP void MemoryAllocator::removeMe(MemHead* m) {
    Head* h = H(m);
    FreeHeapNode* n = heapNode(h);
    if (m != spare && n->child == kUnfiled) {
        unlist(n);  // leaving the unfiled list is the common case: inline
    } else {
        unlinkFree(m);
    }
    unsigned long size = blockSize(h);
    freeTotal -= size;
    freeByColor[colorWord(h) & 63] -= size;
}

ZO_STEP MemoryAllocator::MemHead* MemoryAllocator::allocCandidate(unsigned long need) {
    MemHead* m = takeBestFit(need);
    if (!m) return nullptr;
    Head* h = H(m);
    unsigned long size = blockSize(h);
    freeTotal -= size;
    freeByColor[colorWord(h) & 63] -= size;
    word(h) |= kBusy;
    return m;
}

// Head and trailer of an ordinary busy block agree (its trailer holds size | busy).
inline bool taggedBusy(Head const* h) {
    unsigned long size = blockSize(h);
    return (word(h) & kBusy) && size > 64 && word(h + size - 4) == (size | kBusy);
}

ZO_STEP void MemoryAllocator::splitBlock(MemHead* m, unsigned long n) {
    Head* h = H(m);
    ZO_CHECK(taggedBusy(h), "splitBlock: the block's head and trailer disagree, or it is not busy");
    ZO_CHECK(n % 16 == 0 && n >= 32 && n <= blockSize(h), "splitBlock: a cut that is not inside the block");
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
    // Only the block after the tail can be free (the kept part before it is busy).
    // Rare, so out of line: the common path keeps a small frame.
    if (__builtin_expect(!(word(t + remainder) & kBusy), 0)) absorbNext(MH(t));
    keepAsSpare(MH(t));  // freeLoser, with the tail kept out of the index
    ZO_CHECK(taggedBusy(h), "splitBlock: the kept part's tags");
    ZO_CHECK(!(word(t) & kBusy) && word(t + blockSize(t) - 4) == (blockSize(t) | kBusy), "splitBlock: the rest's tags");
}

// The free block after the tail t of a split joins it when their sizes fit one
// block. The word at arenaEnd is 0: not busy, and no block.
__attribute__((noinline, cold)) void MemoryAllocator::absorbNext(MemHead* m) {
    Head* t = H(m);
    Head* next = t + blockSize(t);
    if (word(next) == 0 || blockSize(t) + blockSize(next) > kMaxBlock) return;
    removeMe(MH(next));
    unsigned long size = blockSize(t) + blockSize(next);
    word(t) = static_cast<unsigned int>(size | kBusy);
    setTrailer(t, size);
}

ZO_STEP MemoryAllocator::MemHead* MemoryAllocator::coalesce(MemHead* m) {
    Head* h = H(m);
    ZO_CHECK(taggedBusy(h), "coalesce: the released block's head and trailer disagree");
    ZO_CHECK(h + blockSize(h) <= H(arenaEnd), "coalesce: the block runs past the arena");
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
    if (MH(previous) != spare && heapNode(previous)->child == kUnfiled) {
        // An unfiled block keeps its place in the list as it grows: its node is at
        // its start, which does not move (removeMe's counting, without unlinking).
        unsigned long was = blockSize(previous);
        freeTotal -= was;
        freeByColor[colorWord(previous) & 63] -= was;
    } else {
        removeMe(MH(previous));
    }
    unsigned long size = blockSize(previous) + blockSize(h);
    word(previous) = static_cast<unsigned int>(size | kBusy);
    setTrailer(previous, size);
    ZO_CHECK(taggedBusy(previous), "coalesce: the merged block's tags");
    return MH(previous);
}

// ---------------------------------------------------------------------------
// Growing the arena.
// ---------------------------------------------------------------------------
MemoryAllocator::MemHead* MemoryAllocator::growArena(unsigned long need) {
    if (!parent) return nullptr;
    void* region = parent->alloc(need + 16);
    if (!region) return nullptr;
    unsigned long regionSize = parent->size(region);
    // The region is bookkeeping and free space until blocks are handed out (of a
    // vast region, only the part one block can use).
    if (watch::on()) watch::adoptRegion(parent, region, regionSize < kMaxBlock + 32 ? regionSize : kMaxBlock + 32);
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
ZO_STEP void* MemoryAllocator::_alloc(unsigned long request, unsigned int color) {
    unsigned long need = (request + 23) & ~15ul;
    if (need < 32) need = 32;
    MemHead* m;
    if (need <= 64) {
        unsigned int k = highestBit(static_cast<unsigned int>(need));
        if (need != (1ul << k)) ++k;  // 48 becomes 64
        if (Head* head = H(smallLists[k])) {
            // allocSmall's first step, inline; allocSmall refills an empty list.
            unsigned long s = 1ul << k;
            smallLists[k] = MH(smallNext(head));
            freeTotal -= s;
            freeByColor[colorWord(head) & 63] -= s;
            word(head) |= kBusy;
            m = MH(head);
        } else {
            m = allocSmall(k);
            if (!m) return nullptr;
        }
    } else if (spare && !unfiled && !binSummary && !freeTree.root && blockSize(H(spare)) >= need) {
        // The spare is the only free ordinary block: best fit takes it, and a
        // remainder of 80 bytes or more becomes the spare again, in its colour
        // (allocCandidate, splitBlock and keepAsSpare, without the detours).
        Head* h = H(spare);
        unsigned long size = blockSize(h);
        unsigned long remainder = size - need;
        unsigned int c = colorWord(h) & 63;
        if (remainder < 80) {
            spare = nullptr;
            word(h) |= kBusy;
            freeTotal -= size;
            freeByColor[c] -= size;
        } else {
            Head* t = h + need;
            word(t) = static_cast<unsigned int>(remainder);
            heapNode(t)->child = nullptr;  // as keepAsSpare
            colorWord(t) = c;
            setTrailer(t, remainder);
            word(h) = static_cast<unsigned int>(need | kBusy);
            setTrailer(h, need);
            spare = MH(t);
            freeTotal -= need;
            freeByColor[c] -= need;
        }
        m = MH(h);
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

void* MemoryAllocator::carrierCandidate(unsigned int smallBlockSize) const {
    watch::Quiet quiet;
    // The first free block in address order of at least s + 20 bytes: the lowest
    // root among the bins from that size on and the large blocks. 80-byte blocks
    // qualify for 32-byte small blocks only (84 bytes are needed for one 64-byte
    // block after the 12 bytes skipped for alignment).
    unsigned long first = (smallBlockSize + 20 + 15) >> 4;
    if (first < 5) first = 5;
    FreeHeapNode const* best = nullptr;
    for (unsigned long summary = binSummary & (~0ul << (first >> 6)); summary; summary &= summary - 1) {
        unsigned long w = static_cast<unsigned long>(__builtin_ctzl(summary));
        unsigned long bits = binMap[w];
        if (w == first >> 6) bits &= ~0ul << (first & 63);
        for (; bits; bits &= bits - 1) {
            FreeHeapNode const* root = bins[(w << 6) + static_cast<unsigned long>(__builtin_ctzl(bits))];
            if (!best || root < best) best = root;
        }
    }
    Head* h = best ? fromHeapNode(best) : nullptr;
    if (largeByAddress && (!h || fromLargeHeapNode(largeByAddress) < h)) h = fromLargeHeapNode(largeByAddress);
    if (spare && blockSize(H(spare)) >= smallBlockSize + 20 && (!h || H(spare) < h)) h = H(spare);
    for (FreeHeapNode* n = unfiled; n; n = n->next) {
        Head* u = fromHeapNode(n);
        if (blockSize(u) >= smallBlockSize + 20 && (!h || u < h)) h = u;
    }
    return h ? h + 4 : nullptr;
}

MemoryAllocator::MemHead* MemoryAllocator::allocSmall(unsigned int k) {
    unsigned long s = 1ul << k;
    if (!smallLists[k]) {
        Head* carrier;
        Head* start;
        unsigned long length;
        unsigned int info = static_cast<unsigned int>(s);
        fileUnfiled();  // so that the search below reads heap roots only
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

ZO_STEP void MemoryAllocator::freeSmall(MemHead* m) {
    Head* h = H(m);
    unsigned long s = blockSize(h);
    unsigned int k = s == 32 ? 5 : 6;
    word(h) &= ~kBusy;
    smallNext(h) = H(smallLists[k]);
    smallLists[k] = m;
    freeTotal += s;
    freeByColor[colorWord(h) & 63] += s;
}

// Releases a small block (its size word read as at most 64): _free's first and
// last steps.
ZO_STEP unsigned long MemoryAllocator::freeSmallBlock(MemHead* m) {
    Head* h = H(m);
    ZO_CHECK((word(h) & kBusy) && (blockSize(h) == 32 || blockSize(h) == 64),
             "free: a small block that is not busy (released twice?) or of a wrong size");
    unsigned int c = word(h) >> kColorShift;
    word(h) &= ~kColorMask;
    colorWord(h) = c;
    unsigned long size = blockSize(h);
    allocatedByColor[c] -= size;
    freeSmall(m);
    return size;
}

unsigned long MemoryAllocator::_free(void* p) {
    MemHead* m = MH(H(p) - 4);
    ZO_CHECK(word(H(m)) & kBusy, "_free: the block is not busy (released twice?)");
    return blockSize(H(m)) <= 64 ? freeSmallBlock(m) : freeOrdinaryBlock(m);
}

// Releases an ordinary block: _free's steps for a block larger than 64 bytes.
ZO_STEP unsigned long MemoryAllocator::freeOrdinaryBlock(MemHead* m) {
    Head* h = H(m);
    ZO_CHECK(taggedBusy(h) && !(word(h) & kBridge), "free: the block's head and trailer disagree (released twice?)");
    unsigned int c = word(h) >> kColorShift;
    word(h) &= ~kColorMask;  // the colour word is written once merging is done
    unsigned long size = blockSize(h);
    allocatedByColor[c] -= size;
    // An ordinary block. The merged space, neighbours included, is counted under
    // this block's colour from now on: kept, the colour of a release wins.
    MemHead* spareBefore = spare;
    Head* merged = H(coalesce(MH(h)));
    colorWord(merged) = c;
    if (merged != h && heapNode(merged)->child == kUnfiled) {
        // It grew an unfiled block, which stays listed (freeLoser's counting,
        // without the insertion).
        word(merged) &= ~kBusy;
        unsigned long mergedSize = blockSize(merged);
        freeTotal += mergedSize;
        freeByColor[c] += mergedSize;
    } else if (spareBefore && !spare) {
        // A block that absorbed the spare becomes the spare: the index is not
        // touched.
        keepAsSpare(MH(merged));
    } else {
        freeLoser(MH(merged));
    }
    return size;
}

// ---------------------------------------------------------------------------
// The interface.
// ---------------------------------------------------------------------------
// Debug level 2: this arena's verifier after mutations, on the schedule of
// memory/debug.h; the process allocator's arenas (over a host) after every 256th.
#if ZO_DEBUG_LEVEL >= 2
namespace {
void verifyAfterMutation(MemoryAllocator const* a, Allocator* parent) {
    if (dynamic_cast<HostAllocator*>(parent)) {
        static thread_local unsigned int mutations;
        if (++mutations % 256) return;
    } else if (!detail::verifyNow(64)) {
        return;
    }
    char const* fault = a->MemoryAllocator::verify();
    // The one state verify() reports that the arena reaches by design: a block that
    // touched a free neighbour too large to merge with was split, and its free rest
    // stays beside that neighbour although the two would now fit one block (where
    // blocks go is fixed behaviour, so the pair is kept).
    if (fault && std::strcmp(fault, "two free ordinary blocks touch") != 0)
        detail::allocatorCheckFailed(fault, __FILE__, __LINE__);
}
}  // namespace
#define ZO_ARENA_MUTATED() verifyAfterMutation(this, parent)
#else
#define ZO_ARENA_MUTATED() ((void)0)
#endif

// The virtual entry points describe their blocks to a memory checker when one
// watches; allocBlock and releaseBlock, the process allocator's lone-thread path,
// never do (the process allocator leaves that path while watched). An injected
// arena failure is asked for here too, and not in allocBlock: the process
// allocator asks for it on its own path only while a test arms the table, so the
// lone thread's allocation pays for one look at the table, not two.
void* MemoryAllocator::alloc(unsigned long size) {
    if (size > kMaxRequest || ZoIF_Faulty(ZOIF_FAULT_ARENA)) return nullptr;
    if (watch::on()) return watchedAlloc(size, defaultColor());
    void* p = _alloc(size, defaultColor());
    ZO_ARENA_MUTATED();
    return p;
}

void* MemoryAllocator::alloc(unsigned long size, unsigned int color) {
    if (ZoIF_Faulty(ZOIF_FAULT_ARENA)) return nullptr;
    if (watch::on()) return size > kMaxRequest ? nullptr : watchedAlloc(size, color);
    return allocBlock(size, color);
}

__attribute__((noinline)) void* MemoryAllocator::watchedAlloc(unsigned long size, unsigned int color) {
    void* p;
    unsigned long usable;
    {
        watch::Quiet quiet;
        p = _alloc(size, color);
        ZO_ARENA_MUTATED();
        if (!p) return nullptr;
        usable = blockSize(H(p) - 4) - 8;
    }
    watch::handOut(p, size, usable);
    return p;
}

__attribute__((noinline)) void MemoryAllocator::watchedRelease(void* p) {
    if (!p) return;
    bool busyBlock;
    unsigned long usable;
    {
        watch::Quiet quiet;
        busyBlock = (word(H(p) - 4) & kBusy) != 0;
        usable = blockSize(H(p) - 4) - 8;
    }
    // Reported here when p is not a live block; a block already free is then
    // left alone rather than released twice.
    watch::takeBack(p, usable);
    if (!busyBlock) return;
    watch::Quiet quiet;
    releaseBlock(p);
}

void* MemoryAllocator::allocBlock(unsigned long size, unsigned int color) {
    if (size > kMaxRequest) return nullptr;
    void* p = _alloc(size, color);
    ZO_ARENA_MUTATED();
    return p;
}

void MemoryAllocator::free(void* p) {
    if (watch::on()) return watchedRelease(p);
    releaseBlock(p);
}

void MemoryAllocator::releaseBlock(void* p) {
    if (!p) return;
    // Small blocks inline; ordinary ones in a function of their own (a tail call),
    // so that the small path keeps a small frame.
    MemHead* m = MH(H(p) - 4);
    if (blockSize(H(m)) > 64) return releaseOrdinary(p);
    allocatedTotal -= freeSmallBlock(m);
    ZO_ARENA_MUTATED();
}

__attribute__((noinline)) void MemoryAllocator::releaseOrdinary(void* p) {
    allocatedTotal -= freeOrdinaryBlock(MH(H(p) - 4));
    ZO_ARENA_MUTATED();
}

MemoryAllocator::MemHead* MemoryAllocator::header(void* p) const {
    if (!p) return nullptr;
    Head* h = H(p) - 4;
    if (h < H(arenaStart) || h >= H(arenaEnd)) return nullptr;
    if (!(word(h) & kBusy)) return nullptr;
    return MH(h);
}

unsigned long MemoryAllocator::plainSize(void* p) const {
    MemHead* m = header(p);
    if (!m) return 0;
    return (m->word & ~kColorMask) - 9;
}

// A caller told the usable size may use all of it.
unsigned long MemoryAllocator::size(void* p) const {
    if (!watch::on()) return plainSize(p);
    unsigned long n;
    {
        watch::Quiet quiet;
        n = plainSize(p);
    }
    if (n) watch::widen(p, n);
    return n;
}

unsigned int MemoryAllocator::color(void* p) const {
    watch::Quiet quiet;
    MemHead* m = header(p);
    return m ? m->word >> kColorShift : 0;
}

unsigned int MemoryAllocator::setColor(void* p, unsigned int c) {
    if (!p || (c & 63) == 0) return kResultBadArgument;
    watch::Quiet quiet;
    MemHead* m = header(p);
    if (!m || (m->word >> kColorShift) != 0) return kResultBadArgument;
    unsigned long size = m->word & kSizeMask;
    allocatedByColor[0] += size;
    colorAdjustments[0] += size;
    return 0;
}

bool MemoryAllocator::valid(void* p) const {
    watch::Quiet quiet;
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

unsigned int MemoryAllocator::setDefaultColor(unsigned int c, unsigned int* previous) {
    if (previous) *previous = defaultColor();
    ZoIF_SetTLSCoop(colorSlot, c);
    return 0;
}

unsigned int MemoryAllocator::defaultColor() const { return ZoIF_GetTLSCoop(colorSlot); }

unsigned long MemoryAllocator::allocatedMemory() const { return allocatedTotal; }
unsigned long MemoryAllocator::internalFree() const { return freeTotal; }
unsigned long MemoryAllocator::allocatedColorMemory(unsigned int c) const { return allocatedByColor[c & 63]; }
unsigned long MemoryAllocator::freeColorMemory(unsigned int c) const { return freeByColor[c & 63]; }

void MemoryAllocator::adjustColorMemory(unsigned int c, int delta) {
    unsigned long d = static_cast<unsigned long>(static_cast<long>(delta));
    allocatedByColor[c & 63] += d;
    colorAdjustments[c & 63] += d;
}

// ---------------------------------------------------------------------------
// Walking.
// ---------------------------------------------------------------------------
void* MemoryAllocator::firstBlock() const { return arenaStart ? H(arenaStart) + 4 : nullptr; }

void* MemoryAllocator::nextBlock(void* p) const {
    if (!p) return nullptr;
    Head* h = H(p) - 4;
    if (h >= H(arenaEnd)) return nullptr;
    watch::Quiet quiet;
    unsigned int w = word(h);
    unsigned long step = (w & kBridge) ? bridgeStep(MH(h)) : (w & kSizeMask);
    Head* next = h + step;
    if (next - 4 > H(arenaEnd)) return nullptr;
    return next + 4;
}

unsigned long MemoryAllocator::bridgeStep(MemHead* m) const {
    unsigned int w = m->word;
    if (w != (kBusy | kBridge)) return w - 3ul;
    for (unsigned int i = 0; i < farBridgeCount; ++i)
        if (farBridges[i] == m) return farBridgeSteps[i];
    return 0;
}

unsigned int MemoryAllocator::busy(void* p) {
    watch::Quiet quiet;
    return p ? word(H(p) - 4) & kBusy : 0;
}

unsigned int MemoryAllocator::checkArena() const {
    for (void* p = firstBlock(); p; p = nextBlock(p)) {
    }
    return 0;
}

// ---------------------------------------------------------------------------
// The census for the memory report: one walk over the blocks (bridges separate
// regions, so a region that continues the previous one counts with it), then the
// carriers' small blocks in place of the carriers.
// ---------------------------------------------------------------------------
void MemoryAllocator::census(detail::MemoryCensus& c) const {
    watch::Quiet quiet;
    c.walked = true;
    if (!arenaStart) return;
    c.regions += 1;
    c.obtained += 16;
    for (Head* h = H(arenaStart); h < H(arenaEnd);) {
        unsigned int w = word(h);
        if (w & kBridge) {
            h += bridgeStep(MH(h));
            c.regions += 1;
            c.obtained += 16;
            continue;
        }
        unsigned long size = w & kSizeMask;
        if (!size) break;  // a damaged arena: verify() says where
        c.obtained += size;
        c.count(size, (w & kBusy) != 0);
        h += size;
    }
    for (Head* carrier = H(carriers); carrier; carrier = carrierNext(carrier)) {
        unsigned long size = blockSize(carrier);
        --c.busyBlocks;
        --c.busyByClass[detail::MemoryCensus::sizeClass(size)];
        unsigned int info = carrierInfo(carrier);
        unsigned long s = info & ~kCarrierCounted;
        Head* start = carrier + 4;
        Head* end = (info & kCarrierCounted) ? start + kCarrierSize : carrier + size - 4;
        Head* h = H((reinterpret_cast<std::uintptr_t>(start) + 19) & ~std::uintptr_t(15)) - 4;
        for (; s && h + s <= end; h += s) c.count(s, (word(h) & kBusy) != 0);
    }
}

// ---------------------------------------------------------------------------
// The verifier.
// ---------------------------------------------------------------------------
// The address heaps against the blocks. Every node visited must be a free
// ordinary block of its heap's size (an exact bin's size, or large), lie above its
// parent, and be linked back; the nodes must be distinct and as many as the walk
// found free blocks of those sizes. Together: each such block is in its heap once.
char const* MemoryAllocator::verifyIndex(unsigned long freeExact, unsigned long freeLarge) const {
    for (unsigned long i = 0; i < kExactBins; ++i) {
        bool marked = (binMap[i >> 6] >> (i & 63)) & 1;
        if (marked != (bins[i] != nullptr)) return "bin map disagrees with its bins";
        if (i < 5 && bins[i]) return "a bin below 80 bytes is used";
    }
    for (unsigned long w = 0; w < 64; ++w) {
        bool summary = (binSummary >> w) & 1;
        if (summary != (w < kExactBins / 64 && binMap[w] != 0)) return "bin summary disagrees with the bin map";
    }
    unsigned long total = freeExact + freeLarge;
    Scratch seen(total * sizeof(void*));
    Scratch stack((total + 1) * sizeof(void*));
    if (!seen.p || !stack.p) return "verify could not map scratch memory";
    FreeHeapNode const** seenAt = static_cast<FreeHeapNode const**>(seen.p);
    FreeHeapNode const** pending = static_cast<FreeHeapNode const**>(stack.p);
    unsigned long visited = 0;
    for (unsigned long i = 0; i <= kExactBins; ++i) {
        bool large = i == kExactBins;
        FreeHeapNode const* root = large ? largeByAddress : bins[i];
        if (!root) continue;
        if (root->prev || root->next) return "heap root with a parent or a sibling";
        unsigned long depth = 0;
        pending[depth++] = root;
        while (depth) {
            FreeHeapNode const* n = pending[--depth];
            if (visited == total) return "address heaps hold more nodes than there are free blocks";
            seenAt[visited++] = n;
            Head const* h = large ? fromLargeHeapNode(n) : fromHeapNode(n);
            if (h < H(arenaStart) || h >= H(arenaEnd) || (reinterpret_cast<std::uintptr_t>(h) & 15) != 12)
                return "heap node outside the arena";
            unsigned int w = word(h);
            if (w & (kBusy | kBridge)) return "heap node of a block that is not free";
            if (MH(const_cast<Head*>(h)) == spare) return "the spare is in an address heap";
            unsigned long size = w & kSizeMask;
            if (large ? size < kExactLimit : size != i << 4) return "free block in the heap of another size";
            if (n->child == kUnfiled) return "an unfiled block in an address heap";
            FreeHeapNode const* left = nullptr;
            for (FreeHeapNode const* c = n->child; c; left = c, c = c->next) {
                if (c->prev != (left ? left : n)) return "heap node not linked back";
                if (c < n) return "heap child below its parent";
                if (depth > total) return "address heaps hold more nodes than there are free blocks";
                pending[depth++] = c;
            }
        }
    }
    if (visited != total) return "address heaps miss free blocks";
    std::sort(seenAt, seenAt + visited);
    for (unsigned long k = 1; k < visited; ++k)
        if (seenAt[k] == seenAt[k - 1]) return "a free block is in an address heap twice";
    return nullptr;
}

char const* MemoryAllocator::verify() const {
    watch::Quiet quiet;
    unsigned long walkAllocated = 0, walkFree = 0;
    unsigned long walkAllocatedByColor[64] = {}, walkFreeByColor[64] = {};
    unsigned long freeExact = 0, freeLarge = 0, freeSmallCount[7] = {};
    unsigned long freeUnfiled = 0;
    bool sawSpare = false;

    if (!arenaStart) {
        if (arenaEnd) return "arenaEnd set on an empty arena";
        if (freeTree.root || largeByAddress || binSummary || spare || unfiled) return "free index of an empty arena";
    }
    if (char const* e = WTreeBase::verify(freeTree.root, compareFree, false)) return e;

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
            if (MH(h) == spare) {
                sawSpare = true;
            } else if (heapNode(h)->child == kUnfiled) {
                ++freeUnfiled;
            } else if (size < kExactLimit) {
                ++freeExact;
            } else {
                ++freeLarge;
                if (findExact(freeTree.root, treeNode(h)->payload(), compareFree) != treeNode(h))
                    return "large free block missing from the free tree";
            }
        }
        h += size;
    }
    if (h != end) return "blocks do not end at arenaEnd";
    if (spare && !sawSpare) return "the spare is not a free ordinary block of the arena";
    {
        unsigned long listed = 0;
        FreeHeapNode const* previous = nullptr;
        for (FreeHeapNode const* n = unfiled; n; previous = n, n = n->next) {
            if (++listed > freeUnfiled) return "unfiled list longer than its free blocks";
            if (n->child != kUnfiled || n->prev != previous) return "unfiled list links";
            Head const* u = fromHeapNode(n);
            if (u < H(arenaStart) || u >= end || (word(u) & (kBusy | kBridge))) return "unfiled list holds a block that is not free";
        }
        if (listed != freeUnfiled) return "unfiled list misses free blocks";
    }
    if (end && word(end) != 0) return "the word at arenaEnd is not 0";
    if (nextCarrier != carrierCount) return "a carrier is not a block of the arena";
    if (WTreeBase::sizeAux(freeTree.root) != freeLarge) return "free tree holds blocks that are not large free blocks";
    if (char const* e = verifyIndex(freeExact, freeLarge)) return e;

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

#undef ZO_STEP
#undef H
#undef MH

}  // namespace Utils
