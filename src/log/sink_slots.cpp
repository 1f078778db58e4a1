// The sink slots of the log hub: LogClass (a class's sink reference, name and line
// counter) and its element table, the process default sink, setLogger, the
// readers' mirror of each class's sink (LogIndex::sinks_) and the graveyard where
// replaced sinks wait until no line prints through them.
//
// Invariants (checked by detail::verifyHub)
//  - Every reference count change of a sink made by the hub or by LogClass happens
//    under sinkLock, and a sink whose count reaches 0 is deleted after the lock is
//    released (its destructor is user code).
//  - The mirror: index.sink(c) == classes[c].logger for each of the four classes,
//    both written under sinkLock; filter and dispatch read only the mirror. A hub
//    without a class table has four null mirrors.
//  - A line in flight is counted in activePrints; a sink that setLogger releases
//    is deleted only when no line is in flight (the graveyard below), so a
//    concurrent setLogger never deletes a sink under a running print, and the
//    print path changes no reference count.
//  - No lock of this file is held while a sink runs.
#include <cstddef>
#include <new>

#include "log/hub_internal.h"
#include "misc/constinit.h"

namespace Utils {

using detail::SinkHold;

namespace detail {
ZO_CONSTINIT platform::TableLock sinkLock;
std::atomic<unsigned long> activePrints{0};
std::atomic<bool> graveyardUsed{false};
}  // namespace detail

namespace {

using detail::activePrints;
using detail::graveyardUsed;
using detail::sinkLock;

// Under sinkLock: the default sink, made on first use.
Logger* defaultLoggerLocked() {
    if (!Log::theDefaultLogger_) Log::theDefaultLogger_ = new StdLogger(StdLogger::StdErr);
    return Log::theDefaultLogger_.get();
}

// Stores `l` in `slot` following the counting protocol (reference on the new sink
// first, then the old one dropped). Returns the old sink when that was its last
// reference; the caller deletes it once sinkLock is released.
Logger* replaceLocked(CountedRef<Logger>& slot, Logger* l) {
    Logger* old = slot.get();
    if (old) old->incRef();  // keeps the assignment below from deleting under the lock
    slot = l;
    return old && old->decRef() == 0 ? old : nullptr;
}

// Sinks the hub released while lines may still be printing through them. A sink
// whose last reference the hub drops is buried here and deleted once no line is in
// flight anywhere: by setLogger when nothing is printing (at once, in a program
// with one thread), else by the printer that ends the last line in flight. The
// print path thus never touches a sink's (plain) reference count.
//
// Why this is safe: a printer raises activePrints before it reads a sink pointer,
// and a sink is buried only after every slot has stopped pointing at it; the
// collector reads activePrints after the burial, under sinkLock. All four
// operations are sequentially consistent, so a printer that read the old pointer is
// seen as active, and a printer that ends sees a burial whose collector saw it
// active.
template <class T>
union Undestroyed {
    constexpr Undestroyed() : value() {}
    ~Undestroyed() {}
    T value;
};
Undestroyed<Vector<Logger*>> gGraveyard;  // under sinkLock; outlives every static destructor

// Under sinkLock.
void buryLocked(Logger* l) {
    if (!l) return;
    gGraveyard.value.add(l);
    graveyardUsed.store(true);
}

// Under sinkLock: moves the buried sinks to `out` when no line is in flight.
void collectLocked(Vector<Logger*>& out) {
    Vector<Logger*>& buried = gGraveyard.value;
    if (buried.count == 0 || activePrints.load() != 0) return;
    out.add(buried.data, buried.count);
    buried.clear();
    graveyardUsed.store(false);
}

void deleteAll(Vector<Logger*>& doomed) {
    for (unsigned long i = 0; i < doomed.count; ++i) delete doomed[i];
    doomed.purge();
}

}  // namespace

void detail::collectGraveyard() {
    Vector<Logger*> doomed;
    {
        SinkHold g(sinkLock);
        collectLocked(doomed);
    }
    deleteAll(doomed);
}

// ---------------------------------------------------------------------------
// LogClass and its element table
// ---------------------------------------------------------------------------

LogClass::LogClass() : logger(), name(nullptr), count(0) {}

LogClass::LogClass(char const* n) : logger(), name(n), count(0) {
    SinkHold g(sinkLock);
    logger = defaultLoggerLocked();
}

LogClass::LogClass(LogClass const& other) : logger(), name(other.name), count(other.count) {
    SinkHold g(sinkLock);
    logger = other.logger;
}

LogClass& LogClass::operator=(LogClass const& other) {
    Logger* doomed;
    {
        SinkHold g(sinkLock);
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
        SinkHold g(sinkLock);
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
// The hub's sinks
// ---------------------------------------------------------------------------

Logger* Log::logger(MessageClass c) const { return index.sink(c, std::memory_order_acquire); }

// A hub without a class table holds no sink: `l` is taken and dropped at once, so
// a sink that nobody else holds is deleted, as a replaced one would be.
void Log::dropUnheldLogger(Logger* l) {
    Logger* doomed = nullptr;
    if (l) {
        SinkHold g(sinkLock);
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
        SinkHold g(sinkLock);
        for (unsigned int c = 0; c < 4; ++c) {
            Logger* old = replaceLocked(classes[c].logger, l);
            index.sinks_[c].store(l);
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
        SinkHold g(sinkLock);
        Logger* old = replaceLocked(classes[c].logger, l);
        index.sinks_[c].store(l);
        buryLocked(old);
        collectLocked(doomed);
    }
    deleteAll(doomed);
}

CountedRef<Logger> Log::theDefaultLogger() {
    SinkHold g(sinkLock);
    return CountedRef<Logger>(defaultLoggerLocked());
}

void detail::dropDefaultLogger() {
    Logger* doomed;
    {
        SinkHold g(sinkLock);
        doomed = replaceLocked(Log::theDefaultLogger_, nullptr);
    }
    delete doomed;
}

}  // namespace Utils
