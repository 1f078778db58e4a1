// Identifier texts at their edges: the upper-case 0X prefix inside a field.
#include <gtest/gtest.h>

#include <tuple>

#include "utils/uid.h"

using Utils::UID;

namespace {

std::tuple<unsigned, unsigned, unsigned> fields(UID const& u) { return {u.machine, u.time, u.sequence}; }

TEST(UIDParseEdges, UpperCasePrefixIsSkippedLikeTheLowerCaseOne) {
    EXPECT_EQ(std::make_tuple(0xAu, 0xBu, 0x3u), fields(UID("0X00000A0X00000B0X3")));
    EXPECT_EQ(fields(UID("0x00000A0x00000B0x3")), fields(UID("0X00000A0X00000B0X3")));
}

TEST(UIDParseEdges, UpperCasePrefixWithoutADigitAfterItReadsAsZero) {
    // The field stops at the X: only its leading 0 is read.
    EXPECT_EQ(std::make_tuple(0u, 0x5u, 0u), fields(UID("0Xzzzzzz00000005")));
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u), fields(UID("0X")));
}

}  // namespace
