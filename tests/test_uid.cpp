// Unique identifiers: generation, text form, parsing, ordering.
//
// Clock: this program interposes the C library's time() (the definition below takes
// precedence for calls made by libzoutils). While `fakeNow` is negative it forwards
// to the real clock; a test that sets it decides what generate() reads, so seconds
// can change, stand still, go back or pass 2^32 on demand. One test also waits for
// the real clock to tick. While `yieldInClock` is set, every read of the clock yields
// the processor before and after it takes the time: generate() reads the clock
// between loading its state and storing the next one, so this opens that window
// wide to other threads, and lets the clock move on after a read.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <tuple>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "knobs.h"
#include "utils/uid.h"

namespace {
std::atomic<long long> fakeNow{-1};
std::atomic<bool> yieldInClock{false};
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t* out) {
    using TimeFn = time_t (*)(time_t*);
    static TimeFn real = reinterpret_cast<TimeFn>(dlsym(RTLD_NEXT, "time"));
    bool widen = yieldInClock.load();
    if (widen) std::this_thread::yield();
    long long now = fakeNow.load();
    time_t result = now < 0 ? real(nullptr) : static_cast<time_t>(now);
    if (widen) std::this_thread::yield();  // the value read may be stale on return
    if (out) *out = result;
    return result;
}

