// Tests of utils/string.h: StringRep, String, SubString, StringChar.
#include <gtest/gtest.h>

#include <cctype>
#include <cfloat>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "knobs.h"
#include "strings/string_testing.h"
#include "utils/allocator.h"
#include "utils/string.h"

using Utils::Allocator;
using Utils::String;
using Utils::StringChar;
using Utils::StringRep;
using Utils::SubString;
using Utils::SubStringRep;

namespace {

constexpr unsigned long kNpos = 0xFFFFFFFFUL;
constexpr unsigned long kFar = (1UL << 32) + 1;  // aliases position 1 when narrowed to 32 bits

std::string str(String const& s) { return std::string(s.text(), s.length()); }
std::string str(StringRep const& r) { return std::string(r.data, r.length); }
std::string str(SubString const& v) { return v.chars() ? std::string(v.chars(), v.length()) : std::string(); }

// Checks the representation's invariants; returns an empty text when they hold.
std::string repProblem(StringRep const* r) {
    if (!r) return "";
    if (r->refs == 0) return "refs 0 on a held representation";
    char const* problem = r->verify();
    return problem ? problem : "";
}

// A test allocator over malloc: remembers each block's colour, reports exactly the size
// asked plus `slack` (0 unless a test sets it; so AddressSanitizer sees any write past a
// buffer's capacity), counts live blocks, records the colours it was asked for, and can
// be told to fail.
class TestAllocator : public Allocator {
public:
    using Allocator::alloc;
    bool failing = false;
    long live = 0;
    unsigned long slack = 0;
    std::vector<unsigned int> colorsAsked;
    unsigned int defaultColour = 0;

    void* alloc(unsigned long n) override { return make(n, defaultColour); }
    void* alloc(unsigned long n, unsigned int c) override {
        colorsAsked.push_back(c);
        return make(n, c);
    }
    void free(void* p) override {
        if (!p) return;
        --live;
        std::free(static_cast<char*>(p) - kHeader);
    }
    unsigned long size(void* p) const override { return header(p).size; }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }
    unsigned int color(void* p) const override { return header(p).colour; }

private:
    struct Header {
        unsigned long size;
        unsigned int colour;
    };
    static constexpr unsigned long kHeader = 16;
    static Header const& header(void* p) { return *reinterpret_cast<Header*>(static_cast<char*>(p) - kHeader); }
    void* make(unsigned long n, unsigned int c) {
        if (failing) return nullptr;
        char* b = static_cast<char*>(std::malloc(n + slack + kHeader));
        if (!b) return nullptr;
        Header h{n + slack, c & 63};
        std::memcpy(b, &h, sizeof h);
        ++live;
        return b + kHeader;
    }
};

// Routes string buffers to a test allocator for its lifetime. Declare it before the
// strings it serves, so that they are released first.
class RouteBuffers {
public:
    explicit RouteBuffers(Allocator* a) : previous(Utils::StringTesting::setBufferAllocator(a)) {}
    ~RouteBuffers() { Utils::StringTesting::setBufferAllocator(previous); }

private:
    Allocator* previous;
};

}  // namespace

// ===========================================================================
// StringRep
// ===========================================================================

TEST(StringRep, SizeForIsSmallestPowerOfTwoAboveNAtLeast16) {
    EXPECT_EQ(StringRep::sizeFor(0), 16UL);
    EXPECT_EQ(StringRep::sizeFor(15), 16UL);
    EXPECT_EQ(StringRep::sizeFor(16), 32UL);
    EXPECT_EQ(StringRep::sizeFor(31), 32UL);
    EXPECT_EQ(StringRep::sizeFor(32), 64UL);
    EXPECT_EQ(StringRep::sizeFor(1000), 1024UL);
    EXPECT_EQ(StringRep::sizeFor(0xFFFFFFFEUL), 0x100000000UL);
}

TEST(StringRep, VerifierReportsBrokenInvariants) {
    StringRep r("abc", 3);
    EXPECT_EQ(r.verify(), nullptr);
    r.data[3] = 'x';
    EXPECT_STREQ(r.verify(), "no NUL at data[length]");
    r.data[3] = 0;
    unsigned int cap = r.capacity;
    r.length = cap;
    EXPECT_STREQ(r.verify(), "length not below capacity");
    r.length = 3;
    StringRep e;
    e.length = 2;
    EXPECT_STREQ(e.verify(), "owns nothing but has a length");
    e.length = 0;
    EXPECT_EQ(e.verify(), nullptr);
    String s("abcdef");
    SubStringRep v(s, 2, 3);
    EXPECT_EQ(v.verify(), nullptr);
    v.length = 9;
    EXPECT_STREQ(v.verify(), "view runs past the parent text");
    v.start = 6;
    EXPECT_STREQ(v.verify(), "start not inside the parent text");
}

TEST(StringRep, FreshRepresentationOwnsNothing) {
    StringRep r;
    EXPECT_EQ(r.length, 0u);
    EXPECT_EQ(r.capacity, 0u);
    EXPECT_EQ(r.refs, 0u);
    EXPECT_EQ(r.data, StringRep::emptyText());
    EXPECT_STREQ(r.data, "");
}

TEST(StringRep, CountedConstructorCopiesEmbeddedNuls) {
    StringRep r("a\0b", 3);
    EXPECT_EQ(r.length, 3u);
    EXPECT_EQ(str(r), std::string("a\0b", 3));
    EXPECT_EQ(r.data[3], 0);
    StringRep none(nullptr, 5);
    EXPECT_EQ(none.length, 0u);
    EXPECT_EQ(none.capacity, 0u);
}

TEST(StringRep, CapacityIsTheAllocatorsReportedSize) {
    StringRep r("hello", 5);
    ASSERT_NE(r.capacity, 0u);
    EXPECT_EQ(r.capacity, Allocator::theAllocator()->size(r.data));
    EXPECT_GE(r.capacity, 16u);
}

TEST(StringRep, ResizeForSmallerChangesNothing) {
    StringRep r;
    r.resizeFor(40);
    std::memset(r.data, 'q', 40);
    r.data[40] = 0;
    r.length = 40;
    unsigned int cap = r.capacity;
    char* data = r.data;
    EXPECT_GE(cap, 64u);
    EXPECT_EQ(cap, Allocator::theAllocator()->size(data));
    r.resizeFor(3);
    EXPECT_EQ(r.length, 40u);
    EXPECT_EQ(r.capacity, cap);
    EXPECT_EQ(r.data, data);
    EXPECT_EQ(str(r), std::string(40, 'q'));
}

TEST(StringRep, ResizeForGrowsAndKeepsText) {
    StringRep r("abc", 3);
    r.resizeFor(100);
    EXPECT_EQ(str(r), "abc");
    EXPECT_GE(r.capacity, 128u);
    EXPECT_EQ(r.capacity, Allocator::theAllocator()->size(r.data));
    r.resizeFor(0);
    EXPECT_EQ(r.capacity, 0u);
    EXPECT_EQ(r.length, 0u);
    EXPECT_EQ(r.data, StringRep::emptyText());
}

TEST(StringRep, AssigningEmptyOrNullReleasesTheBuffer) {
    StringRep r("abc", 3);
    r = "";
    EXPECT_EQ(r.capacity, 0u);
    EXPECT_EQ(r.data, StringRep::emptyText());
    r = "xyz";
    EXPECT_EQ(str(r), "xyz");
    r = static_cast<char const*>(nullptr);
    EXPECT_EQ(r.capacity, 0u);
    EXPECT_EQ(r.length, 0u);
    EXPECT_EQ(r.data, StringRep::emptyText());
}

TEST(StringRep, AssigningNulCharacterGivesLengthOne) {
    StringRep r;
    r = '\0';
    EXPECT_EQ(r.length, 1u);
    EXPECT_EQ(r.data[0], 0);
    EXPECT_EQ(r.data[1], 0);
    r = 'z';
    EXPECT_EQ(str(r), "z");
}

TEST(StringRep, ReplaceFarPositionPadsWithBlanks) {
    StringRep r("ab", 2);
    r.replace("xyz", 3, 0, 5);
    EXPECT_EQ(str(r), "ab   xyz");
    EXPECT_EQ(r.length, 8u);
}

TEST(StringRep, ReplaceOverwritesInPlaceAndGrowsAtTheEnd) {
    StringRep r("abcdef", 6);
    r.replace("XY", 2, 0, 1);
    EXPECT_EQ(str(r), "aXYdef");
    r.replace("0123456", 3, 4, 4);  // source is s + from
    EXPECT_EQ(str(r), "aXYd456");
    r.replace("pq", 2, 0, 7);
    EXPECT_EQ(str(r), "aXYd456pq");
}

TEST(StringRep, InsertBeforePosition) {
    StringRep r("abc", 3);
    r.insert("12", 2, 0, 1);
    EXPECT_EQ(str(r), "a12bc");
    r.insert("Z", 1, 0, 5);
    EXPECT_EQ(str(r), "a12bcZ");
    r.insert("--", 2, 0, 9);
    EXPECT_EQ(str(r), "a12bcZ   --");
}

TEST(StringRep, RemoveClipsToLength) {
    StringRep r("abc", 3);
    r.remove(10, 3);
    EXPECT_EQ(str(r), "abc");
    StringRep q("abcd", 4);
    q.remove(1, 100);
    EXPECT_EQ(str(q), "a");
}

TEST(StringRep, IndexOfNulIsLengthAndPastEndIsNotFound) {
    StringRep r("abc", 3);
    EXPECT_EQ(r.index('\0', 0), 3UL);
    EXPECT_EQ(r.index('x', 3), 0xFFFFFFFFUL);
    EXPECT_EQ(r.index('c', 0), 2UL);
    EXPECT_EQ(r.index("bc", 0), 1UL);
    EXPECT_EQ(r.index("", 2), 2UL);
    EXPECT_EQ(r.index("", 3), kNpos);
}

TEST(StringRep, RindexCharFromLastCharacter) {
    StringRep r("a,b,c", 5);
    EXPECT_EQ(r.rindexChar(",", 0xFFFFFFFFUL), 3UL);
    EXPECT_EQ(r.rindexChar(",", 2), 1UL);
    EXPECT_EQ(r.rindexChar(",", 0), kNpos);
    StringRep e;
    EXPECT_EQ(e.rindexChar(",", 0xFFFFFFFFUL), 0xFFFFFFFFUL);
}

TEST(StringRep, IndexCharFindsFirstOfSet) {
    StringRep r("hello, world", 12);
    EXPECT_EQ(r.indexChar(" ,", 0), 5UL);
    EXPECT_EQ(r.indexChar(" ,", 6), 6UL);
    EXPECT_EQ(r.indexChar("xyz", 0), kNpos);
    EXPECT_EQ(r.indexChar(",", 12), kNpos);
}

TEST(StringRep, SubstituteLeftToRightWithoutRescanning) {
    StringRep r("aaaaa", 5);
    r.substitute("aa", "b");
    EXPECT_EQ(str(r), "bba");
    StringRep q("aba", 3);
    q.substitute("a", "aa");
    EXPECT_EQ(str(q), "aabaa");
    StringRep e("x.y", 3);
    e.substitute(".", "");
    EXPECT_EQ(str(e), "xy");
}

