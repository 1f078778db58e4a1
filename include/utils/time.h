// Time: a duration or time stamp as a fixed-point count of seconds with 16
// fractional bits (units of 1/65536 s), so that counters of clocks with different
// resolutions become comparable.
#pragma once

#include "utils/export.h"

namespace Utils {

class ZO_API Time {
public:
    // value = ticks * (65536.0 / ticksPerSecond), in double precision, truncated
    // toward zero. Both counts are taken as unsigned 64-bit numbers, also with the
    // top bit set. The quotient is computed first and then multiplied, which decides
    // the last unit: Time(49, 49) is 65535, not 65536 (kept: stored values depend on
    // it). Above 2^53 units (about 4355 years) low-order units are lost.
    // Nothing is checked: callers pass a nonzero rate. A rate of 0, or a result
    // outside the signed 64-bit range, gives the host's out-of-range conversion
    // result on x86-64, INT64_MIN (0x8000000000000000).
    Time(unsigned long long ticks, unsigned long long ticksPerSecond);

    // Seconds * 65536.
    long long value;
};

}  // namespace Utils
