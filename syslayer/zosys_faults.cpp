// The failure-injection table (contract in zosys_faults.h).
#include "zosys_faults.h"

#include <atomic>

unsigned int ZoIF_TestFaultSites_ = 0;

namespace {
std::atomic<unsigned long> gCountdown{0};  // events left before the first failure
std::atomic<unsigned long> gCalls{0};
std::atomic<unsigned long> gHits{0};
std::atomic<int> gPersist{0};
}  // namespace

extern "C" {

void ZoIF_TestFaultArm(unsigned int sites, unsigned long n, int persist) {
    __atomic_store_n(&ZoIF_TestFaultSites_, 0u, __ATOMIC_SEQ_CST);
    gCalls.store(0);
    gHits.store(0);
    gPersist.store(persist ? 1 : 0);
    gCountdown.store(n ? n : 1);
    __atomic_store_n(&ZoIF_TestFaultSites_, sites, __ATOMIC_SEQ_CST);
}

void ZoIF_TestFaultDisarm(void) { __atomic_store_n(&ZoIF_TestFaultSites_, 0u, __ATOMIC_SEQ_CST); }

unsigned long ZoIF_TestFaultCalls(void) { return gCalls.load(); }

unsigned long ZoIF_TestFaultHits(void) { return gHits.load(); }

int ZoIF_TestFaultStep(unsigned int site) {
    if (!(__atomic_load_n(&ZoIF_TestFaultSites_, __ATOMIC_ACQUIRE) & site)) return 0;
    gCalls.fetch_add(1);
    // The countdown reaches 1 at the event that fails; a one-shot failure then
    // spends it (0: nothing more fails), a persistent one keeps it at 1.
    unsigned long left = gCountdown.load();
    for (;;) {
        if (left == 0) return 0;
        if (left > 1) {
            if (gCountdown.compare_exchange_weak(left, left - 1)) return 0;
            continue;
        }
        if (gPersist.load() || gCountdown.compare_exchange_weak(left, 0)) break;
    }
    gHits.fetch_add(1);
    return 1;
}

}  // extern "C"
