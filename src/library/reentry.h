// The re-entry guards: every thread-local flag that keeps the library from
// re-entering itself, in one place.
//
// One cycle runs through the library. Raising an error logs it; logging and the
// tables it passes through allocate; an allocation that finds no memory raises:
//
//        raiseError(code) ──────> Log::print ──────> sink, hub and result tables
//             ^    (line in the log)                          │
//             │                                               │ operator new
//             │                                               v
//             └──── raise 0x80000002 <──── HostAllocator <─── process allocator
//                   (no memory)                                (arena lock held)
//
// Four guards cut it, each where one arrow would loop or deadlock:
//
//  - lock depth (heldLockDepth, counted by HeldLock): how many hub and result-table
//    locks the thread holds. Those locks are not re-entrant, so raiseError called
//    under one (an allocation made under the lock failed) only returns the code:
//    no table update, no log line, no listener.
//  - loggingError (LoggingError): set while raiseError logs its line. An error
//    raised meanwhile (the sink itself out of memory) is recorded and notified but
//    not logged, so the log is entered once per raise.
//  - tInside and tPendingOutOfMemory: the process allocator counts the calls under
//    way on the thread; the host allocator, finding no memory while tInside is
//    non-zero, only sets the pending flag, and the raise runs when the outermost
//    allocator call has left (its arena lock released), so that the log and the
//    listeners it reaches may allocate.
//  - tRaisingOutOfMemory: a raise of 0x80000002 that itself runs out of memory
//    does not raise again (raiseOutOfMemory).
//
// The allocator's two flags are read on every allocation: plain __thread bytes in
// the initial-exec model, with no wrapper call and no lazy initialisation.
#pragma once

#include "utils/export.h"

namespace Utils {
namespace detail {

// Number of hub and result-table locks the calling thread holds.
// Exported for the library's tests.
ZO_TEST_API int& heldLockDepth();

// Takes a lock for a scope and counts it in heldLockDepth. Any lock with lock()
// and unlock().
template <class Lock>
class HeldLock {
public:
    explicit HeldLock(Lock& m) : mutex(m) {
        mutex.lock();
        ++heldLockDepth();
    }
    ~HeldLock() {
        --heldLockDepth();
        mutex.unlock();
    }
    HeldLock(HeldLock const&) = delete;
    HeldLock& operator=(HeldLock const&) = delete;

private:
    Lock& mutex;
};

// True while the calling thread is logging the line of a raised error.
bool loggingError();

// Marks the calling thread as logging a raised error for a scope.
class LoggingError {
public:
    LoggingError();
    ~LoggingError();
    LoggingError(LoggingError const&) = delete;
    LoggingError& operator=(LoggingError const&) = delete;
};

// Process allocator calls under way on the thread.
extern __thread unsigned int tInside __attribute__((tls_model("initial-exec")));
// The host found no memory while tInside was non-zero: raise when it drops to 0.
extern __thread bool tPendingOutOfMemory __attribute__((tls_model("initial-exec")));

// Raises 0x80000002 unless the thread is already raising it.
void raiseOutOfMemory();

}  // namespace detail
}  // namespace Utils
