// Logging: one hub per process, named categories, four message classes, pluggable
// sinks, configuration from the system layer's settings.
//
// Code that logs names a category (by number or by name), a message class and a
// small signed level. The hub filters the call, counts it, builds a header and hands
// header plus the caller's format, with the caller's arguments, to the sink of the
// class:
//
//     debug[2]|net|                               verbosity 0
//     debug[2]|net|server.cpp:120|                verbosity 1
//     debug[2]|net|server.cpp:120|12.500000|3|3|  verbosity 2 or more
//                                 time      task cooperative task
//
// The level in brackets is left out when it is negative (the library logs its own
// errors at -3 and warnings at -2). The message follows the last '|' directly and
// the sink adds the line end. Header plus format are cut at 480 characters before
// the arguments are expanded; the file sink cuts the expanded line at 478.
//
// Filter rule: errors, warnings and infos are always printed while their class has
// a sink; a debug line is printed only when its category is enabled and its level is
// at most the category's level.
//
// Threads: every operation here may be called from several threads at once. The
// filter check takes no lock; a line is formatted in a buffer of its own call and
// reaches its sink whole. Sinks are called without any hub lock held, so a sink may
// log, raise errors or replace sinks itself; a sink is never deleted while a line
// is printing through it. Printing changes no reference count. Line counters are
// exact under concurrency. Category creation and the global setters are serialised
// by the hub's lock.
//
// Memory exhaustion: a category that cannot be made gets a number that names
// nothing (getCategory(n) is null, willPrint false); the per-category setters and
// getters must not be given such a number. theLog() is never null: when the heap has
// nothing for the hub (at load under a system-layer memory limit below its granule)
// it is built in static storage. A hub that got no memory for its class table or
// its default sink prints nothing, and the process hub says so once on standard
// error ("zoutils: no memory for the log hub's sinks: nothing will be logged"); a
// hub without a class table also keeps no sink that setLogger hands it (a sink held
// by nobody else is deleted) and reports 0 for every line counter.
//
// Things that surprise (all kept on purpose):
//  - The header and the caller's format are expanded together by the sink, so a '%'
//    in a category name or a source file name is read as a conversion. Keep '%' out
//    of both.
//  - Each category stores a verbosity (verbosity(cat)), but every header is built
//    with the hub's global verbosity.
//  - The configuration word "stdout" keeps the default sink, which writes to
//    standard error.
//  - LogClass values never compare equal, so searching a Vector<LogClass> finds
//    nothing.
//  - Category numbers and names are resolved with getCategory(name), which creates
//    the category on first use; categories are never removed.
#pragma once

#include <atomic>
#include <cstdarg>

#include "utils/export.h"
#include "utils/object.h"
#include "utils/vector.h"

namespace Utils {

// The four message classes; they index the hub's class table.
enum MessageClass {
    MessageError = 0,    // "error": always printed while it has a sink; file and console sinks flush
    MessageWarning = 1,  // "warning": always printed while it has a sink
    MessageInfo = 2,     // "info": always printed while it has a sink
    MessageDebug = 3     // "debug": the only class filtered by category enabled flag and level
};

// ---------------------------------------------------------------------------
// Sinks
// ---------------------------------------------------------------------------

// A sink receives one finished line at a time: `format` is the header followed by
// the caller's format, `args` the caller's arguments. It returns a value that the
// hub hands back to its caller. Sinks are shared by counted references (object.h).
// A sink that needs to read `args` twice must va_copy them first.
class ZO_API Logger : public Object {
public:
    virtual int print(MessageClass c, char const* format, va_list args) ZO_PRINTF(3, 0) = 0;
};

// Discards every line; its result carries no meaning (0).
class ZO_API NullLogger : public Logger {
public:
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0);
};

// Writes lines to a file through the system layer. Each line is expanded into a
// 480-byte buffer of its own call with a limit of 479 (so at most 478 characters),
// then "\n" is appended and the line is written with one ZoIF_Write. Error lines
// are flushed (the flush's result is returned); other lines return the write's
// result. A file that cannot be opened gives an invalid sink that discards every
// line and returns 0; nothing is reported.
class ZO_API FileLogger : public Logger {
public:
    enum OpenMode {
        Replace = 0,  // the file starts empty (created if missing)
        Append = 1    // old lines are kept; new ones are added after them
    };
    FileLogger(char const* path, OpenMode mode);
    ~FileLogger() override;
    bool valid() const;
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0);

