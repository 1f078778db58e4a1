// Edge paths of utils/string.h: null and empty arguments, shared representations,
// views without a representation, sources that lie in (or run into) the buffer being
// edited, results that would outgrow String::maxLength, allocators that report odd
// sizes, and exhaustion through the fault seam (operator new, string buffers, and a
// result listener that throws for the out-of-memory code).
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <thread>

#include "knobs.h"
#include "strings/string_testing.h"
#include "utils/allocator.h"
#include "utils/result.h"
#include "utils/string.h"
#include "zosys_faults.h"

using Utils::Allocator;
using Utils::String;
using Utils::StringRep;
using Utils::SubString;
using Utils::SubStringRep;

namespace {

constexpr unsigned long kNpos = 0xFFFFFFFFUL;

std::string str(String const& s) { return std::string(s.text(), s.length()); }
std::string str(StringRep const& r) { return std::string(r.data, r.length); }

// Makes the n-th event from now at `sites` fail, once; disarms when it goes. The
// seam's hit count survives disarming: hits() reads it afterwards too.
class FailNth {
public:
    explicit FailNth(unsigned int sites, unsigned long n = 1) { ZoIF_TestFaultArm(sites, n, 0); }
    ~FailNth() { ZoIF_TestFaultDisarm(); }
    FailNth(FailNth const&) = delete;
    FailNth& operator=(FailNth const&) = delete;
    static unsigned long hits() { return ZoIF_TestFaultHits(); }
};

// The out-of-memory code raised by an injected process-allocator failure is recorded
// but not logged while one of these lives.
class QuietOutOfMemory {
public:
    QuietOutOfMemory() { Utils::setErrorSuppressed(Utils::kResultOutOfMemory); }
    ~QuietOutOfMemory() {
        Utils::clearErrorSuppressed(Utils::kResultOutOfMemory);
        Utils::clearError();
    }
};

// String buffers from a fixed pool, so that a test knows where a buffer lies. Blocks
// are cut one after another, each `gap` bytes after the previous one's end; size()
// reports the size asked plus `extra` (which may be negative: an allocator that
// reports less than it gave). Freed blocks are counted, not reused.
class PoolAllocator : public Allocator {
public:
    using Allocator::alloc;
    static constexpr unsigned long kPool = 4096;
    static constexpr unsigned long kHeader = 16;
    alignas(16) char pool[kPool] = {};
    unsigned long next = 64;  // the first block starts at pool + 64 + kHeader
    long extra = 0;
    long live = 0;

    void* alloc(unsigned long n) override { return cut(n); }
    void* alloc(unsigned long n, unsigned int) override { return cut(n); }
    void free(void* p) override {
        if (p) --live;
    }
    unsigned long size(void* p) const override {
        unsigned long asked;
        std::memcpy(&asked, static_cast<char*>(p) - kHeader, sizeof asked);
        return static_cast<unsigned long>(static_cast<long>(asked) + extra);
    }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }

private:
    void* cut(unsigned long n) {
        if (next + kHeader + n > kPool) return nullptr;
        char* block = pool + next + kHeader;
        std::memcpy(block - kHeader, &n, sizeof n);
        next += kHeader + n;
        ++live;
        return block;
    }
};

// Routes string buffers to `a` while it lives; declare it before the strings it serves.
class RouteBuffers {
public:
    explicit RouteBuffers(Allocator* a) : previous(Utils::StringTesting::setBufferAllocator(a)) {}
    ~RouteBuffers() { Utils::StringTesting::setBufferAllocator(previous); }
    RouteBuffers(RouteBuffers const&) = delete;
    RouteBuffers& operator=(RouteBuffers const&) = delete;

private:
    Allocator* previous;
};

