// Filtering and dispatch in the log hub: print and vprint (filter, count, build the
// line, hand it to the sink), the line counters of the class table, and the
// call-site objects LineLog and LineLogLevel.
//
// Invariants
//  - A line is built in a buffer of its own call (481 bytes: 480 characters and the
//    NUL), so concurrent lines never mix; header and caller's format are cut at 480
//    before the sink expands the arguments.
//  - The sink is read from the readers' mirror only, after the line is marked in
//    flight (detail::LineInFlight), so setLogger never deletes it under the print.
//  - classes[c].count is changed only atomically, one per line that passed the
//    filter; the class table never moves (four entries from construction on).
#include <cstring>

#include "log/hub_internal.h"

namespace Utils {

namespace {
constexpr unsigned int kLineBuffer = 481;  // 480 characters and the NUL
constexpr unsigned int kLineLimit = 480;
}  // namespace

bool Log::willPrint(MessageClass c, char const* catName, int lvl) { return willPrint(c, getCategory(catName), lvl); }

int Log::vprint(MessageClass c, unsigned int n, int lvl, char const* file, unsigned int line, char const* fmt,
                va_list args) {
    if (!willPrint(c, n, lvl)) return 0;
    LogClass& k = classes[c];
    __atomic_fetch_add(&k.count, 1u, __ATOMIC_RELAXED);
    char buffer[kLineBuffer];
    memset(buffer, 0, sizeof buffer);
    itemHeader(k.name, index.at(n)->name, lvl, file, line, buffer, kLineLimit,
               verbosity_.load(std::memory_order_relaxed));
    if (fmt) strncat(buffer, fmt, kLineLimit - strlen(buffer));
    detail::LineInFlight inFlight;
    Logger* sink = index.sink(c, std::memory_order_seq_cst);
    if (!sink) return 0;  // silenced after the filter ran
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    // The header and the caller's format are expanded together by the sink.
    return sink->print(c, buffer, args);
#pragma GCC diagnostic pop
}

int Log::vprint(MessageClass c, char const* catName, int lvl, char const* file, unsigned int line, char const* fmt,
                va_list args) {
    return vprint(c, getCategory(catName), lvl, file, line, fmt, args);
}

int Log::print(MessageClass c, unsigned int n, int lvl, char const* file, unsigned int line, char const* fmt, ...) {
    if (!willPrint(c, n, lvl)) return 0;
    va_list args;
    va_start(args, fmt);
    int result = vprint(c, n, lvl, file, line, fmt, args);
    va_end(args);
    return result;
}

int Log::print(MessageClass c, char const* catName, int lvl, char const* file, unsigned int line, char const* fmt,
               ...) {
    va_list args;
    va_start(args, fmt);
    int result = vprint(c, getCategory(catName), lvl, file, line, fmt, args);
    va_end(args);
    return result;
}

void Log::resetLogStats() {
    if (!hasClasses()) return;
    for (unsigned int c = 0; c < 4; ++c) __atomic_store_n(&classes[c].count, 0u, __ATOMIC_RELAXED);
}

void Log::logStats(unsigned int& errors, unsigned int& warnings, unsigned int& infos, unsigned int& debugs) {
    if (!hasClasses()) {
        errors = warnings = infos = debugs = 0;
        return;
    }
    errors = __atomic_load_n(&classes[0].count, __ATOMIC_RELAXED);
    warnings = __atomic_load_n(&classes[1].count, __ATOMIC_RELAXED);
    infos = __atomic_load_n(&classes[2].count, __ATOMIC_RELAXED);
    debugs = __atomic_load_n(&classes[3].count, __ATOMIC_RELAXED);
}

// ---------------------------------------------------------------------------
// Call-site objects
// ---------------------------------------------------------------------------

namespace {

// The body of every call-site print: `cat` is a number or a name. `filtered` asks
// for LineLog's answer (1 when the line passed the filter, else 0) instead of the
// sink's result.
template <class Category>
int printAtSite(Log* given, MessageClass c, Category cat, int lvl, char const* file, unsigned int line,
                char const* fmt, va_list args, bool filtered) ZO_PRINTF(7, 0);
template <class Category>
int printAtSite(Log* given, MessageClass c, Category cat, int lvl, char const* file, unsigned int line,
                char const* fmt, va_list args, bool filtered) {
    Log* hub = given ? given : Log::theLog();
    if (!filtered) return hub->vprint(c, cat, lvl, file, line, fmt, args);
    if (!hub->willPrint(c, cat, lvl)) return 0;
    hub->vprint(c, cat, lvl, file, line, fmt, args);
    return 1;
}

}  // namespace

#define ZO_PRINT_AT_SITE(category, lvl, filtered)                                                 \
    va_list args;                                                                                 \
    va_start(args, fmt);                                                                          \
    int result = printAtSite(log, messageClass, category, lvl, file, line, fmt, args, filtered);  \
    va_end(args);                                                                                 \
    return result

LineLog::LineLog(MessageClass c, char const* f, unsigned int l, Log* hub)
    : log(hub), line(l), file(f), messageClass(c) {}

int LineLog::print(unsigned int n, int lvl, char const* fmt, ...) { ZO_PRINT_AT_SITE(n, lvl, true); }
int LineLog::print(char const* catName, int lvl, char const* fmt, ...) { ZO_PRINT_AT_SITE(catName, lvl, true); }

LineLogLevel::LineLogLevel(MessageClass c, int lvl, char const* f, unsigned int l, Log* hub)
    : log(hub), line(l), file(f), messageClass(c), level(lvl) {}

int LineLogLevel::print(unsigned int n, char const* fmt, ...) { ZO_PRINT_AT_SITE(n, level, false); }
int LineLogLevel::print(char const* catName, char const* fmt, ...) { ZO_PRINT_AT_SITE(catName, level, false); }

#undef ZO_PRINT_AT_SITE

}  // namespace Utils
