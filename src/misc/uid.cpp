// Unique identifiers: generation, text form and parsing.
//
// Generator state: the last time issued and the sequence counter, packed into one
// 64-bit word (time << 32 | sequence) that generate() advances with a
// compare-and-swap, so that two threads can never both take the same pair.
// Initially (0, 0), as if time 0 had been issued last.
#include "utils/uid.h"

#include <atomic>
#include <cctype>
#include <ctime>

#include "misc/constinit.h"

namespace Utils {

ZO_CONSTINIT unsigned int UID::ourMachineNum_ = 0;

namespace {

constexpr unsigned int kDefaultMachine = 0xC0D1F1EDu;
// Seconds from the C library's epoch to the identifier epoch, 1989-02-07 19:38:39 UTC.
constexpr unsigned long long kEpochOffset = 602883519ull;  // 0x23EF45BF

ZO_CONSTINIT std::atomic<unsigned long long> generatorState{0};

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// strtoul(s, nullptr, 16) as it behaves with a 32-bit unsigned long: leading white
// space, an optional sign and an optional 0x prefix; digits up to the first non-hex
// character; a magnitude beyond 32 bits gives 0xFFFFFFFF (whatever the sign); a
// minus sign negates in 32 bits. No digits gives 0.
unsigned int hexField32(char const* s) {
    while (std::isspace(static_cast<unsigned char>(*s))) ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') negative = *s++ == '-';
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && hexDigit(s[2]) >= 0) s += 2;
    unsigned long long magnitude = 0;
    bool overflow = false;
    for (int d; (d = hexDigit(*s)) >= 0; ++s) {
        magnitude = magnitude * 16 + static_cast<unsigned>(d);
        if (magnitude > 0xFFFFFFFFull) {
            overflow = true;
            magnitude = 0xFFFFFFFFull;  // keeps the accumulator from wrapping
        }
    }
    if (overflow) return 0xFFFFFFFFu;
    unsigned int value = static_cast<unsigned int>(magnitude);
    return negative ? 0u - value : value;
}

// Copies the next field of at most eight characters (fewer at the end of the text)
// into a NUL-terminated buffer, advances `text` past it and converts it.
unsigned int nextField(char const*& text) {
    char field[9];
    int n = 0;
    while (n < 8 && text[n] != '\0') {
        field[n] = text[n];
        ++n;
    }
    field[n] = '\0';
    text += n;
    return hexField32(field);
}

}  // namespace

UID::UID(char const* text) {
    if (!text || !*text) {
        nullify();
        return;
    }
    // A text shorter than 16 characters leaves `text` at its NUL, so the fields past
    // its end read as empty fields, 0: "0" parses to the null identifier.
    machine = nextField(text);
    time = nextField(text);
    sequence = hexField32(text);
}

void UID::generate() {
    // The clock is read after the state is loaded, and again after every failed
    // swap: a thread whose swap succeeds has read the clock after the thread that
    // issued the state it replaces, so a second can never be re-entered by a thread
    // that read the clock late (which would restart its count and repeat identifiers).
    unsigned long long state = generatorState.load(std::memory_order_acquire);
    unsigned long long next;
    do {
        // Modulo 2^32, as the 32-bit field holds it (a 64-bit time_t wraps in 2125).
        unsigned int now = static_cast<unsigned int>(static_cast<unsigned long long>(::time(nullptr)) - kEpochOffset);
        unsigned int last = static_cast<unsigned int>(state >> 32);
        unsigned int counter = static_cast<unsigned int>(state);
        next = now != last ? static_cast<unsigned long long>(now) << 32
                           : (state & 0xFFFFFFFF00000000ull) | static_cast<unsigned int>(counter + 1);
    } while (!generatorState.compare_exchange_weak(state, next, std::memory_order_acq_rel,
                                                   std::memory_order_acquire));
    machine = ourMachineNum();
    time = static_cast<unsigned int>(next >> 32);
    sequence = static_cast<unsigned int>(next);
}

int UID::compare(UID const& other) const {
    // kept: 1 means this one is the smaller, the reverse of strcmp.
    if (machine != other.machine) return machine < other.machine ? 1 : -1;
    if (time != other.time) return time < other.time ? 1 : -1;
    if (sequence != other.sequence) return sequence < other.sequence ? 1 : -1;
    return 0;
}

bool UID::valid() const { return machine != 0 || time != 0 || sequence != 0; }

bool UID::isReserved() const { return valid() && time < 0x10000000u; }

void UID::nullify() { machine = time = sequence = 0; }

// The text form, written digit by digit: the same characters as "%08X%08X%X"
// formatted into one buffer, without three passes through printf.
String UID::asText() const {
    if (!valid()) return String("0");
    static char const kDigits[] = "0123456789ABCDEF";
    char buffer[3 * 8];
    for (int i = 0; i < 8; ++i) {
        buffer[i] = kDigits[(machine >> (28 - 4 * i)) & 0xF];
        buffer[8 + i] = kDigits[(time >> (28 - 4 * i)) & 0xF];
    }
    int n = 16;
    int shift = 28;
    while (shift > 0 && (sequence >> shift) == 0) shift -= 4;  // no padding; 0 is "0"
    for (; shift >= 0; shift -= 4) buffer[n++] = kDigits[(sequence >> shift) & 0xF];
    return String(buffer, static_cast<unsigned long>(n));
}

UID const& UID::nullUID() {
    // Parsed once, on first use; the compiler's guard makes the first use safe from
    // several threads at once.
    static UID const null(static_cast<char const*>(nullptr));
    return null;
}

unsigned int UID::ourMachineNum() {
    unsigned int n = __atomic_load_n(&ourMachineNum_, __ATOMIC_RELAXED);
    if (n != 0) return n;
    unsigned int expected = 0;
    if (__atomic_compare_exchange_n(&ourMachineNum_, &expected, kDefaultMachine, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED))
        return kDefaultMachine;
    return expected;  // another thread set a number meanwhile
}

void UID::ourMachineNum(unsigned int n) { __atomic_store_n(&ourMachineNum_, n, __ATOMIC_RELAXED); }

}  // namespace Utils
