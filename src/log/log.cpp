// The log hub: categories, the class table, filtering and dispatch, configuration.
//
// Invariants
//  - Categories are never removed. Category n is categories[n] (the owning list,
//    written under the hub lock) and also entry n of the segmented index
//    catSegments: segment s holds 16 << s entries and is never moved, so readers
//    index it without a lock. An entry and its segment are written before
//    catCount is raised with release order; readers load catCount with acquire
//    order and touch only entries below it.
//  - A category's name never changes after creation; its enabled flag, level and
//    verbosity are atomics, read by the filter without a lock.
//  - Names are unique, so the name index (a hash table filled under the hub lock
//    after the category is published, probed without a lock) gives the same number
//    as a walk of the categories from 0. A name missing from the index is looked up
//    again under the lock before it is created.
//  - classes has exactly four entries from construction on and is never resized,
//    so its array does not move; its line counters are updated atomically.
//  - Every reference count change of a sink made by the hub or by LogClass happens
//    under gSinkLock, and a sink whose count reaches 0 is deleted after the lock is
//    released (its destructor is user code). sinks[c] mirrors classes[c].logger;
//    filter and dispatch read only the mirror.
//  - A line in flight is counted in gActivePrints; a sink setLogger releases is
//    deleted only when no line is in flight (see the graveyard below), so a
//    concurrent setLogger never deletes a sink under a running print, and the
//    print path changes no reference count.
//  - No hub lock is held while a sink runs.
//  - Memory exhaustion while a hub is built (at load, under a system-layer limit
//    below its granule, there is no memory at all): theLog() builds the process
//    hub in static storage when the heap gives nothing, so it is never null; a hub
//    whose class table could not be made has no classes (count 0) and no sinks, so
//    it prints nothing and ignores setLogger; a category that cannot be made gets a
//    number that names nothing. The process hub says so once on standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/held_lock.h"
#include "log/log_internal.h"
#include "misc/constinit.h"
#include "platform/platform.h"
#include "utils/log.h"
#include "zosys.h"

namespace Utils {

// Log::theDefaultLogger_ is defined with the load/unload sequence (startup.cpp).
Log* Log::theLog_ = nullptr;

namespace detail {
int& heldLockDepth() {
    static thread_local int depth = 0;
    return depth;
}
}  // namespace detail

using detail::HeldLock;

namespace {

ZO_CONSTINIT platform::TableLock gSinkLock;    // sink reference counts, theDefaultLogger_, every LogClass::logger
ZO_CONSTINIT platform::TableLock gCreateLock;  // the first theLog()

constexpr unsigned int kLineBuffer = 481;  // 480 characters and the NUL
constexpr unsigned int kLineLimit = 480;

// Under gSinkLock: the default sink, made on first use.
Logger* defaultLoggerLocked() {
    if (!Log::theDefaultLogger_) Log::theDefaultLogger_ = new StdLogger(StdLogger::StdErr);
    return Log::theDefaultLogger_.get();
}

// Stores `l` in `slot` following the counting protocol (reference on the new sink
// first, then the old one dropped). Returns the old sink when that was its last
// reference; the caller deletes it once gSinkLock is released.
Logger* replaceLocked(CountedRef<Logger>& slot, Logger* l) {
    Logger* old = slot.get();
    if (old) old->incRef();  // keeps the assignment below from deleting under the lock
    slot = l;
    return old && old->decRef() == 0 ? old : nullptr;
}

constexpr unsigned int kNoCategory = 0xFFFFFFFFu;

// The name index: an open-addressing table with linear probing. A slot holds
// (hash << 32) | (number + 1), 0 when empty; slots are filled under the hub lock
// and never changed afterwards, so readers probe without a lock. A table is at most
// half full; a fuller one is replaced, and replaced tables are kept (linked by
// `retired`) until the hub is destroyed.
struct NameIndex {
    static unsigned int hash(char const* s) {
        unsigned int h = 2166136261u;  // FNV-1a
        for (; *s; ++s) h = (h ^ static_cast<unsigned char>(*s)) * 16777619u;
        return h;
    }
    static NameIndex* make(unsigned int size, NameIndex* retired) {
        void* raw = ::operator new(sizeof(NameIndex) + size * sizeof(std::atomic<unsigned long>), std::nothrow);
        if (!raw) return nullptr;
        NameIndex* index = static_cast<NameIndex*>(raw);
        index->mask = size - 1;
        index->retired = retired;
        for (unsigned int i = 0; i < size; ++i) new (&index->slots()[i]) std::atomic<unsigned long>(0);
        return index;
    }
    static void release(NameIndex* index) {
        while (index) {
            NameIndex* next = index->retired;
            ::operator delete(index);
            index = next;
        }
    }
    void insert(unsigned int h, unsigned int n) {
        unsigned int i = h & mask;
        while (slots()[i].load(std::memory_order_relaxed)) i = (i + 1) & mask;
        slots()[i].store((static_cast<unsigned long>(h) << 32) | (n + 1ul), std::memory_order_release);
    }

