// The locks of the log hub and the result tables, with a per-thread count of how
// many of them the thread holds.
//
// Lock order: these locks are outside the process allocator's lock (they may
// allocate while held; the allocator never calls back into them while holding its
// own). None is held while a sink or a listener runs.
//
// The count exists for one reason: an allocation made under one of these locks can
// fail, and the process allocator then raises 0x80000002 on the same thread.
// raiseError must not take the same locks again (they are not recursive) nor log;
// it sees a non-zero count and only returns the code.
#pragma once

#include "utils/export.h"

namespace Utils {
namespace detail {

// Number of hub and result-table locks the calling thread holds.
// Exported for the library's tests.
ZO_TEST_API int& heldLockDepth();

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

}  // namespace detail
}  // namespace Utils