// The process allocator as it behaves when memory runs out at a chosen block: the
// failAt-th allocation (counted from 1 since the last arm()) raises the out-of-memory
// code through raiseError and gives null, as the host allocator does; every call is
// otherwise passed to the process allocator.
class ExhaustedAt : public Allocator {
public:
    using Allocator::alloc;
    void arm(unsigned long n) {
        failAt = n;
        calls = 0;
    }
    void* alloc(unsigned long n) override { return step() ? Allocator::theAllocator()->alloc(n) : nullptr; }
    void* alloc(unsigned long n, unsigned int c) override {
        return step() ? Allocator::theAllocator()->alloc(n, c) : nullptr;
    }
    void free(void* p) override { Allocator::theAllocator()->free(p); }
    unsigned long size(void* p) const override { return Allocator::theAllocator()->size(p); }
    unsigned int color(void* p) const override { return Allocator::theAllocator()->color(p); }
    unsigned long allocatedMemory() const override { return 0; }
    unsigned long internalFree() const override { return 0; }

private:
    unsigned long failAt = 0;
    unsigned long calls = 0;
    bool step() {
        if (++calls != failAt) return true;
        Utils::raiseError(Utils::kResultOutOfMemory);
        return false;
    }
};

// What the listener below throws.
struct OutOfMemoryThrown {};

// An application's listener that turns the out-of-memory code into an exception.
class ThrowOnOutOfMemory : public Utils::ResultListener {
public:
    void resultRaised(unsigned int code) const override {
        if (code == Utils::kResultOutOfMemory) throw OutOfMemoryThrown();
    }
};

// While it lives: string buffers come from `exhausted`, and the listener is
// registered. The tables a raise makes on first use (this thread's error entry, the
// log category, the listener list) are made at once, so that a test's count of the
// process allocator sees only its strings.
class ThrowingExhaustion {
public:
    ThrowingExhaustion() : route(&exhausted) {
        Utils::addResultListener(&listener);
        try {
            Utils::raiseError(Utils::kResultOutOfMemory);
        } catch (OutOfMemoryThrown const&) {
        }
        Utils::clearError();
    }
    ~ThrowingExhaustion() {
        Utils::removeResultListener(&listener);
        Utils::clearError();
    }
    ThrowingExhaustion(ThrowingExhaustion const&) = delete;
    ThrowingExhaustion& operator=(ThrowingExhaustion const&) = delete;
    ExhaustedAt exhausted;

private:
    RouteBuffers route;
    ThrowOnOutOfMemory listener;
};

unsigned long inUse() { return Allocator::theAllocator()->allocatedMemory(); }

}  // namespace

// ===========================================================================
// Null and empty arguments, null strings, views without a representation
// ===========================================================================

TEST(StringEdges, AppendingANullTextChangesNothingEvenOnASharedString) {
    String s("abc");
    s += static_cast<char const*>(nullptr);
    EXPECT_EQ(str(s), "abc");
    String t = s;
    t += static_cast<char const*>(nullptr);
    EXPECT_EQ(str(t), "abc");
    EXPECT_EQ(str(s), "abc");
    EXPECT_EQ(s.representation()->verify(), nullptr);
}

TEST(StringEdges, NumbersAndCharactersAppendedToANullStringMakeItNonNull) {
    String u;
    u += 5UL;
    EXPECT_FALSE(u.isNull());
    EXPECT_EQ(str(u), "5");
    String l;
    l += -12L;
    EXPECT_EQ(str(l), "-12");
    String c;
    c += 'x';
    EXPECT_FALSE(c.isNull());
    EXPECT_EQ(str(c), "x");
}

TEST(StringEdges, ACharacterAppendedToASharedTextGoesToAPrivateCopy) {
    String s("abc");
    String t = s;
    t += 'd';
    EXPECT_EQ(str(t), "abcd");
    EXPECT_EQ(str(s), "abc");
    EXPECT_NE(s.representation(), t.representation());
    EXPECT_EQ(s.representation()->refs, 1u);
    EXPECT_EQ(t.representation()->refs, 1u);
}

