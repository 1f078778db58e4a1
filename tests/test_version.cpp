// Versions: VersionImpl, Version::create, Version::theVersion and comparison.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "knobs.h"
#include "utils/result.h"
#include "utils/version.h"

namespace {

using Utils::CountedRef;
using Utils::Version;
using Utils::VersionImpl;

constexpr unsigned int kBadArgument = 0x80000003u;

// Records the codes raised on this thread while it is registered.
class RaisedCodes : public Utils::ResultListener {
public:
    RaisedCodes() : owner(std::this_thread::get_id()) {
        Utils::clearError();
        Utils::addResultListener(this);
    }
    ~RaisedCodes() override { Utils::removeResultListener(this); }
    void resultRaised(unsigned int code) const override {
        if (std::this_thread::get_id() == owner) codes.push_back(code);
    }
    mutable std::vector<unsigned int> codes;
    std::thread::id owner;
};

void expectNumbers(Version const& v, unsigned a, unsigned b, unsigned c, unsigned d) {
    EXPECT_EQ(a, v.major());
    EXPECT_EQ(b, v.minor());
    EXPECT_EQ(c, v.revision());
    EXPECT_EQ(d, v.build());
}

// ---------------------------------------------------------------------------
// Construction and text
// ---------------------------------------------------------------------------

TEST(Version, CreateKeepsTheFourNumbersAndBuildsTheText) {
    CountedRef<Version> v = Version::create(1, 2, 3, 4);
    EXPECT_STREQ("1.2.3.4", v->asString().text());
    expectNumbers(*v, 1, 2, 3, 4);
}

TEST(Version, TextHasNoLeadingZerosAndNoTrailingDot) {
    EXPECT_STREQ("2.0.13.400", Version::create(2, 0, 13, 400)->asString().text());
    EXPECT_STREQ("4294967295.0.0.4294967295", Version::create(0xFFFFFFFF, 0, 0, 0xFFFFFFFF)->asString().text());
}

TEST(Version, DefaultIsZeroZeroZeroZero) {
    VersionImpl v;
    EXPECT_STREQ("0.0.0.0", v.asString().text());
    expectNumbers(v, 0, 0, 0, 0);
}

TEST(Version, TextFillsAllFourNumbersFromItsFirstComponent) {
    // Kept on purpose: every parse round reads the first dotted component again.
    VersionImpl v("5.6.7.8");
    expectNumbers(v, 5, 5, 5, 5);
    EXPECT_STREQ("5.6.7.8", v.asString().text());
    VersionImpl w("3.2.1.0");
    expectNumbers(w, 3, 3, 3, 3);
}

TEST(Version, LeadingDotsAndOddComponentsFollowTheFirstToken) {
    RaisedCodes raised;
    VersionImpl dots("..7.8");
    expectNumbers(dots, 7, 7, 7, 7);
    VersionImpl word("abc.1");  // atoi of a non-number is 0, and no error: a token exists
    expectNumbers(word, 0, 0, 0, 0);
    VersionImpl single("42");
    expectNumbers(single, 42, 42, 42, 42);
    EXPECT_TRUE(raised.codes.empty());
}

TEST(Version, ComponentBeyondTheIntRangeSaturatesLikeThe32BitConversion) {
    VersionImpl big("99999999999.1");
    expectNumbers(big, static_cast<unsigned>(INT_MAX), static_cast<unsigned>(INT_MAX),
                  static_cast<unsigned>(INT_MAX), static_cast<unsigned>(INT_MAX));
    VersionImpl negative("-99999999999");
    EXPECT_EQ(0x80000000u, negative.major());
    VersionImpl minusOne("-1.0");
    EXPECT_EQ(0xFFFFFFFFu, minusOne.major());
}

TEST(Version, EmptyTextRaisesBadArgumentAndLeavesZeros) {
    RaisedCodes raised;
    VersionImpl v("");
    EXPECT_EQ(std::vector<unsigned>{kBadArgument}, raised.codes);
    EXPECT_EQ(kBadArgument, Utils::lastError());
    expectNumbers(v, 0, 0, 0, 0);
    EXPECT_STREQ("", v.asString().text());
}

TEST(Version, ThreeDotsRaiseBadArgumentAndLeaveZeros) {
    RaisedCodes raised;
    VersionImpl v("...");
    EXPECT_EQ(std::vector<unsigned>{kBadArgument}, raised.codes);
    EXPECT_EQ(kBadArgument, Utils::lastError());
    expectNumbers(v, 0, 0, 0, 0);
    EXPECT_STREQ("...", v.asString().text());
}

TEST(Version, NullTextRaisesBadArgument) {
    RaisedCodes raised;
    VersionImpl v(nullptr);
    EXPECT_EQ(std::vector<unsigned>{kBadArgument}, raised.codes);
    expectNumbers(v, 0, 0, 0, 0);
}

TEST(Version, ReparsingAfterARebuildReadsTheFirstNumberEverywhere) {
    VersionImpl v(9, 8, 7, 6);
    EXPECT_STREQ("9.8.7.6", v.asString().text());
    v.parseStringRep();
    expectNumbers(v, 9, 9, 9, 9);
    v.buildStringRep();
    EXPECT_STREQ("9.9.9.9", v.asString().text());
}

TEST(Version, AsStringIsACopyOfItsOwn) {
    CountedRef<Version> v = Version::create(1, 2, 3, 4);
    Utils::String a = v->asString();
    Utils::String b = v->asString();
    EXPECT_NE(a.text(), b.text());
    EXPECT_STREQ("1.2.3.4", a.text());
}

// ---------------------------------------------------------------------------
// Comparison
// ---------------------------------------------------------------------------

TEST(VersionCompare, OrdersByTheFourNumbersInTurn) {
    CountedRef<Version> a = Version::create(1, 2, 3, 4);
    CountedRef<Version> b = Version::create(1, 2, 4, 0);
    EXPECT_EQ(-1, a->compare(b.get()));
    EXPECT_EQ(1, b->compare(a.get()));
    EXPECT_EQ(0, a->compare(Version::create(1, 2, 3, 4).get()));
    EXPECT_EQ(0, a->compare(a.get()));
}

TEST(VersionCompare, EachPositionDecidesWhenTheEarlierOnesAreEqual) {
    EXPECT_EQ(1, Version::create(2, 0, 0, 0)->compare(Version::create(1, 9, 9, 9).get()));
    EXPECT_EQ(-1, Version::create(1, 1, 0, 0)->compare(Version::create(1, 2, 0, 0).get()));
    EXPECT_EQ(-1, Version::create(1, 1, 1, 1)->compare(Version::create(1, 1, 1, 2).get()));
}

TEST(VersionCompare, NumbersCompareUnsigned) {
    EXPECT_EQ(1, Version::create(0x80000000, 0, 0, 0)->compare(Version::create(1, 0, 0, 0).get()));
    EXPECT_EQ(-1, Version::create(1, 0, 0, 0x7FFFFFFF)->compare(Version::create(1, 0, 0, 0xFFFFFFFF).get()));
}

TEST(VersionCompare, TextTakesNoPart) {
    VersionImpl parsed("5.6.7.8");  // numbers 5, 5, 5, 5
    EXPECT_EQ(0, parsed.compare(Version::create(5, 5, 5, 5).get()));
    EXPECT_EQ(-1, parsed.compare(Version::create(5, 6, 7, 8).get()));
}

TEST(VersionCompare, NullRaisesBadArgumentAndReturnsZero) {
    RaisedCodes raised;
    CountedRef<Version> a = Version::create(1, 2, 3, 4);
    EXPECT_EQ(0, a->compare(nullptr));
    EXPECT_EQ(std::vector<unsigned>{kBadArgument}, raised.codes);
    EXPECT_EQ(kBadArgument, Utils::lastError());
}

TEST(VersionCompare, ForeignVersionRaisesBadArgumentAndReturnsZero) {
    struct Foreign : Version {
        Utils::String asString() const override { return Utils::String("9.9.9.9"); }
        unsigned int major() const override { return 9; }
        unsigned int minor() const override { return 9; }
        unsigned int revision() const override { return 9; }
        unsigned int build() const override { return 9; }
        int compare(Version const*) const override { return 0; }
    } foreign;
    RaisedCodes raised;
    EXPECT_EQ(0, Version::create(1, 0, 0, 0)->compare(&foreign));
    EXPECT_EQ(std::vector<unsigned>{kBadArgument}, raised.codes);
}

TEST(VersionCompare, FailuresOnSeveralThreadsAtOnceSetEachThreadsOwnLastError) {
    // Suppressed so that the run stays quiet; a suppressed code is still recorded.
    Utils::setErrorSuppressed(kBadArgument);
    CountedRef<Version> a = Version::create(1, 2, 3, 4);
    std::vector<int> wrong(4, 0);
    std::vector<std::thread> pool;
    for (auto& w : wrong)
        pool.emplace_back([&w, &a] {
            for (int i = 0; i < 200; ++i) {
                Utils::clearError();
                if (a->compare(nullptr) != 0 || Utils::lastError() != kBadArgument) ++w;
                VersionImpl bad("...");
                if (Utils::lastError() != kBadArgument || bad.major() != 0) ++w;
            }
        });
    for (auto& th : pool) th.join();
    Utils::clearErrorSuppressed(kBadArgument);
    EXPECT_EQ(std::vector<int>(4, 0), wrong);
}

// ---------------------------------------------------------------------------
// The library's own version and counting
// ---------------------------------------------------------------------------

TEST(TheVersion, IsOneOneOneFifteenOhSevenReadAsOnesByTheParser) {
    CountedRef<Version> v = Version::theVersion();
    ASSERT_TRUE(v);
    EXPECT_STREQ("1.1.1.1507", v->asString().text());
    expectNumbers(*v, 1, 1, 1, 1);
}

TEST(TheVersion, EveryCallReturnsANewReferenceToTheSameObject) {
    CountedRef<Version> a = Version::theVersion();
    unsigned int before = a->refCount();
    {
        CountedRef<Version> b = Version::theVersion();
        EXPECT_EQ(a.get(), b.get());
        EXPECT_EQ(before + 1, a->refCount());
    }
    EXPECT_EQ(before, a->refCount());
    EXPECT_EQ(VersionImpl::theVersion_.get(), a.get());
}

TEST(TheVersion, SlotIsFilledOnFirstUseAndKeepsItsOwnReference) {
    CountedRef<Version> v = Version::theVersion();
    ASSERT_TRUE(VersionImpl::theVersion_);
    // The slot's reference and ours.
    EXPECT_EQ(2u, v->refCount());
}

TEST(TheVersion, SeveralThreadsAtOnceGetTheSameObjectAndKeepTheCountExact) {
    CountedRef<Version> mine = Version::theVersion();
    unsigned int before = mine->refCount();
    unsigned long const rounds = zotest::scaled(20000);
    std::vector<Version*> seen(4);
    std::vector<std::thread> pool;
    for (auto& p : seen)
        pool.emplace_back([&p, rounds] {
            for (unsigned long i = 0; i < rounds; ++i) {
                CountedRef<Version> v = Version::theVersion();
                CountedRef<Version> copy = v;
                p = v.get();
                if (v->major() != 1) std::abort();
            }
        });
    for (auto& th : pool) th.join();
    for (auto p : seen) EXPECT_EQ(mine.get(), p);
    EXPECT_EQ(before, mine->refCount());
}

TEST(TheVersion, FirstCallsFromSeveralThreadsAtOnceInstallOneVersion) {
    for (int round = 0; round < 20; ++round) {
        VersionImpl::theVersion_.reset();  // as before the first call of a process
        std::vector<CountedRef<Version>> got(4);
        std::vector<std::thread> pool;
        for (auto& v : got) pool.emplace_back([&v] { v = Version::theVersion(); });
        for (auto& th : pool) th.join();
        for (auto& v : got) EXPECT_EQ(VersionImpl::theVersion_.get(), v.get());
        EXPECT_EQ(5u, got[0]->refCount());  // the slot and the four threads
    }
}

// The slot's reference is dropped by a static destructor when the library unloads
// (here at process exit), destroying the version when nobody else holds it.
TEST(TheVersionDeathTest, SlotIsReleasedWhenTheLibraryUnloads) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Loud : VersionImpl {
        Loud() : VersionImpl(7, 0, 0, 0) {}
        ~Loud() override { std::fputs("version released at unload\n", stderr); }
    };
    EXPECT_EXIT(
        {
            VersionImpl::theVersion_ = new Loud;
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "version released at unload");
}

TEST(VersionCount, CreatedVersionLivesWhileReferenced) {
    static int destroyed = 0;
    struct Watched : VersionImpl {
        Watched() : VersionImpl(1, 2, 3, 4) {}
        ~Watched() override { ++destroyed; }
    };
    {
        CountedRef<Version> a(new Watched);
        EXPECT_EQ(1u, a->refCount());
        CountedRef<Version> b = a;
        EXPECT_EQ(2u, a->refCount());
        a.reset();
        EXPECT_EQ(0, destroyed);
        EXPECT_EQ(1u, b->refCount());
    }
    EXPECT_EQ(1, destroyed);
}

}  // namespace
