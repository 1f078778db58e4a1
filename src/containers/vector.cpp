// VectorBase: the one compiled copy of the vector's algorithms.
//
// Defined out of line, on type-erased elements, so that every element type shares
// this single copy; per-type code is limited to the five small functions of its
// TemplOps table. capacity and data are not members of VectorBase: they are reached
// in the vector object (self) through the table's offsets [0] and [1].
//
// Invariant between operations: count <= capacity, and slots count .. capacity-1
// hold what allocArray or reset left there.
#include "utils/vector.h"

#include <cassert>
#include <climits>
#include <cstring>


namespace Utils {

namespace {

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

// Scalar tables: value-initialised arrays, so that a slot nobody wrote reads as its
// reset value (0 or null).
template <class T>
struct ScalarOps {
    static void* allocArray(unsigned long n) { return new T[n](); }
    static void freeArray(void* array) { delete[] static_cast<T*>(array); }
    static void assign(void* dst, void const* src) { *static_cast<T*>(dst) = *static_cast<T const*>(src); }
    static int equals(void const* a, void const* b) { return *static_cast<T const*>(a) == *static_cast<T const*>(b); }
    static void reset(void* element) { *static_cast<T*>(element) = T(); }
    static constexpr TemplOps table() {
        return TemplOps{static_cast<unsigned int>(sizeof(T)),
                        &allocArray,
                        &freeArray,
                        &assign,
                        &equals,
                        &reset,
                        {static_cast<unsigned int>(offsetof(VectorLayout, capacity)),
                         static_cast<unsigned int>(offsetof(VectorLayout, data)), 0, 0}};
    }
};

}  // namespace

TemplOps const templOpsUInt = ScalarOps<unsigned int>::table();
TemplOps const templOpsResultListener = ScalarOps<ResultListener const*>::table();
TemplOps const templOpsLogCat = ScalarOps<LogCat*>::table();

void VectorBase::resizeFor(unsigned long n, TemplOps const& ops, void* self) {
    unsigned long& capacity = capacityOf(ops, self);
    if (n <= capacity) return;
    unsigned long newCapacity = grownCapacity(n, capacity);
    char* fresh = static_cast<char*>(ops.allocArray(newCapacity));
    char*& data = dataOf(ops, self);
    for (unsigned long i = 0; i < count; ++i) ops.assign(slot(fresh, ops, i), slot(data, ops, i));
    capacity = newCapacity;
    ops.freeArray(data);
    data = fresh;
}

unsigned long VectorBase::add(void const* value, TemplOps const& ops, void* self) {
    resizeFor(count + 1, ops, self);
    ops.assign(slot(dataOf(ops, self), ops, count), value);
    return count++;
}

void VectorBase::add(void const* values, unsigned long n, TemplOps const& ops, void* self) {
    resizeFor(count + n, ops, self);
    char* data = dataOf(ops, self);
    char const* source = static_cast<char const*>(values);
    for (unsigned long i = 0; i < n; ++i) ops.assign(slot(data, ops, count + i), source + i * ops.elemSize);
    count += n;
}

void VectorBase::insert(void const* value, unsigned long index, TemplOps const& ops, void* self) {
    resizeFor(count + 1, ops, self);
    char* data = dataOf(ops, self);
    if (index < count) {
        for (unsigned long i = count; i > index; --i) ops.assign(slot(data, ops, i), slot(data, ops, i - 1));
    } else {
        index = count;
    }
    ++count;
    ops.assign(slot(data, ops, index), value);
}

void VectorBase::insert(void const* values, unsigned long n, unsigned long index, TemplOps const& ops,
                        void* self) {
    resizeFor(count + n, ops, self);
    char* data = dataOf(ops, self);
    if (index < count) {
        for (unsigned long i = count; i > index; --i) ops.assign(slot(data, ops, i - 1 + n), slot(data, ops, i - 1));
    } else {
        index = count;
    }
    char const* source = static_cast<char const*>(values);
    for (unsigned long i = 0; i < n; ++i) ops.assign(slot(data, ops, index + i), source + i * ops.elemSize);
    count += n;
}

bool VectorBase::locate(void const* value, unsigned long& index, TemplOps const& ops, void const* self) const {
    char* data = dataOf(ops, self);
    for (unsigned long i = 0; i < count; ++i) {
        if (ops.equals(slot(data, ops, i), value)) {
            index = i;
            return true;
        }
    }
    index = count;
    return false;
}

bool VectorBase::locateLast(void const* value, unsigned long& index, TemplOps const& ops, void const* self) const {
    char* data = dataOf(ops, self);
    for (unsigned long i = count; i > 0; --i) {
        if (ops.equals(slot(data, ops, i - 1), value)) {
            index = i - 1;
            return true;
        }
    }
    index = 0;  // kept: a miss reads 0 here, count in locate
    return false;
}

int VectorBase::compare(void const* values, unsigned long n, TemplOps const& ops, void const* self) const {
    if (n != count) return 1;
    char* data = dataOf(ops, self);
    char const* source = static_cast<char const*>(values);
    for (unsigned long i = 0; i < n; ++i) {
        if (!ops.equals(slot(data, ops, i), source + i * ops.elemSize)) return 1;
    }
    return 0;
}

bool VectorBase::removeAtOrdered(unsigned long index, TemplOps const& ops, void* self) {
    if (index >= count) return false;
    --count;
    char* data = dataOf(ops, self);
    for (unsigned long i = index; i < count; ++i) ops.assign(slot(data, ops, i), slot(data, ops, i + 1));
    ops.reset(slot(data, ops, count));
    return true;
}

bool VectorBase::removeAt(unsigned long index, TemplOps const& ops, void* self) {
    return removeAtOrdered(index, ops, self);
}

bool VectorBase::removeAt(unsigned long first, unsigned long last, TemplOps const& ops, void* self) {
    if (first >= last) return true;
    assert(last <= count && "removeAt(first, last): last beyond count");
    char* data = dataOf(ops, self);
    unsigned long removed = last - first;
    for (unsigned long i = last; i < count; ++i) ops.assign(slot(data, ops, i - removed), slot(data, ops, i));
    count -= removed;
    for (unsigned long i = 0; i < removed; ++i) ops.reset(slot(data, ops, count + i));
    return true;
}

bool VectorBase::remove(void const* values, unsigned long n, TemplOps const& ops, void* self) {
    if (values == self) {
        purge(self, ops);
        return true;
    }
    char const* source = static_cast<char const*>(values);
    bool all = true;
    for (unsigned long i = 0; i < n; ++i) {
        unsigned long index;
        if (locate(source + i * ops.elemSize, index, ops, self))
            removeAtOrdered(index, ops, self);
        else
            all = false;
    }
    return all;
}

void VectorBase::sizeTo(unsigned long n, TemplOps const& ops, void* self) {
    if (n >= count) {
        resizeFor(n, ops, self);
        count = n;
        return;
    }
    // Resets up to capacity, not only up to count: slots beyond count are already
    // in their reset state, so this costs time but changes nothing.
    char* data = dataOf(ops, self);
    unsigned long capacity = capacityOf(ops, self);
    for (unsigned long i = n; i < capacity; ++i) ops.reset(slot(data, ops, i));
    count = n;
}

void VectorBase::sizeToExact(unsigned long n, TemplOps const& ops, void* self) {
    assert(n >= count && "sizeToExact below count");
    unsigned long& capacity = capacityOf(ops, self);
    if (n != capacity) {
        char* fresh = static_cast<char*>(ops.allocArray(n));
        char*& data = dataOf(ops, self);
        for (unsigned long i = 0; i < count; ++i) ops.assign(slot(fresh, ops, i), slot(data, ops, i));
        capacity = n;
        ops.freeArray(data);
        data = fresh;
    }
    count = n;
}

void VectorBase::purge(void* self, TemplOps const& ops) {
    char*& data = dataOf(ops, self);
    ops.freeArray(data);
    count = 0;
    data = nullptr;
    capacityOf(ops, self) = 0;
}

void VectorBase::clear(void* self, TemplOps const& ops) {
    char* data = dataOf(ops, self);
    if (!data) return;
    while (count > 0) {
        --count;
        ops.reset(slot(data, ops, count));
    }
}

void VectorBase::vectorCopyOp(void const* values, unsigned long n, TemplOps const& ops, void* self) {
    if (values == self) return;
    char*& data = dataOf(ops, self);
    ops.freeArray(data);
    count = 0;
    data = nullptr;
    capacityOf(ops, self) = 0;
    resizeFor(n, ops, self);
    char* fresh = dataOf(ops, self);
    char const* source = static_cast<char const*>(values);
    for (unsigned long i = 0; i < n; ++i) ops.assign(slot(fresh, ops, i), source + i * ops.elemSize);
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