private:
    int handle;  // system-layer file handle; -1 when the open failed
};

// Writes lines to standard output (channel 0) or standard error (any other
// channel), each followed by "\n" and written under the stream's lock so that lines
// of several threads do not interleave. Error lines are flushed and the fflush
// result returned; otherwise the result of printing the "\n".
class ZO_API StdLogger : public Logger {
public:
    // Any value other than StdOut selects standard error.
    enum Channel : int { StdOut = 0, StdErr = 1 };
    explicit StdLogger(Channel ch);
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0);

private:
    Channel channel;
};

// Writes lines to the system log (vsyslog) with priority LOG_ERR, LOG_WARNING,
// LOG_INFO or LOG_DEBUG by class (LOG_DEBUG for any other value); the system log
// adds its own line end. The constructor opens the process's one system-log
// connection with openlog(ident, LOG_PID, LOG_USER), ident "zo_logger" when null;
// `ident` must outlive the sink (openlog keeps the pointer). The destructor calls
// closelog(), which closes the connection for every SystemLogger of the process.
class ZO_API SystemLogger : public Logger {
public:
    explicit SystemLogger(char const* ident = nullptr);
    ~SystemLogger() override;
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0);
};

// A placeholder for a sink that shows messages to the user: accepts and discards
// every line, returning 0.
class ZO_API DialogLogger : public Logger {
public:
    DialogLogger();
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0);
};

// ---------------------------------------------------------------------------
// Categories and classes
// ---------------------------------------------------------------------------

// One category: a private copy of its name, enabled flag, highest printed debug
// level, and a verbosity that is stored but not used for headers. Owned by the hub;
// the fields are atomic so that the filter reads them without a lock.
class ZO_API LogCat {
public:
    // Copies `name`; enabled, level and verbosity start at 0.
    explicit LogCat(char const* name);
    ~LogCat();
    LogCat(LogCat const&) = delete;
    LogCat& operator=(LogCat const&) = delete;
    // Equal when the names are equal (strcmp).
    bool operator==(LogCat const& other) const;

    char* name;
    std::atomic<int> enabled;  // a bool kept as a 32-bit word
    std::atomic<int> level;
    std::atomic<unsigned int> verbosity;
};

// One entry of the hub's class table: the class's sink (a counted reference), its
// name (not copied) and its line counter.
class ZO_API LogClass {
public:
    // No sink, no name, count 0.
    LogClass();
    // `name`, count 0, and a reference to the process default sink.
    explicit LogClass(char const* name);
    LogClass(LogClass const& other);
    // Takes a reference on the source's sink first, then drops the old one (deleting
    // it at count 0), then copies all three fields.
    LogClass& operator=(LogClass const& other);
    ~LogClass();
    // Always false: two LogClass values never compare equal, so locate() on a
    // Vector<LogClass> never finds one. Kept on purpose.
    bool operator==(LogClass const& other) const;

    CountedRef<Logger> logger;
    char const* name;
    unsigned int count;  // lines printed in this class since the last reset
};

// The element operations of Vector<LogClass>: allocArray default-constructs,
// freeArray destroys from the last element to the first (dropping sink references),
// assign is LogClass assignment, equals is always 0, reset assigns LogClass().
extern ZO_API TemplOps const templOpsLogClass;
template <>
struct VectorOps<LogClass> {
    static TemplOps const& get() { return templOpsLogClass; }
};

// ---------------------------------------------------------------------------
// The hub
// ---------------------------------------------------------------------------

class Log;

namespace detail {

struct HubAccess;

// The hub's lock-free tables, private to the hub and the library; it is here only
// so that the inline filter (Log::willPrint) reads it without a call. Its owner and
// its invariants are described in src/log/registry.cpp.
class LogIndex {
public:
    constexpr LogIndex() : segments_(), count_(0), sinks_(), names_(nullptr), lockWord_(0) {}
    LogIndex(LogIndex const&) = delete;
    LogIndex& operator=(LogIndex const&) = delete;