TEST(StringEdges, ConcatenationsWithNullOperands) {
    String a("x");
    String none;
    String r1 = a + none;
    EXPECT_EQ(str(r1), "x");
    EXPECT_EQ(str(a), "x");
    EXPECT_TRUE((none + none).isNull());
    String r2 = none + "y";
    EXPECT_FALSE(r2.isNull());
    EXPECT_EQ(str(r2), "y");
    String r3 = static_cast<char const*>(nullptr) + String("b");
    EXPECT_EQ(str(r3), "b");
    String r4 = "a" + none;
    EXPECT_FALSE(r4.isNull());
    EXPECT_EQ(str(r4), "a");
    String r5 = none + static_cast<char const*>(nullptr);
    EXPECT_FALSE(r5.isNull());  // String() += a null text gives a non-null empty string
    EXPECT_EQ(r5.length(), 0UL);
}

TEST(StringEdges, NullCharacterSetsHoldOnlyTheNul) {
    String s("abc");
    EXPECT_EQ(s.indexChar(nullptr), kNpos);
    EXPECT_EQ(s.rindexChar(nullptr), kNpos);
    String z("a\0b", 3);
    EXPECT_EQ(z.indexChar(nullptr), 1UL);
    EXPECT_EQ(z.rindexChar(nullptr), 1UL);
    unsigned long start = 9, end = 9;
    EXPECT_TRUE(s.tokSpan(nullptr, 0, start, end));  // no delimiter but the NUL: one token
    EXPECT_EQ(start, 0UL);
    EXPECT_EQ(end, 3UL);
}

TEST(StringEdges, SubstituteWithNullOrEmptyPatternOrNullReplacement) {
    String s("a-b-c");
    EXPECT_EQ(str(s.substitute(nullptr, "x")), "a-b-c");
    EXPECT_EQ(str(s.substitute("", "x")), "a-b-c");
    EXPECT_EQ(str(s.substitute("-", nullptr)), "abc");
    EXPECT_EQ(str(s.substitute("z", "y")), "a-b-c");
    EXPECT_EQ(str(s.substitute("a-b-c", "")), "");
    EXPECT_EQ(str(s), "a-b-c");

    StringRep r("a-b-c", 5);
    r.substitute(nullptr, "x");
    EXPECT_EQ(str(r), "a-b-c");
    r.substitute("", "x");
    EXPECT_EQ(str(r), "a-b-c");
    r.substitute("-", nullptr);
    EXPECT_EQ(str(r), "abc");
    StringRep e;
    e.substitute("a", "b");
    EXPECT_EQ(e.length, 0u);
    EXPECT_EQ(e.data, StringRep::emptyText());
}

TEST(StringEdges, SubstituteWithAPatternFromTheOwnText) {
    StringRep r("ab.ab", 5);
    r.substitute(r.data + 3, "X");  // the pattern is "ab", the tail of the text itself
    EXPECT_EQ(str(r), "X.X");
    StringRep q("a.b", 3);
    q.substitute(".", q.data);  // the replacement is the text itself, read before the edit
    EXPECT_EQ(str(q), "aa.bb");
    EXPECT_EQ(q.verify(), nullptr);
}

TEST(StringEdges, SizeForBeyondEveryCapacityIsZero) {
    EXPECT_EQ(StringRep::sizeFor(1UL << 63), 0UL);
    EXPECT_EQ(StringRep::sizeFor(ULONG_MAX), 0UL);
    EXPECT_EQ(StringRep::sizeFor((1UL << 63) - 1), 1UL << 63);
}

TEST(StringEdges, ComparisonsWithNullTexts) {
    String s("abc");
    String e("");
    EXPECT_GT(s.icompare(static_cast<char const*>(nullptr)), 0);
    EXPECT_EQ(e.icompare(static_cast<char const*>(nullptr)), 0);
    EXPECT_FALSE(s == static_cast<char const*>(nullptr));
    EXPECT_TRUE(e == static_cast<char const*>(nullptr));
    EXPECT_TRUE(String() == static_cast<char const*>(nullptr));
    EXPECT_FALSE(String() == "a");
}

// ===========================================================================
// Results that would outgrow String::maxLength
// ===========================================================================

