// The system layer over POSIX (Linux, LP64): tasks, cooperative TLS, locks, events,
// raw memory, files and the clock. Configuration lives in zosys_config.cpp.
//
// Nothing in this file calls operator new: the library replaces it, and the
// memory and TLS functions run while the library's allocator is being built.
// Objects behind handles come from calloc.
#include "zosys.h"
#include "zosys_faults.h"
#include "zosys_diag.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// ---------------------------------------------------------------------------
// Handle table: handle = index + 1, so a handle is never 0 and never -1.
// Chunks are allocated once and never freed, so a lookup needs no lock.
// ---------------------------------------------------------------------------
constexpr unsigned kChunkBits = 10;
constexpr unsigned kChunkSize = 1u << kChunkBits;
constexpr unsigned kMaxChunks = 4096;  // 4M live objects at most

struct HandleTable {
    std::atomic<void**> chunks[kMaxChunks];
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    unsigned next = 0;       // first never-used index
    unsigned* freeList = nullptr;  // indices released by Destroy
    unsigned freeCount = 0, freeCapacity = 0;
};

HandleTable& table() {
    static HandleTable t;
    return t;
}

ZoIF_Handle registerObject(void* object) {
    HandleTable& t = table();
    pthread_mutex_lock(&t.lock);
    unsigned index;
    if (t.freeCount) {
        index = t.freeList[--t.freeCount];
    } else {
        index = t.next;
        if (index >= kMaxChunks * kChunkSize) {
            pthread_mutex_unlock(&t.lock);
            return 0;
        }
        ++t.next;
    }
    unsigned chunk = index >> kChunkBits;
    void** c = t.chunks[chunk].load(std::memory_order_acquire);
    if (!c) {
        c = static_cast<void**>(std::calloc(kChunkSize, sizeof(void*)));
        if (!c) {
            // The index goes back where it came from, so a later create can use it.
            if (index + 1 == t.next)
                --t.next;
            else
                ++t.freeCount;  // still in its free-list slot
            pthread_mutex_unlock(&t.lock);
            return 0;
        }
        t.chunks[chunk].store(c, std::memory_order_release);
    }
    __atomic_store_n(&c[index & (kChunkSize - 1)], object, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&t.lock);
    return index + 1;
}

void* lookup(ZoIF_Handle h) {
    if (h == 0) return nullptr;
    unsigned index = h - 1;
    if (index >= kMaxChunks * kChunkSize) return nullptr;
    void** c = table().chunks[index >> kChunkBits].load(std::memory_order_acquire);
    if (!c) return nullptr;
    return __atomic_load_n(&c[index & (kChunkSize - 1)], __ATOMIC_ACQUIRE);
}

// Unregisters and returns the object, or null for an unknown handle.
void* unregisterObject(ZoIF_Handle h) {
    void* object = lookup(h);
    if (!object) return nullptr;
    HandleTable& t = table();
    unsigned index = h - 1;
    pthread_mutex_lock(&t.lock);
    void** c = t.chunks[index >> kChunkBits].load(std::memory_order_relaxed);
    __atomic_store_n(&c[index & (kChunkSize - 1)], nullptr, __ATOMIC_RELEASE);
    if (t.freeCount == t.freeCapacity) {
        unsigned cap = t.freeCapacity ? t.freeCapacity * 2 : 64;
        void* grown = std::realloc(t.freeList, cap * sizeof(unsigned));
        if (grown) {
            t.freeList = static_cast<unsigned*>(grown);
            t.freeCapacity = cap;
        }
    }
    if (t.freeCount < t.freeCapacity) t.freeList[t.freeCount++] = index;
    pthread_mutex_unlock(&t.lock);
    return object;
}

// ---------------------------------------------------------------------------
// Clock: zero is the moment the layer was loaded.
// ---------------------------------------------------------------------------
double monotonicNow() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double gZeroTime = monotonicNow();

// ---------------------------------------------------------------------------
// Tasks and cooperative TLS. initial-exec TLS: the layer is loaded with the
// program, so reading these never allocates.
// ---------------------------------------------------------------------------
constexpr unsigned kTlsSlots = 256;
constexpr unsigned kNoSlot = 0xFFFFFFFFu;  // handed out once the table is full
std::atomic<unsigned> gNextTlsSlot{0};
std::atomic<int> gNextCoopId{0};

