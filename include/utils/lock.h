// Locks: the abstract Lock, two exclusive locks over the system layer (Mutex and
// CriticalSection), the scoped holder Locker, and ZotLightBLock, a recursive lock
// for cooperative tasks that touches the system layer only on its first entry and
// last exit.
//
// Nothing in the library takes these locks itself: they are offered to programs
// that share library objects (strings, containers, counted objects) between
// threads and must serialise their use. Both locks are exclusive and are entered
// and exited by the same thread. Over this library's system layer both are
// recursive: the owning thread may enter again and must exit as many times.
// Blocking and fairness are the system layer's.
#pragma once

#include <atomic>

#include "utils/export.h"

namespace Utils {

// An exclusive lock. enter() blocks until the calling thread holds the lock;
// exit() releases one entry. Both return the system layer's status: 0 for
// success, nonzero for failure.
class ZO_API Lock {
public:
    virtual ~Lock();
    virtual int enter() const = 0;
    virtual int exit() const = 0;
};

// A lock over a system-layer mutex. The mutex is created by the constructor and
// destroyed by the destructor; a failed creation is not detected. Not copyable:
// the object owns its handle.
class ZO_API Mutex : public Lock {
public:
    Mutex();
    ~Mutex() override;
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    int enter() const override;
    int exit() const override;

private:
    unsigned int handle;
};

// The same over a system-layer critical section.
class ZO_API CriticalSection : public Lock {
public:
    CriticalSection();
    ~CriticalSection() override;
    CriticalSection(CriticalSection const&) = delete;
    CriticalSection& operator=(CriticalSection const&) = delete;

    int enter() const override;
    int exit() const override;

private:
    unsigned int handle;
};

// Holds a lock for the lifetime of a scope: the constructor enters it once, the
// destructor exits it once; the statuses of both are ignored. It cannot release
// early, be copied or be reassigned, and must be destroyed by the thread that made
// it. `file` and `line` are kept only for inspection (for instance from a
// debugger): nothing reads or prints them, the file name is not copied, and a null
// name with line 0 is as good as a real position.
//
//     Utils::Mutex m;
//     { Utils::Locker hold(&m, __FILE__, __LINE__); /* m is held here */ }
class ZO_API Locker {
public:
    Locker(Lock* lock, char const* file, unsigned int line);
    ~Locker();
    Locker(Locker const&) = delete;
    Locker& operator=(Locker const&) = delete;

    Lock* const lock;
    char const* const file;
    unsigned int const line;
};

// A recursive lock for cooperative tasks, built from one auto-reset event and an
// owner/count pair. The task that owns it re-enters without touching the system
// layer; only the first lock() and the last unlock() do.
//
// There is no constructor that prepares it: call init() once before any other use.
// The destructor only destroys the event (it does not check that the lock is free).
// unlock() does not check that the caller owns the lock; calling it more often than
// lock() drives the count negative and does not set the event again.
// Waiters are let through one per final unlock(), in the system layer's order.
class ZO_API ZotLightBLock {
public:
    // owner = none, count = 0, and a fresh auto-reset event that starts signalled.
    void init();
    ~ZotLightBLock();

    // Enters the lock, blocking while another task owns it.
    void lock();
    // Leaves it once; the last unlock() of the owner frees it and lets one waiter in.
    void unlock();

    // Inspection, for tests and debuggers: the owning cooperative task (-1 when free)
    // and the owner's entry count. From another task these are snapshots only.
    int ownerTask() const;
    int depth() const;

private:
    // Reserved: no operation reads or writes it.
    [[maybe_unused]] void* reserved;
    // How often the owner has entered; touched only by the owner.
    std::atomic<int> count;
    // Cooperative task id of the owner, -1 when free. Other tasks read it in lock()
    // to learn that they are not the owner, hence atomic.
    std::atomic<int> owner;
    // Auto-reset cooperative event, signalled exactly while the lock is free.
    unsigned int event;
};

}  // namespace Utils