TEST(StringRep, RotateLeft) {
    StringRep r("abcde", 5);
    r.rotateLeft(2);
    EXPECT_EQ(str(r), "cdeab");
    StringRep q("abcde", 5);
    q.rotateLeft(5);
    EXPECT_EQ(str(q), "abcde");
    q.rotateLeft(1);
    EXPECT_EQ(str(q), "bcdea");
    q.rotateLeft(13);  // 13 mod 5 = 3
    EXPECT_EQ(str(q), "eabcd");
}

TEST(StringRep, TrimStripsBothEndsAndReleasesAllBlank) {
    StringRep r("  hi \t\n", 7);
    r.trim();
    EXPECT_EQ(str(r), "hi");
    StringRep b("   ", 3);
    b.trim();
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.data, StringRep::emptyText());
    StringRep k("keep", 4);
    char* d = k.data;
    k.trim();
    EXPECT_EQ(k.data, d);
    EXPECT_EQ(str(k), "keep");
}

TEST(StringRep, ExpandToPadsWithBlanks) {
    StringRep r("ab", 2);
    EXPECT_TRUE(r.expandTo(5));
    EXPECT_EQ(str(r), "ab   ");
    EXPECT_TRUE(r.expandTo(3));
    EXPECT_EQ(str(r), "ab   ");
}

TEST(StringRep, ToUpperAndToLower) {
    StringRep r("MiXed 1!", 8);
    r.toUpper();
    EXPECT_EQ(str(r), "MIXED 1!");
    r.toLower();
    EXPECT_EQ(str(r), "mixed 1!");
}

TEST(StringRep, ConsumeAdoptsAllocatorBlockWithCapacityStrlenPlusOne) {
    Allocator* a = Allocator::theAllocator();
    char* block = static_cast<char*>(a->alloc(40));
    std::strcpy(block, "adopted");
    StringRep r("old text", 8);
    r.consume(block);
    EXPECT_EQ(r.data, block);
    EXPECT_EQ(r.length, 7u);
    EXPECT_EQ(r.capacity, 8u);
    r.append(" and grown beyond its first block");
    EXPECT_EQ(str(r), "adopted and grown beyond its first block");
}

TEST(StringRep, ConsumeOfEmptyFreesOldBufferAndAdoptsNothing) {
    TestAllocator ta;
    RouteBuffers route(&ta);
    {
        StringRep r("something", 9);
        EXPECT_EQ(ta.live, 1);
        char empty[1] = {0};
        r.consume(empty);
        EXPECT_EQ(ta.live, 0);
        EXPECT_EQ(r.capacity, 0u);
        EXPECT_EQ(r.data, StringRep::emptyText());
        r.consume(nullptr);
        EXPECT_EQ(r.data, StringRep::emptyText());
    }
}

TEST(StringRep, DonateHandsOverTheBlock) {
    TestAllocator ta;
    RouteBuffers route(&ta);
    StringRep r("given", 5);
    char* d = r.data;
    char* p = r.donate();
    EXPECT_EQ(p, d);
    EXPECT_STREQ(p, "given");
    EXPECT_EQ(r.capacity, 0u);
    EXPECT_EQ(r.data, StringRep::emptyText());
    EXPECT_EQ(ta.live, 1);  // now the caller's
    ta.free(p);
    StringRep e;
    EXPECT_EQ(e.donate(), StringRep::emptyText());
}

TEST(StringRep, UnshareCopiesOnlyWhenShared) {
    StringRep* r = new StringRep("shared", 6);
    r->refs = 1;
    EXPECT_EQ(r->unshare(), r);
    r->refs = 2;
    StringRep* c = r->unshare();
    ASSERT_NE(c, r);
    EXPECT_EQ(c->refs, 1u);
    EXPECT_EQ(r->refs, 1u);
    EXPECT_EQ(str(*c), "shared");
    EXPECT_NE(c->data, r->data);
    delete c;
    delete r;
}

TEST(StringRep, TotalStringMemoryIsAlwaysZero) {
    EXPECT_EQ(Utils::ZofTotalStringMemory(), 0UL);
    String a("some text"), b(String('x', 5000));
    b += a;
    EXPECT_EQ(Utils::ZofTotalStringMemory(), 0UL);
}

TEST(StringRep, GrownBufferKeepsItsColourOnTestAllocator) {
    TestAllocator ta;
    RouteBuffers route(&ta);
    ta.defaultColour = 9;
    StringRep r("abc", 3);
    ta.defaultColour = 0;
    EXPECT_EQ(ta.color(r.data), 9u);
    r.append(std::string(100, 'z').c_str());
    EXPECT_EQ(ta.color(r.data), 9u);
    ASSERT_FALSE(ta.colorsAsked.empty());
    EXPECT_EQ(ta.colorsAsked.back(), 9u);
}

TEST(StringRep, GrownBufferKeepsItsColourOnProcessAllocator) {
    Allocator* a = Allocator::theAllocator();
    String s;
    {
        Utils::MemoryColor colour(17);
        s = "coloured";
        colour.reset();
    }
    ASSERT_FALSE(s.isNull());
    EXPECT_EQ(a->color(s.representation()->data), 17u);
    EXPECT_EQ(a->defaultColor(), 0u);
    s += String('g', 300);
    EXPECT_GE(s.representation()->capacity, 512u);
    EXPECT_EQ(a->color(s.representation()->data), 17u);
    String fresh("plain");
    EXPECT_EQ(a->color(fresh.representation()->data), 0u);
}

// ===========================================================================
// String
// ===========================================================================

TEST(String, NullAndEmptyCompareEqual) {
    String n, e("");
    EXPECT_TRUE(n.isNull());
    EXPECT_FALSE(e.isNull());
    EXPECT_EQ(n.compare(e), 0);
    EXPECT_EQ(e.compare(n), 0);
    EXPECT_TRUE(n == e);
    EXPECT_TRUE(e == n);
}

TEST(String, NullIsNotLessOrEqualToNonEmpty) {
    EXPECT_FALSE(String() <= String("a"));
    EXPECT_FALSE(String() < String("a"));
    EXPECT_TRUE(String("") < String("a"));
    EXPECT_TRUE(String("") <= String("a"));
    EXPECT_FALSE(String("a") < String());
    EXPECT_FALSE(String("a") <= String());
    EXPECT_TRUE(String() <= String(""));
    EXPECT_FALSE(String() < String(""));
    EXPECT_TRUE(String() <= String());
    EXPECT_EQ(String().compare(String("a")), -1);
    EXPECT_EQ(String("a").compare(String()), 1);
}

TEST(String, ComparisonsOfNonNullStrings) {
    EXPECT_LT(String("abc").compare(String("abd")), 0);
    EXPECT_GT(String("b").compare(String("abc")), 0);
    EXPECT_EQ(String("x").compare(String("x")), 0);
    EXPECT_EQ(String("HeLLo").icompare(String("hello")), 0);
    EXPECT_LT(String("a").icompare("B"), 0);
    EXPECT_TRUE(String("abc") == "abc");
    EXPECT_FALSE(String("abc") == "ab");
    EXPECT_TRUE(String() == "");
    EXPECT_FALSE(String() == "a");
    String s("same");
    String t = s;
    EXPECT_TRUE(s <= t);
    EXPECT_FALSE(s < t);
    EXPECT_EQ(s.compare(t), 0);
}

TEST(String, NullIcompareIsMinusOneEvenForEmpty) {
    EXPECT_EQ(String().icompare(""), -1);
    EXPECT_EQ(String().icompare("a"), -1);
    EXPECT_EQ(String("").icompare(""), 0);
}

TEST(String, ConstIndexingOutOfRangeGivesNul) {
    String const abc("abc");
    EXPECT_EQ(abc[3], '\0');
    EXPECT_EQ(abc[2], 'c');
    String const n;
    EXPECT_EQ(n[0], '\0');
}

TEST(String, NthIndexCountsFromOneAndZeroGivesZero) {
    String h("hello");
    EXPECT_EQ(h.nthIndex(2, 'l'), 3UL);
    EXPECT_EQ(h.nthIndex(1, 'l'), 2UL);
    EXPECT_EQ(h.nthIndex(0, 'z'), 0UL);
    EXPECT_EQ(h.nthIndex(3, 'l'), 0xFFFFFFFFUL);
    EXPECT_EQ(h.nthIndex(1, '\0'), kNpos);
    EXPECT_EQ(String().nthIndex(0, 'a'), 0UL);
    EXPECT_EQ(String().nthIndex(1, 'a'), kNpos);
}

TEST(String, TokSpanSkipsDelimitersAndWritesStartWhenOnlyDelimitersRemain) {
    String s(" a,,b ");
    unsigned long start = 99, end = 99;
    ASSERT_TRUE(s.tokSpan(" ,", 0, start, end));
    EXPECT_EQ(start, 1UL);
    EXPECT_EQ(end, 2UL);
    ASSERT_TRUE(s.tokSpan(" ,", 2, start, end));
    EXPECT_EQ(start, 4UL);
    EXPECT_EQ(end, 5UL);
    start = end = 77;
    EXPECT_FALSE(s.tokSpan(" ,", 5, start, end));
    EXPECT_EQ(start, 6UL);  // written: only delimiters remained
    EXPECT_EQ(end, 77UL);
    start = 55;
    EXPECT_FALSE(s.tokSpan(" ,", 6, start, end));
    EXPECT_EQ(start, 55UL);
    EXPECT_FALSE(String().tokSpan(" ", 0, start, end));
}

TEST(String, PrefixConstructor) {
    String s("abcdef");
    EXPECT_EQ(str(String(s, 3)), "abc");
    EXPECT_EQ(str(String(s, 10)), "abcdef");
    EXPECT_TRUE(String(String(), 3).isNull());
    EXPECT_FALSE(String(String(""), 3).isNull());
    EXPECT_EQ(str(String(s, kFar)), "abcdef");
}

TEST(String, CharacterCountedAndNullConstructorsGiveNonNullStrings) {
    EXPECT_EQ(str(String('x')), "x");
    EXPECT_EQ(String('\0').length(), 1UL);
    EXPECT_EQ(str(String('-', 4)), "----");
    EXPECT_FALSE(String('-', 0).isNull());
    EXPECT_EQ(str(String("a\0b", 3)), std::string("a\0b", 3));
    EXPECT_FALSE(String(static_cast<char const*>(nullptr)).isNull());
    EXPECT_FALSE(String(static_cast<char const*>(nullptr), 4).isNull());
    EXPECT_EQ(String(static_cast<char const*>(nullptr), 4).length(), 0UL);
    String e("");
    EXPECT_EQ(e.representation()->capacity, 0u);
}

TEST(String, CopiesShareAndWritesGoToPrivateCopy) {
    String s("source");
    String t = s;
    EXPECT_EQ(s.representation(), t.representation());
    EXPECT_EQ(s.representation()->refs, 2u);
    t += 'x';
    EXPECT_EQ(str(s), "source");
    EXPECT_EQ(str(t), "sourcex");
    EXPECT_NE(s.representation(), t.representation());
    EXPECT_EQ(s.representation()->refs, 1u);
    EXPECT_EQ(t.representation()->refs, 1u);
}

