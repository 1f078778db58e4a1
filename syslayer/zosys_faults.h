/*
 * zosys_faults.h - the failure-injection table: the one seam through which tests
 * make the library's allocations and file operations fail.
 *
 * Every place that can fail for lack of memory or of a file asks this table first,
 * naming its site:
 *   ZOIF_FAULT_REGION   ZoIF_MemAllocMin: a region of the process's reserved range
 *                       (what the process allocator grows by)
 *   ZOIF_FAULT_PROCESS  one allocation of the process allocator: every operator new
 *                       of the library (the result and log tables, tree nodes, ...),
 *                       every string buffer, every region a page allocator asks of
 *                       theAllocator(). It fails as real exhaustion does: null, and
 *                       0x80000002 raised once the allocator is left (not while the
 *                       thread is inside the allocator's or the hub's own work)
 *   ZOIF_FAULT_ARENA    one allocation of any arena (MemoryAllocator::alloc): null,
 *                       nothing raised, as a private arena whose parent is empty.
 *                       The process allocator's arenas are arenas too: arm ARENA or
 *                       PROCESS, not both, or one allocation counts twice
 *   ZOIF_FAULT_STRING   one string buffer (a String being made or growing): the
 *                       buffer allocator has no block
 *   ZOIF_FAULT_PARENT   one region a page allocator (BSDAllocator) asks its parent for
 *   ZOIF_FAULT_OPEN     ZoIF_Open: returns -1
 *   ZOIF_FAULT_WRITE    ZoIF_Write: returns ENOSPC, nothing written
 * Under a sanitizer whose operator new replaces the library's, operator new never
 * reaches the process allocator, so PROCESS sees only the library's direct calls.
 *
 * The table holds one countdown over the sites of a set (a mask of the values
 * above): ZoIF_TestFaultArm(sites, n, persist) makes the n-th event from now at any
 * of those sites fail (n = 1: the very next one), and with persist every later one
 * too, until ZoIF_TestFaultDisarm(). Events at other sites are not counted. Calls
 * counts the events seen since arming, Hits the failures injected; both survive
 * disarming, so a test reads them afterwards ("did the run reach the n-th event?").
 * Arming again starts a new count.
 *
 * The hooks cost one relaxed load of ZoIF_TestFaultSites_ when nothing is armed.
 * Arm, disarm and the counters may be used from any thread; a test that counts
 * events keeps other threads from allocating meanwhile (the countdown is one for
 * the process). Nothing here allocates.
 */
#ifndef ZOSYS_FAULTS_H
#define ZOSYS_FAULTS_H

#include "zosys.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ZOIF_FAULT_REGION = 1u << 0,
    ZOIF_FAULT_PROCESS = 1u << 1,
    ZOIF_FAULT_ARENA = 1u << 2,
    ZOIF_FAULT_STRING = 1u << 3,
    ZOIF_FAULT_PARENT = 1u << 4,
    ZOIF_FAULT_OPEN = 1u << 5,
    ZOIF_FAULT_WRITE = 1u << 6
};

/* The armed sites; 0 when nothing is armed. Read by the hooks only. */
ZOSYS_API extern unsigned int ZoIF_TestFaultSites_;

/* The controls: for the tests only, exported by the layer the tests link. */
ZOSYS_TEST_API void ZoIF_TestFaultArm(unsigned int sites, unsigned long n, int persist);
ZOSYS_TEST_API void ZoIF_TestFaultDisarm(void);
ZOSYS_TEST_API unsigned long ZoIF_TestFaultCalls(void);
ZOSYS_TEST_API unsigned long ZoIF_TestFaultHits(void);
/* The slow half of a hook: counts one event at `site` and says whether it fails.
 * Exported with the armed-sites word by every build: the library's hooks use both. */
ZOSYS_API int ZoIF_TestFaultStep(unsigned int site);

/* The hook: nonzero when this event at `site` must fail. */
static inline int ZoIF_Faulty(unsigned int site) {
    return (__atomic_load_n(&ZoIF_TestFaultSites_, __ATOMIC_RELAXED) & site) != 0 && ZoIF_TestFaultStep(site);
}

#ifdef __cplusplus
}
#endif

#endif /* ZOSYS_FAULTS_H */