TEST(StringEdges, SubstitutionsThatWouldOutgrowTheLongestTextLeaveTheText) {
    // 4096 matches, each growing by 1099999 characters: about 4.5e9, above maxLength.
    std::string base(4096, 'a');
    std::string to(1100000, 'b');
    String s(base.c_str());
    String r = s.substitute("a", to.c_str());
    EXPECT_EQ(r.length(), 4096UL);
    EXPECT_EQ(r.view(), base);
    EXPECT_EQ(s.view(), base);

    StringRep rep(base.data(), base.size());
    unsigned int capacity = rep.capacity;
    rep.substitute("a", to.c_str());
    EXPECT_EQ(rep.length, 4096u);
    EXPECT_EQ(rep.capacity, capacity);
    EXPECT_EQ(str(rep), base);
}

TEST(StringEdges, EditsLongerThanTheLongestTextLeaveTheText) {
    char const src[] = "xyz";
    String s("abc");
    s.replace(src, 0xFFFFFFFFUL, 0, 1);  // runs past the end: refused before reading
    EXPECT_EQ(str(s), "abc");
    s.replace(src, 0xFFFFFFFFUL, 0, 10);  // a gap, then too many bytes
    EXPECT_EQ(str(s), "abc");
    s.insert(src, 0xFFFFFFFFUL, 0, 1);
    EXPECT_EQ(str(s), "abc");
    s.append(s.text(), 0xFFFFFFFFUL);  // from the own text, far too long
    EXPECT_EQ(str(s), "abc");
    EXPECT_EQ(s.representation()->verify(), nullptr);
}

// ===========================================================================
// The verifier on damaged representations
// ===========================================================================

TEST(StringEdges, VerifierNamesABufferlessOrBufferClaimingMismatch) {
    StringRep e;
    char foreign[4] = "abc";
    e.data = foreign;
    EXPECT_STREQ(e.verify(), "owns nothing but data is not the shared empty text");
    e.data = const_cast<char*>(StringRep::emptyText());
    EXPECT_EQ(e.verify(), nullptr);

    StringRep r("abc", 3);
    char* own = r.data;
    r.data = const_cast<char*>(StringRep::emptyText());
    r.length = 0;
    EXPECT_STREQ(r.verify(), "claims a buffer but points at the shared empty text");
    r.data = own;
    r.length = 3;
    EXPECT_EQ(r.verify(), nullptr);
}

// ===========================================================================
// Views
// ===========================================================================

TEST(SubStringEdges, ViewsWithoutARepresentation) {
    SubString none;
    SubString copy(none);
    EXPECT_EQ(copy.representation(), nullptr);
    EXPECT_TRUE(copy == "");
    EXPECT_TRUE(copy == String());
    EXPECT_EQ(copy.compare("x"), -1);

    String s("abcdef");
    SubString v = s(1, 2);
    EXPECT_EQ(s.representation()->refs, 2u);
    v = none;  // drops the view and its hold on the text
    EXPECT_EQ(v.representation(), nullptr);
    EXPECT_EQ(v.length(), 0UL);
    EXPECT_EQ(s.representation()->refs, 1u);
    EXPECT_EQ(str(s), "abcdef");
}

TEST(SubStringEdges, CountedComparisonStopsAtASharedNul) {
    String p("ab\0cd", 5);
    SubString whole = p(0);
    SubString ab = p(0, 2);
    // The argument view is compared as its copy would be, "ab" and its NUL: it meets
    // the view's own NUL at position 2, where both texts end.
    EXPECT_EQ(whole.compare(ab), 0);
    EXPECT_EQ(whole.icompare(ab), 0);
    SubString cd = p(3);
    EXPECT_GT(whole.compare(cd), 0);  // the argument's 'c' orders after the view's 'a'
    EXPECT_LT(cd.compare(whole), 0);
}

TEST(SubStringEdges, EqualityWithTextsStopsAtTheFirstDifference) {
    String s("abc");
    SubString v = s(0);
    EXPECT_FALSE(v == "abd");
    EXPECT_FALSE(v == "ab");
    EXPECT_FALSE(v == "abcd");
    EXPECT_FALSE(v == "xbc");
    EXPECT_TRUE(v == "abc");
    SubString empty = s(5);
    EXPECT_TRUE(empty == static_cast<char const*>(nullptr));
    EXPECT_FALSE(v == static_cast<char const*>(nullptr));
}

