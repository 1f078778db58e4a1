// Time: ticks of any clock to seconds in 16.16-style fixed point (64-bit).
#include "utils/time.h"

namespace Utils {

namespace {

// Unsigned 64-bit to double, correctly rounded also with the top bit set: halve,
// keeping the dropped low bit as a sticky bit so that the one rounding of the signed
// conversion still sees it, convert, and double (exact).
double unsignedToDouble(unsigned long long x) {
    if (static_cast<long long>(x) >= 0) return static_cast<double>(static_cast<long long>(x));
    unsigned long long half = (x >> 1) | (x & 1);
    double d = static_cast<double>(static_cast<long long>(half));
    return d + d;
}

// Truncation toward zero. Out of range (and NaN) the conversion is undefined in C++;
// we give the value the x86-64 conversion instruction produces, INT64_MIN.
long long truncateToInt64(double d) {
    if (d >= -9223372036854775808.0 && d < 9223372036854775808.0) return static_cast<long long>(d);
    return -9223372036854775807LL - 1;
}

}  // namespace

Time::Time(unsigned long long ticks, unsigned long long ticksPerSecond) {
    double perTick = 65536.0 / unsignedToDouble(ticksPerSecond);  // kept: quotient first
    value = truncateToInt64(unsignedToDouble(ticks) * perTick);
}

}  // namespace Utils