TEST(String, SelfAssignmentIsSafe) {
    String s("self");
    String& alias = s;
    s = alias;
    EXPECT_EQ(str(s), "self");
    EXPECT_EQ(s.representation()->refs, 1u);
}

TEST(String, MoveTakesTheRepresentation) {
    String s("moving");
    StringRep const* r = s.representation();
    String t(std::move(s));
    EXPECT_EQ(t.representation(), r);
    EXPECT_TRUE(s.isNull());  // a moved-from string is null
    String u;
    u = std::move(t);
    EXPECT_EQ(u.representation(), r);
    EXPECT_EQ(r->refs, 1u);
}

TEST(String, StartsWithTreatsNullPrefixesAndNullStringsDeliberately) {
    EXPECT_FALSE(String().startsWith(String("")));
    EXPECT_TRUE(String("x").startsWith(String()));
    EXPECT_TRUE(String().startsWith(String()));
    EXPECT_TRUE(String("abc").startsWith(String("ab")));
    EXPECT_FALSE(String("abc").startsWith(String("abd")));
    EXPECT_TRUE(String().startsWith(""));
    EXPECT_FALSE(String().startsWith("a"));
    EXPECT_TRUE(String("abc").startsWith("abc"));
    EXPECT_FALSE(String("ab").startsWith("abc"));
}

TEST(String, DonateSplitsASharedTextAndConsumeTakesTheBlockBack) {
    EXPECT_EQ(String().donate(), nullptr);
    String e("");
    EXPECT_EQ(e.donate(), StringRep::emptyText());
    EXPECT_TRUE(e.isNull());
    String s("owned");
    String keep = s;
    char* p = s.donate();
    EXPECT_TRUE(s.isNull());
    EXPECT_STREQ(p, "owned");
    EXPECT_NE(p, keep.text());  // a shared text is split before it is handed over
    EXPECT_EQ(str(keep), "owned");
    String back;
    back.consume(p);
    EXPECT_EQ(str(back), "owned");
    EXPECT_EQ(back.representation()->capacity, 6u);
}

TEST(String, ConsumeLeavesStringNonNull) {
    String s("x");
    s.consume(nullptr);
    EXPECT_FALSE(s.isNull());
    EXPECT_EQ(s.length(), 0UL);
}

TEST(String, SubstituteReturnsNewStringAndLeavesOriginal) {
    String s("a.b.c");
    String r = s.substitute(".", "::");
    EXPECT_EQ(str(r), "a::b::c");
    EXPECT_EQ(str(s), "a.b.c");
    EXPECT_TRUE(String().substitute("a", "b").isNull());
    EXPECT_EQ(str(String("x\0y.z", 5).substitute(".", "!")), "x");  // copied up to the first NUL
}

TEST(String, AppendingNullAndEmpty) {
    String n;
    n += String();
    EXPECT_TRUE(n.isNull());
    n += "";
    EXPECT_FALSE(n.isNull());
    EXPECT_EQ(n.length(), 0UL);
    String m;
    m += static_cast<char const*>(nullptr);
    EXPECT_FALSE(m.isNull());
    String a("abc");
    String b;
    b += a;  // a null string shares the appended one
    EXPECT_EQ(b.representation(), a.representation());
    String c;
    c += 'q';
    EXPECT_EQ(str(c), "q");
    String d;
    d.append("xyz", 2);
    EXPECT_EQ(str(d), "xy");
    d.append("123", 3);
    EXPECT_EQ(str(d), "xy123");
}

TEST(String, AppendingNumbers) {
    String s("n=");
    s += 12L;
    EXPECT_EQ(str(s), "n=12");
    String d;
    d += 1.5;
    EXPECT_EQ(str(d), "1.500000");
    String u;
    u += 18446744073709551615UL;
    EXPECT_EQ(str(u), "18446744073709551615");
    String l;
    l += LONG_MIN;
    EXPECT_EQ(str(l), "-9223372036854775808");
    String i;
    i += 7;
    i += 8u;
    EXPECT_EQ(str(i), "78");
}

TEST(String, AppendingHugeDoubleFitsItsBuffer) {
    String big;
    big += 1e308;
    EXPECT_EQ(big.length(), 316UL);  // 309 integer digits, the point, six decimals
    EXPECT_EQ(std::string(big.text(), 5), "10000");
    EXPECT_EQ(std::string(big.text() + 309), ".000000");
    String most;
    most += -DBL_MAX;
    EXPECT_EQ(most.length(), 317UL);
    EXPECT_EQ(str(most), std::to_string(-DBL_MAX));
}

namespace {

struct Move {
    unsigned long length;    // after the append that moved the text
    unsigned long capacity;  // after that append
    bool operator==(Move const& o) const { return length == o.length && capacity == o.capacity; }
};
std::ostream& operator<<(std::ostream& os, Move const& m) { return os << "{" << m.length << ", " << m.capacity << "}"; }

// Appends to String("x") with `step` until the text is at least `until` long, on an
// allocator that reports every block 8 bytes larger than asked (the first block, asked
// for 16, is 24). Returns where the text moved. After every append, capacity and
// text() must be those of StringRep::resizeFor(new length) on the buffer as it was.
template <class Step>
std::vector<Move> movesWhileAppending(Step step, unsigned long until) {
    TestAllocator ta;
    ta.slack = 8;
    RouteBuffers route(&ta);
    std::vector<Move> moves;
    String s("x");
    EXPECT_EQ(s.representation()->capacity, 24u);
    while (s.length() < until) {
        unsigned long capacity = s.representation()->capacity;
        char const* text = s.text();
        step(s);
        unsigned long length = s.length();
        unsigned long request = StringRep::sizeFor(length);
        if (request <= capacity) {
            EXPECT_EQ(s.text(), text) << "moved at length " << length;
            EXPECT_EQ(s.representation()->capacity, capacity) << "at length " << length;
        } else {
            EXPECT_NE(s.text(), text) << "stayed at length " << length;
            EXPECT_EQ(s.representation()->capacity, request + 8) << "at length " << length;
            moves.push_back({length, s.representation()->capacity});
        }
    }
    return moves;
}

}  // namespace

TEST(String, AppendsMoveTheBufferWhereTheCapacityRuleAsksNotIntoTheSlack) {
    std::vector<Move> const byOne = {{16, 40}, {32, 72}, {64, 136}, {128, 264}};
    String y("y");
    EXPECT_EQ(movesWhileAppending([&](String& s) { s += y; }, 130), byOne);
    EXPECT_EQ(movesWhileAppending([](String& s) { s += "y"; }, 130), byOne);
    EXPECT_EQ(movesWhileAppending([](String& s) { s += 'y'; }, 130), byOne);
    EXPECT_EQ(movesWhileAppending([](String& s) { s += 7L; }, 130), byOne);
    EXPECT_EQ(movesWhileAppending([](String& s) { s += 7UL; }, 130), byOne);
    EXPECT_EQ(movesWhileAppending([](String& s) { s.append("yz", 1); }, 130), byOne);
    // "1.500000" is eight characters: 1, 9, 17, 25, ...
    std::vector<Move> const byEight = {{17, 40}, {33, 72}, {65, 136}, {129, 264}};
    EXPECT_EQ(movesWhileAppending([](String& s) { s += 1.5; }, 140), byEight);
}

TEST(String, ZeroLengthEditsStillGrowAnAdoptedBufferToTheCapacityRule) {
    // consume() adopts "abc" with capacity 4, below the rule's 16 for length 3; an edit
    // of nothing at the end still runs resizeFor(3 + 0), which moves the text.
    TestAllocator ta;
    RouteBuffers route(&ta);
    auto adopted = [&ta]() {
        char* block = static_cast<char*>(ta.alloc(4));
        std::memcpy(block, "abc", 4);
        String s;
        s.consume(block);
        EXPECT_EQ(s.representation()->capacity, 4u);
        return s;
    };
    using Edit = void (*)(String&);
    Edit const edits[] = {
        [](String& s) { s.append("xyz", 0); },
        [](String& s) { s.append(nullptr, 0); },
        [](String& s) { s += ""; },
        [](String& s) { s += String(""); },
        [](String& s) { s.insert("", 0, 0, 1); },
        [](String& s) { s.insert("", 0, 0, 3); },
        [](String& s) { s.replace("", 0, 0, 3); },
    };
    for (Edit edit : edits) {
        String s = adopted();
        char const* before = s.text();
        edit(s);
        EXPECT_EQ(str(s), "abc");
        EXPECT_EQ(s.representation()->capacity, 16u);
        EXPECT_NE(s.text(), before);
        EXPECT_EQ(repProblem(s.representation()), "");
    }
    // An overwrite of nothing inside the text is the in-place case: no resize.
    String s = adopted();
    s.replace("", 0, 0, 1);
    EXPECT_EQ(s.representation()->capacity, 4u);
    // The same at the StringRep level.
    char* block = static_cast<char*>(ta.alloc(4));
    std::memcpy(block, "abc", 4);
    StringRep r;
    r.consume(block);
    r.append("", 0);
    EXPECT_EQ(r.capacity, 16u);
    EXPECT_NE(r.data, block);
}

TEST(String, AppendingACharacterInlineOnlyWhereTheCapacityRuleLeavesRoom) {
    TestAllocator ta;
    RouteBuffers route(&ta);
    // An adopted buffer sits below the rule ("abc" adopted with capacity 4): the
    // character takes the out-of-line step, which grows it to the rule's 16. (A
    // block's slack beyond the rule is never used; the move test above pins that.)
    char* block = static_cast<char*>(ta.alloc(4));
    std::memcpy(block, "abc", 4);
    String adopted;
    adopted.consume(block);
    adopted += 'd';
    EXPECT_EQ(str(adopted), "abcd");
    EXPECT_EQ(adopted.representation()->capacity, 16u);
    EXPECT_NE(adopted.text(), block);
    // A shared text is copied before the write; the other holder keeps its text.
    String a("xy");
    String b = a;
    b += 'z';
    EXPECT_EQ(str(a), "xy");
    EXPECT_EQ(str(b), "xyz");
    EXPECT_NE(a.representation(), b.representation());
    // A null string becomes the one character; a NUL is a character like any other.
    String n;
    n += '\0';
    EXPECT_EQ(n.length(), 1u);
    // The only holder with room writes in place: same buffer, NUL kept after the text.
    String o("ab");
    char const* before = o.text();
    o += 'c';
    EXPECT_EQ(o.text(), before);
    EXPECT_EQ(std::memcmp(o.text(), "abc", 4), 0);
    EXPECT_EQ(repProblem(o.representation()), "");
}

TEST(String, ConcatenationCopiesTheLeftOperandAndAppendsTheRight) {
    EXPECT_EQ(str(String("ab") + String("cd")), "abcd");
    EXPECT_EQ(str(String("ab") + "cd"), "abcd");
    EXPECT_EQ(str("ab" + String("cd")), "abcd");
    EXPECT_TRUE((String() + String()).isNull());
    EXPECT_FALSE((String() + "").isNull());
}

