// String: a nullable handle to a shared, copy-on-write StringRep.
//
// Invariants:
//  - rep == null is the null string; otherwise rep->refs >= 1 counts every String
//    (SubString parents included) that points at it.
//  - Before any write, makeOwn() gives this string a representation with refs == 1;
//    a source pointer read before makeOwn() stays valid, because the shared
//    representation it points into is still held by another handle.
//  - When memory runs out, an operation leaves the string as it was.
#include <cfloat>
#include <cstdio>
#include <cstring>
#include <new>
#include <ostream>
#include <strings.h>

#include "strings/string_internal.h"
#include "utils/string.h"

namespace Utils {

// Constant-initialised (constexpr constructor, null rep), so no static initialiser
// can see it unset; its destructor at unload only purges, which leaves it a valid
// null string for any terminator that still reads it.
String String::null_;

namespace {

using StringInternal::orEmpty;

StringRep* newRep() {
    StringRep* r = new (std::nothrow) StringRep();
    if (r) r->refs = 1;
    return r;
}

// A new string's representation while its constructor fills it. Filling may raise
// 0x80000002, and a listener's exception passes through raiseError: the
// representation is then released here instead of being lost with the
// half-built string.
class FreshRep {
public:
    FreshRep() : r(newRep()) {}
    ~FreshRep() { delete r; }
    FreshRep(FreshRep const&) = delete;
    FreshRep& operator=(FreshRep const&) = delete;
    StringRep* operator->() const { return r; }
    StringRep& operator*() const { return *r; }
    explicit operator bool() const { return r != nullptr; }
    StringRep* release() {
        StringRep* kept = r;
        r = nullptr;
        return kept;
    }

private:
    StringRep* r;
};

}  // namespace

bool String::makeOwn(bool create) {
    if (!rep) {
        if (!create) return false;
        rep = newRep();
        return rep != nullptr;
    }
    if (rep->refs > 1) {
        StringRep* own = rep->unshare();
        if (!own) return false;
        rep = own;
    }
    return true;
}

// The common case of every append: a private buffer that the capacity rule keeps,
// i.e. StringRep::resizeFor(length + n) would change nothing (sizeFor(length + n) <=
// capacity). Slack the allocator reported beyond that is not filled: the buffer
// then grows exactly as StringRep::append grows it. Writes n > 0 bytes of s at the
// end and returns true, or returns false for the general path. s may lie in the
// buffer: nothing moves here, so a copy within it is enough.
inline bool String::appendInPlace(char const* s, unsigned long n) {
    StringRep* r = rep;
    if (!r || r->refs != 1 || n == 0 || n > maxLength - r->length) return false;
    if (StringInternal::capacityRule(r->length + n) > r->capacity) return false;
    std::memmove(r->data + r->length, s, n);
    r->length += static_cast<unsigned int>(n);
    r->data[r->length] = 0;
    return true;
}

String::String(char const* s) : rep(nullptr) {
    FreshRep fresh;
    unsigned long n = s ? std::strlen(s) : 0;
    if (fresh && n && n <= maxLength && fresh->resizeFor(n)) {
        std::memcpy(fresh->data, s, n + 1);
        fresh->length = static_cast<unsigned int>(n);
    }
    rep = fresh.release();
}

String::String(char c) : rep(nullptr) {
    FreshRep fresh;
    if (fresh) *fresh = c;
    rep = fresh.release();
}

String::String(SubString const& v) : rep(nullptr) {
    SubStringRep const* vr = v.representation();
    if (!vr || vr->parent.isNull()) return;
    rep = new (std::nothrow) StringRep(vr->chars(), vr->length);
    if (rep) rep->refs = 1;
}

String::String(String const& s, unsigned long n) : rep(nullptr) {
    // The prefix view (0, n) of s, copied: clipped to s, null when s is null.
    if (s.isNull()) return;
    unsigned long len = n < s.length() ? n : s.length();
    rep = new (std::nothrow) StringRep(s.text(), len);
    if (rep) rep->refs = 1;
}

String::String(char const* s, unsigned long n) : rep(new (std::nothrow) StringRep(s, n)) {
    if (rep) rep->refs = 1;
}

String::String(char c, unsigned long n) : rep(nullptr) {
    FreshRep fresh;
    if (fresh && n && n <= maxLength && fresh->resizeFor(n)) {
        std::memset(fresh->data, c, n);
        fresh->data[n] = 0;
        fresh->length = static_cast<unsigned int>(n);
    }
    rep = fresh.release();
}

void String::purge() {
    if (!rep) return;
    unsigned int before = rep->refs;
    if (before) rep->refs = before - 1;
    if (before <= 1) delete rep;
    rep = nullptr;
}

String& String::operator=(String const& o) {
    StringRep* r = o.rep;  // read first: o may be *this
    if (r) ++r->refs;
    purge();
    rep = r;
    return *this;
}

// ---------------------------------------------------------------------------
// Comparisons
// ---------------------------------------------------------------------------

int String::compare(String const& o) const {
    if (rep == o.rep) return 0;
    if (rep && o.rep) return std::strcmp(rep->data, o.rep->data);
    if (rep) return rep->length > 0 ? 1 : 0;
    return o.rep->length > 0 ? -1 : 0;
}

int String::icompare(String const& o) const {
    if (rep == o.rep) return 0;
    if (rep && o.rep) return ::strcasecmp(rep->data, o.rep->data);
    if (rep) return rep->length > 0 ? 1 : 0;
    return o.rep->length > 0 ? -1 : 0;
}

int String::icompare(char const* s) const {
    if (!rep) return -1;  // kept: a null string orders before everything, "" included
    return ::strcasecmp(rep->data, orEmpty(s));
}

bool String::operator==(String const& o) const {
    if (rep == o.rep) return true;
    if (rep && o.rep) return std::strcmp(rep->data, o.rep->data) == 0;
    return (rep ? rep->length : o.rep->length) == 0;
}

bool String::operator==(char const* s) const {
    if (!rep) return *orEmpty(s) == 0;
    return std::strcmp(rep->data, orEmpty(s)) == 0;
}

bool String::operator<=(String const& o) const {
    if (rep == o.rep) return true;
    if (rep && o.rep) return std::strcmp(rep->data, o.rep->data) <= 0;
    return (rep ? rep->length : o.rep->length) == 0;  // kept: String() <= "a" is false
}

bool String::operator<(String const& o) const {
    if (!rep || !o.rep) return false;  // kept: false whenever either side is null
    return std::strcmp(rep->data, o.rep->data) < 0;
}

// ---------------------------------------------------------------------------
// Appending
// ---------------------------------------------------------------------------

String& String::operator+=(String const& o) {
    if (!o.rep) return *this;
    if (!rep) return *this = o;
    // Read the source before makeOwn(): for s += s on a shared text the source stays
    // in the old representation, which the other holders keep alive; for an unshared
    // one StringRep::append reads it from the old block when the buffer moves.
    char const* src = o.rep->data;
    unsigned long n = o.rep->length;
    if (appendInPlace(src, n)) return *this;
    if (makeOwn(false)) rep->append(src, n);
    return *this;
}

String& String::operator+=(char const* s) {
    if (!rep) return *this = String(s);
    if (s && appendInPlace(s, std::strlen(s))) return *this;
    if (makeOwn(false)) rep->append(s);
    return *this;
}

String& String::appendOneChar(char c) {
    if (!rep) return *this = String(c);
    StringRep* r = rep;
    if (r->refs == 1 && StringInternal::capacityRule(r->length + 1UL) <= r->capacity) {  // as appendInPlace
        r->data[r->length] = c;
        r->data[++r->length] = 0;
        return *this;
    }
    if (makeOwn(false)) rep->append(c);
    return *this;
}

namespace {

// "00" .. "99": two digits per division, as the C library's "%lu" writes them.
constexpr char kDigitPairs[201] =
    "0001020304050607080910111213141516171819202122232425262728293031323334353637383940414243444546474849"
    "5051525354555657585960616263646566676869707172737475767778798081828384858687888990919293949596979899";

// Writes the decimal text of v so that it ends just before end; returns its first
// character. The text is "%lu"'s: no sign, no padding, "0" for 0.
inline char* decimalText(char* end, unsigned long v) {
    while (v >= 100) {
        unsigned long pair = (v % 100) * 2;
        v /= 100;
        *--end = kDigitPairs[pair + 1];
        *--end = kDigitPairs[pair];
    }
    if (v >= 10) {
        *--end = kDigitPairs[v * 2 + 1];
        *--end = kDigitPairs[v * 2];
    } else {
        *--end = static_cast<char>('0' + v);
    }
    return end;
}

}  // namespace

// The digits are written directly instead of through snprintf (about a tenth of the
// instructions); the text is the same, which the differential tests check against
// snprintf over the whole range of widths.
String& String::operator+=(long n) {
    char buf[24];  // "-9223372036854775808" is 20 characters
    char* end = buf + sizeof buf;
    // The magnitude in unsigned arithmetic, so that LONG_MIN does not overflow.
    unsigned long magnitude = n < 0 ? 0UL - static_cast<unsigned long>(n) : static_cast<unsigned long>(n);
    char* p = decimalText(end, magnitude);
    if (n < 0) *--p = '-';
    unsigned long len = static_cast<unsigned long>(end - p);
    if (appendInPlace(p, len)) return *this;
    return append(p, len);
}

String& String::operator+=(unsigned long n) {
    char buf[24];  // "18446744073709551615" is 20 characters
    char* end = buf + sizeof buf;
    char* p = decimalText(end, n);
    unsigned long len = static_cast<unsigned long>(end - p);
    if (appendInPlace(p, len)) return *this;
    return append(p, len);
}

String& String::operator+=(double d) {
    // "%f" of the largest double has DBL_MAX_10_EXP + 1 integer digits; with a sign,
    // the point, six decimals and the NUL that is DBL_MAX_10_EXP + 10 bytes.
    char buf[DBL_MAX_10_EXP + 16];
    std::snprintf(buf, sizeof buf, "%f", d);
    return *this += static_cast<char const*>(buf);
}

String& String::append(char const* s, unsigned long n) {
    if (!rep) return *this = String(s, n);
    if (s && appendInPlace(s, n)) return *this;
    if (makeOwn(false)) rep->append(s, n);
    return *this;
}

String operator+(String const& a, String const& b) {
    String r(a);
    r += b;
    return r;
}

String operator+(String const& a, char const* s) {
    String r(a);
    r += s;
    return r;
}

String operator+(char const* s, String const& b) {
    String r(s);
    r += b;
    return r;
}

// ---------------------------------------------------------------------------
// Element access and views
// ---------------------------------------------------------------------------

char String::operator[](unsigned long i) const { return rep && i < rep->length ? rep->data[i] : 0; }

StringChar String::operator[](unsigned long i) { return StringChar(this, i); }

SubString String::operator()(unsigned long pos, unsigned long len) const { return SubString(*this, pos, len); }

SubString String::operator()(unsigned long pos) const { return SubString(*this, pos); }

// ---------------------------------------------------------------------------
// Searches
// ---------------------------------------------------------------------------

unsigned long String::index(char c, unsigned long pos) const { return rep ? rep->index(c, pos) : npos; }

unsigned long String::index(char const* pat, unsigned long pos) const { return rep ? rep->index(pat, pos) : npos; }

unsigned long String::indexChar(char const* set, unsigned long pos) const {
    return rep ? rep->indexChar(set, pos) : npos;
}

unsigned long String::rindexChar(char const* set, unsigned long pos) const {
    return rep ? rep->rindexChar(set, pos) : npos;
}

unsigned long String::rindex(char c) const {
    if (!rep) return npos;
    char const* p = std::strrchr(rep->data, c);
    return p ? static_cast<unsigned long>(p - rep->data) : npos;
}

unsigned long String::nthIndex(unsigned long n, char c) const {
    if (n == 0) return 0;  // kept: callers rely on 0 for the 0th occurrence
    if (c == 0) return npos;
    char const* t = text();
    char const* p = t;
    for (unsigned long k = 1;; ++k) {
        p = std::strchr(p, c);
        if (!p) return npos;
        if (k == n) return static_cast<unsigned long>(p - t);
        ++p;
    }
}

// ---------------------------------------------------------------------------
// Editing
// ---------------------------------------------------------------------------

String& String::replace(char const* s, unsigned long n, unsigned long from, unsigned long pos) {
    if (makeOwn(true)) rep->replace(s, n, from, pos);
    return *this;
}

String& String::insert(char const* s, unsigned long n, unsigned long from, unsigned long pos) {
    if (makeOwn(true)) rep->insert(s, n, from, pos);
    return *this;
}

String& String::remove(unsigned long pos, unsigned long n) {
    if (makeOwn(true)) rep->remove(pos, n);
    return *this;
}

String& String::toUpper() {
    if (makeOwn(false)) rep->toUpper();
    return *this;
}

String& String::toLower() {
    if (makeOwn(false)) rep->toLower();
    return *this;
}

String& String::rotateLeft(unsigned long n) {
    if (makeOwn(false)) rep->rotateLeft(n);
    return *this;
}

String& String::trim() {
    if (makeOwn(false)) rep->trim();
    return *this;
}

void String::expandTo(unsigned long n) {
    if (makeOwn(true)) rep->expandTo(n);
}

void String::resizeFor(unsigned long n) {
    if (makeOwn(true)) rep->resizeFor(n);
}

void String::clear() {
    if (!rep) return;
    if (rep->refs > 1) {  // the text stays with the other holders
        StringRep* fresh = newRep();
        if (!fresh) return;  // no memory: left as it was
        purge();
        rep = fresh;
        return;
    }
    if (rep->capacity == 0) return;  // the shared empty text: already "", never written
    rep->length = 0;
    rep->data[0] = 0;
}

std::ostream& operator<<(std::ostream& os, String const& s) {
    return os.write(s.text(), static_cast<std::streamsize>(s.length()));
}

String String::substitute(char const* from, char const* to) const {
    // The result is what StringRep::substitute makes of a copy of the text up to its
    // first NUL; built here in one pass into a buffer of the final size instead.
    if (!rep) return String();
    char const* src = rep->data;
    if (!from || !*from) return String(src);
    if (!to) to = StringRep::emptyText();
    unsigned long f = std::strlen(from);
    unsigned long t = std::strlen(to);
    unsigned long n = std::strlen(src);
    unsigned long matches = StringInternal::countMatches(src, from, f);
    if (matches == 0) return String(src);
    if (t > f && matches > (maxLength - n) / (t - f)) return String(src);  // too long: unchanged
    unsigned long total = t >= f ? n + matches * (t - f) : n - matches * (f - t);
    String r;
    r.rep = newRep();
    if (!r.rep || total == 0) return r;
    if (!r.rep->resizeFor(total)) return String(src);
    StringInternal::writeSubstituted(r.rep->data, src, n, matches, from, f, to, t);
    r.rep->data[total] = 0;
    r.rep->length = static_cast<unsigned int>(total);
    return r;
}

String String::reverse() const {
    String r;
    if (!rep || rep->length == 0) return r;
    unsigned long n = rep->length;
    if (!r.makeOwn(true) || !r.rep->resizeFor(n)) return String();
    for (unsigned long i = 0; i < n; ++i) r.rep->data[i] = rep->data[n - 1 - i];
    r.rep->data[n] = 0;
    r.rep->length = static_cast<unsigned int>(n);
    return r;
}

bool String::tokSpan(char const* delims, unsigned long pos, unsigned long& start, unsigned long& end) const {
    if (!rep || pos >= rep->length) return false;
    StringInternal::CharSet cs(delims);
    unsigned long s = pos;
    while (s < rep->length && cs.has(rep->data[s])) ++s;
    start = s;
    if (s == rep->length) return false;  // only delimiters remained; start is written
    // The end is the next member of the same set (StringRep::indexChar from s + 1),
    // found with the table already built.
    unsigned long e = s + 1;
    while (e < rep->length && !cs.has(rep->data[e])) ++e;
    end = e;
    return true;
}

char* String::donate() {
    if (!rep) return nullptr;
    if (!makeOwn(false)) return nullptr;  // no memory to split a shared text: nothing handed over
    char* kept = rep->donate();
    delete rep;
    rep = nullptr;
    return kept;
}

void String::consume(char* s) {
    purge();
    rep = newRep();
    if (rep) rep->consume(s);
}

bool String::startsWith(String const& p) const {
    if (!p.rep) return true;  // kept: every string starts with the null string
    if (!rep) return false;   // kept: the null string does not start with ""
    return std::strncmp(rep->data, p.rep->data, p.rep->length) == 0;
}

bool String::startsWith(char const* p) const {
    if (!p || !*p) return true;
    if (!rep) return false;
    return std::strncmp(rep->data, p, std::strlen(p)) == 0;
}

}  // namespace Utils