namespace {

using Utils::UID;

constexpr long long kEpoch = 602883519;  // identifier time 0, in the C library's seconds

// Runs the test with the clock frozen at identifier time `t` (until changed again).
struct FakeClock {
    explicit FakeClock(long long t) { set(t); }
    ~FakeClock() { fakeNow = -1; }
    void set(long long t) { fakeNow = kEpoch + t; }
};

std::tuple<unsigned, unsigned, unsigned> fields(UID const& u) { return {u.machine, u.time, u.sequence}; }

// First in the file, so that it sees the process as it starts: nothing has read
// or set the machine number yet.
TEST(UIDMachine, UnsetMachineNumberIsZeroAndGenerateStoresTheDefault) {
    EXPECT_EQ(0u, UID::ourMachineNum_);
    UID u;
    u.generate();
    EXPECT_EQ(0xC0D1F1EDu, u.machine);
    EXPECT_EQ(0xC0D1F1EDu, UID::ourMachineNum_);
    EXPECT_EQ(0xC0D1F1EDu, UID::ourMachineNum());
}

TEST(UIDMachine, ResetToZeroFallsBackToTheDefaultOnNextRead) {
    UID::ourMachineNum(0);
    EXPECT_EQ(0u, UID::ourMachineNum_);
    EXPECT_EQ(0xC0D1F1EDu, UID::ourMachineNum());
    EXPECT_EQ(0xC0D1F1EDu, UID::ourMachineNum_);
    UID::ourMachineNum(0);
    UID u;
    u.generate();
    EXPECT_EQ(0xC0D1F1EDu, u.machine);
    EXPECT_EQ(0xC0D1F1EDu, UID::ourMachineNum());
}

TEST(UIDMachine, GenerateUsesTheMachineNumberSet) {
    UID::ourMachineNum(77);
    UID u;
    u.generate();
    EXPECT_EQ(77u, u.machine);
    EXPECT_EQ(77u, UID::ourMachineNum());
    UID::ourMachineNum(0);
}

// ---------------------------------------------------------------------------
// Generation
// ---------------------------------------------------------------------------

TEST(UIDGenerate, TwoWithinOneSecondDifferOnlyInSequenceAndTheNextSecondRestartsAtZero) {
    FakeClock clock(0x30000000);
    UID a, b, c;
    a.generate();
    b.generate();
    EXPECT_EQ(0x30000000u, a.time);
    EXPECT_EQ(0u, a.sequence);
    EXPECT_EQ(a.machine, b.machine);
    EXPECT_EQ(a.time, b.time);
    EXPECT_EQ(1u, b.sequence);
    clock.set(0x30000001);
    c.generate();
    EXPECT_EQ(0x30000001u, c.time);
    EXPECT_EQ(0u, c.sequence);
}

TEST(UIDGenerate, SequenceCountsOnWithinASecond) {
    FakeClock clock(0x30000010);
    UID u;
    for (unsigned i = 0; i < 1000; ++i) {
        u.generate();
        ASSERT_EQ(i, u.sequence);
        ASSERT_EQ(0x30000010u, u.time);
    }
}

TEST(UIDGenerate, AcrossARealChangeOfSecond) {
    // Waits for the real clock to tick (at most about a second), so that the next
    // two identifiers are minted well inside one second, then for the next tick.
    auto waitForTick = [] {
        std::time_t start = std::time(nullptr);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
        while (std::time(nullptr) == start) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    };
    ASSERT_TRUE(waitForTick());
    UID a, b, c;
    a.generate();
    b.generate();
    long long expected = static_cast<long long>(std::time(nullptr)) - kEpoch;
    EXPECT_EQ(static_cast<unsigned>(expected), a.time);
    EXPECT_EQ(0u, a.sequence);
    EXPECT_EQ(a.time, b.time);
    EXPECT_EQ(1u, b.sequence);
    ASSERT_TRUE(waitForTick());
    c.generate();
    EXPECT_EQ(a.time + 1, c.time);
    EXPECT_EQ(0u, c.sequence);
    EXPECT_FALSE(c.isReserved());
}

TEST(UIDGenerate, TimeIsSecondsSinceTheIdentifierEpoch) {
    FakeClock clock(0);
    UID u;
    clock.set(0x10000000);
    u.generate();
    EXPECT_EQ(0x10000000u, u.time);
    EXPECT_FALSE(u.isReserved());
    clock.set(0x0FFFFFFF);
    u.generate();
    EXPECT_EQ(0x0FFFFFFFu, u.time);
    EXPECT_TRUE(u.isReserved());
}

TEST(UIDGenerate, TimeIsTakenModulo2To32) {
    FakeClock clock((1LL << 32) + 7);
    UID u;
    u.generate();
    EXPECT_EQ(7u, u.time);
    clock.set(-1);  // one second before the epoch
    u.generate();
    EXPECT_EQ(0xFFFFFFFFu, u.time);
    EXPECT_EQ(0u, u.sequence);
}

TEST(UIDGenerate, AClockThatGoesBackRestartsTheCount) {
    // Nothing guards against it: the earlier pass through a second is repeated.
    FakeClock clock(0x30000105);
    UID first, second, back, again;
    first.generate();
    second.generate();
    clock.set(0x30000104);
    back.generate();
    EXPECT_EQ(0x30000104u, back.time);
    EXPECT_EQ(0u, back.sequence);
    clock.set(0x30000105);
    again.generate();
    EXPECT_EQ(0, again.compare(first));
}

// Each thread mints `perThread` identifiers; no identifier may appear twice.
void expectNoDuplicates(int threads, unsigned long perThread, bool advanceClock) {
    struct YieldInClock {
        YieldInClock() { yieldInClock = true; }
        ~YieldInClock() { yieldInClock = false; }
    } widen;
    std::vector<std::vector<UID>> minted(threads);
    std::atomic<int> running{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            minted[t].resize(perThread);
            ++running;
            while (!go) std::this_thread::yield();
            for (auto& u : minted[t]) u.generate();
            --running;
        });
    while (running.load() != threads) std::this_thread::yield();
    go = true;
    if (advanceClock) {
        // Seconds change while the others mint: every change restarts the count, and
        // a thread that read the clock before a change must not restart an old second.
        long long second = 0x30001000;
        while (running.load() != 0) {
            fakeNow = kEpoch + ++second;
            std::this_thread::yield();
        }
    }
    for (auto& th : pool) th.join();
    std::set<std::tuple<unsigned, unsigned, unsigned>> seen;
    for (auto const& list : minted)
        for (auto const& u : list) ASSERT_TRUE(seen.insert(fields(u)).second) << u.asText().text();
    EXPECT_EQ(threads * perThread, seen.size());
}

