// Object model: the intrusive reference count, the root polymorphic base, the one
// exception type, and the holder in which the library hands out counted objects.
//
// Counting protocol (every holder in the library follows it):
//  1. A holder that takes a reference calls incRef().
//  2. A holder that drops one calls decRef(); when the returned count is 0 the
//     holder deletes the object through its virtual destructor. decRef() itself
//     never deletes anything.
//  3. A new object has count 0, not 1: the first holder brings it to 1. An object
//     that nobody incRef()s is owned in the ordinary way and never deleted through
//     the count.
// Counts are plain, not atomic: an object shared between threads has its count
// changed under the caller's own lock.
#pragma once

#include "utils/export.h"

namespace Utils {

// An intrusive reference count, embedded as a base.
class ZO_API Countable {
public:
    Countable();
    // count + 1.
    void incRef();
    // count - 1, returning the new count. On a count of 0 it wraps to 4294967295
    // and returns that; nothing checks for it.
    unsigned int decRef();
    unsigned int refCount() const;

private:
    unsigned int count;
};

// The root of the library's polymorphic classes (loggers, events, versions, the
// log hub). Its storage always comes from the global operator new/delete, which
// the library replaces with the process allocator.
class ZO_API Object : public Countable {
public:
    Object();
    virtual ~Object();

    // The global operator new(size), which returns null when memory is exhausted.
    // Declared noexcept so that a new-expression of any derived class checks for
    // that null: `new FileLogger(...)` then yields null and runs no constructor.
    static void* operator new(unsigned long size) noexcept;
    static void operator delete(void* p);
};

// The one exception type. It carries a formatted message of at most 511
// characters (longer texts are cut, by design). The text is allocated with
// operator new[] and never released: there is deliberately no destructor, so each
// Problem and each copy keeps its own heap copy for the rest of the process.
// The library itself never throws one.
class ZO_API Problem {
public:
    Problem(char const* format, ...) ZO_PRINTF(2, 3);
    Problem(Problem const& other);
    Problem& operator=(Problem const&) = delete;

    char* text;
};

// The holder in which the library hands out and keeps counted objects: one
// pointer, possibly null. Making or copying a holder takes a reference; reassigning
// or destroying it drops one, deleting the object when the count reaches 0.
template <class T>
class CountedRef {
public:
    constexpr CountedRef() : ptr(nullptr) {}
    CountedRef(T* p) : ptr(p) { if (ptr) ptr->incRef(); }
    CountedRef(CountedRef const& o) : ptr(o.ptr) { if (ptr) ptr->incRef(); }
    template <class U>
    CountedRef(CountedRef<U> const& o) : ptr(o.get()) { if (ptr) ptr->incRef(); }
    ~CountedRef() { release(); }

    // Takes the new reference before dropping the old one, so self-assignment is safe.
    CountedRef& operator=(T* p) {
        if (p) p->incRef();
        release();
        ptr = p;
        return *this;
    }
    CountedRef& operator=(CountedRef const& o) { return *this = o.ptr; }

    T* get() const { return ptr; }
    T* operator->() const { return ptr; }
    T& operator*() const { return *ptr; }
    explicit operator bool() const { return ptr != nullptr; }
    bool operator==(CountedRef const& o) const { return ptr == o.ptr; }
    bool operator!=(CountedRef const& o) const { return ptr != o.ptr; }

    // Drops the reference (if any) and leaves the holder empty.
    void reset() { release(); ptr = nullptr; }

private:
    void release() {
        if (ptr && ptr->decRef() == 0) delete ptr;
    }
    T* ptr;
};

}  // namespace Utils