    // Number of published categories.
    unsigned int count() const { return count_.load(std::memory_order_acquire); }
    // Category n, n below count().
    LogCat* at(unsigned int n) const {
        unsigned int segment, offset;
        place(n, segment, offset);
        return segments_[segment].load(std::memory_order_relaxed)[offset];
    }
    // The sink of class c (c below 4), null when silenced.
    Logger* sink(unsigned int c, std::memory_order order) const { return sinks_[c].load(order); }

    // Where category n lives: segment s holds the 16 << s numbers from
    // 16 * (2^s - 1) on.
    static void place(unsigned int n, unsigned int& segment, unsigned int& offset) {
        segment = 31u - static_cast<unsigned int>(__builtin_clz(n / 16 + 1));
        offset = n - 16u * ((1u << segment) - 1u);
    }
    static constexpr unsigned int kSegments = 27;

    // The index against itself (segments, count, name table); null when sound,
    // else the first fault. Not for a hub whose categories are being created.
    char const* verify() const;

private:
    friend class Utils::Log;
    friend struct HubAccess;

    std::atomic<LogCat**> segments_[kSegments];
    std::atomic<unsigned int> count_;
    std::atomic<Logger*> sinks_[4];  // mirror of each class's sink
    std::atomic<void*> names_;       // hash index from names to numbers
    mutable std::atomic<int> lockWord_;  // the hub lock: category creation and global setters
};

}  // namespace detail

class ZO_API Log : public Object {
public:
    // The process's hub, built on first call (reading the configuration) and never
    // destroyed; never null (see "Memory exhaustion" above). The library's own
    // load-time initialiser makes the first call.
    static Log* theLog() {
        Log* hub = __atomic_load_n(&theLog_, __ATOMIC_ACQUIRE);
        return hub ? hub : makeTheLog();
    }

    // Builds a hub: the four classes "error", "warning", "info", "debug" on the
    // default sink, categories disabled at level 0 and verbosity 0 by default, then
    // initialiseFromConfig(). Applications normally use theLog() instead.
    Log();
    // Deletes every category, then releases the four sink references.
    ~Log() override;

    // Number of the category `name`, created on first use (numbers are given from 0
    // in order of first use and never reused) with the hub's current defaults.
    unsigned int getCategory(char const* name);
    // Find or create, then set level, enabled flag and verbosity (also on an
    // existing category).
    unsigned int getCategory(char const* name, int level, bool enabled, unsigned int verbosity);
    // As above with the hub's global verbosity.
    unsigned int getCategory(char const* name, int level, bool enabled);
    // Name of category `n`; null when `n` is not below the number of categories.
    // A literal 0 (or 0u) is also a null pointer, so getCategory(0u) is ambiguous:
    // pass a variable.
    char const* getCategory(unsigned int n) const;

    // Set the hub default and the same field of every existing category.
    void setLevel(int level);
    void setEnabled(bool enabled);
    void setVerbosity(unsigned int verbosity);
    // Set one category's field. `cat` must come from getCategory: no range check.
    void setLevel(unsigned int cat, int level);
    void setEnabled(unsigned int cat, bool enabled);
    void setVerbosity(unsigned int cat, unsigned int verbosity);
    // Read one category's field. No range check.
    int level(unsigned int cat) const;
    bool enabled(unsigned int cat) const;
    unsigned int verbosity(unsigned int cat) const;

    // Switches the categories of a ":"-separated list on or off, creating them as
    // needed; "name#3" also sets the level (atoi, so "name#x" gives 0), other items
    // take the hub's default level; every listed category gets the hub's verbosity.
    // Empty items are skipped. An item ending in a bare "#" keeps the "#" as part of
    // its name ("x#" is the category x#).
    void enableCategories(char const* list, bool enabled);

