// Diagnostics on standard error, each distinct line at most once when asked.
#include "zosys_diag.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <pthread.h>
#include <unistd.h>

namespace zosys {
namespace {

// Lines already printed, by 64-bit FNV-1a hash. When the table is full, further
// distinct lines are still printed (repeats of those are then possible): losing a
// diagnostic would be worse than repeating one.
constexpr unsigned kSeenCapacity = 1024;
struct Seen {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    unsigned count = 0;
    unsigned long long hashes[kSeenCapacity] = {};
};
Seen gSeen;

unsigned long long hashOf(char const* text, unsigned long length) {
    unsigned long long h = 14695981039346656037ull;
    for (unsigned long i = 0; i < length; ++i) {
        h ^= static_cast<unsigned char>(text[i]);
        h *= 1099511628211ull;
    }
    return h;
}

// Formats "zosys: <message>\n" into `line`, cutting over-long messages.
__attribute__((format(printf, 3, 0))) unsigned long formatLine(char* line, unsigned long capacity,
                                                             char const* format, va_list args) {
    int prefix = std::snprintf(line, capacity, "zosys: ");
    int n = std::vsnprintf(line + prefix, capacity - prefix - 1, format, args);
    unsigned long length = prefix + (n < 0 ? 0 : static_cast<unsigned long>(n));
    if (length > capacity - 2) length = capacity - 2;
    line[length++] = '\n';
    line[length] = '\0';
    return length;
}

void writeLine(char const* line, unsigned long length) {
    while (length > 0) {
        ssize_t n = write(STDERR_FILENO, line, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        line += n;
        length -= static_cast<unsigned long>(n);
    }
}

}  // namespace

bool reportOnce(char const* format, ...) {
    char line[2048];
    va_list args;
    va_start(args, format);
    unsigned long length = formatLine(line, sizeof line, format, args);
    va_end(args);

    unsigned long long h = hashOf(line, length);
    pthread_mutex_lock(&gSeen.lock);
    bool seen = false;
    for (unsigned i = 0; i < gSeen.count && !seen; ++i) seen = gSeen.hashes[i] == h;
    if (!seen && gSeen.count < kSeenCapacity) gSeen.hashes[gSeen.count++] = h;
    pthread_mutex_unlock(&gSeen.lock);
    if (!seen) writeLine(line, length);
    return !seen;
}

void report(char const* format, ...) {
    char line[2048];
    va_list args;
    va_start(args, format);
    unsigned long length = formatLine(line, sizeof line, format, args);
    va_end(args);
    writeLine(line, length);
}

}  // namespace zosys
