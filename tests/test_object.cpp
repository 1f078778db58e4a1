// The object model: Countable, Object, Problem and the CountedRef holder.
//
// This program replaces the global operator new and delete with counting
// forwards to malloc/free, so that it can watch Object and Problem route their
// storage through the global operators. (Defined in the executable, they take
// precedence over the library's own for the whole process.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "utils/object.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZOTEST_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZOTEST_LSAN 1
#endif
#endif
#ifdef ZOTEST_LSAN
extern "C" void __lsan_ignore_object(void const* p);
#endif

namespace {

struct Counts {
    unsigned long news = 0;        // operator new(size)
    unsigned long arrayNews = 0;   // operator new[](size)
    unsigned long deletes = 0;     // operator delete(p) and its sized form
    unsigned long lastNewSize = 0;
    void* lastNew = nullptr;
    void* lastDelete = nullptr;
    bool exhausted = false;        // operator new(size) returns null, as the library's does
};
Counts gCounts;

void* counted(std::size_t size) {
    if (gCounts.exhausted) return nullptr;
    void* p = std::malloc(size ? size : 1);
    if (!p) throw std::bad_alloc();
    return p;
}

// A Problem's text is never released, by design; tell the leak checker so.
void keepForever(Utils::Problem const& p) {
#ifdef ZOTEST_LSAN
    __lsan_ignore_object(p.text);
#else
    (void)p;
#endif
}

}  // namespace

void* operator new(std::size_t size) {
    void* p = counted(size);
    ++gCounts.news;
    gCounts.lastNewSize = size;
    gCounts.lastNew = p;
    return p;
}
void* operator new[](std::size_t size) {
    void* p = counted(size);
    ++gCounts.arrayNews;
    gCounts.lastNewSize = size;
    gCounts.lastNew = p;
    return p;
}
namespace {
void releaseCounted(void* p) {
    ++gCounts.deletes;
    gCounts.lastDelete = p;
    std::free(p);
}
void* alignedBlock(std::size_t size, std::align_val_t a) {
    void* p = nullptr;
    std::size_t alignment = static_cast<std::size_t>(a) < sizeof(void*) ? sizeof(void*) : static_cast<std::size_t>(a);
    return posix_memalign(&p, alignment, size ? size : 1) == 0 ? p : nullptr;
}
}  // namespace
void operator delete(void* p) noexcept { releaseCounted(p); }
void operator delete(void* p, std::size_t) noexcept { releaseCounted(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

// Every other form too, so that no block of this process ever meets an operator
// from a different family (the library's are all replaced here).
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return std::malloc(size ? size : 1); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return std::malloc(size ? size : 1); }
void operator delete(void* p, std::nothrow_t const&) noexcept { std::free(p); }
void operator delete[](void* p, std::nothrow_t const&) noexcept { std::free(p); }
void* operator new(std::size_t size, std::align_val_t a) {
    void* p = alignedBlock(size, a);
    if (!p) throw std::bad_alloc();
    return p;
}
void* operator new[](std::size_t size, std::align_val_t a) {
    void* p = alignedBlock(size, a);
    if (!p) throw std::bad_alloc();
    return p;
}
void* operator new(std::size_t size, std::align_val_t a, std::nothrow_t const&) noexcept {
    return alignedBlock(size, a);
}
void* operator new[](std::size_t size, std::align_val_t a, std::nothrow_t const&) noexcept {
    return alignedBlock(size, a);
}
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t, std::nothrow_t const&) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t, std::nothrow_t const&) noexcept { std::free(p); }

