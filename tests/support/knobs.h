// Knobs shared by the test programs.
#pragma once

#include <cstdlib>
#include <string>

namespace zotest {

// Randomised and stress tests run a short default; ZOUTILS_TEST_SCALE=N runs N times as many
// operations (e.g. ZOUTILS_TEST_SCALE=50 for a soak run).
inline unsigned long scaled(unsigned long base) {
    char const* s = std::getenv("ZOUTILS_TEST_SCALE");
    if (!s || !*s) return base;
    unsigned long k = std::strtoul(s, nullptr, 10);
    return k ? base * k : base;
}

// A small deterministic generator for randomised walks (xorshift64): the same seed
// gives the same walk, so a failing step can be replayed.
class Walk {
public:
    explicit Walk(unsigned long seed) : state_(seed ? seed : 1) {}
    // A value below `bound` (bound > 0).
    unsigned long below(unsigned long bound) {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_ % bound;
    }

private:
    unsigned long state_;
};

// True when the process runs under a sanitizer whose own operator new
// replaces the library's (AddressSanitizer, ThreadSanitizer).
inline bool sanitizerOwnsOperatorNew() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

// True when the process runs under valgrind.
bool underValgrind();

// Why the program's operator new is not the library's, or null when it is: a
// sanitizer's replaces it, and valgrind intercepts it.
inline char const* foreignOperatorNew() {
    if (sanitizerOwnsOperatorNew()) return "the sanitizer's own operator new replaces the library's";
    if (underValgrind()) return "valgrind's own operator new replaces the library's";
    return nullptr;
}

}  // namespace zotest
