// Type-erased growable array.
//
// Every algorithm of the vector lives once, in the non-template class VectorBase,
// and reaches the elements only through a constant table of element operations,
// TemplOps. Vector<T> is a thin typed shell: each of its methods is one call into
// VectorBase that passes the vector itself and the table of T.
//
// Layout of a Vector<T> object (the table's two offsets point at the last two):
//   count     unsigned long   live elements (the only member of VectorBase)
//   capacity  unsigned long   element slots in the array
//   data      T*              the array, from the table's allocArray; null until the first growth
// A new vector has count, capacity and data all 0, and is constant-initialised.
//
// Invariants between operations: count <= capacity; slots count .. capacity-1 hold
// what allocArray or reset left there (the element type's default value for every
// table of this library, see below).
//
// Elements are always moved with the table's assign, never with a raw memory copy,
// so element types holding counted references stay correct; a slot vacated by a
// removal is reset, not destroyed. (The library's own scalar tables, whose assign is
// a word copy and whose reset stores 0, are moved and reset a run at a time: the
// result is the same.)
//
// Aliasing: the element arguments of add, insert and vectorCopyOp (value, values)
// must not point into the vector's own array: growth and vectorCopyOp free the old
// array, and insert shifts elements, before the argument is read. (Passing the vector
// object itself to remove or vectorCopyOp is different: see those operations.)
//
// A vector has no lock: one writer at a time, guarded by its owner.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "utils/export.h"

namespace Utils {

class ResultListener;
class LogCat;

// The constant per-type record that drives the type-erased containers. A vector
// uses every field; the AVL tree's records use only the offsets.
struct TemplOps {
    // Size of one element in bytes: the stride of every walk over an array.
    unsigned int elemSize;
    // count: number of elements wanted (may be 0). Returns a new array of count
    // elements, each in its default state.
    void* (*allocArray)(unsigned long count);
    // array: null, or an array from allocArray whose slots are all live. Destroys
    // every slot and frees the array.
    void (*freeArray)(void* array);
    // dst: a live element; src: a live element (may be dst). Copy-assigns *src onto *dst.
    void (*assign)(void* dst, void const* src);
    // a, b: live elements. Non-zero when they are equal.
    int (*equals)(void const* a, void const* b);
    // element: a live element. Returns it to its default state, releasing what it held.
    void (*reset)(void* element);
    // Offsets of members within the owning container object. A vector:
    // [0] capacity, [1] data, [2] and [3] 0. An AVL tree's tree record: [0] root;
    // its node record: [0] parent, [1] left, [2] right, [3] 0.
    unsigned int offsets[4];
};

// The algorithms of every Vector<T>. Each operation takes, after its own arguments,
// the element table and the vector object (self: the Vector<T> whose VectorBase this
// is); capacity and data are reached through the table's offsets. Element i is the
// slot at data + i * elemSize.
//
// Memory exhaustion: when the table's allocArray returns null, an operation that
// needs a larger array changes nothing (add then returns count, an index no element
// has); vectorCopyOp, which frees its array before it grows, leaves the vector
// empty. Nothing is reported. The library's own tables allocate with nothrow, so
// they return null; the generic table below uses the throwing new[] of T.
class ZO_API VectorBase {
public:
    constexpr VectorBase() : count(0) {}

    // Ensures capacity >= n; never shrinks; count unchanged. Growth policy: when
    // n <= 16 the capacity doubles from the current one (from 4 when it is 0) until
    // it reaches n; when n > 16 the new capacity is (n * 110 + 110) / 100, that is
    // about 10 % headroom over n + 1, whatever the current capacity. The live
    // elements are assigned into the new array in index order, then the old array
    // is freed.
    void resizeFor(unsigned long n, TemplOps const& ops, void* self);

    // Appends one element; returns its index (the old count), or count when the
    // array could not grow.
    unsigned long add(void const* value, TemplOps const& ops, void* self);
    // Appends the n consecutive elements at values.
    void add(void const* values, unsigned long n, TemplOps const& ops, void* self);