namespace {

using Utils::Countable;
using Utils::CountedRef;
using Utils::Object;
using Utils::Problem;

// ---------------------------------------------------------------------------
// Countable
// ---------------------------------------------------------------------------

TEST(Countable, StartsAtZero) {
    Countable c;
    EXPECT_EQ(c.refCount(), 0u);
}

TEST(Countable, IncTwiceDecOnceLeavesOne) {
    Countable c;
    c.incRef();
    c.incRef();
    EXPECT_EQ(c.refCount(), 2u);
    EXPECT_EQ(c.decRef(), 1u);
    EXPECT_EQ(c.refCount(), 1u);
}

TEST(Countable, DecRefOnZeroWrapsTo4294967295) {
    Countable c;
    EXPECT_EQ(c.decRef(), 4294967295u);
    EXPECT_EQ(c.refCount(), 4294967295u);
    c.incRef();  // and wraps back
    EXPECT_EQ(c.refCount(), 0u);
}

TEST(Countable, DecRefNeverDeletes) {
    struct Probe : Object {
        explicit Probe(bool* gone) : gone(gone) {}
        ~Probe() override { *gone = true; }
        bool* gone;
    };
    bool gone = false;
    Probe p(&gone);  // owned the ordinary way: nobody incRefs it
    p.incRef();
    EXPECT_EQ(p.decRef(), 0u);
    EXPECT_FALSE(gone);
}

// ---------------------------------------------------------------------------
// Object
// ---------------------------------------------------------------------------

struct Tracked : Object {
    static int live;
    static int destroyed;
    char payload[40] = {};
    Tracked() { ++live; }
    ~Tracked() override {
        --live;
        ++destroyed;
    }
};
int Tracked::live = 0;
int Tracked::destroyed = 0;

TEST(Object, StartsWithCountZero) {
    Object o;
    EXPECT_EQ(o.refCount(), 0u);
}

TEST(Object, NewGoesThroughTheGlobalOperatorNew) {
    unsigned long before = gCounts.news;
    Tracked* t = new Tracked;
    EXPECT_EQ(gCounts.news - before, 1u);
    EXPECT_EQ(gCounts.lastNew, static_cast<void*>(t));
    EXPECT_EQ(gCounts.lastNewSize, sizeof(Tracked));
    delete t;
}

TEST(Object, NewWithoutMemoryYieldsNullAndRunsNoConstructor) {
    Tracked::live = 0;
    gCounts.exhausted = true;
    Tracked* t = new Tracked;
    gCounts.exhausted = false;
    EXPECT_EQ(t, nullptr);
    EXPECT_EQ(Tracked::live, 0);
}

TEST(Object, DeletingThroughObjectPointerRunsDerivedDestructorAndGlobalDelete) {
    Tracked::destroyed = 0;
    Object* o = new Tracked;
    void* storage = o;
    EXPECT_EQ(Tracked::live, 1);
    unsigned long before = gCounts.deletes;
    delete o;
    EXPECT_EQ(Tracked::destroyed, 1);
    EXPECT_EQ(Tracked::live, 0);
    EXPECT_EQ(gCounts.deletes - before, 1u);
    EXPECT_EQ(gCounts.lastDelete, storage);
}

TEST(Object, ClassOperatorsForwardToTheGlobalOnes) {
    unsigned long news = gCounts.news, deletes = gCounts.deletes;
    void* p = Object::operator new(24);
    EXPECT_EQ(gCounts.news - news, 1u);
    EXPECT_EQ(gCounts.lastNew, p);
    EXPECT_EQ(gCounts.lastNewSize, 24u);
    Object::operator delete(p);
    EXPECT_EQ(gCounts.deletes - deletes, 1u);
    EXPECT_EQ(gCounts.lastDelete, p);
}

// ---------------------------------------------------------------------------
// Problem
// ---------------------------------------------------------------------------

TEST(Problem, FormatsItsArguments) {
    Problem p("code %d in %s", 42, "parser");
    keepForever(p);
    EXPECT_STREQ(p.text, "code 42 in parser");
}

TEST(Problem, FormatWithoutConversionsIsKeptAsIs) {
    Problem p("nothing to convert here");
    keepForever(p);
    EXPECT_STREQ(p.text, "nothing to convert here");
}

TEST(Problem, LongTextIsCutToExactly511Characters) {
    std::string s(600, 'x');
    for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>('a' + i % 26);
    Problem p("%s", s.c_str());
    keepForever(p);
    EXPECT_EQ(std::strlen(p.text), 511u);
    EXPECT_EQ(std::string(p.text), s.substr(0, 511));
}

TEST(Problem, TextOfExactly511CharactersIsKeptWhole) {
    std::string s(511, 'q');
    Problem p("%s", s.c_str());
    keepForever(p);
    EXPECT_EQ(std::string(p.text), s);
    std::string t(512, 'r');
    Problem q("%s", t.c_str());
    keepForever(q);
    EXPECT_EQ(std::string(q.text), t.substr(0, 511));
}

TEST(Problem, MakesOneArrayAllocationOfTheTextLengthPlusOne) {
    unsigned long arrays = gCounts.arrayNews, news = gCounts.news;
    Problem p("%d-%d", 12, 345);
    keepForever(p);
    EXPECT_EQ(gCounts.arrayNews - arrays, 1u);
    EXPECT_EQ(gCounts.news - news, 0u);
    EXPECT_EQ(gCounts.lastNewSize, 7u);  // "12-345" and its NUL
    EXPECT_EQ(gCounts.lastNew, static_cast<void*>(p.text));
}

TEST(Problem, CopyOwnsAnEqualTextAtADifferentAddress) {
    Problem p("original %s", "message");
    keepForever(p);
    unsigned long arrays = gCounts.arrayNews;
    Problem q(p);
    keepForever(q);
    EXPECT_EQ(gCounts.arrayNews - arrays, 1u);
    EXPECT_NE(q.text, p.text);
    EXPECT_STREQ(q.text, p.text);
    q.text[0] = 'O';  // independent copies
    EXPECT_STREQ(p.text, "original message");
}

TEST(Problem, IsThrownAndCaughtByValue) {
    try {
        throw Problem("failed after %d tries", 3);
    } catch (Problem const& caught) {
        keepForever(caught);
        EXPECT_STREQ(caught.text, "failed after 3 tries");
    }
}

// ---------------------------------------------------------------------------
// CountedRef
// ---------------------------------------------------------------------------

#if defined(__clang__)
#define ZOTEST_CONSTINIT [[clang::require_constant_initialization]]
#elif defined(__GNUC__) && __GNUC__ >= 10
#define ZOTEST_CONSTINIT __constinit
#else
#define ZOTEST_CONSTINIT
#endif

// Compiles only while the default holder is constant-initialised.
ZOTEST_CONSTINIT CountedRef<Tracked> gStaticHolder;

TEST(CountedRef, DefaultHolderIsEmpty) {
    CountedRef<Tracked> r;
    EXPECT_FALSE(r);
    EXPECT_EQ(r.get(), nullptr);
    EXPECT_EQ(gStaticHolder.get(), nullptr);
}

TEST(CountedRef, MakingAndCopyingTakeReferences) {
    Tracked* t = new Tracked;
    {
        CountedRef<Tracked> a(t);
        EXPECT_EQ(t->refCount(), 1u);
        CountedRef<Tracked> b(a);
        EXPECT_EQ(t->refCount(), 2u);
        CountedRef<Tracked> c;
        c = b;
        EXPECT_EQ(t->refCount(), 3u);
        EXPECT_TRUE(a == c);
        EXPECT_EQ(&*a, t);
        EXPECT_EQ(a->refCount(), 3u);
    }
    // the last holder deleted it
}

TEST(CountedRef, LastHolderDeletesTheObject) {
    Tracked::destroyed = 0;
    Tracked* t = new Tracked;
    unsigned long deletes = gCounts.deletes;
    {
        CountedRef<Tracked> a(t);
        {
            CountedRef<Tracked> b(a);
        }
        EXPECT_EQ(Tracked::destroyed, 0);
        EXPECT_EQ(t->refCount(), 1u);
    }
    EXPECT_EQ(Tracked::destroyed, 1);
    EXPECT_EQ(gCounts.deletes - deletes, 1u);
    EXPECT_EQ(gCounts.lastDelete, static_cast<void*>(t));
}

TEST(CountedRef, ReassigningDropsTheOldAndTakesTheNew) {
    Tracked::destroyed = 0;
    Tracked* first = new Tracked;
    Tracked* second = new Tracked;
    CountedRef<Tracked> keepSecond(second);
    CountedRef<Tracked> r(first);
    r = second;
    EXPECT_EQ(Tracked::destroyed, 1);  // first had no other holder
    EXPECT_EQ(second->refCount(), 2u);
    r = nullptr;
    EXPECT_FALSE(r);
    EXPECT_EQ(second->refCount(), 1u);
}

TEST(CountedRef, SelfAssignmentKeepsTheObject) {
    Tracked::destroyed = 0;
    CountedRef<Tracked> r(new Tracked);
    Tracked* t = r.get();
    CountedRef<Tracked>& alias = r;
    r = alias;
    r = t;
    EXPECT_EQ(Tracked::destroyed, 0);
    EXPECT_EQ(t->refCount(), 1u);
}

TEST(CountedRef, ResetEmptiesAndDropsTheReference) {
    Tracked::destroyed = 0;
    CountedRef<Tracked> r(new Tracked);
    r.reset();
    EXPECT_FALSE(r);
    EXPECT_EQ(Tracked::destroyed, 1);
    r.reset();  // harmless when empty
    EXPECT_FALSE(r);
}

TEST(CountedRef, DerivedHolderConvertsToBaseHolder) {
    Tracked::destroyed = 0;
    CountedRef<Tracked> derived(new Tracked);
    CountedRef<Object> base(derived);
    EXPECT_EQ(base.get(), static_cast<Object*>(derived.get()));
    EXPECT_EQ(derived->refCount(), 2u);
    derived.reset();
    EXPECT_EQ(Tracked::destroyed, 0);
    base.reset();  // deletes through the virtual destructor
    EXPECT_EQ(Tracked::destroyed, 1);
}

TEST(CountedRef, HolderOfAnObjectWithOtherOwnersLeavesItAlive) {
    Tracked::destroyed = 0;
    Tracked* t = new Tracked;
    t->incRef();  // someone else's reference
    {
        CountedRef<Tracked> r(t);
    }
    EXPECT_EQ(Tracked::destroyed, 0);
    EXPECT_EQ(t->refCount(), 1u);
    if (t->decRef() == 0) delete t;
    EXPECT_EQ(Tracked::destroyed, 1);
}

}  // namespace