TEST(String, EditsReplaceInsertRemoveCaseRotateAndPad) {
    String s("abc");
    s.replace("XY", 2, 0, 2);
    EXPECT_EQ(str(s), "abXY");
    s.insert("--", 2, 0, 0);
    EXPECT_EQ(str(s), "--abXY");
    s.remove(0, 2);
    EXPECT_EQ(str(s), "abXY");
    s.toUpper();
    EXPECT_EQ(str(s), "ABXY");
    s.toLower();
    EXPECT_EQ(str(s), "abxy");
    s.rotateLeft(1);
    EXPECT_EQ(str(s), "bxya");
    s.expandTo(6);
    EXPECT_EQ(str(s), "bxya  ");
    s.trim();
    EXPECT_EQ(str(s), "bxya");
    s.resizeFor(0);
    EXPECT_FALSE(s.isNull());
    EXPECT_EQ(s.length(), 0UL);
    EXPECT_EQ(s.representation()->capacity, 0u);
}

TEST(String, TransformingMutatorsLeaveNullStringNull) {
    String n;
    n.toUpper();
    n.toLower();
    n.rotateLeft(3);
    n.trim();
    EXPECT_TRUE(n.isNull());
    String r;
    r.remove(0, 1);
    EXPECT_FALSE(r.isNull());  // creating mutators give it an empty representation
    String e;
    e.expandTo(2);
    EXPECT_EQ(str(e), "  ");
    String z;
    z.resizeFor(10);
    EXPECT_FALSE(z.isNull());
    EXPECT_STREQ(z.text(), "");
    String p;
    p.replace("ab", 2, 0, 1);
    EXPECT_EQ(str(p), " ab");
    String q;
    q.insert("ab", 2, 0, 0);
    EXPECT_EQ(str(q), "ab");
}

TEST(String, SearchesFindFirstAndLastAndNullStringsFindNothing) {
    String s("one two three two");
    EXPECT_EQ(s.index('t'), 4UL);
    EXPECT_EQ(s.index('t', 5), 8UL);
    EXPECT_EQ(s.index("two"), 4UL);
    EXPECT_EQ(s.index("two", 5), 14UL);
    EXPECT_EQ(s.index("four"), kNpos);
    EXPECT_EQ(s.indexChar("wh", 0), 5UL);
    EXPECT_EQ(s.rindexChar("o"), 16UL);
    EXPECT_EQ(s.rindexChar("o", 10), 6UL);
    EXPECT_EQ(s.rindex('e'), 12UL);
    EXPECT_EQ(s.rindex('\0'), s.length());
    EXPECT_EQ(s.rindex('z'), kNpos);
    String n;
    EXPECT_EQ(n.index('a'), kNpos);
    EXPECT_EQ(n.index("a"), kNpos);
    EXPECT_EQ(n.indexChar("a"), kNpos);
    EXPECT_EQ(n.rindexChar("a"), kNpos);
    EXPECT_EQ(n.rindex('\0'), kNpos);
    EXPECT_EQ(s.index(static_cast<char const*>(nullptr)), kNpos);
}

TEST(String, EmbeddedNulsFollowTheCLibrary) {
    String s("a\0xb", 4);  // counted constructors keep embedded NULs
    EXPECT_EQ(s.length(), 4UL);
    EXPECT_EQ(s[2], 'x');
    EXPECT_EQ(s.index('x'), kNpos);  // strchr stops at the first NUL
    EXPECT_EQ(s.index('\0'), 1UL);
    EXPECT_EQ(s.index("xb"), kNpos);  // so does strstr
    EXPECT_EQ(s.indexChar("x"), 1UL);  // by length, and strchr(set, NUL) matches every set
    EXPECT_EQ(s.indexChar("x", 2), 2UL);
    EXPECT_TRUE(s == String("a"));  // strcmp
    EXPECT_EQ(s.nthIndex(1, 'x'), kNpos);  // walks the NUL-terminated text
    EXPECT_EQ(str(s.reverse()), std::string("bx\0a", 4));
}

TEST(String, ReverseOfNullOrEmptyIsNull) {
    EXPECT_EQ(str(String("abc").reverse()), "cba");
    EXPECT_TRUE(String().reverse().isNull());
    EXPECT_TRUE(String("").reverse().isNull());
    EXPECT_EQ(str(String("x").reverse()), "x");
}

TEST(String, NullStaticIsNullAndUsable) {
    EXPECT_TRUE(String::null_.isNull());
    String copy = String::null_;
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(String::null_.length(), 0UL);
    EXPECT_STREQ(String::null_.text(), "");
}

TEST(String, PurgeTwiceIsHarmless) {
    String s("x");
    s.purge();
    s.purge();
    EXPECT_TRUE(s.isNull());
}

// ---------------------------------------------------------------------------
// 64-bit decisions
// ---------------------------------------------------------------------------

TEST(String64, NotFoundIsThe32BitAllOnesValue) {
    static_assert(String::npos == 0xFFFFFFFFUL, "npos is 0xFFFFFFFF as an unsigned long");
    static_assert(String::maxLength == 0xFFFFFFFEUL, "lengths fit 32 bits below npos");
    EXPECT_EQ(String("abc").index('z'), 4294967295UL);
    EXPECT_NE(String("abc").index('z'), static_cast<unsigned long>(-1));
}

TEST(String64, HugePositionNeverAliasesSmallOne) {
    String s("abc");
    EXPECT_EQ(s.index('b', kFar), kNpos);
    EXPECT_EQ(s.index("b", kFar), kNpos);
    EXPECT_EQ(s.indexChar("b", kFar), kNpos);
    String const& cs = s;
    EXPECT_EQ(cs[kFar], '\0');
    unsigned long start = 9, end = 9;
    EXPECT_FALSE(s.tokSpan(",", kFar, start, end));
    EXPECT_EQ(start, 9UL);
    SubString v = s(kFar, 2);
    EXPECT_EQ(v.start(), 0UL);
    EXPECT_EQ(v.length(), 0UL);
    SubString w = s(kFar);
    EXPECT_EQ(w.length(), 0UL);
}

TEST(String64, RemoveNeverWraps) {
    String s("abcd");
    s.remove(1, ULONG_MAX);
    EXPECT_EQ(str(s), "a");
    String t("abcd");
    t.remove(2, 0xFFFFFFFFUL);  // 2 + 0xFFFFFFFF wraps to 1 in 32 bits
    EXPECT_EQ(str(t), "ab");
    String u("abcd");
    u.remove(kFar, 2);
    EXPECT_EQ(str(u), "abcd");
    String w("abcd");
    w.remove(1, (1UL << 32) + 1);
    EXPECT_EQ(str(w), "a");
}

TEST(String64, ViewClippingNeverWraps) {
    String s("abcdef");
    EXPECT_EQ(str(s(2, 0xFFFFFFFFUL)), "cdef");
    EXPECT_EQ(str(s(2, ULONG_MAX)), "cdef");
    EXPECT_EQ(str(s(1, (1UL << 32) + 2)), "bcdef");
    SubStringRep r(s, 3, 0xFFFFFFFEUL);
    EXPECT_EQ(r.start, 3u);
    EXPECT_EQ(r.length, 3u);
}

TEST(String64, RindexCharTreatsNotFoundAsFromTheLast) {
    String s("a,b,c,");
    EXPECT_EQ(s.rindexChar(",", 0xFFFFFFFFUL), 5UL);
    EXPECT_EQ(s.rindexChar(",", ULONG_MAX), 5UL);
    EXPECT_EQ(s.rindexChar(",", 100), 5UL);
    EXPECT_EQ(s.rindexChar(",", 4), 3UL);
}

TEST(String64, WritesBeyondMaxLengthLeaveTheStringAlone) {
    char small[4] = "xyz";
    String s("abc");
    s.replace(small, 3, 0, kFar);  // not at position 1
    EXPECT_EQ(str(s), "abc");
    s.insert(small, 3, 0, kFar);
    EXPECT_EQ(str(s), "abc");
    s.append(small, 0x100000000UL);  // would need a 4 GiB text: refused before reading
    EXPECT_EQ(str(s), "abc");
    s.expandTo(1UL << 32);
    EXPECT_EQ(str(s), "abc");
    s[kFar] = 'q';
    EXPECT_EQ(str(s), "abc");
    EXPECT_EQ(String('x', 1UL << 32).length(), 0UL);
    EXPECT_EQ(String(small, 1UL << 32).length(), 0UL);
    StringRep r("abc", 3);
    EXPECT_FALSE(r.expandTo(0x1FFFFFFFFUL));
    EXPECT_FALSE(r.resizeFor(0xFFFFFFFFUL));
    EXPECT_EQ(str(r), "abc");
}

// ---------------------------------------------------------------------------
// Appending from the string's own text
// ---------------------------------------------------------------------------

TEST(StringSelf, AppendToItselfDoubles) {
    String s("abc");
    s += s;
    EXPECT_EQ(str(s), "abcabc");
    String g("0123456789abcde");  // 15 characters: doubling must grow the buffer
    unsigned int cap = g.representation()->capacity;
    g += g;
    EXPECT_EQ(str(g), "0123456789abcde0123456789abcde");
    EXPECT_GT(g.representation()->capacity, 30u);
    EXPECT_GT(g.representation()->capacity, cap);
    for (int i = 0; i < 6; ++i) g += g;
    EXPECT_EQ(g.length(), 30UL * 64);
    EXPECT_EQ(std::string(g.text() + 30 * 63), "0123456789abcde0123456789abcde");
}

TEST(StringSelf, AppendSharedToItselfDoublesAndLeavesCopy) {
    String s("xyz");
    String copy = s;
    s += s;
    EXPECT_EQ(str(s), "xyzxyz");
    EXPECT_EQ(str(copy), "xyz");
}

TEST(StringSelf, AppendFromOwnTextPointers) {
    String s("abcdefghijklmn");  // 14: the appends below grow the buffer
    s.append(s.text() + 2, 3);
    EXPECT_EQ(str(s), "abcdefghijklmncde");
    s += s.text();
    EXPECT_EQ(str(s), "abcdefghijklmncdeabcdefghijklmncde");
    String v("view");
    v += String(v(1, 2));
    EXPECT_EQ(str(v), "viewie");
}

TEST(StringSelf, ReplaceAndInsertFromOwnText) {
    String s("abcdef");
    s.replace(s.text(), 3, 0, 4);
    EXPECT_EQ(str(s), "abcdabc");
    String t("abc");
    t.insert(t.text(), 3, 0, 1);
    EXPECT_EQ(str(t), "aabcbc");
    String u("0123456789abcdef");
    u.insert(u.text() + 8, 8, 0, 0);
    EXPECT_EQ(str(u), "89abcdef0123456789abcdef");
    String w("a.b");
    String r = w.substitute(w.text() + 1, w.text());
    EXPECT_EQ(str(r), "aa.b");
}

TEST(String, SubstituteWithEmptyPatternDoesNothing) {
    String s("abc");
    EXPECT_EQ(str(s.substitute("", "x")), "abc");
    EXPECT_EQ(str(s.substitute(nullptr, "x")), "abc");
    EXPECT_EQ(str(s.substitute("b", nullptr)), "ac");
    StringRep r("abc", 3);
    r.substitute("", "zz");
    EXPECT_EQ(str(r), "abc");
}

