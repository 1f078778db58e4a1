// The straightforward tree-based arena, kept as the reference that the production
// arena (Utils::MemoryAllocator) is compared against: a best-fit allocator over
// regions from a parent, with one weight-balanced free tree ordered by size then
// address, address trees for the carrier search, boundary tags, coalescing, small
// blocks of 32 and 64 bytes cut from carriers, bridges between regions and exact
// counters per colour. Its public operations and every result they give are those
// of MemoryAllocator; the differential test runs both on the same operations and
// compares every address, counter and block.
//
// No locks: one thread at a time. Nothing here is used by the library itself.
#pragma once

#include "utils/allocator.h"
#include "utils/wtree.h"

namespace zotest {

class ReferenceArena : public Utils::Allocator {
public:
    // An empty arena over `parent`; call init() before the first allocation.
    explicit ReferenceArena(Utils::Allocator* parent = nullptr);
    // Releases nothing: the regions stay with the parent.
    virtual ~ReferenceArena();
    ReferenceArena(ReferenceArena const&) = delete;
    ReferenceArena& operator=(ReferenceArena const&) = delete;

    // Resets the counters and takes a thread-local slot for the default colours.
    void init();

    // In the calling thread's default colour; null above 0x3FFFFE8 bytes or when the
    // parent has no region.
    void* alloc(unsigned long size) override;
    // In colour `color` & 63.
    void* alloc(unsigned long size, unsigned int color) override;
    void free(void* p) override;
    // Block size less 8; 0 for null or a block outside the arena or not allocated.
    unsigned long size(void* p) const override;
    unsigned long allocatedMemory() const override;
    unsigned long internalFree() const override;
    unsigned int color(void* p) const override;
    // 0x80000003 for null, colour 0, a block outside the arena, not allocated or
    // already coloured; otherwise adds the block's size to colour 0's allocated
    // count and returns 0, the block keeping colour 0.
    unsigned int setColor(void* p, unsigned int color) override;
    // An allocated ordinary block whose trailer agrees with its header.
    bool valid(void* p) const override;
    unsigned int setDefaultColor(unsigned int color, unsigned int* previous) override;
    unsigned int defaultColor() const override;
    unsigned long allocatedColorMemory(unsigned int color) const override;
    unsigned long freeColorMemory(unsigned int color) const override;
    void adjustColorMemory(unsigned int color, int delta) override;

    // Block walking in address order, as MemoryAllocator's: after the last block
    // nextBlock yields once the address just past the arena plus 4, then null.
    void* firstBlock() const;
    void* nextBlock(void* p) const;
    static unsigned int busy(void* p);
    unsigned int checkArena() const;

    // Null when the blocks, trees, small lists and counters agree, else a static
    // text naming the first fault. Allocates nothing.
    char const* verify() const;
    // The first free block in address order of at least smallBlockSize + 20 bytes.
    void* carrierCandidate(unsigned int smallBlockSize) const;

private:
    struct MemHead;  // the 4-byte size word at the start of every block

    void* _alloc(unsigned long size, unsigned int color);
    unsigned long _free(void* p);
    MemHead* allocSmall(unsigned int k);
    void freeSmall(MemHead* h);
    MemHead* allocCandidate(unsigned long need);
    void freeLoser(MemHead* t);
    void splitBlock(MemHead* h, unsigned long n);
    void removeMe(MemHead* h);
    MemHead* coalesce(MemHead* h);
    MemHead* growArena(unsigned long need);
    void linkFree(MemHead* h);
    void unlinkFree(MemHead* h);
    void unlinkAddress(MemHead* h);
    unsigned long bridgeStep(MemHead* h) const;
    void fileAddresses() const;
    MemHead* header(void* p) const;

    Utils::Allocator* parent;
    Utils::WTreeBase freeTree;
    MemHead* arenaStart;
    MemHead* arenaEnd;
    unsigned long freeTotal;
    MemHead* smallLists[7];
    unsigned long allocatedTotal;
    unsigned int initialised;
    unsigned int colorSlot;
    unsigned long allocatedByColor[64];
    unsigned long freeByColor[64];
    // Free ordinary blocks in address order: exactly 80 bytes, and larger. Newly
    // freed blocks wait in addressPending (a list through their address nodes) and
    // enter the trees only when a carrier is looked for. Filing them is not a change
    // of the arena's state, hence mutable.
    mutable Utils::WTreeBase addressTree80;
    mutable Utils::WTreeBase addressTreeBig;
    mutable Utils::WTreeNodeBase* addressPending;
    // Carriers, chained through their first unused bytes (for verify).
    MemHead* carriers;
    // What setColor and adjustColorMemory added to the allocated counts (for verify).
    unsigned long colorAdjustments[64];
    // Bridges over gaps of 4 GiB or more, whose step does not fit their size word.
    MemHead* farBridges[16];
    unsigned long farBridgeSteps[16];
    unsigned int farBridgeCount;
};

}  // namespace zotest
