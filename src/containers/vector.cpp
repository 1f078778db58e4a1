// VectorBase: the one compiled copy of the vector's algorithms.
//
// Defined out of line, on type-erased elements, so that every element type shares
// this single copy; per-type code is limited to the five small functions of its
// TemplOps table. capacity and data are not members of VectorBase: they are reached
// in the vector object (self) through the table's offsets [0] and [1].
//
// Invariant between operations: count <= capacity, and slots count .. capacity-1
// hold what allocArray or reset left there.
//
// An allocArray that returns null (memory exhausted) leaves the vector as it was:
// every operation that needs a larger array then changes nothing (vectorCopyOp,
// which frees its array first, is left empty). The log hub's tables are vectors
// that the library fills while it loads, possibly with no memory at all.
//
// The exported members only forward to the functions of the anonymous namespace
// below: calls between exported functions of a shared library go through the PLT
// and cannot be inlined, calls between internal ones can.
//
// The library's own scalar tables (unsigned int, ResultListener const*, LogCat*) are
// recognised by their functions: their assign is a word copy, their reset stores 0
// and their equals compares words, so runs of assigns become one memmove, runs of
// resets one memset and searches a typed loop, with the same result element by
// element. Every other table (element types with counted references among them) goes
// through its functions one element at a time, in the order each algorithm states.
#include "utils/vector.h"

#include <cassert>
#include <climits>
#include <cstring>
#include <new>