TEST(String, SubstituteMatchAtTheEnd) {
    EXPECT_EQ(str(String("abab").substitute("ab", "xyz")), "xyzxyz");
    EXPECT_EQ(str(String("abab").substitute("ab", "")), "");
    EXPECT_EQ(str(String("aaa").substitute("a", "bcd")), "bcdbcdbcd");
    EXPECT_EQ(str(String("aXbXc").substitute("X", "X")), "aXbXc");
}

// ---------------------------------------------------------------------------
// Allocation failure
// ---------------------------------------------------------------------------

TEST(StringNoMemory, OperationsLeaveTheStringAsItWas) {
    TestAllocator ta;
    RouteBuffers route(&ta);
    String s("0123456789abcd");  // 14 in a 16-byte buffer
    String shared = s;
    String other("xy");
    ta.failing = true;

    shared += "too long for the buffer";  // copy-on-write needs a block
    EXPECT_EQ(str(shared), "0123456789abcd");
    EXPECT_EQ(shared.representation(), s.representation());
    EXPECT_EQ(s.representation()->refs, 2u);

    shared.purge();
    s += "long enough to need growth";
    EXPECT_EQ(str(s), "0123456789abcd");
    s += s;
    EXPECT_EQ(str(s), "0123456789abcd");
    s.replace("wxyz", 4, 0, 12);
    EXPECT_EQ(str(s), "0123456789abcd");
    s.insert("++", 2, 0, 3);
    EXPECT_EQ(str(s), "0123456789abcd");
    s.expandTo(40);
    EXPECT_EQ(str(s), "0123456789abcd");
    s[30] = 'x';
    EXPECT_EQ(str(s), "0123456789abcd");
    s.append(s.text(), 5);
    EXPECT_EQ(str(s), "0123456789abcd");
    s += 'e';  // still fits: 15 characters in 16 bytes
    EXPECT_EQ(str(s), "0123456789abcde");
    s += 'f';
    EXPECT_EQ(str(s), "0123456789abcde");
    s.replace("AB", 2, 0, 0);  // in place: needs nothing
    EXPECT_EQ(str(s), "AB23456789abcde");

    StringRep r("a.b.c", 5);  // no block: stays empty
    EXPECT_EQ(r.length, 0u);
    String fresh("abc");
    EXPECT_FALSE(fresh.isNull());
    EXPECT_EQ(fresh.length(), 0UL);
    ta.failing = false;

    StringRep q("a.b.c.d.e.f.g", 13);  // 16 bytes: 19 characters need a new block
    ta.failing = true;
    q.substitute(".", "::");
    EXPECT_EQ(str(q), "a.b.c.d.e.f.g");
    q.substitute(".", "");  // shrinking needs nothing
    EXPECT_EQ(str(q), "abcdefg");
    ta.failing = false;
}

// ===========================================================================
// SubString
// ===========================================================================

TEST(SubString, ViewsClipToTheText) {
    String s("abcdef");
    SubString v = s(2, 10);
    EXPECT_EQ(str(v), "cdef");
    EXPECT_EQ(v.start(), 2UL);
    EXPECT_EQ(v.length(), 4UL);
    SubString e = s(6, 1);
    EXPECT_EQ(e.start(), 0UL);
    EXPECT_EQ(e.length(), 0UL);
    SubString f = s(9);
    EXPECT_EQ(f.start(), 0UL);
    EXPECT_EQ(f.length(), 0UL);
    EXPECT_EQ(str(s(3)), "def");
}

TEST(SubString, EqualityWithText) {
    String s("abcdef");
    SubString v = s(0, 3);
    EXPECT_TRUE(v == "abc");
    EXPECT_FALSE(v == "ab");
    EXPECT_FALSE(v == "abcd");
    SubString e = s(9);
    EXPECT_TRUE(e == "");
    EXPECT_FALSE(e == "a");
}

TEST(SubString, CompareIsBoundedAndReversed) {
    String s("abcdef");
    SubString v = s(0, 3);
    EXPECT_EQ(v.compare("abcz"), 0);
    EXPECT_GT(v.compare("abd"), 0);
    EXPECT_LT(v.compare("abb"), 0);
    EXPECT_GT(v.compare(String("abd")), 0);
    EXPECT_EQ(v.icompare("ABC"), 0);
    EXPECT_GT(v.icompare(String("ABD")), 0);
    SubString w = String("abd")(0);
    EXPECT_GT(v.compare(w), 0);
    EXPECT_LT(w.compare(v), 0);
    EXPECT_EQ(v.icompare(String("XABCX")(1, 3)), 0);
}

TEST(SubString, ViewKeepsOldTextAcrossWrites) {
    String s("abcdef");
    SubString v = s(1, 2);
    s.replace("XY", 2, 0, 0);
    EXPECT_EQ(str(s), "XYcdef");
    EXPECT_EQ(str(v), "bc");
    EXPECT_TRUE(v == "bc");
    s.purge();
    EXPECT_EQ(str(String(v)), "bc");
}

TEST(SubString, AssigningAStringRebindsTheView) {
    String s("abcdef");
    SubString v = s(1, 2);
    v = String("xyz");
    EXPECT_EQ(str(s), "abcdef");
    EXPECT_EQ(str(v), "xyz");
    EXPECT_EQ(v.start(), 0UL);
    v = v.representation()->parent;  // rebinding to its own parent is safe
    EXPECT_EQ(str(v), "xyz");
}

TEST(SubString, EqualityBetweenViewsAndStrings) {
    String s("abcabc");
    EXPECT_TRUE(s(0, 3) == s(3, 3));
    EXPECT_FALSE(s(0, 3) == s(1, 3));
    EXPECT_FALSE(s(0, 3) == s(0, 2));
    EXPECT_TRUE(s(9) == String("x")(5));
    EXPECT_TRUE(s(0, 3) == String("abc"));
    EXPECT_FALSE(s(0, 3) == String("abcd"));
    SubString none;
    EXPECT_TRUE(none == String());
    EXPECT_FALSE(none == String(""));
    EXPECT_TRUE(none == "");
    EXPECT_EQ(none.compare("a"), -1);
    EXPECT_EQ(none.compare(String("a")), -1);
    EXPECT_EQ(none.icompare(s(0)), -1);
    SubString ofNull = String()(0);
    EXPECT_EQ(ofNull.chars(), nullptr);
    EXPECT_TRUE(ofNull == "");
    EXPECT_TRUE(ofNull == String(""));
    EXPECT_TRUE(String(ofNull).isNull());
    EXPECT_FALSE(String(String("")(0)).isNull());
}

TEST(SubString, CopiesShareAndPurgeReleasesOnce) {
    String s("held");
    {
        SubString v = s(1);
        EXPECT_EQ(s.representation()->refs, 2u);
        SubString w = v;
        EXPECT_EQ(w.representation(), v.representation());
        EXPECT_EQ(v.representation()->refs, 2u);
        w.purge();
        w.purge();
        EXPECT_EQ(w.representation(), nullptr);
        EXPECT_EQ(v.representation()->refs, 1u);
        SubString& alias = v;
        v = alias;  // self-assignment keeps the view
        EXPECT_EQ(str(v), "eld");
        v.purge();
        EXPECT_EQ(s.representation()->refs, 1u);
    }
    EXPECT_EQ(s.representation()->refs, 1u);
}

TEST(SubStringRep, ClipAndEmpty) {
    String s("abcdef");
    SubStringRep r(s, 4, 2);
    EXPECT_EQ(r.start, 4u);
    EXPECT_EQ(r.length, 2u);
    r.length = 7;
    r.clip();
    EXPECT_EQ(r.length, 2u);
    r.start = 6;
    r.clip();
    EXPECT_EQ(r.start, 0u);
    EXPECT_EQ(r.length, 0u);
    SubStringRep q(s, 1);
    EXPECT_EQ(q.length, 5u);
    q.empty();
    EXPECT_EQ(q.start, 0u);
    EXPECT_EQ(q.length, 0u);
}

// ===========================================================================
// StringChar
// ===========================================================================

TEST(StringChar, WritePastEndOnlyPads) {
    String s("ab");
    s[5] = 'x';
    EXPECT_EQ(str(s), "ab   ");
    EXPECT_EQ(s.length(), 5UL);
    String t("ab");
    t[1] = 'x';
    EXPECT_EQ(str(t), "ax");
    String u("ab");
    u[2] = 'x';
    EXPECT_EQ(str(u), "ab");
    String n;
    n[0] = 'x';
    EXPECT_FALSE(n.isNull());
    EXPECT_EQ(n.length(), 0UL);
}

TEST(StringChar, WriteThroughSharedStringLeavesCopy) {
    String s("abc");
    String copy = s;
    s[0] = 'X';
    EXPECT_EQ(str(s), "Xbc");
    EXPECT_EQ(str(copy), "abc");
}

TEST(StringChar, ReadsAndCopiesCharacters) {
    String s("abc");
    char c = s[1];
    EXPECT_EQ(c, 'b');
    EXPECT_EQ(static_cast<char>(s[7]), '\0');
    s[0] = s[2];  // copies the character, not the proxy
    EXPECT_EQ(str(s), "cbc");
    String& r = (s[1] = 'Z');
    EXPECT_EQ(&r, &s);
}

TEST(StringThreads, SeparateStringsOnSeparateThreads) {
    // Strings are values: threads that never share one need no lock; their buffers
    // come from the process allocator concurrently.
    std::vector<std::thread> threads;
    std::vector<int> ok(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &ok] {
            int good = 0;
            for (int i = 0; i < 2000; ++i) {
                String s("x.y");
                s += static_cast<long>(t);
                String c = s;
                c += s;
                String r = c.substitute(".", "::");
                std::string want = "x::y" + std::to_string(t) + "x::y" + std::to_string(t);
                if (str(r) == want && str(s) == "x.y" + std::to_string(t)) ++good;
            }
            ok[static_cast<size_t>(t)] = good;
        });
    }
    for (std::thread& th : threads) th.join();
    for (int good : ok) EXPECT_EQ(good, 2000);
}

// ===========================================================================
// Randomised differential test against a reference model over std::string
// ===========================================================================