__attribute__((tls_model("initial-exec"))) thread_local int tKernelId = 0;
__attribute__((tls_model("initial-exec"))) thread_local int tCoopId = 0;
__attribute__((tls_model("initial-exec"))) thread_local unsigned tTls[kTlsSlots];

// The kernel id is cached per thread; a forked child runs under a new id, so its
// (only) thread forgets the parent's. The cooperative id stays: it is unique
// within the child too.
void forgetKernelIdInChild() { tKernelId = 0; }
struct ForkHook {
    ForkHook() { pthread_atfork(nullptr, nullptr, forgetKernelIdInChild); }
} gForkHook;

// ---------------------------------------------------------------------------
// Locks: recursive mutexes on one futex word.
//
//   word   0 free, 1 held, 2 held and a thread may sleep on it
//   owner  kernel id of the holder (ZoIF_CurrentTaskId), 0 when free
//   count  the holder's entries, touched only by the holder
//
// An uncontended enter is one compare-and-swap, an uncontended exit one exchange;
// the kernel is asked only to sleep on a held word or to wake a sleeper. A re-entry
// by the holder only counts. Only the holder exits (anyone else gets EPERM, as from a
// recursive pthread mutex). After fork the child's thread runs under a new kernel id,
// so a mutex its parent held stays held by that (absent) owner, as with pthreads.
// ---------------------------------------------------------------------------
struct RecursiveMutex {
    std::atomic<int> word;
    std::atomic<int> owner;
    unsigned count;
};

long futex(std::atomic<int>* word, int op, int value) {
    return syscall(SYS_futex, reinterpret_cast<int*>(word), op | FUTEX_PRIVATE_FLAG, value, nullptr, nullptr, 0);
}

inline int currentKernelId() {
    if (!tKernelId) tKernelId = static_cast<int>(syscall(SYS_gettid));
    return tKernelId;
}

ZoIF_Handle createRecursiveMutex() {
    auto* m = static_cast<RecursiveMutex*>(std::calloc(1, sizeof(RecursiveMutex)));  // all zero: free
    if (!m) return 0;
    ZoIF_Handle h = registerObject(m);
    if (!h) std::free(m);
    return h;
}

int enterMutex(ZoIF_Handle h) {
    auto* m = static_cast<RecursiveMutex*>(lookup(h));
    if (!m) return EINVAL;
    int self = currentKernelId();
    if (m->owner.load(std::memory_order_relaxed) == self) {  // only the holder can read its own id here
        ++m->count;
        return 0;
    }
    int c = 0;
    if (!m->word.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
        // Held: mark the word contended and sleep until an exit frees it; a thread
        // that takes it this way keeps it marked, so its exit wakes the next sleeper.
        if (c != 2) c = m->word.exchange(2, std::memory_order_acquire);
        while (c != 0) {
            futex(&m->word, FUTEX_WAIT, 2);
            c = m->word.exchange(2, std::memory_order_acquire);
        }
    }
    m->owner.store(self, std::memory_order_relaxed);
    m->count = 1;
    return 0;
}

int exitMutex(ZoIF_Handle h) {
    auto* m = static_cast<RecursiveMutex*>(lookup(h));
    if (!m) return EINVAL;
    if (m->owner.load(std::memory_order_relaxed) != currentKernelId()) return EPERM;
    if (--m->count != 0) return 0;
    m->owner.store(0, std::memory_order_relaxed);
    if (m->word.exchange(0, std::memory_order_release) == 2) futex(&m->word, FUTEX_WAKE, 1);
    return 0;
}

int destroyMutex(ZoIF_Handle h) {
    auto* m = static_cast<RecursiveMutex*>(unregisterObject(h));
    if (!m) return EINVAL;
    int rc = m->word.load(std::memory_order_relaxed) != 0 ? EBUSY : 0;  // as pthread_mutex_destroy reports
    std::free(m);
    return rc;
}

// ---------------------------------------------------------------------------
// Events: a flag under a mutex with a condition variable on the monotonic clock.
// ---------------------------------------------------------------------------
//
// The flag is atomic so that the common cases skip the mutex: a wait that finds the
// event signalled takes it with one atomic step, and a set with nobody sleeping only
// stores the flag. waiters counts the threads inside the sleeping part of a wait;
// a set stores the flag before it reads waiters, a waiter counts itself before it
// reads the flag (both sequentially consistent), so either the waiter sees the flag
// or the set sees the waiter and wakes it under the mutex.
struct Event {
    pthread_mutex_t lock;
    pthread_cond_t cond;
    bool manualReset;
    std::atomic<bool> signalled;
    std::atomic<unsigned> waiters;
};

