// The platform layer's out-of-line parts: the sleeping half of the locks, the fork
// and thread-end registrations and the scratch mappings (see platform.h).
#include "platform/platform.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Utils {
namespace platform {

__thread char tLockIdentity __attribute__((tls_model("initial-exec")));

namespace {

void futexWait(std::atomic<int>& word, int value) {
    syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

}  // namespace

// Spins briefly first: the locks guard short critical sections, and a holder on
// another core usually leaves within a few hundred cycles. Then marks the word 2
// ("sleepers") and sleeps until the holder's release wakes it.
void lockWordSlow(std::atomic<int>& state) {
    for (int spin = 0; spin < 64; ++spin) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
        int expected = 0;
        if (state.load(std::memory_order_relaxed) == 0 &&
            state.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return;
    }
    int c = state.exchange(2, std::memory_order_acquire);
    while (c != 0) {
        futexWait(state, 2);
        c = state.exchange(2, std::memory_order_acquire);
    }
}

void wakeWord(std::atomic<int>& state) {
    syscall(SYS_futex, reinterpret_cast<int*>(&state), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool onFork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return pthread_atfork(prepare, parent, child) == 0;
}

static_assert(sizeof(pthread_key_t) <= sizeof(unsigned int), "a thread key fits the slot");

bool ThreadEndSlot::create(void (*atEnd)(void*)) {
    pthread_key_t key;
    if (pthread_key_create(&key, atEnd) != 0) return false;
    key_ = static_cast<unsigned int>(key);
    return true;
}

void ThreadEndSlot::set(void* value) { pthread_setspecific(static_cast<pthread_key_t>(key_), value); }

void* mapScratch(unsigned long bytes) {
    void* p = mmap(nullptr, bytes ? bytes : 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void unmapScratch(void* p, unsigned long bytes) {
    if (p) munmap(p, bytes ? bytes : 1);
}

}  // namespace platform
}  // namespace Utils