namespace {

// The reference: the same semantics written plainly over std::string.
struct Model {
    bool null = true;
    std::string s;
};

unsigned long mIndex(Model const& m, char c, unsigned long pos) {
    if (m.null || pos >= m.s.size()) return kNpos;
    if (c == 0) return m.s.size();
    size_t p = m.s.find(c, pos);
    return p == std::string::npos ? kNpos : p;
}
unsigned long mIndex(Model const& m, std::string const& pat, unsigned long pos) {
    if (m.null || pos >= m.s.size()) return kNpos;
    size_t p = m.s.find(pat, pos);
    return p == std::string::npos ? kNpos : p;
}
unsigned long mIndexChar(Model const& m, std::string const& set, unsigned long pos) {
    if (m.null || pos >= m.s.size()) return kNpos;
    size_t p = m.s.find_first_of(set, pos);
    return p == std::string::npos ? kNpos : p;
}
unsigned long mRindexChar(Model const& m, std::string const& set, unsigned long pos) {
    if (m.null || m.s.empty()) return kNpos;
    size_t from = pos >= m.s.size() ? m.s.size() - 1 : pos;
    size_t p = m.s.find_last_of(set, from);
    return p == std::string::npos ? kNpos : p;
}
unsigned long mNth(Model const& m, unsigned long n, char c) {
    if (n == 0) return 0;
    if (c == 0 || m.null) return kNpos;
    size_t p = 0;
    for (unsigned long k = 1;; ++k) {
        p = m.s.find(c, p);
        if (p == std::string::npos) return kNpos;
        if (k == n) return p;
        ++p;
    }
}
void mPad(Model& m, size_t to) {
    if (m.s.size() < to) m.s.append(to - m.s.size(), ' ');
}
void mReplace(Model& m, std::string const& src, size_t pos) {
    m.null = false;
    mPad(m, pos);
    if (m.s.size() < pos + src.size()) m.s.resize(pos + src.size());
    m.s.replace(pos, src.size(), src);
}
void mInsert(Model& m, std::string const& src, size_t pos) {
    m.null = false;
    mPad(m, pos);
    m.s.insert(pos, src);
}
void mRemove(Model& m, unsigned long pos, unsigned long n) {
    m.null = false;
    size_t start = pos < m.s.size() ? pos : m.s.size();
    size_t len = n < m.s.size() - start ? n : m.s.size() - start;
    m.s.erase(start, len);
}
bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
void mTrim(Model& m) {
    if (m.null) return;
    size_t b = 0;
    while (b < m.s.size() && isSpace(m.s[b])) ++b;
    size_t e = m.s.size();
    while (e > b && isSpace(m.s[e - 1])) --e;
    m.s = m.s.substr(b, e - b);
}
Model mSubstitute(Model const& m, std::string const& from, std::string const& to) {
    if (m.null || from.empty()) return m;
    Model r;
    r.null = false;
    size_t p = 0;
    for (;;) {
        size_t i = m.s.find(from, p);
        if (i == std::string::npos) break;
        r.s += m.s.substr(p, i - p);
        r.s += to;
        p = i + from.size();
    }
    r.s += m.s.substr(p);
    return r;
}
int sign(int v) { return (v > 0) - (v < 0); }
int mCompare(Model const& a, Model const& b) {
    if (a.null && b.null) return 0;
    if (!a.null && !b.null) return sign(std::strcmp(a.s.c_str(), b.s.c_str()));
    if (!a.null) return a.s.empty() ? 0 : 1;
    return b.s.empty() ? 0 : -1;
}
bool mEq(Model const& a, Model const& b) {
    if (a.null && b.null) return true;
    if (!a.null && !b.null) return a.s == b.s;
    return (a.null ? b.s : a.s).empty();
}
bool mLe(Model const& a, Model const& b) {
    if (a.null && b.null) return true;
    if (!a.null && !b.null) return std::strcmp(a.s.c_str(), b.s.c_str()) <= 0;
    return (a.null ? b.s : a.s).empty();
}
bool mLt(Model const& a, Model const& b) {
    if (a.null || b.null) return false;
    return std::strcmp(a.s.c_str(), b.s.c_str()) < 0;
}

struct KeptView {
    SubString view;
    bool parentNull;
    unsigned long start;
    std::string text;
};

class Differential {
public:
    // `blocks` is the allocator string buffers come from (donated blocks go back to it).
    Differential(unsigned seed, Allocator* blocks) : rng(seed), blocks(blocks) {}

    void run(unsigned long ops) {
        for (unsigned long i = 0; i < ops; ++i) {
            step();
            if (HasFailure()) return;
            if (i % 97 == 0) checkAll();
            if (HasFailure()) return;
        }
        checkAll();
    }

    static bool HasFailure() { return ::testing::Test::HasFailure(); }

private:
    static constexpr int kSlots = 8;
    std::mt19937 rng;
    Allocator* blocks;
    String slot[kSlots];
    Model model[kSlots];
    std::vector<KeptView> views;
    unsigned long stepNo = 0;

    unsigned long pick(unsigned long n) { return std::uniform_int_distribution<unsigned long>(0, n - 1)(rng); }
    char randChar() {
        static char const alphabet[] = "aab ,.AzZ\t";
        return alphabet[pick(sizeof alphabet - 1)];
    }
    std::string randText(unsigned long maxLen) {
        std::string t;
        unsigned long n = pick(maxLen + 1);
        for (unsigned long i = 0; i < n; ++i) t += randChar();
        return t;
    }
    unsigned long randPos(size_t len) {
        switch (pick(8)) {
        case 0:
            return kFar + pick(4);
        case 1:
            return len;
        default:
            return pick(len + 6);
        }
    }

    void check(int k, char const* what) {
        Model const& m = model[k];
        String const& s = slot[k];
        ASSERT_EQ(s.isNull(), m.null) << what << " slot " << k << " step " << stepNo;
        ASSERT_EQ(str(s), m.s) << what << " slot " << k << " step " << stepNo;
        ASSERT_EQ(repProblem(s.representation()), "") << what << " slot " << k << " step " << stepNo;
    }
    void checkAll() {
        for (int k = 0; k < kSlots; ++k) check(k, "sweep");
        for (KeptView const& v : views) {
            ASSERT_EQ(v.view.start(), v.start) << "view start, step " << stepNo;
            ASSERT_EQ(v.view.representation()->verify(), nullptr) << "view, step " << stepNo;
            ASSERT_EQ(str(v.view), v.text) << "view text, step " << stepNo;
            ASSERT_EQ(String(v.view).isNull(), v.parentNull) << "view parent, step " << stepNo;
            ASSERT_TRUE(v.view == v.text.c_str()) << "view ==, step " << stepNo;
        }
    }

