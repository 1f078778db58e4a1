// Uses the system layer alone, as a C-callable API.
#include <cstdio>

#include <zosys.h>

int main() {
    ZoIF_Handle e = ZoIF_CreateEvent(0, 1);
    int first = ZoIF_WaitEventTimed(e, -1.0);
    int second = ZoIF_WaitEventTimed(e, -1.0);
    ZoIF_DestroyEvent(e);
    std::printf("event %d %d\n", first, second);
    return 0;
}