TEST(UIDGenerate, FourThreadsAtOnceNeverMintTheSameIdentifier) {
    expectNoDuplicates(4, zotest::scaled(5000), false);
}

TEST(UIDGenerate, TwoThreadsAtOnceNeverMintTheSameIdentifier) {
    expectNoDuplicates(2, zotest::scaled(5000), false);
}

TEST(UIDGenerate, ThreeThreadsNeverMintTheSameIdentifierWhileSecondsChange) {
    FakeClock clock(0x30001000);
    expectNoDuplicates(3, zotest::scaled(5000), true);
}

TEST(UIDGenerate, WithinOneSecondThreadsShareOneGaplessSequence) {
    FakeClock clock(0x20002000);
    unsigned long const perThread = zotest::scaled(5000);
    std::vector<std::vector<UID>> minted(4, std::vector<UID>(perThread));
    yieldInClock = true;
    std::vector<std::thread> pool;
    for (auto& list : minted)
        pool.emplace_back([&list] {
            for (auto& u : list) u.generate();
        });
    for (auto& th : pool) th.join();
    yieldInClock = false;
    std::vector<bool> taken(4 * perThread, false);
    for (auto const& list : minted)
        for (auto const& u : list) {
            ASSERT_EQ(0x20002000u, u.time);
            ASSERT_LT(u.sequence, taken.size());
            ASSERT_FALSE(taken[u.sequence]) << u.sequence;
            taken[u.sequence] = true;
        }
}

// ---------------------------------------------------------------------------
// Null identifier, validity, reservation
// ---------------------------------------------------------------------------

TEST(UIDNull, NullIdentifierHasTextZero) {
    EXPECT_STREQ("0", UID::nullUID().asText().text());
    EXPECT_STREQ("0", UID(0, 0, 0).asText().text());
}

TEST(UIDNull, EmptyAndNullTextsGiveTheNullIdentifier) {
    for (UID u : {UID(""), UID(static_cast<char const*>(nullptr))}) {
        EXPECT_EQ(std::make_tuple(0u, 0u, 0u), fields(u));
        EXPECT_FALSE(u.valid());
        EXPECT_FALSE(u.isReserved());
    }
}

TEST(UIDNull, NullUIDIsOneAllZeroObject) {
    UID const& a = UID::nullUID();
    UID const& b = UID::nullUID();
    EXPECT_EQ(&a, &b);
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u), fields(a));
    EXPECT_FALSE(a.valid());
}

TEST(UIDNull, NullUIDFromSeveralThreadsIsTheSameObject) {
    std::vector<UID const*> seen(4);
    std::vector<std::thread> pool;
    for (auto& p : seen) pool.emplace_back([&p] { p = &UID::nullUID(); });
    for (auto& th : pool) th.join();
    for (auto p : seen) EXPECT_EQ(&UID::nullUID(), p);
}

TEST(UIDNull, NullifyClearsAllThreeFields) {
    UID u(1, 2, 3);
    u.nullify();
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u), fields(u));
}

TEST(UIDValid, AnyNonzeroFieldMakesItValid) {
    EXPECT_TRUE(UID(1, 0, 0).valid());
    EXPECT_TRUE(UID(0, 1, 0).valid());
    EXPECT_TRUE(UID(0, 0, 1).valid());
    EXPECT_FALSE(UID(0, 0, 0).valid());
}

TEST(UIDValid, ReservedBelowTime0x10000000OnlyWhenValid) {
    EXPECT_TRUE(UID(5, 0x0FFFFFFF, 0).isReserved());
    EXPECT_FALSE(UID(5, 0x10000000, 0).isReserved());
    EXPECT_FALSE(UID(0, 0, 0).isReserved());
    EXPECT_TRUE(UID(0, 0, 9).isReserved());
}

TEST(UIDValid, AssignmentCopiesAllThreeFields) {
    UID a(7, 8, 9);
    UID b(1, 1, 1);
    b = a;
    EXPECT_EQ(std::make_tuple(7u, 8u, 9u), fields(b));
}

