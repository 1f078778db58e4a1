// A fresh process over the system layer alone (no library, so nothing else draws
// memory or calls the layer first). test_zosys runs it to observe what only a new
// process shows: the first cooperative id, ZOSYS_MEM_LIMIT, TLS slot exhaustion.
//
//   zosys_probe coop          prints the cooperative ids of main and two threads
//   zosys_probe mem N         commits up to N one-byte regions, prints the outcome
//   zosys_probe tls           allocates 300 slots, prints how many were valid
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "zosys.h"

namespace {

void* recordCoopId(void* out) {
    *static_cast<int*>(out) = ZoIF_CurrentTaskIdCoop();
    return nullptr;
}

int coop() {
    int main1 = ZoIF_CurrentTaskIdCoop();
    int main2 = ZoIF_CurrentTaskIdCoop();
    int a = 0, b = 0;
    pthread_t t;
    pthread_create(&t, nullptr, recordCoopId, &a);
    pthread_join(t, nullptr);
    pthread_create(&t, nullptr, recordCoopId, &b);
    pthread_join(t, nullptr);
    std::printf("main=%d again=%d first-thread=%d second-thread=%d\n", main1, main2, a, b);
    return 0;
}

int mem(unsigned long most) {
    ZoIF_MemInit(0);
    unsigned long regions = 0;
    while (regions < most) {
        unsigned int size = 1;
        if (!ZoIF_MemAllocMin(&size)) break;
        ++regions;
    }
    std::printf("regions=%lu committed=%llu\n", regions, ZoIF_TestMemCommitted());
    return 0;
}

int tls() {
    unsigned valid = 0, invalid = 0, last = 0;
    for (int i = 0; i < 300; ++i) {
        unsigned slot = ZoIF_AllocateTLSCoop();
        if (slot == 0xFFFFFFFFu) {
            ++invalid;
        } else {
            ++valid;
            last = slot;
        }
    }
    int setInvalid = ZoIF_SetTLSCoop(0xFFFFFFFFu, 9);
    std::printf("valid=%u invalid=%u last=%u set-invalid=%s read-invalid=%u\n", valid, invalid, last,
                setInvalid ? "refused" : "accepted", ZoIF_GetTLSCoop(0xFFFFFFFFu));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && !std::strcmp(argv[1], "coop")) return coop();
    if (argc >= 3 && !std::strcmp(argv[1], "mem")) return mem(std::strtoul(argv[2], nullptr, 10));
    if (argc >= 2 && !std::strcmp(argv[1], "tls")) return tls();
    std::fprintf(stderr, "usage: zosys_probe coop | mem N | tls\n");
    return 2;
}
