// The category registry of the log hub: LogCat, the owning list `categories`, the
// lock-free index (detail::LogIndex: segments, count, name table) and every
// category accessor and setter.
//
// Invariants (checked by LogIndex::verify and detail::verifyHub)
//  - Categories are never removed. Category n is categories[n] (the owning list,
//    written under the hub lock) and also entry n of the index's segments: segment
//    s holds 16 << s entries (LogIndex::place) and is never moved, so readers index
//    it without a lock. An entry and its segment are written before the count is
//    raised with release order; readers load the count with acquire order and
//    touch only entries below it. So: count == categories.count, and entry n is
//    categories[n] for every n below it.
//  - A category's name never changes after creation; its enabled flag, level and
//    verbosity are atomics, read by the filter without a lock.
//  - Names are unique, so the name table (filled under the hub lock after the
//    category is published, probed without a lock) gives the same number as a walk
//    of the categories from 0. Every category is in the table unless the table
//    could not grow (no memory): a name missing from it is looked up again, by the
//    walk, under the lock before it is created. The table is at most half full.
//  - A category that cannot be made (no memory) gets the current count, a number
//    that names nothing.
#include <cstring>
#include <new>

#include "log/hub_internal.h"

namespace Utils {

using detail::HubAccess;
using detail::HubHold;
using detail::kNoCategory;
using detail::LogIndex;

namespace {

// The name table: open addressing with linear probing. A slot holds
// (hash << 32) | (number + 1), 0 when empty; slots are filled under the hub lock
// and never changed afterwards, so readers probe without a lock. A fuller table is
// replaced by one twice its size, and replaced tables are kept (linked by
// `retired`) until the hub is destroyed, for readers still probing them.
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
// The index
// ---------------------------------------------------------------------------

namespace detail {

unsigned int HubAccess::findByName(LogIndex const& index, char const* name) {
    NameIndex const* names = static_cast<NameIndex const*>(index.names_.load(std::memory_order_acquire));
    if (!names) return kNoCategory;
    unsigned int h = NameIndex::hash(name);
    for (unsigned int i = h & names->mask;; i = (i + 1) & names->mask) {
        unsigned long slot = names->slots()[i].load(std::memory_order_acquire);
        if (!slot) return kNoCategory;
        if (static_cast<unsigned int>(slot >> 32) != h) continue;
        unsigned int n = static_cast<unsigned int>(slot) - 1;
        if (strcmp(index.at(n)->name, name) == 0) return n;
    }
}

// Replaces the table by one of twice the size when it would be more than half
// full; the old one stays readable for readers still probing it.
void HubAccess::indexName(LogIndex& index, unsigned int n) {
    NameIndex* names = static_cast<NameIndex*>(index.names_.load(std::memory_order_relaxed));
    if (!names || 2ul * (n + 1) > names->mask + 1ul) {
        unsigned int size = names ? 2 * (names->mask + 1) : 32;
        NameIndex* bigger = NameIndex::make(size, names);
        if (!bigger) return;  // lookups fall back to the locked walk
        for (unsigned int k = 0; k < n; ++k) bigger->insert(NameIndex::hash(index.at(k)->name), k);
        bigger->insert(NameIndex::hash(index.at(n)->name), n);
        index.names_.store(bigger, std::memory_order_release);
        return;
    }
    names->insert(NameIndex::hash(index.at(n)->name), n);
}

void HubAccess::releaseIndex(LogIndex& index) {
    for (auto& segment : index.segments_) delete[] segment.exchange(nullptr);
    NameIndex::release(static_cast<NameIndex*>(index.names_.exchange(nullptr)));
    index.count_.store(0);
}

// Segments: exactly those that hold a number below the count exist, and each
// entry below the count is set. Name table: at most half full, every slot names a
// category below the count with the slot's hash, no number twice, and every
// category is in the current table unless it stopped growing (then the later
// ones are missing, never an earlier one).
char const* LogIndex::verify() const {
    LogIndex const& index = *this;
    unsigned int count = index.count();
    // The segment of number `count` may exist already: it is made before the
    // category, which may then find no memory.
    unsigned int next, offset;
    LogIndex::place(count, next, offset);
    for (unsigned int s = 0; s < LogIndex::kSegments; ++s) {
        LogCat** entries = index.segments_[s].load(std::memory_order_acquire);
        if (s < next && !entries) return "log index: a segment below the count is missing";
        if (s > next && entries) return "log index: a segment beyond the count exists";
    }
    for (unsigned int n = 0; n < count; ++n)
        if (!index.at(n) || !index.at(n)->name) return "log index: an entry below the count is empty";
    NameIndex const* names = static_cast<NameIndex const*>(index.names_.load(std::memory_order_acquire));
    if (!names) return nullptr;  // none could be made: every lookup walks
    unsigned long filled = 0, size = names->mask + 1ul;
    unsigned int highest = 0;
    for (unsigned long i = 0; i < size; ++i) {
        unsigned long slot = names->slots()[i].load(std::memory_order_acquire);
        if (!slot) continue;
        ++filled;
        unsigned int n = static_cast<unsigned int>(slot) - 1;
        if (n >= count) return "log name table: a slot names no category";
        if (static_cast<unsigned int>(slot >> 32) != NameIndex::hash(index.at(n)->name))
            return "log name table: a slot's hash is not its name's";
        if (n + 1 > highest) highest = n + 1;
    }
    if (2 * filled > size) return "log name table: more than half full";
    // Every number below the highest is found under its own name, and no slot is
    // spare: each of them is in the table exactly once.
    for (unsigned int n = 0; n < highest; ++n)
        if (HubAccess::findByName(index, index.at(n)->name) != n) return "log name table: a category is missing or misfiled";
    if (filled != highest) return "log name table: a category is entered twice";
    return nullptr;
}

}  // namespace detail

// ---------------------------------------------------------------------------
// Categories
// ---------------------------------------------------------------------------

// Under the hub lock. Returns the count (a number that names nothing) when memory
// is exhausted.
unsigned int Log::createCategory(char const* name) {
    unsigned int n = index.count_.load(std::memory_order_relaxed);
    unsigned int segment, offset;
    LogIndex::place(n, segment, offset);
    if (segment >= LogIndex::kSegments) return n;
    LogCat** entries = index.segments_[segment].load(std::memory_order_relaxed);
    if (!entries) {
        entries = new (std::nothrow) LogCat*[16u << segment]();
        if (!entries) return n;
        index.segments_[segment].store(entries, std::memory_order_relaxed);
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
    index.count_.store(n + 1, std::memory_order_release);
    HubAccess::indexName(index, n);
    return n;
}

unsigned int Log::getCategory(char const* name) {
    // Names are unique, so the index finds the same number as a walk from 0 would.
    unsigned int n = HubAccess::findByName(index, name);
    if (n != kNoCategory) return n;
    HubHold g(*this);
    n = HubAccess::findByName(index, name);  // another thread may have made it meanwhile
    if (n != kNoCategory) return n;
    // The index may have missed a category only when it could not be grown.
    unsigned int count = index.count_.load(std::memory_order_relaxed);
    for (n = 0; n < count; ++n)
        if (strcmp(index.at(n)->name, name) == 0) return n;
    return createCategory(name);
}

unsigned int Log::getCategory(char const* name, int lvl, bool on, unsigned int verb) {
    unsigned int n = getCategory(name);
    if (n >= index.count()) return n;
    LogCat* c = index.at(n);
    c->level.store(lvl, std::memory_order_relaxed);
    c->enabled.store(on ? 1 : 0, std::memory_order_relaxed);
    c->verbosity.store(verb, std::memory_order_relaxed);
    return n;
}

unsigned int Log::getCategory(char const* name, int lvl, bool on) {
    return getCategory(name, lvl, on, verbosity_.load(std::memory_order_relaxed));
}

char const* Log::getCategory(unsigned int n) const { return n < index.count() ? index.at(n)->name : nullptr; }

void Log::setLevel(int lvl) {
    HubHold g(*this);
    level_.store(lvl, std::memory_order_relaxed);
    for (unsigned long i = 0; i < categories.count; ++i) categories[i]->level.store(lvl, std::memory_order_relaxed);
}

void Log::setEnabled(bool on) {
    HubHold g(*this);
    enabled_.store(on ? 1 : 0, std::memory_order_relaxed);
    for (unsigned long i = 0; i < categories.count; ++i)
        categories[i]->enabled.store(on ? 1 : 0, std::memory_order_relaxed);
}

void Log::setVerbosity(unsigned int verb) {
    HubHold g(*this);
    verbosity_.store(verb, std::memory_order_relaxed);
    for (unsigned long i = 0; i < categories.count; ++i)
        categories[i]->verbosity.store(verb, std::memory_order_relaxed);
}

void Log::setLevel(unsigned int c, int lvl) { index.at(c)->level.store(lvl, std::memory_order_relaxed); }
void Log::setEnabled(unsigned int c, bool on) { index.at(c)->enabled.store(on ? 1 : 0, std::memory_order_relaxed); }
void Log::setVerbosity(unsigned int c, unsigned int verb) {
    index.at(c)->verbosity.store(verb, std::memory_order_relaxed);
}
int Log::level(unsigned int c) const { return index.at(c)->level.load(std::memory_order_relaxed); }
bool Log::enabled(unsigned int c) const { return index.at(c)->enabled.load(std::memory_order_relaxed) != 0; }
unsigned int Log::verbosity(unsigned int c) const { return index.at(c)->verbosity.load(std::memory_order_relaxed); }

}  // namespace Utils
