// Time: ticks at a rate to seconds with 16 fractional bits.
#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "knobs.h"
#include "utils/time.h"

namespace {

using Utils::Time;

TEST(Time, OneTickAtOnePerSecondIsOneSecond) { EXPECT_EQ(65536, Time(1, 1).value); }

TEST(Time, ThreeTicksAtTwoPerSecondIsOneAndAHalfSeconds) { EXPECT_EQ(98304, Time(3, 2).value); }

TEST(Time, OneTickAtThreePerSecondTruncatesTheThird) { EXPECT_EQ(21845, Time(1, 3).value); }

TEST(Time, AMillionMicrosecondsIsOneSecond) { EXPECT_EQ(65536, Time(1000000, 1000000).value); }

TEST(Time, ZeroTicksIsZero) { EXPECT_EQ(0, Time(0, 1000).value); }

TEST(Time, TickCountWithTheTopBitSetIsUnsigned) {
    // 2^63 ticks at 2^20 per second: 2^43 seconds, 2^59 units.
    EXPECT_EQ(1LL << 59, Time(1ULL << 63, 1ULL << 20).value);
}

TEST(Time, RateWithTheTopBitSetIsUnsigned) {
    // 2^63 ticks at 2^63 per second is one second (a signed rate would be negative).
    EXPECT_EQ(65536, Time(1ULL << 63, 1ULL << 63).value);
    EXPECT_EQ(65536, Time(~0ULL, ~0ULL).value);
}

TEST(Time, QuotientIsComputedBeforeTheProduct) {
    // 65536.0 / 49 rounds down in double precision, so 49 ticks of it fall just
    // short of one second: 65535. The other order (49 * 65536 / 49) would give 65536.
    EXPECT_EQ(65535, Time(49, 49).value);
    EXPECT_EQ(131071, Time(98, 49).value);
    EXPECT_EQ(28086, Time(3, 7).value);
}

TEST(Time, TopBitConversionKeepsTheLowBitAsStickyBit) {
    // 2^63 + 2^10 + 1 lies just above the midpoint between the doubles 2^63 and
    // 2^63 + 2^11, so it rounds up. Halving without keeping the dropped low bit would
    // land exactly on a midpoint and round down to 2^63. At 2^17 ticks per second
    // each tick is half a unit, which keeps the result in range.
    EXPECT_EQ(0x4000000000000400LL, Time(0x8000000000000401ULL, 1ULL << 17).value);
    // Exactly on the midpoint (no sticky bit): ties to even, down to 2^63.
    EXPECT_EQ(0x4000000000000000LL, Time(0x8000000000000400ULL, 1ULL << 17).value);
}

TEST(Time, MatchesTheCorrectlyRoundedConversionForRandomCounts) {
    // At 65536 ticks per second each tick is one unit, so the value is the count
    // converted to double and truncated and any conversion error shows. Counts with
    // the top bit set run at twice that rate (half a unit per tick) to stay in range.
    std::mt19937_64 rng(20260907);
    unsigned long const n = zotest::scaled(20000);
    for (unsigned long i = 0; i < n; ++i) {
        unsigned long long ticks = rng() | (1ULL << 63);
        double expected = static_cast<double>(ticks) * 0.5;
        if (expected >= 9223372036854775808.0) continue;  // rounded up to 2^64 ticks
        ASSERT_EQ(static_cast<long long>(expected), Time(ticks, 131072).value) << std::hex << ticks;
        unsigned long long low = rng() >> (1 + (i % 40));
        ASSERT_EQ(static_cast<long long>(static_cast<double>(low)), Time(low, 65536).value) << std::hex << low;
    }
}

TEST(Time, ResultIsTruncatedTowardZero) {
    // 2 ticks at 3 per second: 43690.67 units.
    EXPECT_EQ(43690, Time(2, 3).value);
    // Beyond 2^53 units low-order units are lost: 2^53 + 1 ticks at the unit rate.
    EXPECT_EQ(9007199254740992LL, Time(9007199254740993ULL, 65536).value);
}

TEST(Time, ZeroRateAndOutOfRangeResultsGiveTheHostsOutOfRangeValue) {
    // Not checked, by design; the value is the x86-64 conversion's INT64_MIN.
    EXPECT_EQ(INT64_MIN, Time(1, 0).value);
    EXPECT_EQ(INT64_MIN, Time(0, 0).value);  // 0 * infinity is NaN
    EXPECT_EQ(INT64_MIN, Time(1ULL << 63, 1).value);
}

}  // namespace