// ===========================================================================
// Allocators that report odd sizes; sources that run into the buffer
// ===========================================================================

TEST(StringBuffers, ABlockReportedTooSmallIsGivenBackAndTheTextStaysEmpty) {
    PoolAllocator pool;
    pool.extra = -14;  // 16 asked, 2 reported: not even room for 8 characters
    {
        RouteBuffers route(&pool);
        String s("abcdefgh");
        EXPECT_FALSE(s.isNull());
        EXPECT_EQ(s.length(), 0UL);
        EXPECT_EQ(s.representation()->capacity, 0u);
        EXPECT_EQ(s.representation()->verify(), nullptr);
        EXPECT_EQ(pool.live, 0);
        s += "x";  // 2 bytes reported: room for one character and the NUL
        EXPECT_EQ(str(s), "x");
        EXPECT_EQ(s.representation()->capacity, 2u);
        EXPECT_EQ(s.representation()->verify(), nullptr);
        EXPECT_EQ(pool.live, 1);
    }
    EXPECT_EQ(pool.live, 0);
}

TEST(StringBuffers, AReportedSizeBeyond32BitsIsClampedToTheLargestCapacity) {
    PoolAllocator pool;
    pool.extra = 1L << 33;
    {
        RouteBuffers route(&pool);
        StringRep r("abc", 3);
        EXPECT_EQ(r.capacity, 0xFFFFFFFFu);
        EXPECT_EQ(str(r), "abc");
        EXPECT_EQ(r.verify(), nullptr);
        EXPECT_EQ(pool.live, 1);
    }
    EXPECT_EQ(pool.live, 0);
}

TEST(StringBuffers, ASourceThatRunsIntoTheBufferIsReadBeforeTheEdit) {
    PoolAllocator pool;
    RouteBuffers route(&pool);
    String s("abcdefgh");
    char* buffer = const_cast<char*>(s.text());
    ASSERT_EQ(buffer, pool.pool + 64 + PoolAllocator::kHeader);
    // Four bytes of ours just before the buffer (in its allocator header), then the
    // buffer's first four characters: the source starts outside and ends inside.
    char* source = buffer - 4;
    std::memcpy(source, "WXYZ", 4);
    s.insert(source, 8, 0, 2);  // grows: the buffer moves while the source is read
    EXPECT_EQ(str(s), "abWXYZabcdcdefgh");
    EXPECT_NE(s.text(), buffer);
    EXPECT_EQ(s.representation()->verify(), nullptr);

    String t("0123456789");
    char* tb = const_cast<char*>(t.text());
    std::memcpy(tb - 2, "+-", 2);
    t.replace(tb - 2, 4, 0, 6);  // overwrites 6..9 with "+-01"
    EXPECT_EQ(str(t), "012345+-01");
}

// ===========================================================================
// Exhaustion: string buffers (ZOIF_FAULT_STRING)
// ===========================================================================

