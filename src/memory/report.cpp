// The memory report: an allocator's counters by colour and a census of its blocks,
// as text, to a FILE* or a String.
//
// The FILE* form formats into stack buffers and never allocates, so that it can
// run at exit (the ZoUtils.Memory.ReportAtExit key) or from a handler after the
// arena went wrong. Colour names live in a fixed table behind one lock.
#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "memory/census.h"
#include "memory/watch.h"
#include "utils/allocator.h"
#include "utils/result.h"
#include "utils/string.h"

namespace Utils {

namespace {

constexpr unsigned kNamedColors = 256;
constexpr unsigned kNameBytes = 32;
char gColorNames[kNamedColors][kNameBytes];
pthread_mutex_t gColorNamesLock = PTHREAD_MUTEX_INITIALIZER;

constexpr unsigned long kUnknown = 0xFFFFFFFFul;  // "not kept" from an allocator without free counts

// Where the text goes.
class Sink {
public:
    virtual void write(char const* text, unsigned long n) = 0;
    void printf(char const* format, ...) __attribute__((format(printf, 2, 3)));

protected:
    ~Sink() = default;
};

void Sink::printf(char const* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (n < 0) return;
    write(line, static_cast<unsigned long>(n) < sizeof line ? static_cast<unsigned long>(n) : sizeof line - 1);
}

class FileSink final : public Sink {
public:
    explicit FileSink(FILE* f) : f_(f) {}
    void write(char const* text, unsigned long n) override { std::fwrite(text, 1, n, f_); }

private:
    FILE* f_;
};

class StringSink final : public Sink {
public:
    explicit StringSink(String& s) : s_(s) {}
    void write(char const* text, unsigned long n) override { s_.append(text, n); }

private:
    String& s_;
};

void nameOf(unsigned int color, char* out) {
    out[0] = '\0';
    if (color >= kNamedColors) return;
    pthread_mutex_lock(&gColorNamesLock);
    std::memcpy(out, gColorNames[color], kNameBytes);
    pthread_mutex_unlock(&gColorNamesLock);
}

char const* kClassNames[detail::MemoryCensus::kClasses] = {"<= 64 B",  "<= 256 B", "<= 1 KiB", "<= 4 KiB",
                                                            "<= 16 KiB", "<= 64 KiB", "<= 1 MiB", "> 1 MiB"};

void report(Allocator* a, char const* title, Sink& out) {
    if (!a) {
        out.printf("memory report: no allocator\n");
        return;
    }
    detail::MemoryCensus c;
    unsigned int colors = kNamedColors;
    if (a == Allocator::theAllocator()) {
        detail::processCensus(c);
        colors = 64;
    } else if (MemoryAllocator* arena = dynamic_cast<MemoryAllocator*>(a)) {
        arena->census(c);
        colors = 64;
    } else if (BSDAllocator* pages = dynamic_cast<BSDAllocator*>(a)) {
        pages->census(c);
    }
    unsigned long allocated = a->allocatedMemory();
    unsigned long free = a->internalFree();
    bool freeKnown = free != kUnknown;

    out.printf("memory report: %s\n", title && *title ? title : "allocator");
    out.printf("  allocated      %lu bytes\n", allocated);
    if (freeKnown)
        out.printf("  free           %lu bytes\n", free);
    else
        out.printf("  free           unknown (not kept by this allocator)\n");
    if (c.walked) {
        out.printf("  regions        %lu (%lu bytes from the parent)\n", c.regions, c.obtained);
        out.printf("  blocks         %lu busy, %lu free\n", c.busyBlocks, c.freeBlocks);
        out.printf("  largest free   %lu bytes\n", c.largestFree);
        // The share of free memory that a request for the largest free block's
        // size and more could not use: 0 when the free memory is one block.
        double fragmentation = free && freeKnown && c.largestFree <= free
                                   ? 100.0 * (1.0 - static_cast<double>(c.largestFree) / static_cast<double>(free))
                                   : 0.0;
        out.printf("  fragmentation  %.1f %% (1 - largest free / free)\n", fragmentation);
    } else {
        out.printf("  blocks         not walked (this allocator keeps no census)\n");
    }

    out.printf("  colour  name                            allocated           free\n");
    for (unsigned int color = 0; color < colors; ++color) {
        unsigned long used = a->allocatedColorMemory(color);
        unsigned long spare = a->freeColorMemory(color);
        bool spareKnown = spare != kUnknown;
        if (!used && (!spare || !spareKnown)) continue;
        char name[kNameBytes];
        nameOf(color, name);
        if (spareKnown)
            out.printf("  %6u  %-28s %12lu   %12lu\n", color, name, used, spare);
        else
            out.printf("  %6u  %-28s %12lu   %12s\n", color, name, used, "unknown");
    }

    if (c.walked) {
        out.printf("  block size          busy           free\n");
        for (unsigned k = 0; k < detail::MemoryCensus::kClasses; ++k) {
            if (!c.busyByClass[k] && !c.freeByClass[k]) continue;
            out.printf("  %-10s  %12lu   %12lu\n", kClassNames[k], c.busyByClass[k], c.freeByClass[k]);
        }
    }
}

}  // namespace

unsigned int setMemoryColorName(unsigned int color, char const* name) {
    if (color >= kNamedColors) return kResultBadArgument;
    pthread_mutex_lock(&gColorNamesLock);
    char* slot = gColorNames[color];
    std::memset(slot, 0, kNameBytes);
    if (name) std::strncpy(slot, name, kNameBytes - 1);
    pthread_mutex_unlock(&gColorNamesLock);
    return 0;
}

unsigned long memoryColorName(unsigned int color, char* buffer, unsigned long size) {
    char name[kNameBytes];
    nameOf(color, name);
    unsigned long n = std::strlen(name);
    if (buffer && size) {
        unsigned long k = n < size - 1 ? n : size - 1;
        std::memcpy(buffer, name, k);
        buffer[k] = '\0';
    }
    return n;
}

void writeMemoryReport(Allocator* a, FILE* out, char const* title) {
    if (!out) return;
    FileSink sink(out);
    report(a, title, sink);
    std::fflush(out);
}

void writeMemoryReport(Allocator* a, String& out, char const* title) {
    StringSink sink(out);
    report(a, title, sink);
}

}  // namespace Utils
