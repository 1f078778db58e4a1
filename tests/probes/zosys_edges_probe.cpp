// A fresh process over the system layer alone, for the edges only a new process
// shows: how the first ZoIF_MemInit reads ZOSYS_MEM_LIMIT, a system that grants no
// address range, and handle objects that the C heap can no longer provide.
// test_zosys_edges runs it.
//
//   zosys_edges_probe mem N       commits up to N one-byte regions, prints the outcome
//   zosys_edges_probe noreserve   first ZoIF_MemInit under an address-space limit
//   zosys_edges_probe noheap      creates and destroys handles with the C heap used up
//   zosys_edges_probe noheapkey   reads ZoEdge.Kept while the C heap gives the reader
//                                 a little more room at each try
//
// After the limits are set nothing here may allocate: lines are formatted on the
// stack and written with write(2).
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <sys/resource.h>
#include <unistd.h>

#include "zosys.h"

namespace {

__attribute__((format(printf, 1, 2))) void say(char const* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (n > 0) {
        ssize_t ignored = write(STDOUT_FILENO, line, static_cast<size_t>(n) < sizeof line ? n : sizeof line - 1);
        (void)ignored;
    }
}

// The process's address-space size now, in bytes (VmSize).
unsigned long addressSpace() {
    FILE* f = std::fopen("/proc/self/status", "re");
    if (!f) return 0;
    char line[256];
    unsigned long kb = 0;
    while (std::fgets(line, sizeof line, f))
        if (!std::strncmp(line, "VmSize:", 7)) kb = std::strtoul(line + 7, nullptr, 10);
    std::fclose(f);
    return kb * 1024;
}

// Grows the stack by `bytes` once, so that it need not grow under the cap below.
__attribute__((noinline)) void growStack(unsigned long bytes) {
    char* room = static_cast<char*>(__builtin_alloca(bytes));
    std::memset(room, 0, bytes);
    __asm__ volatile("" : : "r"(room) : "memory");
}

// No more address space than the process has now: every new mapping, and every
// growth of the C heap, fails.
bool capAddressSpace(rlimit* old) {
    growStack(1ul << 20);
    unsigned long now = addressSpace();
    if (!now || getrlimit(RLIMIT_AS, old) != 0) return false;
    rlimit cap = *old;
    cap.rlim_cur = now;
    return setrlimit(RLIMIT_AS, &cap) == 0;
}

int mem(unsigned long most) {
    ZoIF_MemInit(0);
    unsigned long regions = 0;
    while (regions < most) {
        unsigned int size = 1;
        if (!ZoIF_MemAllocMin(&size)) break;
        ++regions;
    }
    say("regions=%lu committed=%llu\n", regions, ZoIF_TestMemCommitted());
    return 0;
}

int noReserve() {
    rlimit old;
    if (!capAddressSpace(&old)) return 2;
    int init = ZoIF_MemInit(0);
    unsigned int size = 1;
    void* region = ZoIF_MemAllocMin(&size);
    int again = ZoIF_MemInit(0);
    setrlimit(RLIMIT_AS, &old);
    say("init=%s again=%s region=%s size=%u\n", init == ENOMEM ? "ENOMEM" : "other", again == ENOMEM ? "ENOMEM" : "other",
        region ? "some" : "none", size);
    return 0;
}

constexpr int kAll = 1 << 30;

// Blocks of the C heap, kept in lists threaded through the blocks themselves.
struct Block {
    Block* next;
};

// Takes blocks of `size` bytes onto `list`, at most `most` of them, until the heap
// has none left.
Block* take(unsigned long size, Block* list, int most = kAll) {
    for (; most > 0; --most) {
        auto* b = static_cast<Block*>(std::malloc(size));
        if (!b) break;
        b->next = list;
        list = b;
    }
    return list;
}

int count(Block* list) {
    int n = 0;
    for (; list; list = list->next) ++n;
    return n;
}

// Gives `count` blocks of `list` back to the heap (more than the per-thread cache
// keeps, so that calloc, which skips that cache, finds some); returns the rest.
Block* giveBack(Block* list, int count) {
    while (list && count-- > 0) {
        Block* next = list->next;
        std::free(list);
        list = next;
    }
    return list;
}

int noHeap() {
    // Fill the first part of the handle table, so that the next handle needs a new one.
    ZoIF_Handle held[1024];
    for (ZoIF_Handle& h : held) h = ZoIF_CreateMutex();
    for (ZoIF_Handle h : held)
        if (!h) return 2;

    rlimit old;
    if (!capAddressSpace(&old)) return 3;
    Block* events = take(96, nullptr, 32);   // the size class of an event object
    Block* mutexes = take(16, nullptr, 32);  // the size class of a mutex object
    Block* rest = nullptr;
    for (unsigned long size = 1ul << 20; size >= 16; size >>= 1) rest = take(size, rest);
    if (count(events) != 32 || count(mutexes) != 32) {
        setrlimit(RLIMIT_AS, &old);
        say("the heap was too small to start with\n");
        return 4;
    }

    // No memory at all: no object.
    ZoIF_Handle mutex = ZoIF_CreateMutex();
    ZoIF_Handle section = ZoIF_CreateCriticalSection();
    ZoIF_Handle event = ZoIF_CreateEvent(1, 0);
    say("no heap: mutex=%u section=%u event=%u\n", mutex, section, event);

    // A destroy still works although the list of free handles cannot grow; the
    // handle is refused afterwards.
    int destroyed = ZoIF_DestroyMutex(held[0]);
    int enter = ZoIF_EnterMutex(held[0]);
    say("destroy=%d then enter=%s\n", destroyed, enter == EINVAL ? "EINVAL" : "other");

    // Room for the objects themselves but not for the table's next part.
    mutexes = giveBack(mutexes, 16);
    events = giveBack(events, 16);
    mutex = ZoIF_CreateMutex();
    event = ZoIF_CreateEventCoop(0, 1);
    say("no table: mutex=%u event=%u\n", mutex, event);

    // Every handle made before is untouched.
    int working = 0;
    for (int i = 1; i < 1024; ++i) working += ZoIF_EnterMutex(held[i]) == 0 && ZoIF_ExitMutex(held[i]) == 0;
    say("earlier handles working=%d\n", working);

    giveBack(rest, kAll);
    giveBack(events, kAll);
    giveBack(mutexes, kAll);
    setrlimit(RLIMIT_AS, &old);
    mutex = ZoIF_CreateMutex();
    event = ZoIF_CreateEvent(0, 1);
    int usable = mutex && event && ZoIF_EnterMutex(mutex) == 0 && ZoIF_ExitMutex(mutex) == 0 &&
                 ZoIF_WaitEventTimed(event, -1.0) == 1;
    // The indices the failed creates took are free again: numbering goes on.
    say("heap back: %s, %s\n", usable ? "created and usable" : "failed",
        mutex == held[1023] + 1 ? "next number" : "numbers skipped");
    return 0;
}

const char* status(int rc) { return rc == 0 ? "0" : rc == ENOENT ? "ENOENT" : "other"; }

int noHeapKey() {
    rlimit old;
    if (!capAddressSpace(&old)) return 3;
    // The blocks a read asks of the C heap, in its order: a stream (472 bytes), the
    // line (120), the stream's buffer (4096), the list of matching lines (64) and
    // the value's copy (a few bytes). Blocks of each size are kept aside, more than
    // the per-thread cache holds, so that none of that size is left anywhere.
    Block* stream = take(472, nullptr, 8);
    Block* line = take(120, nullptr, 8);
    Block* buffer = take(4096, nullptr, 8);
    Block* matches = take(64, nullptr, 8);
    Block* copies = take(16, nullptr, 8);
    Block* rest = nullptr;
    for (unsigned long size = 1ul << 20; size >= 16; size >>= 1) rest = take(size, rest);
    if (!stream || !line || !buffer || !matches || !copies) {
        setrlimit(RLIMIT_AS, &old);
        say("the heap was too small to start with\n");
        return 4;
    }
    char value[16] = "untouched";

    stream = giveBack(stream, 1);
    line = giveBack(line, 1);
    buffer = giveBack(buffer, 1);
    int rc = ZoIF_GetConfigString("ZoEdge.Kept", value, sizeof value);
    say("no room for the list: %s \"%s\"\n", status(rc), value);

    matches = giveBack(matches, 1);
    rc = ZoIF_GetConfigString("ZoEdge.Kept", value, sizeof value);
    say("no room for the copy: %s \"%s\"\n", status(rc), value);

    copies = giveBack(copies, 1);
    rc = ZoIF_GetConfigString("ZoEdge.Kept", value, sizeof value);
    say("room for both: %s \"%s\"\n", status(rc), value);

    for (Block* list : {stream, line, buffer, matches, copies, rest}) giveBack(list, kAll);
    setrlimit(RLIMIT_AS, &old);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && !std::strcmp(argv[1], "mem")) return mem(std::strtoul(argv[2], nullptr, 10));
    if (argc >= 2 && !std::strcmp(argv[1], "noreserve")) return noReserve();
    if (argc >= 2 && !std::strcmp(argv[1], "noheap")) return noHeap();
    if (argc >= 2 && !std::strcmp(argv[1], "noheapkey")) return noHeapKey();
    std::fprintf(stderr, "usage: zosys_edges_probe mem N | noreserve | noheap | noheapkey\n");
    return 2;
}
