// Unique identifiers: 96-bit values that a program mints without coordination.
//
// An identifier is (machine, time, sequence), three unsigned 32-bit numbers:
//  - machine: the number of the machine (process) that made it, the process-wide
//    setting ourMachineNum(), which defaults to 0xC0D1F1ED;
//  - time: seconds since the identifier epoch 1989-02-07 19:38:39 UTC, that is the
//    C library's time() minus 602883519, taken modulo 2^32;
//  - sequence: the ordinal of the identifier within that second on this machine,
//    from 0.
// The null identifier has all three numbers 0.
//
// Text form: "0" for the null identifier; otherwise the machine and the time as
// exactly eight upper-case hex digits each, then the sequence in upper-case hex
// without padding, with no separators (17 to 24 characters):
// (0xC0D1F1ED, 0x0ABC1234, 0) is "C0D1F1ED0ABC12340".
//
// Identifiers are values. generate(), nullUID() and the machine number may be used
// from several threads at once: no identifier is handed out twice by one process
// while its clock runs forward (a clock set back restarts the count and can repeat
// identifiers of the earlier pass through that second).
#pragma once

#include <cstddef>
#include <functional>

#include "utils/export.h"
#include "utils/string.h"

namespace Utils {

class ZO_API UID {
public:
    // Leaves all three numbers uninitialised, deliberately: an identifier is expected
    // to be assigned, parsed or generated next.
    UID() {}
    // The identifier (machine, time, sequence).
    UID(unsigned int machine, unsigned int time, unsigned int sequence)
        : machine(machine), time(time), sequence(sequence) {}
    // Parses the text form. The fields are fixed by position: characters 0-7 are the
    // machine, 8-15 the time, 16 to the end the sequence, each read as hex by the C
    // library's strtoul rules (leading blanks, a sign and a 0x prefix inside a field
    // are accepted; conversion stops at the first other character; no error is
    // reported). A field that holds no hex digit, or lies past the end of a short
    // text, is 0: null, "" and "0" all give the null identifier. A sequence too
    // large for 32 bits reads as 0xFFFFFFFF; a negative field reads as its 32-bit
    // two's complement. For every non-null identifier, UID(id.asText().text())
    // equals id.
    explicit UID(char const* text);

    UID(UID const& other) = default;
    // Copies the three numbers.
    UID& operator=(UID const& other) = default;

    // Makes this identifier a new one: (ourMachineNum(), now, next sequence number).
    // The sequence restarts at 0 in each new second and counts without limit (modulo
    // 2^32) within one second; there is no wait and no other entropy.
    void generate();

    // Orders by machine, then time, then sequence, each unsigned. The sign is
    // deliberately the reverse of strcmp's (kept: callers that sort rely on it):
    // 1 when this identifier is the smaller, -1 when it is the larger, 0 when equal.
    int compare(UID const& other) const;
    // Equality of all three numbers.
    bool operator==(UID const& other) const {
        return machine == other.machine && time == other.time && sequence == other.sequence;
    }
    bool operator!=(UID const& other) const { return !(*this == other); }
    // The natural order, for std::map, std::sort and friends: by machine, then time,
    // then sequence, each unsigned. a < b exactly when a.compare(b) == 1 (compare's
    // sign is the reverse of this order's, see above).
    bool operator<(UID const& other) const {
        if (machine != other.machine) return machine < other.machine;
        if (time != other.time) return time < other.time;
        return sequence < other.sequence;
    }
    // True when any number is nonzero.
    bool valid() const;
    // True when valid and the time is below 0x10000000 (before 1997-08-11 17:02:55
    // UTC): identifiers generated since never are.
    bool isReserved() const;
    // Makes this the null identifier.
    void nullify();
    // The text form (see above).
    String asText() const;

    // The process-wide null identifier (all numbers 0).
    static UID const& nullUID();

    // The machine number; when unset (0) it first becomes 0xC0D1F1ED.
    static unsigned int ourMachineNum();
    // Sets the machine number; 0 makes the next read fall back to the default.
    static void ourMachineNum(unsigned int n);

    // The machine number as stored: 0 until set or first read. Read and written
    // atomically by the operations above; a program that writes it directly does so
    // before other threads use identifiers.
    static unsigned int ourMachineNum_;

    unsigned int machine;
    unsigned int time;
    unsigned int sequence;
};

}  // namespace Utils

// Hashing for std::unordered_map and friends: a mix of the three numbers, equal
// identifiers hashing alike.
namespace std {
template <>
struct hash<Utils::UID> {
    size_t operator()(Utils::UID const& id) const noexcept {
        unsigned long long h = (static_cast<unsigned long long>(id.machine) << 32) ^ id.time;
        h ^= static_cast<unsigned long long>(id.sequence) * 0x9E3779B97F4A7C15ULL;
        h ^= h >> 29;
        h *= 0xBF58476D1CE4E5B9ULL;
        h ^= h >> 32;
        return static_cast<size_t>(h);
    }
};
}  // namespace std