    // Stores value at index, moving index .. count-1 up one slot (from the last to
    // the first). When index >= count nothing moves and value goes to the end,
    // whatever index was.
    void insert(void const* value, unsigned long index, TemplOps const& ops, void* self);
    // Stores the n elements at values from index on, moving index .. count-1 up by n
    // slots; when index >= count they go to the end.
    void insert(void const* values, unsigned long n, unsigned long index, TemplOps const& ops, void* self);

    // Searches from element 0 upward. On a match sets index to its position and
    // returns true; on a miss sets index to count and returns false.
    bool locate(void const* value, unsigned long& index, TemplOps const& ops, void const* self) const;
    // Searches from element count-1 downward (finds the last equal element). On a
    // miss sets index to 0, not to count: the two searches report a miss
    // differently on purpose.
    bool locateLast(void const* value, unsigned long& index, TemplOps const& ops, void const* self) const;
    // An inequality test, not an ordering: 1 when n != count (equals is not called),
    // else 1 at the first element that differs from values[i], else 0 (also when
    // both are empty).
    int compare(void const* values, unsigned long n, TemplOps const& ops, void const* self) const;

    // false when index >= count. Otherwise moves every later element down one slot,
    // resets the vacated last slot, count - 1, and returns true.
    bool removeAtOrdered(unsigned long index, TemplOps const& ops, void* self);
    // Exactly removeAtOrdered(index): there is no swap-with-last removal.
    bool removeAt(unsigned long index, TemplOps const& ops, void* self);
    // Removes first .. last-1 (half-open). Does nothing when first >= last. Always
    // returns true. Unchecked precondition: last <= count (a larger last makes count
    // wrap and writes beyond the live elements).
    bool removeAt(unsigned long first, unsigned long last, TemplOps const& ops, void* self);
    // When values is the vector object itself (self), frees the array as purge does
    // and returns true. Otherwise removes, for each of the n elements at values in
    // order, the first equal element of the vector; returns true only when every
    // one of them was found.
    bool remove(void const* values, unsigned long n, TemplOps const& ops, void* self);

    // n >= count: grows by the growth policy (capacity may exceed n) and sets
    // count = n; slots old count .. n-1 keep what allocArray or a reset left there.
    // n < count: resets every slot from n up to capacity (not only up to count), then
    // count = n.
    void sizeTo(unsigned long n, TemplOps const& ops, void* self);
    // When n != capacity, moves the elements into a new array of exactly n slots.
    // In every case count = n afterwards. Unchecked precondition: n >= count (all
    // count elements are copied even when n is smaller).
    void sizeToExact(unsigned long n, TemplOps const& ops, void* self);

    // Frees the array; count, capacity and data become 0. Note the argument order:
    // self comes first here.
    void purge(void* self, TemplOps const& ops);
    // Resets the elements from the last to the first, count becoming 0; the array
    // and the capacity stay.
    void clear(void* self, TemplOps const& ops);
    // Replaces the contents by the n elements at values: frees the array, then grows
    // afresh and assigns. Does nothing when values is the vector object itself.
    void vectorCopyOp(void const* values, unsigned long n, TemplOps const& ops, void* self);

    // Checks count <= capacity, data present when capacity > 0, the table's offsets,
    // and that every slot beyond count equals resetValue (an element in its default
    // state). A table whose equals never reports equality, even of resetValue with
    // itself, cannot be checked slot by slot; that check is then skipped. Returns null
    // when sound, else a short description of the first fault. O(capacity).
    char const* verify(void const* resetValue, TemplOps const& ops, void const* self) const;