// ---------------------------------------------------------------------------
// Text form and parsing
// ---------------------------------------------------------------------------

TEST(UIDText, MachineOneTimeTwoSequence1FRoundTrips) {
    UID u(1, 2, 0x1F);
    EXPECT_STREQ("00000001000000021F", u.asText().text());
    UID back("00000001000000021F");
    EXPECT_EQ(std::make_tuple(1u, 2u, 0x1Fu), fields(back));
    EXPECT_EQ(0, back.compare(u));
}

TEST(UIDText, SequenceIsUnpaddedUpperCaseHex) {
    EXPECT_STREQ("C0D1F1ED0ABC12340", UID(0xC0D1F1ED, 0x0ABC1234, 0).asText().text());
    EXPECT_STREQ("00000000000000001", UID(0, 0, 1).asText().text());
    EXPECT_STREQ("FFFFFFFFFFFFFFFFFFFFFFFF", UID(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF).asText().text());
    EXPECT_STREQ("0000000A0000000BABCDEF", UID(10, 11, 0xABCDEF).asText().text());
}

TEST(UIDText, RandomIdentifiersPrintAsHexFieldsAndRoundTrip) {
    std::mt19937 rng(71);
    unsigned long const n = zotest::scaled(5000);
    for (unsigned long i = 0; i < n; ++i) {
        UID u(rng(), rng(), rng() >> (i % 32));
        if (!u.valid()) continue;
        Utils::String text = u.asText();
        char expected[32];
        std::snprintf(expected, sizeof expected, "%08X%08X%X", u.machine, u.time, u.sequence);
        ASSERT_STREQ(expected, text.text());
        ASSERT_GE(text.length(), 17u);
        ASSERT_LE(text.length(), 24u);
        UID back(text.text());
        ASSERT_EQ(fields(u), fields(back)) << text.text();
    }
}

TEST(UIDParse, LowerCaseHexIsAccepted) {
    EXPECT_EQ(std::make_tuple(0xC0D1F1EDu, 0xABCu, 0xFFu), fields(UID("c0d1f1ed00000abcff")));
}

TEST(UIDParse, ShortTextsReadMissingFieldsAsZero) {
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u), fields(UID("0")));
    EXPECT_FALSE(UID("0").valid());
    EXPECT_EQ(std::make_tuple(0x12u, 0u, 0u), fields(UID("12")));
    EXPECT_EQ(std::make_tuple(1u, 0u, 0u), fields(UID("00000001")));
    EXPECT_EQ(std::make_tuple(1u, 0x2Au, 0u), fields(UID("000000012A")));
    EXPECT_EQ(std::make_tuple(1u, 2u, 0u), fields(UID("0000000100000002")));
}

TEST(UIDParse, FieldsAreFixedByPosition) {
    // A field stops at its first non-hex character; the next field still starts at
    // its own position.
    EXPECT_EQ(std::make_tuple(0x12u, 0x34u, 0x56u), fields(UID("12zzzzzz34......56")));
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u), fields(UID("zzzzzzzzzzzzzzzzzz")));
}

TEST(UIDParse, StrtoulRulesInsideAField) {
    // Leading blanks, a sign and a 0x prefix are accepted within each field.
    EXPECT_EQ(std::make_tuple(0x1Au, 0x2Bu, 0x3Cu), fields(UID("  +1A   0x0002B 0x3C")));
    // A minus sign negates in 32 bits.
    EXPECT_EQ(std::make_tuple(0xFFFFFFFFu, 0xFFFFFFF0u, 0xFFFFFFFEu), fields(UID("-0000001-0000010-2")));
    // "0x" without a digit after it reads as 0.
    EXPECT_EQ(std::make_tuple(0u, 5u, 0u), fields(UID("0xzzzzzz00000005")));
}

