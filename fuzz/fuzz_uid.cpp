// Identifiers: text parsing against an independent reading of the fields with the
// C library's strtoull, the text form of every triple against "%08X%08X%X", the
// round trip text -> identifier -> text, and the ordering against a tuple model.
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

#include "fuzz_check.h"
#include "utils/uid.h"

namespace {

// One field read as a 32-bit strtoul would: blanks, a sign, hex digits with an
// optional 0x; a magnitude above 32 bits saturates, a minus sign negates mod 2^32.
unsigned int modelField(std::string const& f) {
    char const* s = f.c_str();
    while (std::isspace(static_cast<unsigned char>(*s))) ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') negative = *s++ == '-';
    // strtoull would accept a second run of blanks or a second sign: a real field
    // read has no digits there.
    if (std::isspace(static_cast<unsigned char>(*s)) || *s == '+' || *s == '-') return 0;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(s, &end, 16);
    if (end == s) return 0;
    if (errno == ERANGE || v > 0xFFFFFFFFull) return 0xFFFFFFFFu;
    unsigned int u = static_cast<unsigned int>(v);
    return negative ? 0u - u : u;
}

void checkParse(std::string const& text) {
    Utils::UID id(text.c_str());
    std::string t(text.c_str());  // the parser sees the text up to its first NUL
    auto field = [&](size_t from, size_t n) { return from >= t.size() ? std::string() : t.substr(from, n); };
    unsigned int m = modelField(field(0, 8)), tm = modelField(field(8, 8)), sq = modelField(field(16, std::string::npos));
    FUZZ_CHECK(id.machine == m && id.time == tm && id.sequence == sq, "\"%s\" parsed as %08X %08X %X, model %08X %08X %X",
               t.c_str(), id.machine, id.time, id.sequence, m, tm, sq);
    FUZZ_CHECK(id.valid() == (m || tm || sq), "valid()");
}

void checkText(unsigned int m, unsigned int t, unsigned int s) {
    Utils::UID id(m, t, s);
    Utils::String text = id.asText();
    char model[32];
    if (m || t || s)
        std::snprintf(model, sizeof model, "%08X%08X%X", m, t, s);
    else
        std::strcpy(model, "0");
    FUZZ_CHECK(std::strcmp(text.text(), model) == 0 && text.length() == std::strlen(model), "asText %s, model %s",
               text.text(), model);
    Utils::UID back(text.text());
    FUZZ_CHECK(back.compare(id) == 0, "round trip of %s", model);
    FUZZ_CHECK(id.isReserved() == (id.valid() && t < 0x10000000u), "isReserved");
}

void checkCompare(Utils::UID const& a, Utils::UID const& b) {
    auto ta = std::make_tuple(a.machine, a.time, a.sequence), tb = std::make_tuple(b.machine, b.time, b.sequence);
    int model = ta < tb ? 1 : tb < ta ? -1 : 0;  // 1 when this one is the smaller
    FUZZ_CHECK(a.compare(b) == model, "compare %d, model %d", a.compare(b), model);
    FUZZ_CHECK(b.compare(a) == -model, "compare is antisymmetric");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    unsigned int m = in.ConsumeIntegral<unsigned int>();
    unsigned int t = in.ConsumeIntegral<unsigned int>();
    unsigned int s = in.ConsumeIntegral<unsigned int>();
    // Small values are where padding and the null identifier live.
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
        case 0: m = 0; break;
        case 1: m = t = 0; break;
        case 2: s &= 0xFF; break;
        default: break;
    }
    checkText(m, t, s);
    std::string text = in.ConsumeRandomLengthString(40);
    std::string other = in.ConsumeRemainingBytesAsString();
    checkParse(text);
    checkParse(other);
    checkCompare(Utils::UID(text.c_str()), Utils::UID(other.c_str()));
    checkCompare(Utils::UID(m, t, s), Utils::UID(other.c_str()));
    return 0;
}