    unsigned long count;
};

// The element tables of the library's own vectors. Their allocArray value-initialises
// (every slot starts as 0 or null, the reset state), so the slots beyond count are
// always in their reset state and the verifier can check them.
extern ZO_API TemplOps const templOpsUInt;
extern ZO_API TemplOps const templOpsResultListener;
extern ZO_API TemplOps const templOpsLogCat;

// The layout every Vector<T> shares; the tables' offsets are taken from it (a
// derived class with members of its own is not standard-layout, so offsetof cannot
// be asked of Vector<T> itself). Vector<T>::verify checks that the two agree.
struct VectorLayout {
    unsigned long count;
    unsigned long capacity;
    void* data;
};

// The one builder of every vector table (the generic one below and the library's
// scalar tables): the five element functions and the two offsets of VectorLayout.
constexpr TemplOps vectorTable(unsigned int elemSize, void* (*allocArray)(unsigned long),
                               void (*freeArray)(void*), void (*assign)(void*, void const*),
                               int (*equals)(void const*, void const*), void (*reset)(void*)) {
    return TemplOps{elemSize,
                    allocArray,
                    freeArray,
                    assign,
                    equals,
                    reset,
                    {static_cast<unsigned int>(offsetof(VectorLayout, capacity)),
                     static_cast<unsigned int>(offsetof(VectorLayout, data)), 0, 0}};
}

// The table of T: built here for any copyable, default-constructible,
// equality-comparable T. A library element type with an exported table specialises
// this template (see below) before any Vector of it is used.
template <class T>
struct VectorOps {
    static void* allocArray(unsigned long n) { return new T[n](); }
    static void freeArray(void* array) { delete[] static_cast<T*>(array); }
    static void assign(void* dst, void const* src) { *static_cast<T*>(dst) = *static_cast<T const*>(src); }
    static int equals(void const* a, void const* b) { return *static_cast<T const*>(a) == *static_cast<T const*>(b) ? 1 : 0; }
    static void reset(void* element) { *static_cast<T*>(element) = T(); }

    static constexpr TemplOps table =
        vectorTable(static_cast<unsigned int>(sizeof(T)), &allocArray, &freeArray, &assign, &equals, &reset);
    static TemplOps const& get() { return table; }
};

template <>
struct VectorOps<unsigned int> {
    static TemplOps const& get() { return templOpsUInt; }
};
template <>
struct VectorOps<ResultListener const*> {
    static TemplOps const& get() { return templOpsResultListener; }
};
template <>
struct VectorOps<LogCat*> {
    static TemplOps const& get() { return templOpsLogCat; }
};

// The typed shell: every method is one forwarding call passing this vector twice
// (as VectorBase and as self) and the table of T. See VectorBase for behaviour.
template <class T>
class Vector : public VectorBase {
public:
    constexpr Vector() : VectorBase(), capacity(0), data(nullptr) {}
    Vector(Vector const& other) : VectorBase(), capacity(0), data(nullptr) {
        VectorBase::vectorCopyOp(other.data, other.count, VectorOps<T>::get(), this);
    }
    // Passing the vector itself as the source makes the core's self-check skip the copy.
    Vector& operator=(Vector const& other) {
        VectorBase::vectorCopyOp(&other == this ? static_cast<void const*>(this) : other.data, other.count,
                                 VectorOps<T>::get(), this);
        return *this;
    }
    // Frees the array (purge), so a vector owns its elements like any value type.
    ~Vector() { VectorBase::purge(this, VectorOps<T>::get()); }

    static TemplOps const& ops() { return VectorOps<T>::get(); }