    // The mask + 1 slots follow the header.
    std::atomic<unsigned long>* slots() { return reinterpret_cast<std::atomic<unsigned long>*>(this + 1); }
    std::atomic<unsigned long> const* slots() const {
        return reinterpret_cast<std::atomic<unsigned long> const*>(this + 1);
    }

    unsigned int mask;
    NameIndex* retired;
};

void segmentOf(unsigned int n, unsigned int& segment, unsigned int& offset) {
    unsigned int q = n / 16 + 1;
    segment = 31u - static_cast<unsigned int>(__builtin_clz(q));
    offset = n - 16u * ((1u << segment) - 1u);
}

// Sinks the hub released while lines may still be printing through them. A sink
// whose last reference the hub drops is buried here and deleted once no line is in
// flight anywhere: by setLogger when nothing is printing (at once, in a program
// with one thread), else by the printer that ends the last line in flight. The
// print path thus never touches a sink's (plain) reference count.
//
// Why this is safe: a printer raises gActivePrints before it reads a sink pointer,
// and a sink is buried only after every slot has stopped pointing at it; the
// collector reads gActivePrints after the burial, under gSinkLock. All four
// operations are sequentially consistent, so a printer that read the old pointer is
// seen as active, and a printer that ends sees a burial whose collector saw it
// active.
std::atomic<unsigned long> gActivePrints{0};
std::atomic<bool> gGraveyardUsed{false};

template <class T>
union Undestroyed {
    constexpr Undestroyed() : value() {}
    ~Undestroyed() {}
    T value;
};
Undestroyed<Vector<Logger*>> gGraveyard;  // under gSinkLock; outlives every static destructor

// Under gSinkLock.
void buryLocked(Logger* l) {
    if (!l) return;
    gGraveyard.value.add(l);
    gGraveyardUsed.store(true);
}

// Under gSinkLock: moves the buried sinks to `out` when no line is in flight.
void collectLocked(Vector<Logger*>& out) {
    Vector<Logger*>& buried = gGraveyard.value;
    if (buried.count == 0 || gActivePrints.load() != 0) return;
    out.add(buried.data, buried.count);
    buried.clear();
    gGraveyardUsed.store(false);
}

void deleteAll(Vector<Logger*>& doomed) {
    for (unsigned long i = 0; i < doomed.count; ++i) delete doomed[i];
    doomed.purge();
}

// Marks one line in flight from before its sink is read until its print returns.
class LineInFlight {
public:
    LineInFlight() { gActivePrints.fetch_add(1); }
    ~LineInFlight() {
        if (gActivePrints.fetch_sub(1) != 1 || !gGraveyardUsed.load()) return;
        Vector<Logger*> doomed;
        {
            HeldLock g(gSinkLock);
            collectLocked(doomed);
        }
        deleteAll(doomed);
    }
    LineInFlight(LineInFlight const&) = delete;
    LineInFlight& operator=(LineInFlight const&) = delete;
};

}  // namespace

// ---------------------------------------------------------------------------
// LogCat
// ---------------------------------------------------------------------------

LogCat::LogCat(char const* n) : name(nullptr), enabled(0), level(0), verbosity(0) {
    size_t length = strlen(n) + 1;
    name = new (std::nothrow) char[length];
    if (name) memcpy(name, n, length);
}

LogCat::~LogCat() { delete[] name; }

bool LogCat::operator==(LogCat const& other) const { return strcmp(name, other.name) == 0; }

// ---------------------------------------------------------------------------
// LogClass and its element table
// ---------------------------------------------------------------------------

LogClass::LogClass() : logger(), name(nullptr), count(0) {}

LogClass::LogClass(char const* n) : logger(), name(n), count(0) {
    HeldLock g(gSinkLock);
    logger = defaultLoggerLocked();
}

LogClass::LogClass(LogClass const& other) : logger(), name(other.name), count(other.count) {
    HeldLock g(gSinkLock);
    logger = other.logger;
}

LogClass& LogClass::operator=(LogClass const& other) {
    Logger* doomed;
    {
        HeldLock g(gSinkLock);
        doomed = replaceLocked(logger, other.logger.get());
        name = other.name;
        count = other.count;
    }
    delete doomed;
    return *this;
}

LogClass::~LogClass() {
    if (!logger) return;
    Logger* doomed;
    {
        HeldLock g(gSinkLock);
        doomed = replaceLocked(logger, nullptr);
    }
    delete doomed;
}

// Kept: two classes never compare equal, so a search of the class table finds nothing.
bool LogClass::operator==(LogClass const&) const { return false; }

namespace {
void* logClassAlloc(unsigned long n) { return new (std::nothrow) LogClass[n]; }
// delete[] destroys from the last element to the first.
void logClassFree(void* array) { delete[] static_cast<LogClass*>(array); }
void logClassAssign(void* dst, void const* src) { *static_cast<LogClass*>(dst) = *static_cast<LogClass const*>(src); }
int logClassEquals(void const*, void const*) { return 0; }
void logClassReset(void* element) { *static_cast<LogClass*>(element) = LogClass(); }
}  // namespace

TemplOps const templOpsLogClass = {static_cast<unsigned int>(sizeof(LogClass)),
                                   &logClassAlloc,
                                   &logClassFree,
                                   &logClassAssign,
                                   &logClassEquals,
                                   &logClassReset,
                                   {static_cast<unsigned int>(offsetof(VectorLayout, capacity)),
                                    static_cast<unsigned int>(offsetof(VectorLayout, data)), 0, 0}};

// ---------------------------------------------------------------------------
// The hub
// ---------------------------------------------------------------------------

namespace {
// The process hub's storage when the heap has none to give; never destroyed, like
// a hub on the heap.
alignas(Log) unsigned char gHubStorage[sizeof(Log)];
}  // namespace

Log* Log::makeTheLog() {
    HeldLock g(gCreateLock);
    Log* hub = __atomic_load_n(&theLog_, __ATOMIC_RELAXED);
    if (!hub) {
        hub = new Log;  // null when memory is exhausted (Object's operator new is noexcept)
        if (!hub) hub = ::new (static_cast<void*>(gHubStorage)) Log;
        if (!hub->logger(MessageError))
            fputs("zoutils: no memory for the log hub's sinks: nothing will be logged\n", stderr);
        __atomic_store_n(&theLog_, hub, __ATOMIC_RELEASE);
    }
    return hub;
}

Log::Log()
    : categories(),
      classes(),
      enabled_(0),
      level_(0),
      verbosity_(0),
      catSegments(),
      catCount(0),
      sinks(),
      nameIndex(nullptr),
      lock() {
    classes.sizeTo(4);
    if (hasClasses()) {  // else no memory for the table: every class stays without a sink
        classes[MessageError] = LogClass("error");
        classes[MessageWarning] = LogClass("warning");
        classes[MessageInfo] = LogClass("info");
        classes[MessageDebug] = LogClass("debug");
        for (unsigned int c = 0; c < 4; ++c) sinks[c].store(classes[c].logger.get(), std::memory_order_release);
    }
    enabled_.store(0);
    level_.store(0);
    verbosity_.store(0);
    initialiseFromConfig();
}

Log::~Log() {
    for (unsigned long i = 0; i < categories.count; ++i) delete categories[i];
    classes.purge();
    categories.purge();
    for (auto& segment : catSegments) delete[] segment.load();
    NameIndex::release(static_cast<NameIndex*>(nameIndex.load()));
}

unsigned int Log::findCategory(char const* name) const {
    NameIndex const* index = static_cast<NameIndex const*>(nameIndex.load(std::memory_order_acquire));
    if (!index) return kNoCategory;
    unsigned int h = NameIndex::hash(name);
    for (unsigned int i = h & index->mask;; i = (i + 1) & index->mask) {
        unsigned long slot = index->slots()[i].load(std::memory_order_acquire);
        if (!slot) return kNoCategory;
        if (static_cast<unsigned int>(slot >> 32) != h) continue;
        unsigned int n = static_cast<unsigned int>(slot) - 1;
        if (strcmp(cat(n)->name, name) == 0) return n;
    }
}

// Under the hub lock, once category n is published. Replaces the table by one of
// twice the size when it would be more than half full; the old one stays readable
// (and is freed with the hub) for readers still probing it.
void Log::indexName(unsigned int n) {
    NameIndex* index = static_cast<NameIndex*>(nameIndex.load(std::memory_order_relaxed));
    if (!index || 2ul * (n + 1) > index->mask + 1ul) {
        unsigned int size = index ? 2 * (index->mask + 1) : 32;
        NameIndex* bigger = NameIndex::make(size, index);
        if (!bigger) return;  // lookups fall back to the locked walk
        for (unsigned int k = 0; k < n; ++k) bigger->insert(NameIndex::hash(cat(k)->name), k);
        bigger->insert(NameIndex::hash(cat(n)->name), n);
        nameIndex.store(bigger, std::memory_order_release);
        return;
    }
    index->insert(NameIndex::hash(cat(n)->name), n);
}

// Under the hub lock. Returns catCount (a number that names nothing) when memory
// is exhausted.
unsigned int Log::createCategory(char const* name) {
    unsigned int n = catCount.load(std::memory_order_relaxed);
    unsigned int segment, offset;
    segmentOf(n, segment, offset);
    if (segment >= kCatSegments) return n;
    LogCat** entries = catSegments[segment].load(std::memory_order_relaxed);
    if (!entries) {
        entries = new (std::nothrow) LogCat*[16u << segment]();
        if (!entries) return n;
        catSegments[segment].store(entries, std::memory_order_relaxed);
    }
    LogCat* c = new (std::nothrow) LogCat(name);
    if (!c || !c->name) {
        delete c;
        return n;
    }
    c->level.store(level_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    c->enabled.store(enabled_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    c->verbosity.store(verbosity_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    unsigned long before = categories.count;
    categories.add(c);
    if (categories.count == before) {  // the list could not grow
        delete c;
        return n;
    }
    entries[offset] = c;
    catCount.store(n + 1, std::memory_order_release);
    indexName(n);
    return n;
}

unsigned int Log::getCategory(char const* name) {
    // Names are unique, so the index finds the same number as a walk from 0 would.
    unsigned int n = findCategory(name);
    if (n != kNoCategory) return n;
    HeldLock g(lock);
    n = findCategory(name);  // another thread may have made it meanwhile
    if (n != kNoCategory) return n;
    // The index may have missed a category only when it could not be grown.
    unsigned int count = catCount.load(std::memory_order_relaxed);
    for (n = 0; n < count; ++n)
        if (strcmp(cat(n)->name, name) == 0) return n;
    return createCategory(name);
}

unsigned int Log::getCategory(char const* name, int lvl, bool on, unsigned int verb) {
    unsigned int n = getCategory(name);
    if (n >= catCount.load(std::memory_order_acquire)) return n;
    LogCat* c = cat(n);
    c->level.store(lvl, std::memory_order_relaxed);
    c->enabled.store(on ? 1 : 0, std::memory_order_relaxed);
    c->verbosity.store(verb, std::memory_order_relaxed);
    return n;
}

unsigned int Log::getCategory(char const* name, int lvl, bool on) {
    return getCategory(name, lvl, on, verbosity_.load(std::memory_order_relaxed));
}

char const* Log::getCategory(unsigned int n) const {
    return n < catCount.load(std::memory_order_acquire) ? cat(n)->name : nullptr;
}

void Log::setLevel(int lvl) {
    HeldLock g(lock);
    level_.store(lvl, std::memory_order_relaxed);
    for (unsigned long i = 0; i < categories.count; ++i) categories[i]->level.store(lvl, std::memory_order_relaxed);
}

void Log::setEnabled(bool on) {
    HeldLock g(lock);
    enabled_.store(on ? 1 : 0, std::memory_order_relaxed);
    for (unsigned long i = 0; i < categories.count; ++i)
        categories[i]->enabled.store(on ? 1 : 0, std::memory_order_relaxed);
}

void Log::setVerbosity(unsigned int verb) {
    HeldLock g(lock);
    verbosity_.store(verb, std::memory_order_relaxed);
    for (unsigned long i = 0; i < categories.count; ++i)
        categories[i]->verbosity.store(verb, std::memory_order_relaxed);
}

void Log::setLevel(unsigned int c, int lvl) { cat(c)->level.store(lvl, std::memory_order_relaxed); }
void Log::setEnabled(unsigned int c, bool on) { cat(c)->enabled.store(on ? 1 : 0, std::memory_order_relaxed); }
void Log::setVerbosity(unsigned int c, unsigned int verb) { cat(c)->verbosity.store(verb, std::memory_order_relaxed); }
int Log::level(unsigned int c) const { return cat(c)->level.load(std::memory_order_relaxed); }
bool Log::enabled(unsigned int c) const { return cat(c)->enabled.load(std::memory_order_relaxed) != 0; }
unsigned int Log::verbosity(unsigned int c) const { return cat(c)->verbosity.load(std::memory_order_relaxed); }

// ---------------------------------------------------------------------------
// Sinks of the hub
// ---------------------------------------------------------------------------

Logger* Log::logger(MessageClass c) const { return sinks[c].load(std::memory_order_acquire); }

// A hub without a class table holds no sink: `l` is taken and dropped at once, so
// a sink that nobody else holds is deleted, as a replaced one would be.
void Log::dropUnheldLogger(Logger* l) {
    Logger* doomed = nullptr;
    if (l) {
        HeldLock g(gSinkLock);
        l->incRef();
        if (l->decRef() == 0) doomed = l;
    }
    delete doomed;
}

void Log::setLogger(Logger* l) {
    if (!hasClasses()) {
        dropUnheldLogger(l);
        return;
    }
    Vector<Logger*> doomed;
    {
        HeldLock g(gSinkLock);
        for (unsigned int c = 0; c < 4; ++c) {
            Logger* old = replaceLocked(classes[c].logger, l);
            sinks[c].store(l);
            buryLocked(old);
        }
        collectLocked(doomed);
    }
    deleteAll(doomed);
}

void Log::setLogger(MessageClass c, Logger* l) {
    if (!hasClasses()) {
        dropUnheldLogger(l);
        return;
    }
    Vector<Logger*> doomed;
    {
        HeldLock g(gSinkLock);
        Logger* old = replaceLocked(classes[c].logger, l);
        sinks[c].store(l);
        buryLocked(old);
        collectLocked(doomed);
    }
    deleteAll(doomed);
}

CountedRef<Logger> Log::theDefaultLogger() {
    HeldLock g(gSinkLock);
    return CountedRef<Logger>(defaultLoggerLocked());
}

void detail::dropDefaultLogger() {
    Logger* doomed;
    {
        HeldLock g(gSinkLock);
        doomed = replaceLocked(Log::theDefaultLogger_, nullptr);
    }
    delete doomed;
}

// ---------------------------------------------------------------------------
// Filtering and dispatch
// ---------------------------------------------------------------------------

bool Log::willPrint(MessageClass c, char const* catName, int lvl) { return willPrint(c, getCategory(catName), lvl); }

int Log::vprint(MessageClass c, unsigned int n, int lvl, char const* file, unsigned int line, char const* fmt,
                va_list args) {
    if (!willPrint(c, n, lvl)) return 0;
    LogClass& k = classes[c];
    __atomic_fetch_add(&k.count, 1u, __ATOMIC_RELAXED);
    // Each call builds its line in its own buffer, so concurrent lines never mix.
    char buffer[kLineBuffer];
    memset(buffer, 0, sizeof buffer);
    itemHeader(k.name, cat(n)->name, lvl, file, line, buffer, kLineLimit, verbosity_.load(std::memory_order_relaxed));
    if (fmt) strncat(buffer, fmt, kLineLimit - strlen(buffer));
    LineInFlight inFlight;
    Logger* sink = sinks[c].load();
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
// Configuration
// ---------------------------------------------------------------------------

void Log::enableCategories(char const* list, bool on) {
    size_t length = strlen(list) + 1;
    char* copy = new (std::nothrow) char[length];
    if (!copy) return;
    memcpy(copy, list, length);
    char* rest = nullptr;
    for (char* item = strtok_r(copy, ":", &rest); item; item = strtok_r(nullptr, ":", &rest)) {
        int lvl = level_.load(std::memory_order_relaxed);
        char* hash = strchr(item, '#');
        // Kept: a bare trailing '#' stays part of the name ("x#" names the category x#).
        if (hash && strlen(hash) > 1) {
            *hash = '\0';
            lvl = atoi(hash + 1);
        }
        getCategory(item, lvl, on, verbosity_.load(std::memory_order_relaxed));
    }
    delete[] copy;
}

void Log::initialiseFromConfig() {
    int value;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Level", &value) == 0) setLevel(value);
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Verbosity", &value) == 0) setVerbosity(static_cast<unsigned int>(value));
    unsigned int enabledValue;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Enabled", &value) != 0) {
        setEnabled(false);
        enabledValue = 1;
    } else {
        enabledValue = static_cast<unsigned int>(value);
        if (enabledValue > 2) enabledValue = 0;
        setEnabled(enabledValue == 2);
    }
    char buffer[1024];
    if (ZoIF_GetConfigString("ZoUtils.Log.Categories", buffer, sizeof buffer) == 0)
        enableCategories(buffer, enabledValue != 0);
    if (ZoIF_GetConfigString("ZoUtils.Log.Logger", buffer, sizeof buffer) != 0) return;
    Logger* sink = nullptr;
    if (strcmp(buffer, "file") == 0) {
        bool named = ZoIF_GetConfigString("ZoUtils.Log.Filename", buffer, sizeof buffer) == 0;
        char mode[256];
        FileLogger::OpenMode openMode = FileLogger::Append;
        if (ZoIF_GetConfigString("ZoUtils.Log.FileOpenMode", mode, sizeof mode) == 0 && strcmp(mode, "replace") == 0)
            openMode = FileLogger::Replace;
        if (!named) return;
        sink = new FileLogger(buffer, openMode);
    } else if (strcmp(buffer, "system") == 0) {
        sink = new SystemLogger(nullptr);
    } else if (strcmp(buffer, "null") == 0) {
        sink = new NullLogger;
    }
    // Kept: "stdout" (like any other word) makes no sink; the default one, on
    // standard error, stays.
    if (sink) setLogger(sink);
}

// ---------------------------------------------------------------------------
// Call-site objects
// ---------------------------------------------------------------------------

LineLog::LineLog(MessageClass c, char const* f, unsigned int l, Log* hub)
    : log(hub), line(l), file(f), messageClass(c) {}

int LineLog::print(unsigned int n, int lvl, char const* fmt, ...) {
    Log* hub = log ? log : Log::theLog();
    if (!hub->willPrint(messageClass, n, lvl)) return 0;
    va_list args;
    va_start(args, fmt);
    hub->vprint(messageClass, n, lvl, file, line, fmt, args);
    va_end(args);
    return 1;
}

int LineLog::print(char const* catName, int lvl, char const* fmt, ...) {
    Log* hub = log ? log : Log::theLog();
    if (!hub->willPrint(messageClass, catName, lvl)) return 0;
    va_list args;
    va_start(args, fmt);
    hub->vprint(messageClass, catName, lvl, file, line, fmt, args);
    va_end(args);
    return 1;
}

LineLogLevel::LineLogLevel(MessageClass c, int lvl, char const* f, unsigned int l, Log* hub)
    : log(hub), line(l), file(f), messageClass(c), level(lvl) {}

int LineLogLevel::print(unsigned int n, char const* fmt, ...) {
    Log* hub = log ? log : Log::theLog();
    va_list args;
    va_start(args, fmt);
    int result = hub->vprint(messageClass, n, level, file, line, fmt, args);
    va_end(args);
    return result;
}

int LineLogLevel::print(char const* catName, char const* fmt, ...) {
    Log* hub = log ? log : Log::theLog();
    va_list args;
    va_start(args, fmt);
    int result = hub->vprint(messageClass, catName, level, file, line, fmt, args);
    va_end(args);
    return result;
}

}  // namespace Utils
