// Internal: what the files of the log hub share. The hub is split by job:
//
//   hub.cpp          the hub as a whole: theLog(), construction, destruction and
//                    the verifier that checks every table against the others
//   registry.cpp     categories: LogCat, the owning list, the lock-free index
//                    (segments, count, name hash) and every category accessor
//   sink_slots.cpp   sinks: LogClass, the class table's references, the readers'
//                    mirror, the default sink and the graveyard of replaced sinks
//   dispatch.cpp     filtering, line building, the line counters and the
//                    call-site objects
//   config.cpp       the configuration keys and enableCategories
//   header.cpp       the line header; sinks.cpp the sink classes
//
// Locks: each hub has its own lock (a word in its index) for category creation
// and the global setters; one process-wide lock, sinkLock, guards every sink
// reference count the hub or a LogClass changes and the default-sink slot. Neither
// is held while a sink runs; both count in the re-entry guards' lock depth (see
// library/reentry.h), because an allocation made under them may fail and raise.
#pragma once

#include <atomic>

#include "library/reentry.h"
#include "platform/platform.h"
#include "utils/export.h"
#include "utils/log.h"

namespace Utils {
namespace detail {

constexpr unsigned int kNoCategory = 0xFFFFFFFFu;

// Guards sink reference counts, Log::theDefaultLogger_ and every LogClass::logger.
extern platform::TableLock sinkLock;

// The friend of Log and LogIndex through which the hub's files reach the parts of
// the hub they do not own as members.
struct HubAccess {
    // registry.cpp
    // The number of the category `name` by the name index, or kNoCategory. Takes no lock.
    static unsigned int findByName(LogIndex const& index, char const* name);
    // Under the hub lock, once category n is published: enters it in the name index.
    static void indexName(LogIndex& index, unsigned int n);
    // Frees the segments and every name table (the hub is being destroyed).
    static void releaseIndex(LogIndex& index);
    static std::atomic<int>& hubLock(Log const& hub) { return hub.index.lockWord_; }

    // hub.cpp
    static char const* verifyHub(Log const& hub);
};

// A hub's lock: the futex word in its index.
class HubLock {
public:
    explicit HubLock(Log const& hub) : word_(HubAccess::hubLock(hub)) {}
    void lock() { platform::lockWord(word_); }
    void unlock() { platform::unlockWord(word_); }

private:
    std::atomic<int>& word_;
};

// Holds a hub's lock for a scope, counted in the re-entry guards' lock depth.
class HubHold {
public:
    explicit HubHold(Log const& hub) : lock_(hub), hold_(lock_) {}

private:
    HubLock lock_;
    HeldLock<HubLock> hold_;
};

// Holds sinkLock for a scope, counted in the lock depth.
using SinkHold = HeldLock<platform::TableLock>;

// Lines in flight in every hub, and whether a replaced sink waits for them to end
// (the graveyard of sink_slots.cpp, which explains why this is safe).
extern std::atomic<unsigned long> activePrints;
extern std::atomic<bool> graveyardUsed;
// Deletes the buried sinks when no line is in flight any more.
void collectGraveyard();

// Marks one line in flight from before its sink is read until its print returns;
// the last line to end deletes the sinks buried meanwhile. Inline: every printed
// line passes here twice.
class LineInFlight {
public:
    LineInFlight() { activePrints.fetch_add(1); }
    ~LineInFlight() {
        if (activePrints.fetch_sub(1) == 1 && graveyardUsed.load()) collectGraveyard();
    }
    LineInFlight(LineInFlight const&) = delete;
    LineInFlight& operator=(LineInFlight const&) = delete;
};

// Drops the reference Log::theDefaultLogger_ holds and leaves it empty (the sink is
// deleted when no class holds it any more). Part of the library's unload step.
ZO_TEST_API void dropDefaultLogger();  // exported for the library's tests

// Checks a hub's tables against each other: the owning category list against the
// index's segments, count and name table; each class's sink reference against the
// readers' mirror. Null when sound, else what is wrong. Takes the hub lock and the
// sink lock; must not run while the same thread holds either.
ZO_TEST_API char const* verifyHub(Log const& hub);

}  // namespace detail
}  // namespace Utils