TEST(UIDParse, LongSequenceSaturatesLikeA32BitConversion) {
    // Nine or more significant hex digits overflow 32 bits: 0xFFFFFFFF, sign or not.
    EXPECT_EQ(0xFFFFFFFFu, UID("0000000100000002123456789").sequence);
    EXPECT_EQ(0xFFFFFFFFu, UID("0000000100000002FFFFFFFFFFFFFFFF").sequence);
    EXPECT_EQ(0xFFFFFFFFu, UID("0000000100000002-123456789").sequence);
    // Leading zeros are not significant: this one fits.
    EXPECT_EQ(0xFFu, UID("00000001000000020000000000FF").sequence);
    EXPECT_EQ(0xFFFFFFFFu, UID("0000000100000002FFFFFFFF").sequence);
}

// ---------------------------------------------------------------------------
// Ordering
// ---------------------------------------------------------------------------

TEST(UIDCompare, SignIsReversedSmallerGivesOne) {
    EXPECT_EQ(1, UID(1, 0, 0).compare(UID(2, 0, 0)));
    EXPECT_EQ(-1, UID(2, 0, 0).compare(UID(1, 0, 0)));
    EXPECT_EQ(0, UID(2, 0, 0).compare(UID(2, 0, 0)));
}

TEST(UIDCompare, MachineThenTimeThenSequence) {
    EXPECT_EQ(1, UID(1, 9, 9).compare(UID(2, 0, 0)));
    EXPECT_EQ(1, UID(1, 1, 9).compare(UID(1, 2, 0)));
    EXPECT_EQ(-1, UID(1, 2, 1).compare(UID(1, 2, 0)));
    EXPECT_EQ(1, UID(1, 2, 0).compare(UID(1, 2, 1)));
}

TEST(UIDCompare, FieldsCompareUnsigned) {
    EXPECT_EQ(-1, UID(0xFFFFFFFF, 0, 0).compare(UID(1, 0, 0)));
    EXPECT_EQ(1, UID(0x7FFFFFFF, 0, 0).compare(UID(0x80000000, 0, 0)));
    EXPECT_EQ(-1, UID(1, 0xFFFFFFFF, 0).compare(UID(1, 0, 0)));
    EXPECT_EQ(-1, UID(1, 1, 0xFFFFFFFF).compare(UID(1, 1, 0)));
}

}  // namespace

// ---------------------------------------------------------------------------
// Conveniences: equality, the natural order and hashing
// ---------------------------------------------------------------------------
TEST(UIDConveniences, EqualityAndOrderAgreeWithCompare) {
    std::mt19937 rng(3);
    std::vector<UID> ids;
    for (int i = 0; i < 200; ++i)
        ids.emplace_back(rng() % 3, rng() % 3, rng() % 3);  // many ties in each field
    for (UID const& a : ids) {
        for (UID const& b : ids) {
            int c = a.compare(b);
            EXPECT_EQ(a == b, c == 0);
            EXPECT_EQ(a != b, c != 0);
            EXPECT_EQ(a < b, c == 1);  // compare's sign is reversed: 1 means a is the smaller
        }
    }
    EXPECT_TRUE(UID(0, 0xFFFFFFFF, 0xFFFFFFFF) < UID(1, 0, 0));  // machine first, unsigned
    EXPECT_TRUE(UID(1, 1, 0xFFFFFFFF) < UID(1, 2, 0));
    std::sort(ids.begin(), ids.end());
    EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
}

TEST(UIDConveniences, StandardContainers) {
    std::unordered_set<UID> seen;
    std::map<UID, int> ordered;
    UID id;
    for (int i = 0; i < 100; ++i) {
        id.generate();
        EXPECT_TRUE(seen.insert(id).second);
        ordered[id] = i;
    }
    EXPECT_FALSE(seen.insert(UID(seen.begin()->machine, seen.begin()->time, seen.begin()->sequence)).second);
    EXPECT_EQ(ordered.size(), 100u);
    EXPECT_EQ(std::hash<UID>()(UID(1, 2, 3)), std::hash<UID>()(UID(1, 2, 3)));
    EXPECT_NE(std::hash<UID>()(UID(1, 2, 3)), std::hash<UID>()(UID(1, 2, 4)));
}