    // Reads the settings once (the constructor calls it), in this order:
    //   ZoUtils.Log.Level       number: setLevel(value)
    //   ZoUtils.Log.Verbosity   number: setVerbosity(value)
    //   ZoUtils.Log.Enabled     0: all off, listed categories off; 1 (also when
    //                           absent): all off, listed on; 2: all on, listed on;
    //                           any value above 2 counts as 0
    //   ZoUtils.Log.Categories  list for enableCategories
    //   ZoUtils.Log.Logger      "file", "system", "null" install that sink for all
    //                           classes; "stdout" keeps the default sink, which
    //                           writes to standard error (kept: the word names the
    //                           console sink, not the stream); anything else (also a
    //                           longer word such as "nullx") keeps the default
    //   ZoUtils.Log.Filename    path of the "file" sink; without it no file sink
    //   ZoUtils.Log.FileOpenMode  "replace" replaces the file, anything else appends
    // A file sink whose file cannot be opened is installed anyway and stays silent.
    void initialiseFromConfig();

    // The sink of class `c`, without taking a reference (null when silenced).
    Logger* logger(MessageClass c) const;
    // Makes `l` the sink of all four classes (null silences them). The hub holds one
    // reference per class; a sink whose last reference the hub drops is deleted at
    // once when no line is being printed, else as soon as the last line in flight
    // (in any thread, the replaced sink's own print included) has returned.
    void setLogger(Logger* l);
    // Makes `l` the sink of class `c` only. `c` must be a MessageClass value.
    void setLogger(MessageClass c, Logger* l);
    // The process default sink, a StdLogger on standard error, made on first call
    // (an empty holder while memory is exhausted).
    // Counts are plain (object.h): the hub changes a sink's count only in setLogger
    // and when a hub is built, never while printing; holders such as the returned
    // one must not be copied or dropped while another thread calls setLogger or
    // builds a hub.
    static CountedRef<Logger> theDefaultLogger();

    // Filters, counts, builds the header and calls the sink of class `c` with the
    // caller's arguments. Returns 0 when filtered out, else the sink's result.
    int print(MessageClass c, unsigned int cat, int level, char const* file, unsigned int line, char const* fmt,
              ...) ZO_PRINTF(7, 8);
    // The same, resolving (and on first use creating) the category by name.
    int print(MessageClass c, char const* catName, int level, char const* file, unsigned int line, char const* fmt,
              ...) ZO_PRINTF(7, 8);
    int vprint(MessageClass c, unsigned int cat, int level, char const* file, unsigned int line, char const* fmt,
               va_list args) ZO_PRINTF(7, 0);
    int vprint(MessageClass c, char const* catName, int level, char const* file, unsigned int line,
               char const* fmt, va_list args) ZO_PRINTF(7, 0);
    // The filter rule: false for an unknown category or a class without sink; true
    // for error, warning and info; for debug, true when the category is enabled and
    // `level` is at most its level. Takes no lock.
    // Inline: a filtered call costs a few loads and no call.
    bool willPrint(MessageClass c, unsigned int cat, int level) const {
        if (cat >= index.count()) return false;
        if (static_cast<unsigned int>(c) > MessageDebug) return false;
        if (!index.sink(c, std::memory_order_relaxed)) return false;
        if (c != MessageDebug) return true;
        LogCat const* k = index.at(cat);
        return k->enabled.load(std::memory_order_relaxed) && level <= k->level.load(std::memory_order_relaxed);
    }
    // The same by name (creating the category on first use).
    bool willPrint(MessageClass c, char const* catName, int level);

    // Sets the four line counters to 0.
    void resetLogStats();
    // Reads the line counters of error, warning, info and debug.
    void logStats(unsigned int& errors, unsigned int& warnings, unsigned int& infos, unsigned int& debugs);

    static Log* theLog_;
    static CountedRef<Logger> theDefaultLogger_;

private:
    static Log* makeTheLog();
    // False when the class table could not be made (no memory): the hub then has no
    // sinks and prints nothing.
    bool hasClasses() const { return classes.count == 4; }
    static void dropUnheldLogger(Logger* l);
    unsigned int createCategory(char const* name);