namespace Utils {

namespace {

// A raw array of n scalar slots of size bytes each, not initialised; null when the
// allocator has none or the size does not fit in a word.
inline void* rawScalarArray(unsigned long n, unsigned long size) {
    if (n > ULONG_MAX / size) return nullptr;
    return ::operator new[](n * size, std::nothrow);
}

// Scalar tables: zeroed arrays, so that a slot nobody wrote reads as its reset value
// (0 or null). The growth path below zeroes only the slots its copy leaves.
template <class T>
struct ScalarOps {
    static void* allocArray(unsigned long n) {
        void* array = rawScalarArray(n, sizeof(T));
        if (array) std::memset(array, 0, n * sizeof(T));
        return array;
    }
    static void freeArray(void* array) { ::operator delete[](array); }
    static void assign(void* dst, void const* src) { *static_cast<T*>(dst) = *static_cast<T const*>(src); }
    static int equals(void const* a, void const* b) { return *static_cast<T const*>(a) == *static_cast<T const*>(b); }
    static void reset(void* element) { *static_cast<T*>(element) = T(); }
    static constexpr TemplOps table() {
        return vectorTable(static_cast<unsigned int>(sizeof(T)), &allocArray, &freeArray, &assign, &equals, &reset);
    }
};

inline unsigned long& capacityOf(TemplOps const& ops, void* self) {
    return *reinterpret_cast<unsigned long*>(static_cast<char*>(self) + ops.offsets[0]);
}
inline unsigned long capacityOf(TemplOps const& ops, void const* self) {
    return *reinterpret_cast<unsigned long const*>(static_cast<char const*>(self) + ops.offsets[0]);
}
inline char*& dataOf(TemplOps const& ops, void* self) {
    return *reinterpret_cast<char**>(static_cast<char*>(self) + ops.offsets[1]);
}
inline char* dataOf(TemplOps const& ops, void const* self) {
    return *reinterpret_cast<char* const*>(static_cast<char const*>(self) + ops.offsets[1]);
}
inline char* slot(char* data, TemplOps const& ops, unsigned long i) { return data + i * ops.elemSize; }
inline char const* source(void const* values, TemplOps const& ops, unsigned long i) {
    return static_cast<char const*>(values) + i * ops.elemSize;
}

// 4 or 8 for the library's scalar tables (the element's width), else 0.
inline unsigned int wordTable(TemplOps const& ops) {
    if (ops.assign == &ScalarOps<unsigned int>::assign) return 4;
    if (ops.assign == &ScalarOps<ResultListener const*>::assign || ops.assign == &ScalarOps<LogCat*>::assign)
        return 8;
    return 0;
}

// Capacity chosen by the growth policy for a request n > capacity.
unsigned long grownCapacity(unsigned long n, unsigned long capacity) {
    if (n <= 16) {
        unsigned long c = capacity ? capacity : 4;
        while (c < n) c *= 2;
        return c;
    }
    // (n * 110 + 110) / 100 == m + m / 10 with m = n + 1 (floor of 1.1 * m). This form
    // gives the capacities of the 32-bit formula wherever its product does not
    // overflow (n < 39045157) and keeps growing past that point, where the 32-bit
    // product would wrap to a capacity below the request.
    if (n >= ULONG_MAX - ULONG_MAX / 11) return n;  // no headroom left to give
    unsigned long m = n + 1;
    return m + m / 10;
}

// dst[i] := src[i] for i = 0 .. n-1, in ascending order (dst below src or apart).
inline void assignUp(TemplOps const& ops, char* dst, char const* src, unsigned long n) {
    if (n == 0) return;
    if (wordTable(ops)) {
        std::memmove(dst, src, n * ops.elemSize);
        return;
    }
    for (unsigned long i = 0; i < n; ++i) ops.assign(dst + i * ops.elemSize, src + i * ops.elemSize);
}
// dst[i] := src[i] for i = n-1 down to 0 (dst above src).
inline void assignDown(TemplOps const& ops, char* dst, char const* src, unsigned long n) {
    if (n == 0) return;
    if (wordTable(ops)) {
        std::memmove(dst, src, n * ops.elemSize);
        return;
    }
    for (unsigned long i = n; i > 0; --i) ops.assign(dst + (i - 1) * ops.elemSize, src + (i - 1) * ops.elemSize);
}
// Resets slots first .. last-1, ascending.
inline void resetUp(TemplOps const& ops, char* data, unsigned long first, unsigned long last) {
    if (first >= last) return;
    if (wordTable(ops)) {
        std::memset(slot(data, ops, first), 0, (last - first) * ops.elemSize);
        return;
    }
    for (unsigned long i = first; i < last; ++i) ops.reset(slot(data, ops, i));
}

template <class W>
inline unsigned long firstEqual(char const* data, unsigned long count, void const* value) {
    W const* words = reinterpret_cast<W const*>(data);
    W const w = *static_cast<W const*>(value);
    unsigned long i = 0;
    for (; i + 4 <= count; i += 4) {  // four compares per loop test
        if (words[i] == w) return i;
        if (words[i + 1] == w) return i + 1;
        if (words[i + 2] == w) return i + 2;
        if (words[i + 3] == w) return i + 3;
    }
    for (; i < count; ++i)
        if (words[i] == w) return i;
    return count;
}
// One element: a word copy for the scalar tables, else the table's assign.
inline void assignOne(TemplOps const& ops, char* dst, void const* src) {
    switch (wordTable(ops)) {
        case 4: std::memcpy(dst, src, 4); return;
        case 8: std::memcpy(dst, src, 8); return;
        default: ops.assign(dst, src);
    }
}
// Index of the first element equal to value, count when none.
inline unsigned long findFirst(TemplOps const& ops, char const* data, unsigned long count, void const* value) {
    switch (wordTable(ops)) {
        case 4: return firstEqual<unsigned int>(data, count, value);
        case 8: return firstEqual<unsigned long>(data, count, value);
        default: break;
    }
    for (unsigned long i = 0; i < count; ++i)
        if (ops.equals(data + i * ops.elemSize, value)) return i;
    return count;
}
template <class W>
inline unsigned long lastEqual(char const* data, unsigned long count, void const* value) {
    W const* words = reinterpret_cast<W const*>(data);
    W const w = *static_cast<W const*>(value);
    for (unsigned long i = count; i > 0; --i)
        if (words[i - 1] == w) return i - 1;
    return count;
}
// Index of the last element equal to value, count when none.
inline unsigned long findLast(TemplOps const& ops, char const* data, unsigned long count, void const* value) {
    switch (wordTable(ops)) {
        case 4: return lastEqual<unsigned int>(data, count, value);
        case 8: return lastEqual<unsigned long>(data, count, value);
        default: break;
    }
    for (unsigned long i = count; i > 0; --i)
        if (ops.equals(data + (i - 1) * ops.elemSize, value)) return i - 1;
    return count;
}

// The one reallocation step of growth and of sizeToExact: a new array of newCapacity
// slots, the count live elements assigned into it in index order, the new capacity
// stored, the old array freed, the new one stored as data. count must not exceed
// newCapacity. False, with nothing changed, when no array is given (an array of 0
// slots may come back null and is then used as it comes). For the scalar tables the
// array is taken raw, the live words are copied and only the slots beyond them are
// zeroed: the same array as allocArray followed by the assigns, each byte written once.
bool moveToNewArray(unsigned long count, unsigned long newCapacity, TemplOps const& ops, void* self) {
    char*& data = dataOf(ops, self);
    char* fresh;
    if (wordTable(ops)) {
        fresh = static_cast<char*>(rawScalarArray(newCapacity, ops.elemSize));
        if (!fresh && newCapacity) return false;
        if (count) std::memcpy(fresh, data, count * ops.elemSize);
        if (newCapacity > count) std::memset(fresh + count * ops.elemSize, 0, (newCapacity - count) * ops.elemSize);
    } else {
        fresh = static_cast<char*>(ops.allocArray(newCapacity));
        if (!fresh && newCapacity) return false;
        assignUp(ops, fresh, data, count);
    }
    capacityOf(ops, self) = newCapacity;
    ops.freeArray(data);
    data = fresh;
    return true;
}

// False, with nothing changed, when allocArray gives no array.
bool growFor(unsigned long count, unsigned long n, TemplOps const& ops, void* self) {
    unsigned long capacity = capacityOf(ops, self);
    if (n <= capacity) return true;
    return moveToNewArray(count, grownCapacity(n, capacity), ops, self);
}

bool removeOrdered(unsigned long& count, unsigned long index, TemplOps const& ops, void* self) {
    if (index >= count) return false;
    --count;
    char* data = dataOf(ops, self);
    assignUp(ops, slot(data, ops, index), slot(data, ops, index + 1), count - index);
    resetUp(ops, data, count, count + 1);
    return true;
}

void purgeArray(unsigned long& count, TemplOps const& ops, void* self) {
    char*& data = dataOf(ops, self);
    ops.freeArray(data);
    count = 0;
    data = nullptr;
    capacityOf(ops, self) = 0;
}

}  // namespace

TemplOps const templOpsUInt = ScalarOps<unsigned int>::table();
TemplOps const templOpsResultListener = ScalarOps<ResultListener const*>::table();
TemplOps const templOpsLogCat = ScalarOps<LogCat*>::table();

void VectorBase::resizeFor(unsigned long n, TemplOps const& ops, void* self) { growFor(count, n, ops, self); }

unsigned long VectorBase::add(void const* value, TemplOps const& ops, void* self) {
    if (!growFor(count, count + 1, ops, self)) return count;
    assignOne(ops, slot(dataOf(ops, self), ops, count), value);
    return count++;
}

void VectorBase::add(void const* values, unsigned long n, TemplOps const& ops, void* self) {
    if (!growFor(count, count + n, ops, self)) return;
    assignUp(ops, slot(dataOf(ops, self), ops, count), static_cast<char const*>(values), n);
    count += n;
}

void VectorBase::insert(void const* value, unsigned long index, TemplOps const& ops, void* self) {
    if (!growFor(count, count + 1, ops, self)) return;
    char* data = dataOf(ops, self);
    if (index < count)
        assignDown(ops, slot(data, ops, index + 1), slot(data, ops, index), count - index);
    else
        index = count;
    ++count;
    assignOne(ops, slot(data, ops, index), value);
}

void VectorBase::insert(void const* values, unsigned long n, unsigned long index, TemplOps const& ops,
                        void* self) {
    if (!growFor(count, count + n, ops, self)) return;
    char* data = dataOf(ops, self);
    if (index < count)
        assignDown(ops, slot(data, ops, index + n), slot(data, ops, index), count - index);
    else
        index = count;
    assignUp(ops, slot(data, ops, index), static_cast<char const*>(values), n);
    count += n;
}

bool VectorBase::locate(void const* value, unsigned long& index, TemplOps const& ops, void const* self) const {
    index = findFirst(ops, dataOf(ops, self), count, value);  // count on a miss
    return index < count;
}

bool VectorBase::locateLast(void const* value, unsigned long& index, TemplOps const& ops, void const* self) const {
    unsigned long i = findLast(ops, dataOf(ops, self), count, value);
    index = i < count ? i : 0;  // kept: a miss reads 0 here, count in locate
    return i < count;
}

int VectorBase::compare(void const* values, unsigned long n, TemplOps const& ops, void const* self) const {
    if (n != count) return 1;
    if (n == 0) return 0;
    char* data = dataOf(ops, self);
    if (wordTable(ops)) return std::memcmp(data, values, n * ops.elemSize) != 0 ? 1 : 0;
    for (unsigned long i = 0; i < n; ++i) {
        if (!ops.equals(slot(data, ops, i), source(values, ops, i))) return 1;
    }
    return 0;
}

bool VectorBase::removeAtOrdered(unsigned long index, TemplOps const& ops, void* self) {
    return removeOrdered(count, index, ops, self);
}

bool VectorBase::removeAt(unsigned long index, TemplOps const& ops, void* self) {
    return removeOrdered(count, index, ops, self);
}

bool VectorBase::removeAt(unsigned long first, unsigned long last, TemplOps const& ops, void* self) {
    if (first >= last) return true;
    assert(last <= count && "removeAt(first, last): last beyond count");
    char* data = dataOf(ops, self);
    unsigned long removed = last - first;
    if (last < count) assignUp(ops, slot(data, ops, first), slot(data, ops, last), count - last);
    count -= removed;
    resetUp(ops, data, count, count + removed);
    return true;
}

bool VectorBase::remove(void const* values, unsigned long n, TemplOps const& ops, void* self) {
    if (values == self) {
        purgeArray(count, ops, self);
        return true;
    }
    bool all = true;
    for (unsigned long i = 0; i < n; ++i) {
        unsigned long index = findFirst(ops, dataOf(ops, self), count, source(values, ops, i));
        if (index < count)
            removeOrdered(count, index, ops, self);
        else
            all = false;
    }
    return all;
}

void VectorBase::sizeTo(unsigned long n, TemplOps const& ops, void* self) {
    if (n >= count) {
        if (growFor(count, n, ops, self)) count = n;
        return;
    }
    // Resets up to capacity, not only up to count: slots beyond count are already
    // in their reset state, so this costs time but changes nothing.
    resetUp(ops, dataOf(ops, self), n, capacityOf(ops, self));
    count = n;
}

void VectorBase::sizeToExact(unsigned long n, TemplOps const& ops, void* self) {
    assert(n >= count && "sizeToExact below count");
    if (n != capacityOf(ops, self) && !moveToNewArray(count, n, ops, self)) return;
    count = n;
}

void VectorBase::purge(void* self, TemplOps const& ops) { purgeArray(count, ops, self); }

void VectorBase::clear(void* self, TemplOps const& ops) {
    char* data = dataOf(ops, self);
    if (!data) return;
    if (wordTable(ops)) {
        resetUp(ops, data, 0, count);
        count = 0;
        return;
    }
    while (count > 0) {
        --count;
        ops.reset(slot(data, ops, count));
    }
}

void VectorBase::vectorCopyOp(void const* values, unsigned long n, TemplOps const& ops, void* self) {
    if (values == self) return;
    purgeArray(count, ops, self);
    if (!growFor(count, n, ops, self)) return;
    assignUp(ops, dataOf(ops, self), static_cast<char const*>(values), n);
    count = n;
}

char const* VectorBase::verify(void const* resetValue, TemplOps const& ops, void const* self) const {
    if (ops.offsets[0] != offsetof(VectorLayout, capacity) || ops.offsets[1] != offsetof(VectorLayout, data) ||
        ops.offsets[2] != 0 || ops.offsets[3] != 0)
        return "table offsets are not those of a vector";
    unsigned long capacity = capacityOf(ops, self);
    char* data = dataOf(ops, self);
    if (count > capacity) return "count exceeds capacity";
    if (capacity > 0 && !data) return "capacity without an array";
    if (!ops.equals(resetValue, resetValue)) return nullptr;  // no usable equality: slots cannot be checked
    for (unsigned long i = count; i < capacity; ++i) {
        if (!ops.equals(slot(data, ops, i), resetValue)) return "a slot beyond count is not in its reset state";
    }
    return nullptr;
}

}  // namespace Utils