    void step() {
        ++stepNo;
        int k = static_cast<int>(pick(kSlots));
        String& s = slot[k];
        Model& m = model[k];
        char const* what = "";
        if (m.s.size() > 3000) {  // keep texts short enough to stay fast
            s.remove(0, 2500);
            mRemove(m, 0, 2500);
            check(k, "trim back");
            return;
        }
        switch (pick(26)) {
        case 0: {  // copy, later written on either side
            int j = static_cast<int>(pick(kSlots));
            slot[j] = s;
            model[j] = m;
            what = "copy";
            check(j, what);
            break;
        }
        case 1: {
            std::string t = randText(20);
            s += t.c_str();
            if (m.null) m.null = false;
            m.s += t;
            what = "+= text";
            break;
        }
        case 2: {
            char c = randChar();
            s += c;
            m.null = false;
            m.s += c;
            what = "+= char";
            break;
        }
        case 3: {
            long n = static_cast<long>(pick(2000000)) - 1000000;
            s += n;
            m.null = false;
            m.s += std::to_string(n);
            what = "+= long";
            break;
        }
        case 4: {
            int j = static_cast<int>(pick(kSlots));
            Model o = model[j];
            s += slot[j];
            if (!o.null) {
                if (m.null) {
                    m = o;
                } else {
                    m.s += o.s;
                }
            }
            what = "+= String (self included)";
            break;
        }
        case 5: {
            std::string t = randText(12);
            unsigned long pos = randPos(m.s.size());
            s.replace(t.c_str(), t.size(), 0, pos);
            if (pos < kFar) mReplace(m, t, pos);
            else m.null = false;
            what = "replace";
            break;
        }
        case 6: {
            std::string t = randText(12);
            unsigned long pos = randPos(m.s.size());
            s.insert(t.c_str(), t.size(), 0, pos);
            if (pos < kFar) mInsert(m, t, pos);
            else m.null = false;
            what = "insert";
            break;
        }
        case 7: {
            unsigned long pos = randPos(m.s.size());
            unsigned long n = pick(4) == 0 ? ULONG_MAX - pick(3) : pick(10);
            s.remove(pos, n);
            mRemove(m, pos, n);
            what = "remove";
            break;
        }
        case 8:
            if (pick(2)) {
                s.toUpper();
                for (char& c : m.s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            } else {
                s.toLower();
                for (char& c : m.s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
            what = "case";
            break;
        case 9: {
            unsigned long n = pick(3) == 0 ? kFar + pick(50) : pick(40);
            s.rotateLeft(n);
            if (m.s.size() > 1) {
                size_t r = n % m.s.size();
                std::rotate(m.s.begin(), m.s.begin() + static_cast<long>(r), m.s.end());
            }
            what = "rotateLeft";
            break;
        }
        case 10:
            s.trim();
            mTrim(m);
            what = "trim";
            break;
        case 11: {
            unsigned long n = pick(m.s.size() + 20);
            s.expandTo(n);
            m.null = false;
            mPad(m, n);
            what = "expandTo";
            break;
        }
        case 12: {
            unsigned long pos = randPos(m.s.size());
            char c = randChar();
            s[pos] = c;
            m.null = false;
            if (pos < kFar) {
                mPad(m, pos);
                if (pos < m.s.size()) m.s[pos] = c;
            }
            what = "proxy write";
            break;
        }
        case 13: {  // a view kept across later writes
            unsigned long pos = randPos(m.s.size());
            unsigned long len = pick(4) == 0 ? ULONG_MAX : pick(12);
            KeptView v{s(pos, len), m.null, 0, std::string()};
            if (pos < m.s.size()) {
                v.start = pos;
                v.text = m.s.substr(pos, len);
            }
            if (views.size() < 16) views.push_back(v);
            else views[pick(views.size())] = v;
            what = "view";
            break;
        }
        case 14: {  // searches
            String const& cs = s;
            unsigned long pos = randPos(m.s.size());
            char c = pick(10) == 0 ? '\0' : randChar();
            ASSERT_EQ(cs.index(c, pos), mIndex(m, c, pos)) << "index(c) step " << stepNo;
            std::string pat = randText(3);
            ASSERT_EQ(cs.index(pat.c_str(), pos), mIndex(m, pat, pos)) << "index(pat) step " << stepNo;
            std::string set = randText(3);
            ASSERT_EQ(cs.indexChar(set.c_str(), pos), mIndexChar(m, set, pos)) << "indexChar step " << stepNo;
            unsigned long rpos = pick(3) == 0 ? kNpos : pos;
            ASSERT_EQ(cs.rindexChar(set.c_str(), rpos), mRindexChar(m, set, rpos)) << "rindexChar step " << stepNo;
            unsigned long nth = pick(5);
            ASSERT_EQ(cs.nthIndex(nth, c), mNth(m, nth, c)) << "nthIndex step " << stepNo;
            unsigned long ri = m.null ? kNpos : (c == 0 ? m.s.size() : m.s.rfind(c));
            if (ri == std::string::npos) ri = kNpos;
            ASSERT_EQ(cs.rindex(c), ri) << "rindex step " << stepNo;
            ASSERT_EQ(cs[pos], pos < m.s.size() ? m.s[pos] : '\0') << "operator[] step " << stepNo;
            what = "search";
            break;
        }
        case 15: {
            std::string from = randText(2);
            std::string to = randText(3);
            String r = s.substitute(from.c_str(), to.c_str());
            Model mr = mSubstitute(m, from, to);
            ASSERT_EQ(r.isNull(), mr.null) << "substitute step " << stepNo;
            ASSERT_EQ(str(r), mr.s) << "substitute '" << from << "' -> '" << to << "' step " << stepNo;
            if (!m.null) {  // the buffer's own in-place substitution gives the same text
                StringRep sr(m.s.c_str(), m.s.size());
                sr.substitute(from.c_str(), to.c_str());
                ASSERT_EQ(str(sr), mr.s) << "StringRep::substitute step " << stepNo;
                ASSERT_EQ(sr.verify(), nullptr) << "StringRep::substitute step " << stepNo;
            }
            what = "substitute";
            break;
        }
        case 16: {
            int j = static_cast<int>(pick(kSlots));
            String const& o = slot[j];
            Model const& mo = model[j];
            ASSERT_EQ(sign(s.compare(o)), mCompare(m, mo)) << "compare step " << stepNo;
            ASSERT_EQ(s == o, mEq(m, mo)) << "== step " << stepNo;
            ASSERT_EQ(s <= o, mLe(m, mo)) << "<= step " << stepNo;
            ASSERT_EQ(s < o, mLt(m, mo)) << "< step " << stepNo;
            bool sw = mo.null || (!m.null && m.s.compare(0, mo.s.size(), mo.s) == 0);
            ASSERT_EQ(s.startsWith(o), sw) << "startsWith step " << stepNo;
            what = "compare";
            break;
        }
        case 17:
            if (pick(2)) {
                s.purge();
                m = Model();
            } else {
                s = String("");
                m.null = false;
                m.s.clear();
            }
            what = "reset";
            break;
        case 18: {
            String r = s.reverse();
            ASSERT_EQ(r.isNull(), m.null || m.s.empty()) << "reverse step " << stepNo;
            ASSERT_EQ(str(r), std::string(m.s.rbegin(), m.s.rend())) << "reverse step " << stepNo;
            what = "reverse";
            break;
        }
        case 19: {
            std::string delims = randText(2);
            unsigned long pos = 0, start = 0, end = 0;
            std::vector<std::string> got;
            while (s.tokSpan(delims.c_str(), pos, start, end)) {
                got.emplace_back(s.text() + start, end - start);
                pos = end;
            }
            std::vector<std::string> want;
            if (!m.null) {
                size_t p = 0;
                for (;;) {
                    size_t b = m.s.find_first_not_of(delims, p);
                    if (b == std::string::npos) break;
                    size_t e = m.s.find_first_of(delims, b + 1);
                    if (e == std::string::npos) e = m.s.size();
                    want.push_back(m.s.substr(b, e - b));
                    p = e;
                }
            }
            ASSERT_EQ(got, want) << "tokSpan '" << delims << "' step " << stepNo;
            what = "tokSpan";
            break;
        }
        case 20: {
            unsigned long n = pick(m.s.size() + 3);
            String p(s, n);
            ASSERT_EQ(p.isNull(), m.null) << "prefix step " << stepNo;
            ASSERT_EQ(str(p), m.s.substr(0, n)) << "prefix step " << stepNo;
            what = "prefix";
            break;
        }
        case 21: {  // hand the buffer over and take it back
            char* p = s.donate();
            if (m.null) {
                ASSERT_EQ(p, nullptr) << "donate step " << stepNo;
            } else if (p != StringRep::emptyText() && *p == 0) {
                ASSERT_TRUE(m.s.empty()) << "donate step " << stepNo;
                blocks->free(p);  // an empty block is not adopted back: it is ours to free
            } else if (p != StringRep::emptyText()) {
                ASSERT_EQ(std::string(p), m.s.substr(0, std::strlen(p))) << "donate step " << stepNo;
                s.consume(p);
                m.s = std::string(p);
                check(k, "consume");
                return;
            } else {
                ASSERT_TRUE(m.s.empty()) << "donate step " << stepNo;
            }
            m = Model();
            what = "donate";
            break;
        }
        case 22: {  // appends whose source is the string's own text
            if (m.s.empty()) break;
            unsigned long a = pick(m.s.size());
            unsigned long n = pick(m.s.size() - a + 1);
            std::string piece = m.s.substr(a, n);
            switch (pick(3)) {
            case 0:
                s.append(s.text() + a, n);
                m.s += piece;
                break;
            case 1: {
                unsigned long pos = pick(m.s.size() + 3);
                s.replace(s.text(), n, a, pos);
                mReplace(m, piece, pos);
                break;
            }
            default: {
                unsigned long pos = pick(m.s.size() + 3);
                s.insert(s.text(), n, a, pos);
                mInsert(m, piece, pos);
                break;
            }
            }
            what = "self source";
            break;
        }
        case 23: {
            String t(s);
            t += 'w';  // a copy written: the source must not change
            check(k, "copy then write");
            ASSERT_EQ(str(t), m.s + 'w');
            what = "copy+write";
            break;
        }
        case 24: {
            std::string t = randText(6);
            String built(t.c_str(), t.size());
            slot[k] = built + s;  // operator+(String, String)
            model[k].null = false;
            model[k].s = t + m.s;
            what = "operator+";
            break;
        }
        default: {
            std::string t = randText(30);
            s = String(t.c_str());
            m.null = false;
            m.s = t;
            what = "assign";
            break;
        }
        }
        check(k, what);
    }
};

}  // namespace

TEST(StringDifferential, MatchesReferenceModelOnProcessAllocator) {
    unsigned long ops = zotest::scaled(100000);
    for (unsigned seed : {1u, 2u}) {
        Differential d(seed, Allocator::theAllocator());
        d.run(ops / 2);
        ASSERT_FALSE(::testing::Test::HasFailure()) << "seed " << seed;
    }
}

TEST(StringDifferential, MatchesReferenceModelOnExactSizeBlocks) {
    // Blocks reported at exactly their requested size, from malloc: any write past a
    // buffer's capacity is caught by AddressSanitizer in the asan build.
    TestAllocator ta;
    RouteBuffers route(&ta);
    {
        Differential d(3, &ta);
        d.run(zotest::scaled(30000));
    }
    EXPECT_EQ(ta.live, 0);
}

// ---------------------------------------------------------------------------
// Number appends: the digits are written directly; the text is snprintf's
// ---------------------------------------------------------------------------
namespace {

// Values spread over every magnitude: random words shifted right by a random amount,
// so each digit count from 1 to 20 is reached about equally often.
unsigned long spreadValue(std::mt19937_64& rng) { return rng() >> (rng() % 64); }

}  // namespace

TEST(StringNumbers, IntegerAppendsMatchSnprintfAtTheEdges) {
    std::vector<unsigned long> edges = {0, 1, 9, 10, 11, 99, 100, 101, ULONG_MAX, ULONG_MAX - 1,
                                        static_cast<unsigned long>(LONG_MAX), static_cast<unsigned long>(LONG_MIN)};
    for (unsigned long p = 10; p && p < ULONG_MAX / 10; p *= 10) {
        edges.push_back(p - 1);
        edges.push_back(p);
        edges.push_back(p + 1);
    }
    char expected[32];
    for (unsigned long u : edges) {
        for (unsigned long v : {u, 0UL - u}) {
            String s;
            s += v;
            std::snprintf(expected, sizeof expected, "%lu", v);
            EXPECT_EQ(str(s), expected) << v;
            String t;
            t += static_cast<long>(v);
            std::snprintf(expected, sizeof expected, "%ld", static_cast<long>(v));
            EXPECT_EQ(str(t), expected) << static_cast<long>(v);
        }
    }
}

TEST(StringNumbers, IntegerAppendsMatchSnprintfOverRandomValuesAndBufferStates) {
    std::mt19937_64 rng(20261124);
    unsigned long rounds = zotest::scaled(20000);
    String s("x");
    std::string model = "x";
    char expected[32];
    for (unsigned long i = 0; i < rounds; ++i) {
        unsigned long v = spreadValue(rng);
        switch (rng() % 4) {
            case 0:
                s += v;
                std::snprintf(expected, sizeof expected, "%lu", v);
                break;
            case 1:
                s += static_cast<long>(v);
                std::snprintf(expected, sizeof expected, "%ld", static_cast<long>(v));
                break;
            case 2:
                s += static_cast<int>(v);
                std::snprintf(expected, sizeof expected, "%d", static_cast<int>(v));
                break;
            default:
                s += static_cast<unsigned int>(v);
                std::snprintf(expected, sizeof expected, "%u", static_cast<unsigned int>(v));
                break;
        }
        model += expected;
        if (model.size() > 300) {  // restart from shared, null and fresh strings in turn
            String keep = s;
            ASSERT_EQ(str(keep), model);
            s = (i % 3 == 0) ? String() : (i % 3 == 1) ? String("") : String("y");
            model = (i % 3 == 2) ? "y" : "";
        }
    }
    EXPECT_EQ(str(s), model);
    EXPECT_EQ(repProblem(s.representation()), "");
}

TEST(StringNumbers, EveryIntegerWidthAppendsItsDecimalText) {
    String s;
    s += static_cast<short>(-12);
    s += ' ';
    s += static_cast<unsigned short>(65535);
    s += ' ';
    s += static_cast<unsigned char>(200);  // a number: char is the only character type
    s += ' ';
    s += static_cast<long long>(LLONG_MIN);
    s += ' ';
    s += static_cast<unsigned long long>(ULLONG_MAX);
    EXPECT_EQ(str(s), "-12 65535 200 -9223372036854775808 18446744073709551615");
    String c;
    c += 'A';
    EXPECT_EQ(str(c), "A");
}

TEST(StringNumbers, DoubleAppendsMatchSnprintf) {
    std::mt19937_64 rng(7);
    unsigned long rounds = zotest::scaled(3000);
    char expected[DBL_MAX_10_EXP + 16];
    std::vector<double> values = {0.0, -0.0, 1.5, -1.5, 0.1, 1e-7, 5e-7, 1e15, 1e308, -DBL_MAX, DBL_MIN};
    for (unsigned long i = 0; i < rounds; ++i) {
        std::uint64_t bits = rng();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        if (d != d) continue;  // NaN payload and sign print differently across values; not a number anyway
        values.push_back(d);
    }
    for (double d : values) {
        String s("v=");
        s += d;
        std::snprintf(expected, sizeof expected, "v=%f", d);
        ASSERT_EQ(str(s), expected);
    }
}

// ---------------------------------------------------------------------------
// Character-set scans against a model that asks strchr for every byte
// ---------------------------------------------------------------------------
namespace {

bool inSetModel(char const* set, char c) { return std::strchr(set ? set : "", c) != nullptr; }

unsigned long indexCharModel(std::string const& t, char const* set, unsigned long pos) {
    if (pos >= t.size()) return kNpos;
    for (unsigned long i = pos; i < t.size(); ++i)
        if (inSetModel(set, t[i])) return i;
    return kNpos;
}

unsigned long rindexCharModel(std::string const& t, char const* set, unsigned long pos) {
    if (t.empty()) return kNpos;
    unsigned long i = pos >= t.size() ? t.size() - 1 : pos;
    for (;; --i) {
        if (inSetModel(set, t[i])) return i;
        if (i == 0) return kNpos;
    }
}

// The token search as first written: skip members, then the next member ends it.
bool tokSpanModel(std::string const& t, char const* delims, unsigned long pos, unsigned long& start,
                  unsigned long& end) {
    if (pos >= t.size()) return false;
    unsigned long s = pos;
    while (s < t.size() && inSetModel(delims, t[s])) ++s;
    start = s;
    if (s == t.size()) return false;
    unsigned long e = indexCharModel(t, delims, s + 1);
    end = e == kNpos ? t.size() : e;
    return true;
}

}  // namespace

TEST(StringScans, IndexCharRindexCharAndTokSpanMatchAStrchrModel) {
    std::mt19937_64 rng(424242);
    // A small alphabet with NUL and bytes above 0x7F, so sets hit often and signedness shows.
    char const alphabet[] = {'a', 'b', ',', ' ', '\0', '\x80', '\xff', 'z'};
    unsigned long rounds = zotest::scaled(20000);
    for (unsigned long round = 0; round < rounds; ++round) {
        std::string text(rng() % 24, 'a');
        for (char& c : text) c = alphabet[rng() % sizeof alphabet];
        std::string setText(rng() % 4, 'a');
        for (char& c : setText) c = alphabet[rng() % sizeof alphabet];
        char const* set = (round % 17 == 0) ? nullptr : setText.c_str();  // stops at an embedded NUL
        String s(text.data(), text.size());
        for (unsigned long pos : {0UL, rng() % 26, kNpos, kFar}) {
            ASSERT_EQ(s.indexChar(set, pos), indexCharModel(text, set, pos)) << round;
            ASSERT_EQ(s.rindexChar(set, pos), rindexCharModel(text, set, pos)) << round;
            unsigned long start = 777, end = 888, mStart = 777, mEnd = 888;
            ASSERT_EQ(s.tokSpan(set, pos, start, end), tokSpanModel(text, set, pos, mStart, mEnd)) << round;
            ASSERT_EQ(start, mStart) << round;
            ASSERT_EQ(end, mEnd) << round;
        }
        // A whole walk through the tokens, as callers write it.
        unsigned long pos = 0, start = 0, end = 0, mStart = 0, mEnd = 0;
        while (true) {
            bool got = s.tokSpan(set, pos, start, end);
            ASSERT_EQ(got, tokSpanModel(text, set, pos, mStart, mEnd));
            if (!got) break;
            ASSERT_EQ(start, mStart);
            ASSERT_EQ(end, mEnd);
            pos = end;
        }
    }
}

// ---------------------------------------------------------------------------
// Conveniences: string_view, clear, hashing, streams
// ---------------------------------------------------------------------------
TEST(StringConveniences, FromAndToStringView) {
    std::string_view v("ab\0c", 4);
    String s(v);
    EXPECT_FALSE(s.isNull());
    EXPECT_EQ(s.length(), 4u);
    EXPECT_EQ(s.view(), v);
    std::string_view implicitView = s;
    EXPECT_EQ(implicitView.size(), 4u);
    EXPECT_FALSE(String(std::string_view()).isNull());  // an empty view gives a non-null empty string
    EXPECT_EQ(String().view().size(), 0u);
    EXPECT_EQ(std::string(String("hello").view()), "hello");
}

TEST(StringConveniences, ClearKeepsTheBuffer) {
    String s("some text to keep the room of");
    StringRep const* r = s.representation();
    char const* data = r->data;
    unsigned int capacity = r->capacity;
    s.clear();
    EXPECT_EQ(s.representation(), r);
    EXPECT_EQ(s.length(), 0u);
    EXPECT_STREQ(s.text(), "");
    EXPECT_EQ(r->capacity, capacity);
    EXPECT_EQ(r->data, data);
    EXPECT_EQ(repProblem(r), "");
    s += "again";  // appended in the kept buffer
    EXPECT_EQ(s.representation()->data, data);
    EXPECT_EQ(str(s), "again");
}

TEST(StringConveniences, ClearOfASharedTextLeavesTheOtherHolder) {
    String a("shared text");
    String b = a;
    b.clear();
    EXPECT_EQ(str(a), "shared text");
    EXPECT_EQ(a.representation()->refs, 1u);
    EXPECT_FALSE(b.isNull());
    EXPECT_EQ(b.length(), 0u);
    EXPECT_EQ(repProblem(b.representation()), "");
    String n;
    n.clear();
    EXPECT_TRUE(n.isNull());
    String e("");
    e.clear();  // no buffer: nothing to keep, and the shared empty text is not written
    EXPECT_EQ(e.length(), 0u);
    EXPECT_EQ(repProblem(e.representation()), "");
}

TEST(StringConveniences, HashFollowsEquality) {
    std::hash<String> h;
    EXPECT_EQ(h(String("abc")), h(String("abc")));
    EXPECT_EQ(h(String()), h(String("")));           // null == "" holds
    EXPECT_EQ(h(String("a\0b", 3)), h(String("a", 1)));  // == compares up to the first NUL
    EXPECT_TRUE(String("a\0b", 3) == String("a", 1));
    std::unordered_map<String, int> m;
    m[String("one")] = 1;
    m[String("two")] = 2;
    m[String("one")] += 10;
    EXPECT_EQ(m.size(), 2u);
    EXPECT_EQ(m[String("one")], 11);
}

TEST(StringConveniences, StreamsWriteTheCharacters) {
    std::ostringstream os;
    os << String("ab") << '|' << String() << '|' << String("x\0y", 3);
    EXPECT_EQ(os.str(), std::string("ab||x\0y", 7));
}

// ---------------------------------------------------------------------------
// Further pinned behaviour: comparisons with a null side, substitution edge cases,
// edits whose source is the string's own buffer or null
// ---------------------------------------------------------------------------

TEST(StringCompare, NullSideRulesHoldForCompareAndICompare) {
    String null;
    String empty("");
    String text("Abc");
    String other("aBC");
    ASSERT_TRUE(null.isNull());
    ASSERT_FALSE(empty.isNull());
    EXPECT_EQ(null.compare(text), -1);
    EXPECT_EQ(null.icompare(text), -1);
    EXPECT_EQ(text.compare(null), 1);
    EXPECT_EQ(text.icompare(null), 1);
    EXPECT_EQ(null.compare(empty), 0);
    EXPECT_EQ(null.icompare(empty), 0);
    EXPECT_EQ(empty.compare(null), 0);
    EXPECT_EQ(empty.icompare(null), 0);
    EXPECT_EQ(null.compare(String()), 0);
    EXPECT_EQ(null.icompare(String()), 0);
    String shared = text;  // one representation
    EXPECT_EQ(shared.icompare(text), 0);
    EXPECT_EQ(text.icompare(other), 0);
    EXPECT_NE(text.compare(other), 0);
}

TEST(StringSubstitute, EdgeCasesLeaveTheTextOrRemoveTheMatches) {
    String s("a-b-c");
    EXPECT_STREQ(s.substitute("-", nullptr).text(), "abc");   // a null `to` counts as ""
    EXPECT_STREQ(s.substitute("x", "yy").text(), "a-b-c");    // no match: a copy
    EXPECT_STREQ(s.substitute(nullptr, "yy").text(), "a-b-c");
    EXPECT_STREQ(s.substitute("", "yy").text(), "a-b-c");
    EXPECT_STREQ(s.substitute("-", "--").text(), "a--b--c");
    String gone("aaa");
    String none = gone.substitute("a", "");
    EXPECT_EQ(none.length(), 0u);
    EXPECT_FALSE(none.isNull());
    EXPECT_TRUE(String().substitute("a", "b").isNull());
    EXPECT_STREQ(s.text(), "a-b-c");
}

TEST(StringRepEdits, SourcesInsideTheOwnBufferAreReadBeforeTheyMove) {
    StringRep r;
    r = "hello world";
    r = r.data + 6;  // a piece of its own text
    EXPECT_STREQ(r.data, "world");
    EXPECT_EQ(r.length, 5u);
    EXPECT_EQ(r.verify(), nullptr);

    StringRep a;
    a = "abc";
    char const* block = a.data;
    unsigned int capacity = a.capacity;
    a.append(a.data, 3);  // fits under the capacity rule: moved within the buffer
    EXPECT_STREQ(a.data, "abcabc");
    EXPECT_EQ(a.data, block);
    EXPECT_EQ(a.capacity, capacity);
    EXPECT_EQ(a.verify(), nullptr);

    StringRep s;
    s = "abcXabc";
    s.substitute(s.data + 4, "-");  // `from` is "abc", the tail of the text itself
    EXPECT_STREQ(s.data, "-X-");
    EXPECT_EQ(s.verify(), nullptr);

    StringRep t;
    t = "ab-";
    t.substitute("-", t.data);  // `to` is the whole text as it was
    EXPECT_STREQ(t.data, "abab-");
    EXPECT_EQ(t.verify(), nullptr);
}

TEST(StringRepEdits, NullSourcesAppendAndEditNothing) {
    StringRep r;
    r = "keep";
    r.append(nullptr);
    r.append(nullptr, 3);
    EXPECT_STREQ(r.data, "keep");
    r.replace(nullptr, 2, 0, 1);
    r.insert(nullptr, 2, 0, 1);
    EXPECT_STREQ(r.data, "keep");
    r.insert(nullptr, 0, 5, 2);  // a null source of length 0 is ""
    r.replace(nullptr, 0, 5, 1);
    EXPECT_STREQ(r.data, "keep");
    EXPECT_EQ(r.length, 4u);
    EXPECT_EQ(r.verify(), nullptr);
}

TEST(StringStartsWith, EmptyAndNullPrefixesAndNullStrings) {
    String s("prefix");
    EXPECT_TRUE(s.startsWith(""));
    EXPECT_TRUE(s.startsWith(static_cast<char const*>(nullptr)));
    EXPECT_TRUE(s.startsWith("pre"));
    EXPECT_FALSE(s.startsWith("pro"));
    EXPECT_TRUE(String().startsWith(""));
    EXPECT_FALSE(String().startsWith("p"));
}

TEST(SubStringCompare, WithoutAViewEverythingComparesMinusOne) {
    SubString none;
    String text("abc");
    SubString view(text, 0, 2);
    EXPECT_EQ(none.compare("x"), -1);
    EXPECT_EQ(none.compare(text), -1);
    EXPECT_EQ(none.compare(view), -1);
    EXPECT_EQ(none.icompare("x"), -1);
    EXPECT_EQ(none.icompare(text), -1);
    EXPECT_EQ(none.icompare(view), -1);
    EXPECT_EQ(none.compare(none), -1);
    // A view compared with no view reads the missing one as "", which the argument-
    // first order puts before the view's text.
    EXPECT_LT(view.compare(none), 0);
    EXPECT_LT(view.icompare(none), 0);
}

TEST(SubStringCompare, ViewsOfANullStringAndSharedViewsAreEqual) {
    String null;
    String text("abc");
    SubString ofNull(null, 0);
    SubString alsoOfNull(null, 0);
    SubString view(text, 1);
    SubString shared(view);
    EXPECT_TRUE(shared == view);  // one view
    EXPECT_TRUE(ofNull == alsoOfNull);  // two empty views
    EXPECT_FALSE(ofNull == view);
    SubString emptyOfText(text, 3);
    EXPECT_TRUE(ofNull == emptyOfText);
    EXPECT_EQ(view.icompare(String("BCd")), 0);  // bounded by the view's length
    EXPECT_EQ(view.compare(String("bcd")), 0);
    EXPECT_NE(view.compare(String("BCd")), 0);
}