    Vector<LogCat*> categories;  // owner of the categories; written under the hub lock
    Vector<LogClass> classes;    // exactly four entries, indexed by MessageClass
    std::atomic<int> enabled_;   // default enabled flag for new categories
    std::atomic<int> level_;     // default level for new categories
    std::atomic<unsigned int> verbosity_;  // global verbosity: every header, and the default
    detail::LogIndex index;                // what readers use without a lock

    friend struct detail::HubAccess;
};

// The number of the category "allocator", set when the library is loaded.
ZO_API extern unsigned int allocLogger;

// Writes a line header into `buffer` (see the top of this file): the class name,
// "[level]" when level >= 0, "|category", then by verbosity "|" (0), or
// "|file:line|" (1), or "|file:line|time|task|cooperative task|" (2 or more), the
// time printed with "%lf". Each piece is appended with snprintf limited to `size`
// minus the length so far; as soon as the length exceeds `size` the header stops
// there. Returns the length reached (which can exceed `size` when the header was
// cut, as snprintf counts what it would have written).
ZO_API int itemHeader(char const* className, char const* catName, int level, char const* file, unsigned int line,
                      char* buffer, unsigned int size, unsigned int verbosity);

// ---------------------------------------------------------------------------
// Call-site objects
// ---------------------------------------------------------------------------

// Carries the source position and class of one logging statement. `log` null means
// Log::theLog(). Use ZO_LINELOG(c) to capture __FILE__ and __LINE__.
class ZO_API LineLog {
public:
    LineLog(MessageClass c, char const* file, unsigned int line, Log* log = nullptr);
    // Filter, then print. Returns 1 when the line passed the filter, else 0.
    int print(unsigned int cat, int level, char const* fmt, ...) ZO_PRINTF(4, 5);
    // The same by category name (resolved, and created on first use).
    int print(char const* catName, int level, char const* fmt, ...) ZO_PRINTF(4, 5);

    Log* log;
    unsigned int line;
    char const* file;
    MessageClass messageClass;
};

// As LineLog with a fixed level for every call. Its print returns the sink's result
// (0 when filtered out). Use ZO_LINELOG_LEVEL(c, level) to capture the position.
class ZO_API LineLogLevel {
public:
    LineLogLevel(MessageClass c, int level, char const* file, unsigned int line, Log* log = nullptr);
    int print(unsigned int cat, char const* fmt, ...) ZO_PRINTF(3, 4);
    int print(char const* catName, char const* fmt, ...) ZO_PRINTF(3, 4);

    Log* log;
    unsigned int line;
    char const* file;
    MessageClass messageClass;
    int level;
};

}  // namespace Utils

// Call-site helpers. The category is a number (unsigned int) or a name. The
// arguments of ZO_LOG_DEBUG are evaluated only when the line passes the filter
// (its cat and level expressions are evaluated twice then); the other three always
// print while their class has a sink.
//   ZO_LOG_ERROR(cat, "open %s failed", path);     error class, level -3
//   ZO_LOG_WARNING(cat, "retrying %d", n);         warning class, level -2
//   ZO_LOG_INFO(cat, "ready");                     info class, level -1
//   ZO_LOG_DEBUG(cat, 2, "state %d", s);           debug class at level 2
#define ZO_LINELOG(messageClass) ::Utils::LineLog((messageClass), __FILE__, __LINE__)
#define ZO_LINELOG_LEVEL(messageClass, level) ::Utils::LineLogLevel((messageClass), (level), __FILE__, __LINE__)
#define ZO_LOG_ERROR(cat, ...) ZO_LINELOG_LEVEL(::Utils::MessageError, -3).print((cat), __VA_ARGS__)
#define ZO_LOG_WARNING(cat, ...) ZO_LINELOG_LEVEL(::Utils::MessageWarning, -2).print((cat), __VA_ARGS__)
#define ZO_LOG_INFO(cat, ...) ZO_LINELOG_LEVEL(::Utils::MessageInfo, -1).print((cat), __VA_ARGS__)
#define ZO_LOG_DEBUG(cat, level, ...)                                                       \
    (::Utils::Log::theLog()->willPrint(::Utils::MessageDebug, (cat), (level))                \
         ? ZO_LINELOG(::Utils::MessageDebug).print((cat), (level), __VA_ARGS__)              \
         : 0)
