// Helpers shared by the string sources; not part of the library's interface.
#pragma once

#include <cstdint>
#include <cstring>

#include "utils/allocator.h"
#include "utils/string.h"

namespace Utils {
namespace StringInternal {

// The allocator of every string buffer: the process allocator unless a test routed
// buffers elsewhere (string_testing.h).
Allocator* bufferAllocator();

// The text a null char const* stands for wherever a text is expected: "" (the shared
// empty text).
inline char const* orEmpty(char const* s) { return s ? s : StringRep::emptyText(); }

// The capacity rule (StringRep::sizeFor): the smallest power of two above n, at
// least 16; 0 when none fits. Inline here because the append fast paths test it on
// every call, where the exported StringRep::sizeFor would cost a call through the
// symbol table.
inline unsigned long capacityRule(unsigned long n) {
    if (n <= 15) return 16;
    if (n >= (1UL << 63)) return 0;
    return 1UL << (64 - __builtin_clzl(n));
}

// The substitution engine of String::substitute and StringRep::substitute: every
// match of `from` (f > 0 characters) replaced by `to` (t characters), left to right,
// the search resuming just past each match, so text just written is never searched.
// Matches are found with strstr, so the search ends at the text's first NUL.
//
// The number of matches in the NUL-terminated text.
inline unsigned long countMatches(char const* text, char const* from, unsigned long f) {
    unsigned long matches = 0;
    for (char const* p = std::strstr(text, from); p; p = std::strstr(p + f, from)) {
        ++matches;
        if (p[f] == 0) break;  // the match ends the text
    }
    return matches;
}
// Writes the n characters at src, with its first `matches` matches replaced, to dst
// (no NUL is added). dst may lie at or below src in the same buffer as long as the
// growth still owed, (t - f) per match ahead, never lets the writer overtake the
// reader: every move is a memmove; `to` must not lie in that buffer.
inline void writeSubstituted(char* dst, char const* src, unsigned long n, unsigned long matches, char const* from,
                             unsigned long f, char const* to, unsigned long t) {
    char const* end = src + n;
    for (unsigned long k = 0; k < matches; ++k) {
        char const* m = std::strstr(src, from);
        unsigned long gap = static_cast<unsigned long>(m - src);
        std::memmove(dst, src, gap);
        dst += gap;
        std::memcpy(dst, to, t);
        dst += t;
        src = m + f;
    }
    std::memmove(dst, src, static_cast<unsigned long>(end - src));
}

// Membership in a NUL-terminated set of characters, answered as strchr(set, c) != 0
// would: the NUL character is always a member (strchr finds the terminator). A null
// set holds only NUL.
class CharSet {
public:
    explicit CharSet(char const* set) {
        bits[0] = 1;  // NUL
        bits[1] = bits[2] = bits[3] = 0;
        if (set)
            for (; *set; ++set) add(static_cast<unsigned char>(*set));
    }
    bool has(char c) const {
        unsigned char u = static_cast<unsigned char>(c);
        return (bits[u >> 6] >> (u & 63)) & 1;
    }

private:
    void add(unsigned char u) { bits[u >> 6] |= std::uint64_t(1) << (u & 63); }
    std::uint64_t bits[4];
};

}  // namespace StringInternal
}  // namespace Utils