// Takes the signal when there is one: an auto-reset event is consumed (exactly one
// taker per set), a manual-reset one is only read.
inline bool takeSignal(Event* e) {
    if (e->manualReset) return e->signalled.load(std::memory_order_seq_cst);
    bool expected = true;
    return e->signalled.compare_exchange_strong(expected, false, std::memory_order_seq_cst);
}

ZoIF_Handle createEvent(int manualReset, int initiallySignalled) {
    auto* e = static_cast<Event*>(std::calloc(1, sizeof(Event)));
    if (!e) return 0;
    pthread_mutex_init(&e->lock, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&e->cond, &attr);
    pthread_condattr_destroy(&attr);
    e->manualReset = manualReset != 0;
    e->signalled.store(initiallySignalled != 0, std::memory_order_relaxed);
    e->waiters.store(0, std::memory_order_relaxed);
    ZoIF_Handle h = registerObject(e);
    if (!h) {
        pthread_cond_destroy(&e->cond);
        pthread_mutex_destroy(&e->lock);
        std::free(e);
    }
    return h;
}

int setEvent(ZoIF_Handle h) {
    auto* e = static_cast<Event*>(lookup(h));
    if (!e) return EINVAL;
    e->signalled.store(true, std::memory_order_seq_cst);
    if (e->waiters.load(std::memory_order_seq_cst) == 0) return 0;  // nobody sleeps: nobody to wake
    pthread_mutex_lock(&e->lock);
    // A manual-reset event releases every waiter; an auto-reset one releases one.
    if (e->manualReset)
        pthread_cond_broadcast(&e->cond);
    else
        pthread_cond_signal(&e->cond);
    pthread_mutex_unlock(&e->lock);
    return 0;
}

int resetEvent(ZoIF_Handle h) {
    auto* e = static_cast<Event*>(lookup(h));
    if (!e) return EINVAL;
    e->signalled.store(false, std::memory_order_seq_cst);
    return 0;
}

// Waits until signalled or until `deadline` (absolute, monotonic) when given.
// Returns 1 when the event was taken, 0 on time-out.
int waitEvent(Event* e, timespec const* deadline) {
    if (takeSignal(e)) return 1;
    pthread_mutex_lock(&e->lock);
    e->waiters.fetch_add(1, std::memory_order_seq_cst);
    int taken = 1;
    while (!takeSignal(e)) {
        if (!deadline) {
            pthread_cond_wait(&e->cond, &e->lock);
        } else if (pthread_cond_timedwait(&e->cond, &e->lock, deadline) == ETIMEDOUT) {
            taken = takeSignal(e) ? 1 : 0;  // a set that came with the time-out still counts
            break;
        }
    }
    e->waiters.fetch_sub(1, std::memory_order_seq_cst);
    pthread_mutex_unlock(&e->lock);
    return taken;
}

int waitEventUntimed(ZoIF_Handle h) {
    auto* e = static_cast<Event*>(lookup(h));
    if (!e) return EINVAL;
    waitEvent(e, nullptr);
    return 0;
}

int waitEventTimed(ZoIF_Handle h, double seconds) {
    auto* e = static_cast<Event*>(lookup(h));
    if (!e) return 0;
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    if (seconds > 0) {
        // Clamp absurd timeouts to about a century rather than overflow time_t.
        if (seconds > 3.2e9) seconds = 3.2e9;
        long long whole = static_cast<long long>(seconds);
        long long nanos = static_cast<long long>((seconds - static_cast<double>(whole)) * 1e9);
        deadline.tv_sec += whole;
        deadline.tv_nsec += nanos;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
    }
    return waitEvent(e, &deadline);
}

int destroyEvent(ZoIF_Handle h) {
    auto* e = static_cast<Event*>(unregisterObject(h));
    if (!e) return EINVAL;
    pthread_cond_destroy(&e->cond);
    pthread_mutex_destroy(&e->lock);
    std::free(e);
    return 0;
}