    void resizeFor(unsigned long n) { VectorBase::resizeFor(n, ops(), this); }
    // With a free slot and a table whose assign is T's own assignment (the generic
    // table, or the library's scalar tables), add stores the element in place, inline;
    // otherwise it calls the core, which grows the array and calls the table's assign.
    unsigned long add(T const& value) {
        if (count < capacity && plainTable()) {
            data[count] = value;
            return count++;
        }
        return VectorBase::add(&value, ops(), this);
    }
    // Move-add: as add(value), but with the generic table the element is moved into
    // its slot (T's move assignment). A type with a table of its own is copied through
    // that table's assign, exactly as add(T const&). Returns the new element's index,
    // or count when the array could not grow (value is then left as it was).
    unsigned long add(T&& value) {
        if (!plainTable()) return VectorBase::add(&value, ops(), this);
        if (count >= capacity) {
            VectorBase::resizeFor(count + 1, ops(), this);
            if (count >= capacity) return count;
        }
        data[count] = std::move(value);
        return count++;
    }
    void add(T const* values, unsigned long n) { VectorBase::add(values, n, ops(), this); }
    void insert(T const& value, unsigned long index) { VectorBase::insert(&value, index, ops(), this); }
    void insert(T const* values, unsigned long n, unsigned long index) {
        VectorBase::insert(values, n, index, ops(), this);
    }
    bool locate(T const& value, unsigned long& index) const { return VectorBase::locate(&value, index, ops(), this); }
    bool locateLast(T const& value, unsigned long& index) const {
        return VectorBase::locateLast(&value, index, ops(), this);
    }
    int compare(T const* values, unsigned long n) const { return VectorBase::compare(values, n, ops(), this); }
    int compare(Vector const& other) const { return VectorBase::compare(other.data, other.count, ops(), this); }
    bool removeAtOrdered(unsigned long index) { return VectorBase::removeAtOrdered(index, ops(), this); }
    bool removeAt(unsigned long index) { return VectorBase::removeAt(index, ops(), this); }
    bool removeAt(unsigned long first, unsigned long last) { return VectorBase::removeAt(first, last, ops(), this); }
    // Removes the first element equal to value; returns whether one was removed.
    bool remove(T const& value) {
        unsigned long index;
        return VectorBase::locate(&value, index, ops(), this) && VectorBase::removeAt(index, ops(), this);
    }
    bool remove(T const* values, unsigned long n) { return VectorBase::remove(values, n, ops(), this); }
    // Removes other's elements one by one (first occurrences). v.remove(v) empties v
    // and frees its array.
    bool remove(Vector const& other) {
        return VectorBase::remove(&other == this ? static_cast<void const*>(this) : other.data, other.count, ops(),
                                  this);
    }
    void sizeTo(unsigned long n) { VectorBase::sizeTo(n, ops(), this); }
    void sizeToExact(unsigned long n) { VectorBase::sizeToExact(n, ops(), this); }
    void purge() { VectorBase::purge(this, ops()); }
    void clear() { VectorBase::clear(this, ops()); }
    void vectorCopyOp(T const* values, unsigned long n) { VectorBase::vectorCopyOp(values, n, ops(), this); }

    // Null when the vector is sound (see VectorBase::verify), else the first fault.
    char const* verify() const {
        if (reinterpret_cast<char const*>(&capacity) - reinterpret_cast<char const*>(this) !=
                static_cast<long>(ops().offsets[0]) ||
            reinterpret_cast<char const*>(&data) - reinterpret_cast<char const*>(this) !=
                static_cast<long>(ops().offsets[1]))
            return "table offsets do not match the vector's layout";
        T const resetValue = T();
        return VectorBase::verify(&resetValue, ops(), this);
    }

    // Element access; index must be below count.
    T& operator[](unsigned long index) { return data[index]; }
    T const& operator[](unsigned long index) const { return data[index]; }
    T* begin() { return data; }
    T* end() { return data + count; }
    T const* begin() const { return data; }
    T const* end() const { return data + count; }
    unsigned long size() const { return count; }
    bool empty() const { return count == 0; }

    unsigned long capacity;
    T* data;

private:
    template <class U, class = void>
    struct HasGenericTable : std::false_type {};
    template <class U>
    struct HasGenericTable<U, decltype(void(&VectorOps<U>::table))> : std::true_type {};
    static TemplOps const* genericTable(std::true_type) { return &VectorOps<T>::table; }
    static TemplOps const* genericTable(std::false_type) { return nullptr; }
    // True when the table's assign is T's assignment: the generic table, or one of the
    // library's scalar tables (a word copy). Decided at compile time but for the
    // comparison with the scalar tables, which are exported objects.
    static bool plainTable() {
        TemplOps const* t = &ops();
        if (t == genericTable(HasGenericTable<T>())) return true;
        return std::is_scalar<T>::value && (t == &templOpsUInt || t == &templOpsResultListener || t == &templOpsLogCat);
    }
};

}  // namespace Utils
