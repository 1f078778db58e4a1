// The log hub as a whole: the process hub (theLog), construction and destruction,
// and the verifier that checks the hub's tables against each other. Each table
// belongs to one file of src/log (see hub_internal.h); this file only puts them
// together.
//
// Invariants
//  - theLog_ is written once, under gCreateLock, with release order, after the hub
//    is fully built; theLog() reads it with acquire order and builds it when null.
//  - Memory exhaustion while a hub is built (at load, under a system-layer limit
//    below its granule, there is no memory at all): theLog() builds the process
//    hub in static storage when the heap gives nothing, so it is never null; a hub
//    whose class table could not be made has no classes (count 0) and no sinks, so
//    it prints nothing and ignores setLogger; a category that cannot be made gets a
//    number that names nothing. The process hub says so once on standard error.
#include <cstdio>
#include <cstring>
#include <new>

#include "log/hub_internal.h"
#include "misc/constinit.h"

namespace Utils {

using detail::HubAccess;

// Log::theDefaultLogger_ is defined with the library's load/unload sequence
// (library/startup.cpp).
Log* Log::theLog_ = nullptr;

namespace {

ZO_CONSTINIT platform::TableLock gCreateLock;  // the first theLog()

// The process hub's storage when the heap has none to give; never destroyed, like
// a hub on the heap.
alignas(Log) unsigned char gHubStorage[sizeof(Log)];

}  // namespace

Log* Log::makeTheLog() {
    detail::HeldLock<platform::TableLock> g(gCreateLock);
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

Log::Log() : categories(), classes(), enabled_(0), level_(0), verbosity_(0), index() {
    classes.sizeTo(4);
    if (hasClasses()) {  // else no memory for the table: every class stays without a sink
        classes[MessageError] = LogClass("error");
        classes[MessageWarning] = LogClass("warning");
        classes[MessageInfo] = LogClass("info");
        classes[MessageDebug] = LogClass("debug");
        for (unsigned int c = 0; c < 4; ++c)
            index.sinks_[c].store(classes[c].logger.get(), std::memory_order_release);
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
    HubAccess::releaseIndex(index);
}

// ---------------------------------------------------------------------------
// The verifier
// ---------------------------------------------------------------------------

char const* detail::HubAccess::verifyHub(Log const& hub) {
    {
        HubHold g(hub);
        LogIndex const& index = hub.index;
        if (index.count() != hub.categories.count) return "log hub: the index count is not the number of categories";
        for (unsigned int n = 0; n < index.count(); ++n)
            if (index.at(n) != hub.categories[n]) return "log hub: an index entry is not its category";
        if (char const* e = index.verify()) return e;
        // Names are unique.
        for (unsigned int n = 0; n < index.count(); ++n)
            if (findByName(index, index.at(n)->name) != kNoCategory &&
                findByName(index, index.at(n)->name) != n)
                return "log hub: two categories share a name";
    }
    SinkHold g(sinkLock);
    if (hub.classes.count != 0 && hub.classes.count != 4) return "log hub: the class table has neither 0 nor 4 classes";
    static char const* const kNames[4] = {"error", "warning", "info", "debug"};
    for (unsigned int c = 0; c < 4; ++c) {
        Logger* mirror = hub.index.sink(c, std::memory_order_seq_cst);
        if (!hub.hasClasses()) {
            if (mirror) return "log hub: a hub without classes has a sink";
            continue;
        }
        LogClass const& k = hub.classes[c];
        if (mirror != k.logger.get()) return "log hub: a class's sink is not the readers' mirror of it";
        if (!k.name || std::strcmp(k.name, kNames[c]) != 0) return "log hub: a class is not at its index";
        if (k.logger && k.logger->refCount() == 0) return "log hub: a class holds a sink without counting it";
    }
    return nullptr;
}

char const* detail::verifyHub(Log const& hub) { return HubAccess::verifyHub(hub); }

}  // namespace Utils