TEST(StringNoBuffer, AssignmentsAndConstructorsWithoutABufferKeepOrMakeNoText) {
    StringRep r("abc", 3);
    {
        FailNth f(ZOIF_FAULT_STRING);
        r = "a text longer than sixteen characters";
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(r), "abc");
    StringRep e;
    {
        FailNth f(ZOIF_FAULT_STRING);
        e = 'x';
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(e.length, 0u);
    EXPECT_EQ(e.verify(), nullptr);
    {
        FailNth f(ZOIF_FAULT_STRING);
        String c('x');
        EXPECT_FALSE(c.isNull());
        EXPECT_EQ(c.length(), 0UL);
    }
    {
        FailNth f(ZOIF_FAULT_STRING);
        String c('x', 5);
        EXPECT_FALSE(c.isNull());
        EXPECT_EQ(c.length(), 0UL);
    }
    {
        FailNth f(ZOIF_FAULT_STRING);
        String c("abcdef");
        EXPECT_FALSE(c.isNull());
        EXPECT_EQ(c.length(), 0UL);
    }
}

TEST(StringNoBuffer, ReverseAndSubstituteWithoutABuffer) {
    String src("abcdef");
    {
        FailNth f(ZOIF_FAULT_STRING);
        String r = src.reverse();
        EXPECT_TRUE(r.isNull());
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    {
        FailNth f(ZOIF_FAULT_STRING);
        String r = src.substitute("b", "XY");  // the result's buffer fails: a copy instead
        EXPECT_EQ(str(r), "abcdef");
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(src), "abcdef");
}

TEST(StringNoBuffer, DonatingASharedTextWithoutABufferForTheCopyHandsNothingOver) {
    String s("a text to hand over");
    String t = s;
    char* got = nullptr;
    {
        FailNth f(ZOIF_FAULT_STRING);
        got = t.donate();
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(str(t), "a text to hand over");
    EXPECT_EQ(t.representation(), s.representation());
    EXPECT_EQ(s.representation()->refs, 2u);
}

TEST(StringNoBuffer, AppendingTheOwnTextWithoutABiggerBufferChangesNothing) {
    String s("0123456789abcd");  // 14 characters in a 16-byte buffer
    unsigned int capacity = s.representation()->capacity;
    {
        FailNth f(ZOIF_FAULT_STRING);
        s.append(s.text() + 2, 6);
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(s), "0123456789abcd");
    EXPECT_EQ(s.representation()->capacity, capacity);
    s.append(s.text() + 2, 6);
    EXPECT_EQ(str(s), "0123456789abcd234567");
}

// ===========================================================================
// Exhaustion: operator new (ZOIF_FAULT_PROCESS); only where operator new is ours
// ===========================================================================

TEST(StringNewFails, ConstructorsWithoutARepresentationGiveNullStrings) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String src("abcdef");
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        String c('x');
        EXPECT_TRUE(c.isNull());
    }
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        String c('x', 4);
        EXPECT_TRUE(c.isNull());
    }
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        String p(src, 3);
        EXPECT_TRUE(p.isNull());
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(Utils::lastError(), Utils::kResultOutOfMemory);
    EXPECT_EQ(str(src), "abcdef");
    EXPECT_EQ(src.representation()->refs, 1u);
}

TEST(StringNewFails, ViewsWithoutARepresentation) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String src("abcdef");
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        SubString v(src, 1, 2);
        EXPECT_EQ(v.representation(), nullptr);
        EXPECT_EQ(v.length(), 0UL);
        EXPECT_EQ(v.compare("bc"), -1);
        EXPECT_TRUE(v == String());
    }
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        SubString v(src, 1);
        EXPECT_EQ(v.representation(), nullptr);
        EXPECT_EQ(v.chars(), nullptr);
    }
    SubString w = src(0, 2);
    String other("xyz");
    EXPECT_EQ(src.representation()->refs, 2u);
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        w = other;  // no view for the new text: the old one is let go all the same
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(w.representation(), nullptr);
    EXPECT_EQ(src.representation()->refs, 1u);
    EXPECT_EQ(other.representation()->refs, 1u);
}

TEST(StringNewFails, ClearingASharedTextWithoutMemoryLeavesItShared) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String s("shared text");
    String t = s;
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        t.clear();
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(t), "shared text");
    EXPECT_EQ(t.representation(), s.representation());
    EXPECT_EQ(s.representation()->refs, 2u);
}

TEST(StringNewFails, DonatingASharedTextWithoutARepresentationForTheCopyHandsNothingOver) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String s("a text to hand over");
    String t = s;
    char* got = nullptr;
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        got = t.donate();
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(t.representation(), s.representation());
    EXPECT_EQ(s.representation()->refs, 2u);
}

