// Memory: the allocator interface with memory colours, the process allocator that
// serves every operator new of the program, and the allocators offered to
// applications.
//
// A memory colour is a 6-bit tag (0 to 63) carried by allocated blocks, so that a
// program can account its memory by purpose. Allocators with colours count, per
// colour, the bytes allocated and the bytes free, and keep a default colour per task
// (thread) that alloc(size) uses. Colour 0 is the ordinary colour.
#pragma once

#include "utils/export.h"

namespace Utils {

// ---------------------------------------------------------------------------
// The allocator interface. The operations are virtual, in this slot order;
// allocators without colours keep the defaults of slots 4 and 6 to 13.
// An allocator is never deleted through an Allocator*.
//
// Note for implementers: a class that overrides one alloc overload hides the other;
// add `using Allocator::alloc;` where both should stay visible.
// ---------------------------------------------------------------------------
class ZO_API Allocator {
public:
    // 0: `size` bytes in the calling task's default colour; null on failure.
    virtual void* alloc(unsigned long size) = 0;
    // 1: releases a block; null is ignored.
    virtual void free(void* p) = 0;
    // 2: usable size of a block.
    virtual unsigned long size(void* p) const = 0;
    // 3: bytes currently allocated.
    virtual unsigned long allocatedMemory() const = 0;
    // 4: allocates in an explicit colour. Default: alloc(size), colour ignored.
    virtual void* alloc(unsigned long size, unsigned int color);
    // 5: bytes held by the allocator but free.
    virtual unsigned long internalFree() const = 0;
    // 6: colour of a block. Default: 0.
    virtual unsigned int color(void* p) const;
    // 7: gives a block a colour; a result code. Default: 0x80000001.
    virtual unsigned int setColor(void* p, unsigned int color);
    // 8: whether p is a live block of this allocator. Default: false.
    virtual bool valid(void* p) const;
    // 9: sets the calling task's default colour; if `previous` is not null the old
    //    default is stored there first. A result code. Default: 0x80000001.
    virtual unsigned int setDefaultColor(unsigned int color, unsigned int* previous);
    // 10: the calling task's default colour. Default: 0.
    virtual unsigned int defaultColor() const;
    // 11: bytes allocated in a colour. Default: 0.
    virtual unsigned long allocatedColorMemory(unsigned int color) const;
    // 12: bytes free in a colour. Default: 0.
    virtual unsigned long freeColorMemory(unsigned int color) const;
    // 13: adds delta to a colour's allocated count. Default: nothing.
    virtual void adjustColorMemory(unsigned int color, int delta);

    // The process-wide allocator behind every operator new and operator delete of
    // the program; built on first use and never null afterwards.
    static Allocator* theAllocator();

protected:
    Allocator() = default;
    ~Allocator() = default;
};

// Sets the calling task's default colour of the process allocator, remembering the
// previous one. There is deliberately no destructor that restores it: call reset()
// when the colour's scope ends.
class ZO_API MemoryColor {
public:
    explicit MemoryColor(unsigned int color);
    // Restores the default colour that was in force when this object was made.
    void reset();

private:
    unsigned int previous;
};

}  // namespace Utils
