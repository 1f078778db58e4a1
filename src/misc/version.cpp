// Versions: VersionImpl, the library's own version and the version reference counts.
#include "utils/version.h"

#include <climits>
#include <cstdlib>

#include "misc/constinit.h"
#include "platform/platform.h"
#include "utils/result.h"

namespace Utils {

// Constant-initialised (CountedRef's default constructor is constexpr): usable from
// any static initialiser; its destructor drops the reference at unload.
ZO_CONSTINIT CountedRef<Version> VersionImpl::theVersion_;

namespace {

char const kLibraryVersion[] = "1.1.1.1507";

// Guards the counts of all versions. A leaf: nothing else is done while it is held.
ZO_CONSTINIT platform::TableLock countLock;
// Guards VersionImpl::theVersion_. Held while a reference to the slot's version is
// taken (which takes countLock inside); never while a version is made or destroyed.
ZO_CONSTINIT platform::TableLock slotLock;

// atoi as it behaved with a 32-bit long: strtol's result saturated to the int range
// (on LP64 a plain conversion would keep the low 32 bits instead).
unsigned int atoi32(char const* s) {
    long v = std::strtol(s, nullptr, 10);
    if (v > INT_MAX) v = INT_MAX;
    if (v < INT_MIN) v = INT_MIN;
    return static_cast<unsigned int>(static_cast<int>(v));
}

}  // namespace

// ---------------------------------------------------------------------------
// Version
// ---------------------------------------------------------------------------

Version::~Version() {}

void Version::incRef() {
    platform::TableHold hold(countLock);
    Countable::incRef();
}

unsigned int Version::decRef() {
    platform::TableHold hold(countLock);
    return Countable::decRef();
}

unsigned int Version::refCount() const {
    platform::TableHold hold(countLock);
    return Countable::refCount();
}

CountedRef<Version> Version::theVersion() {
    {
        platform::TableHold hold(slotLock);
        if (VersionImpl::theVersion_) return VersionImpl::theVersion_;
    }
    // Made outside the lock; if another thread installed one meanwhile, ours is
    // dropped (after the lock is released: `made` outlives `hold`).
    CountedRef<Version> made(new VersionImpl(kLibraryVersion));
    platform::TableHold hold(slotLock);
    if (!VersionImpl::theVersion_) VersionImpl::theVersion_ = made;
    return VersionImpl::theVersion_;
}

CountedRef<Version> Version::create(unsigned int major, unsigned int minor, unsigned int revision,
                                    unsigned int build) {
    return CountedRef<Version>(new VersionImpl(major, minor, revision, build));
}

// ---------------------------------------------------------------------------
// VersionImpl
// ---------------------------------------------------------------------------

VersionImpl::VersionImpl(char const* text) : stringRep(text), numbers{0, 0, 0, 0} { parseStringRep(); }

VersionImpl::VersionImpl(unsigned int major, unsigned int minor, unsigned int revision, unsigned int build)
    : numbers{major, minor, revision, build} {
    buildStringRep();
}

VersionImpl::VersionImpl() : numbers{0, 0, 0, 0} { buildStringRep(); }

VersionImpl::~VersionImpl() {}

// A deep copy: a version may be read by several threads at once, and a shared
// string's count is not atomic.
String VersionImpl::asString() const { return String(stringRep.text(), stringRep.length()); }

unsigned int VersionImpl::major() const { return numbers[0]; }
unsigned int VersionImpl::minor() const { return numbers[1]; }
unsigned int VersionImpl::revision() const { return numbers[2]; }
unsigned int VersionImpl::build() const { return numbers[3]; }

void VersionImpl::buildStringRep() {
    stringRep = "";
    for (int i = 0; i < 4; ++i) {
        stringRep += numbers[i];
        if (i < 3) stringRep += ".";
    }
}

void VersionImpl::parseStringRep() {
    for (unsigned int& n : numbers) n = 0;
    for (unsigned int& n : numbers) {
        unsigned long start, end;
        // kept: every round searches from 0 and so finds the first token again.
        if (!stringRep.tokSpan(".", 0, start, end)) {
            raiseError(kResultBadArgument);
            return;
        }
        // The token ends at a dot or at the end of the text, and the conversion stops
        // at the first non-digit, so reading from its start in place gives what reading
        // a copy of the token would.
        n = atoi32(stringRep.text() + start);
    }
}

int VersionImpl::compare(Version const* other) const {
    VersionImpl const* that = dynamic_cast<VersionImpl const*>(other);
    if (!that) {
        raiseError(kResultBadArgument);
        return 0;
    }
    for (int i = 0; i < 4; ++i)
        if (numbers[i] != that->numbers[i]) return numbers[i] < that->numbers[i] ? -1 : 1;
    return 0;
}

}  // namespace Utils