// ---------------------------------------------------------------------------
// Raw memory: one reserved range, committed in granules from its low end.
// ---------------------------------------------------------------------------
constexpr unsigned long kGranule = 1ul << 20;  // 1 MiB
struct MemState {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    bool initialised = false;
    char* base = nullptr;        // start of the reserved range
    unsigned long reserved = 0;  // its length
    unsigned long cursor = 0;    // offset of the next piece
    unsigned long long committed = 0;
    unsigned long long limit = 0;  // 0: no limit
    unsigned long pendingGap = 0;
};
MemState gMem;

unsigned long roundUpGranule(unsigned long n) { return (n + kGranule - 1) & ~(kGranule - 1); }

// ZOSYS_MEM_LIMIT: bytes, decimal or 0x hex. Anything else is reported and
// means no limit.
unsigned long long parseLimit(char const* text) {
    if (!text || !*text) return 0;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = 0;
    bool octal = text[0] == '0' && text[1] >= '0' && text[1] <= '9';
    if (text[0] >= '0' && text[0] <= '9')
        v = std::strtoull(text, &end, octal ? 10 : 0);
    if (errno || !end || end == text || *end) {
        zosys::reportOnce("ZOSYS_MEM_LIMIT=\"%s\" is not a byte count (decimal or 0x hex); no limit", text);
        return 0;
    }
    return v;
}

}  // namespace