TEST(StringNewFails, ConsumeWithoutARepresentationLeavesTheBlockWithTheCaller) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String s("old text");
    char* block = String("adopt me").donate();
    ASSERT_NE(block, nullptr);
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        s.consume(block);
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_TRUE(s.isNull());
    EXPECT_STREQ(block, "adopt me");
    s.consume(block);  // with memory the block is adopted after all
    EXPECT_EQ(str(s), "adopt me");
    EXPECT_EQ(s.text(), block);
}

TEST(StringNewFails, ReverseAndSubstituteWithoutARepresentationGiveNull) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String src("abcdef");
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        EXPECT_TRUE(src.reverse().isNull());
    }
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        EXPECT_TRUE(src.substitute("b", "XY").isNull());
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(src), "abcdef");
}

TEST(StringNewFails, EditsFromTheOwnTextWithoutScratchMemoryChangeNothing) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    QuietOutOfMemory quiet;
    String s("0123456789");
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        s.replace(s.text(), 4, 6, 0);
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(s), "0123456789");
    {
        FailNth f(ZOIF_FAULT_PROCESS);
        s.insert(s.text(), 3, 0, 5);
    }
    EXPECT_EQ(FailNth::hits(), 1UL);
    EXPECT_EQ(str(s), "0123456789");

    StringRep r("ab.ab", 5);
    for (unsigned long n : {1UL, 2UL}) {  // the pattern's copy, then the replacement's
        {
            FailNth f(ZOIF_FAULT_PROCESS, n);
            r.substitute(r.data + 3, "X");
        }
        EXPECT_EQ(FailNth::hits(), 1UL) << n;
        EXPECT_EQ(str(r), "ab.ab") << n;
    }
    r.substitute(r.data + 3, "X");
    EXPECT_EQ(str(r), "X.X");
}

// ===========================================================================
// Exhaustion with a listener that throws: the exception reaches the caller, and
// the strings and the memory are as they were
// ===========================================================================

// Runs `op` with the n-th string buffer from now failing; true when the listener's
// exception came out of it.
template <class Op>
bool throwsAt(ThrowingExhaustion& ex, unsigned long n, Op op) {
    ex.exhausted.arm(n);
    bool threw = false;
    try {
        op();
    } catch (OutOfMemoryThrown const&) {
        threw = true;
    }
    ex.exhausted.arm(0);
    return threw;
}

TEST(StringThrowingListener, CopyingConstructorsLoseNothing) {
    ThrowingExhaustion ex;
    String b("a source long enough for a buffer of its own");
    SubString v = b(2, 20);
    unsigned long before = inUse();
    EXPECT_TRUE(throwsAt(ex, 1, [] { String s("abcdef", 6); }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { String s(v); }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { String s(b, 5); }));
    EXPECT_EQ(inUse(), before);
    EXPECT_EQ(b.representation()->refs, 2u);  // b and the view
    EXPECT_EQ(str(b), "a source long enough for a buffer of its own");
    EXPECT_FALSE(throwsAt(ex, 2, [&] { EXPECT_EQ(str(String(b, 5)), "a sou"); }));
}

TEST(StringThrowingListener, ConcatenationsLeaveTheirOperandsAndLoseNothing) {
    ThrowingExhaustion ex;
    String a("left");
    String b(" and a right side long enough to grow");
    unsigned long before = inUse();
    EXPECT_TRUE(throwsAt(ex, 1, [&] { String s = a + b; }));  // the copy of a, made private
    EXPECT_TRUE(throwsAt(ex, 1, [&] { String s = a + " and a text long enough to grow"; }));
    EXPECT_TRUE(throwsAt(ex, 2, [&] { String s = "left" + b; }));  // the growth after "left"
    EXPECT_EQ(inUse(), before);
    EXPECT_EQ(str(a), "left");
    EXPECT_EQ(a.representation()->refs, 1u);
    EXPECT_EQ(b.representation()->refs, 1u);
}

