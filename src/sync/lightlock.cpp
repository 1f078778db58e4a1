// ZotLightBLock: a recursive lock from one auto-reset event and an owner/count pair.
//
// Invariants (between operations):
//  - owner == -1  <=>  the lock is free  <=>  the event is signalled (or about to
//    be: unlock() frees the owner before it sets the event).
//  - While owned, count >= 1 is the number of lock() calls of the owner not yet
//    matched by unlock().
//  - Only the owner writes count and owner, with one exception: the task that
//    consumed the event's signal writes them before anything else can see it as
//    owner. So a task reading owner == its own id is the owner: no other task can
//    store that id, and its own last store (-1 at the final unlock) is what it reads
//    back.
//
// Memory order: every access is relaxed. Ownership passes from one task to the next
// only through the event (set by the final unlock, consumed by the next lock), whose
// system-layer synchronisation orders the old owner's writes, including those to the
// data the lock protects, before the new owner's reads. The atomics are there only so
// that a non-owner's read of `owner` in lock() is not a data race.
#include "utils/lock.h"

#include "zosys.h"

namespace Utils {

void ZotLightBLock::init() {
    owner.store(-1, std::memory_order_relaxed);
    count.store(0, std::memory_order_relaxed);
    event = ZoIF_CreateEventCoop(0, 1);
}

ZotLightBLock::~ZotLightBLock() { ZoIF_DestroyEventCoop(event); }

void ZotLightBLock::lock() {
    int id = ZoIF_CurrentTaskIdCoop();
    if (owner.load(std::memory_order_relaxed) == id) {
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return;
    }
    ZoIF_WaitEventCoop(event);  // consumes the signal: we are the one task let through
    owner.store(id, std::memory_order_relaxed);
    count.store(1, std::memory_order_relaxed);
}

void ZotLightBLock::unlock() {
    int left = count.load(std::memory_order_relaxed) - 1;
    count.store(left, std::memory_order_relaxed);
    if (left != 0) return;
    owner.store(-1, std::memory_order_relaxed);
    ZoIF_SetEventCoop(event);
}

int ZotLightBLock::ownerTask() const { return owner.load(std::memory_order_relaxed); }
int ZotLightBLock::depth() const { return count.load(std::memory_order_relaxed); }

}  // namespace Utils