extern "C" {

int ZoIF_CurrentTaskId(void) {
    if (!tKernelId) tKernelId = static_cast<int>(syscall(SYS_gettid));
    return tKernelId;
}

int ZoIF_CurrentTaskIdCoop(void) {
    if (!tCoopId) tCoopId = gNextCoopId.fetch_add(1, std::memory_order_relaxed) + 1;
    return tCoopId;
}

unsigned int ZoIF_AllocateTLSCoop(void) {
    // Saturates instead of wrapping, so an exhausted table never hands out a
    // slot twice; the invalid slot reads 0 and ignores sets.
    unsigned slot = gNextTlsSlot.load(std::memory_order_relaxed);
    while (slot < kTlsSlots && !gNextTlsSlot.compare_exchange_weak(slot, slot + 1, std::memory_order_relaxed)) {
    }
    return slot < kTlsSlots ? slot : kNoSlot;
}

unsigned int ZoIF_GetTLSCoop(unsigned int slot) { return slot < kTlsSlots ? tTls[slot] : 0; }

int ZoIF_SetTLSCoop(unsigned int slot, unsigned int value) {
    if (slot >= kTlsSlots) return EINVAL;
    tTls[slot] = value;
    return 0;
}

ZoIF_Handle ZoIF_CreateMutex(void) { return createRecursiveMutex(); }
int ZoIF_EnterMutex(ZoIF_Handle h) { return enterMutex(h); }
int ZoIF_ExitMutex(ZoIF_Handle h) { return exitMutex(h); }
int ZoIF_DestroyMutex(ZoIF_Handle h) { return destroyMutex(h); }
ZoIF_Handle ZoIF_CreateCriticalSection(void) { return createRecursiveMutex(); }
int ZoIF_EnterCriticalSection(ZoIF_Handle h) { return enterMutex(h); }
int ZoIF_ExitCriticalSection(ZoIF_Handle h) { return exitMutex(h); }
int ZoIF_DestroyCriticalSection(ZoIF_Handle h) { return destroyMutex(h); }

ZoIF_Handle ZoIF_CreateEvent(int manualReset, int initiallySignalled) {
    return createEvent(manualReset, initiallySignalled);
}
int ZoIF_SetEvent(ZoIF_Handle h) { return setEvent(h); }
int ZoIF_ResetEvent(ZoIF_Handle h) { return resetEvent(h); }
int ZoIF_WaitEvent(ZoIF_Handle h) { return waitEventUntimed(h); }
int ZoIF_WaitEventTimed(ZoIF_Handle h, double seconds) { return waitEventTimed(h, seconds); }
int ZoIF_DestroyEvent(ZoIF_Handle h) { return destroyEvent(h); }
ZoIF_Handle ZoIF_CreateEventCoop(int manualReset, int initiallySignalled) {
    return createEvent(manualReset, initiallySignalled);
}
int ZoIF_SetEventCoop(ZoIF_Handle h) { return setEvent(h); }
int ZoIF_ResetEventCoop(ZoIF_Handle h) { return resetEvent(h); }
int ZoIF_WaitEventCoop(ZoIF_Handle h) { return waitEventUntimed(h); }
int ZoIF_WaitEventTimedCoop(ZoIF_Handle h, double seconds) { return waitEventTimed(h, seconds); }
int ZoIF_DestroyEventCoop(ZoIF_Handle h) { return destroyEvent(h); }

int ZoIF_MemInit(int) {
    pthread_mutex_lock(&gMem.lock);
    if (!gMem.initialised) {
        gMem.initialised = true;
        char const* limitText = secure_getenv("ZOSYS_MEM_LIMIT");
        gMem.limit = parseLimit(limitText);
        // Memory is committed in whole granules, so such a limit admits none.
        if (gMem.limit != 0 && gMem.limit < kGranule)
            zosys::reportOnce("ZOSYS_MEM_LIMIT=\"%s\" (%llu bytes) is below the 1 MiB granule: no memory can be handed out",
                              limitText, gMem.limit);
        // Reserve as much address space as the system grants, from 64 GiB down.
        for (unsigned long size = 64ul << 30; size >= (64ul << 20); size >>= 1) {
            void* p = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            if (p != MAP_FAILED) {
                gMem.base = static_cast<char*>(p);
                gMem.reserved = size;
                break;
            }
        }
    }
    pthread_mutex_unlock(&gMem.lock);
    return gMem.base ? 0 : ENOMEM;
}

void* ZoIF_MemAllocMin(unsigned int* size) {
    if (!size || ZoIF_Faulty(ZOIF_FAULT_REGION)) return nullptr;
    ZoIF_MemInit(0);
    pthread_mutex_lock(&gMem.lock);
    void* result = nullptr;
    unsigned long want = roundUpGranule(*size ? *size : 1);
    unsigned long start = gMem.cursor + gMem.pendingGap;
    bool fits = gMem.base && want <= 0xFFFFFFFFul && start + want <= gMem.reserved &&
                (gMem.limit == 0 || gMem.committed + want <= gMem.limit);
    if (fits && mprotect(gMem.base + start, want, PROT_READ | PROT_WRITE) == 0) {
        result = gMem.base + start;
        gMem.cursor = start + want;
        gMem.pendingGap = 0;
        gMem.committed += want;
        *size = static_cast<unsigned int>(want);
    }
    pthread_mutex_unlock(&gMem.lock);
    return result;
}

void ZoIF_TestSetMemLimit(unsigned long long bytes) {
    ZoIF_MemInit(0);  // so that a later first init cannot replace this limit with the environment's
    pthread_mutex_lock(&gMem.lock);
    gMem.limit = bytes;
    pthread_mutex_unlock(&gMem.lock);
}

void ZoIF_TestLeaveMemGap(unsigned int bytes) {
    pthread_mutex_lock(&gMem.lock);
    gMem.pendingGap = roundUpGranule(bytes ? bytes : 1);
    pthread_mutex_unlock(&gMem.lock);
}

unsigned long long ZoIF_TestMemCommitted(void) {
    pthread_mutex_lock(&gMem.lock);
    unsigned long long c = gMem.committed;
    pthread_mutex_unlock(&gMem.lock);
    return c;
}

int ZoIF_Open(char const* path, int flags, int mode) {
    if (!path || ZoIF_Faulty(ZOIF_FAULT_OPEN)) return -1;
    int oflags = O_WRONLY | O_CLOEXEC;
    if (flags == 2)
        oflags |= O_TRUNC;
    else if (flags == 4)
        oflags |= O_APPEND;
    else
        return -1;
    if (mode == 1) oflags |= O_CREAT;
    int fd;
    do {
        fd = open(path, oflags, 0640);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? -1 : fd;
}

int ZoIF_Write(int file, void const* bytes, unsigned int count) {
    if (file < 0) return EBADF;
    if (ZoIF_Faulty(ZOIF_FAULT_WRITE)) return ENOSPC;
    auto const* p = static_cast<char const*>(bytes);
    while (count > 0) {
        ssize_t n = write(file, p, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (n == 0) return EIO;  // no progress: give up rather than spin
        p += n;
        count -= static_cast<unsigned int>(n);
    }
    return 0;
}

// Writes go straight to the kernel, so there is nothing of ours to flush: the
// data is already visible to every reader of the file.
int ZoIF_Flush(int file) { return file < 0 ? EBADF : 0; }

int ZoIF_Close(int file) {
    if (file < 0) return EBADF;
    return close(file) == 0 ? 0 : errno;
}

double ZoIF_ZeroBasedTime(void) { return monotonicNow() - gZeroTime; }

}  // extern "C"