TEST(StringThrowingListener, GrowingAppendsLeaveTheStringAsItWas) {
    ThrowingExhaustion ex;
    String s("0123456789abcde");  // 15 characters: every append below needs a new buffer
    unsigned int capacity = s.representation()->capacity;
    String none;
    unsigned long before = inUse();
    EXPECT_TRUE(throwsAt(ex, 1, [&] { s += -5L; }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { s += 5UL; }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { s.append(s.text() + 2, 6); }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { s += s; }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { s.insert(s.text(), 8, 0, 2); }));
    EXPECT_TRUE(throwsAt(ex, 1, [&] { none.append("abc", 3); }));
    EXPECT_EQ(inUse(), before);
    EXPECT_EQ(str(s), "0123456789abcde");
    EXPECT_EQ(s.representation()->capacity, capacity);
    EXPECT_EQ(s.representation()->verify(), nullptr);
    EXPECT_TRUE(none.isNull());
}

TEST(StringThrowingListener, ReverseAndSubstitutionOfTheOwnTextLoseNothing) {
    ThrowingExhaustion ex;
    String src("abcdef");
    StringRep r("ab.ab", 5);
    unsigned long before = inUse();
    EXPECT_TRUE(throwsAt(ex, 1, [&] { String back = src.reverse(); }));
    // The pattern lies in the text, so pattern and replacement are copied aside first.
    EXPECT_TRUE(throwsAt(ex, 1, [&] { r.substitute(r.data + 3, "a replacement that needs more room"); }));
    EXPECT_EQ(inUse(), before);
    EXPECT_EQ(str(src), "abcdef");
    EXPECT_EQ(str(r), "ab.ab");
    EXPECT_EQ(r.verify(), nullptr);
}

TEST(StringThrowingListener, ConstructorsThatFillAFreshRepresentationLoseNothing) {
    ThrowingExhaustion ex;
    String text("a text long enough for a buffer of its own");
    unsigned long before = inUse();
    EXPECT_TRUE(throwsAt(ex, 1, [] { String s("a text that needs a buffer"); }));
    EXPECT_TRUE(throwsAt(ex, 1, [] { String s('x'); }));
    EXPECT_TRUE(throwsAt(ex, 1, [] { String s('x', 40); }));
    // Without a match the result is a copy of the text, made the same way.
    EXPECT_TRUE(throwsAt(ex, 1, [&] { String s = text.substitute("no such part", "y"); }));
    EXPECT_EQ(inUse(), before);
    EXPECT_EQ(str(text), "a text long enough for a buffer of its own");
    EXPECT_FALSE(throwsAt(ex, 2, [] { EXPECT_EQ(str(String('x', 3)), "xxx"); }));
}

TEST(StringThrowingListener, TheNextExhaustionOfTheThreadIsRaisedAgain) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    ThrowingExhaustion ex;
    for (int round = 0; round < 2; ++round) {
        Utils::clearError();
        ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 0);
        bool threw = false;
        try {
            Allocator::theAllocator()->alloc(64);
        } catch (OutOfMemoryThrown const&) {
            threw = true;
        }
        ZoIF_TestFaultDisarm();
        EXPECT_TRUE(threw) << "round " << round;
        EXPECT_EQ(Utils::lastError(), Utils::kResultOutOfMemory) << "round " << round;
    }
}

TEST(StringThrowingListener, AnExhaustedArenaOfManyThreadsThrowsOnlyAfterReleasingItsLock) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    std::thread([] { delete new int(1); }).join();  // the process leaves the lone thread's path
    ThrowingExhaustion ex;
    ZoIF_TestFaultArm(ZOIF_FAULT_REGION, 1, 1);
    bool threw = false;
    try {
        // Larger than any free block: the arena asks the system layer, which refuses.
        Allocator::theAllocator()->alloc(60ul << 20);
    } catch (OutOfMemoryThrown const&) {
        threw = true;
    }
    ZoIF_TestFaultDisarm();
    EXPECT_TRUE(threw);
    // Every arena lock is free again: another thread allocates and releases.
    void* other = nullptr;
    std::thread([&] {
        other = Allocator::theAllocator()->alloc(100);
        Allocator::theAllocator()->free(other);
    }).join();
    EXPECT_NE(other, nullptr);
}
