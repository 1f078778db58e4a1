// SubString views and the StringChar proxy.
//
// Invariants:
//  - A SubStringRep holds its parent String, so the viewed representation has one
//    more reference while the view lives: writes to the parent make the parent a
//    private copy and the view keeps reading the text it was made on.
//  - After construction, start < parent length and start + length <= parent length,
//    or start == length == 0 (clip()). Clipping is done at full width, so a huge
//    position or length never wraps into a small one.
//  - refs counts the SubString handles; the last purge() releases the parent handle
//    and the representation, and every purge() leaves its handle without a view.
#include <cctype>
#include <cstring>
#include <new>
#include <strings.h>

#include "strings/string_internal.h"
#include "utils/string.h"

namespace Utils {

namespace {

using StringInternal::orEmpty;

// strncmp / strncasecmp of a (NUL-terminated) against the n characters at b.
int boundedCompare(char const* a, char const* b, unsigned long n, bool caseless) {
    if (n == 0) return 0;
    return caseless ? ::strncasecmp(a, b, n) : std::strncmp(a, b, n);
}

// The same, with a being the first alen characters at a followed by a NUL, as a
// temporary String copy of a view would be, without making that copy.
int boundedCompareCounted(char const* a, unsigned long alen, char const* b, unsigned long n, bool caseless) {
    for (unsigned long i = 0; i < n; ++i) {
        unsigned char x = i < alen ? static_cast<unsigned char>(a[i]) : 0;
        unsigned char y = static_cast<unsigned char>(b[i]);
        if (caseless) {
            x = static_cast<unsigned char>(std::tolower(x));
            y = static_cast<unsigned char>(std::tolower(y));
        }
        if (x != y) return static_cast<int>(x) - static_cast<int>(y);
        if (x == 0) return 0;
    }
    return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// SubStringRep
// ---------------------------------------------------------------------------

SubStringRep::SubStringRep(String const& s, unsigned long pos) : parent(s), start(0), length(0), refs(0) {
    set(pos, String::npos);
}

SubStringRep::SubStringRep(String const& s, unsigned long pos, unsigned long len)
    : parent(s), start(0), length(0), refs(0) {
    set(pos, len);
}

void SubStringRep::set(unsigned long pos, unsigned long len) {
    unsigned long total = parent.length();
    if (pos < total) {
        start = static_cast<unsigned int>(pos);
        length = static_cast<unsigned int>(len < total - pos ? len : total - pos);
    } else {
        start = 0;
        length = 0;
    }
}

void SubStringRep::clip() { set(start, length); }

void SubStringRep::empty() {
    start = 0;
    length = 0;
}

bool SubStringRep::operator==(char const* s) const {
    s = orEmpty(s);
    char const* v = chars();
    for (unsigned long i = 0; i < length; ++i)
        if (s[i] == 0 || s[i] != v[i]) return false;
    return s[length] == 0;
}

bool SubStringRep::operator==(String const& s) const {
    if (length != s.length()) return false;
    return boundedCompare(chars(), s.text(), length, false) == 0;
}

int SubStringRep::compare(char const* s) const { return boundedCompare(orEmpty(s), chars(), length, false); }

int SubStringRep::icompare(char const* s) const { return boundedCompare(orEmpty(s), chars(), length, true); }

char const* SubStringRep::verify() const {
    unsigned long total = parent.length();
    if (start == 0 && length == 0) return nullptr;
    if (start >= total) return "start not inside the parent text";
    if (static_cast<unsigned long>(start) + length > total) return "view runs past the parent text";
    return parent.representation() ? parent.representation()->verify() : nullptr;
}

// ---------------------------------------------------------------------------
// SubString
// ---------------------------------------------------------------------------

SubString::SubString(String const& s, unsigned long pos) : rep(new (std::nothrow) SubStringRep(s, pos)) {
    if (rep) rep->refs = 1;
}

SubString::SubString(String const& s, unsigned long pos, unsigned long len)
    : rep(new (std::nothrow) SubStringRep(s, pos, len)) {
    if (rep) rep->refs = 1;
}

SubString::SubString(SubString const& o) : rep(o.rep) {
    if (rep) ++rep->refs;
}

SubString::~SubString() { purge(); }

void SubString::purge() {
    if (!rep) return;
    if (rep->refs) --rep->refs;
    if (rep->refs == 0) delete rep;  // its parent handle is purged by its destructor
    rep = nullptr;
}

SubString& SubString::operator=(String const& s) {
    // Made before purging: s may be this view's own parent.
    SubStringRep* fresh = new (std::nothrow) SubStringRep(s, 0);
    if (fresh) fresh->refs = 1;
    purge();
    rep = fresh;
    return *this;
}

SubString& SubString::operator=(SubString const& o) {
    SubStringRep* r = o.rep;  // read first: o may be *this
    if (r) ++r->refs;
    purge();
    rep = r;
    return *this;
}

bool SubString::operator==(SubString const& o) const {
    if (rep == o.rep) return true;
    unsigned long n = length();
    if (n != o.length()) return false;
    if (n == 0) return true;
    char const* a = chars();
    char const* b = o.chars();
    if (!a || !b) return false;
    return std::strncmp(a, b, n) == 0;
}

bool SubString::operator==(char const* s) const {
    if (!rep) return *orEmpty(s) == 0;
    return *rep == s;
}

bool SubString::operator==(String const& s) const {
    if (!rep) return s.isNull();  // kept: a non-null empty String is not equal to no view
    return *rep == s;
}

int SubString::compare(char const* s) const { return rep ? rep->compare(s) : -1; }

int SubString::compare(String const& s) const {
    return rep ? boundedCompare(s.text(), rep->chars(), rep->length, false) : -1;
}

int SubString::compare(SubString const& o) const {
    if (!rep) return -1;
    return boundedCompareCounted(o.chars() ? o.chars() : "", o.chars() ? o.length() : 0, rep->chars(),
                                 rep->length, false);
}

int SubString::icompare(char const* s) const { return rep ? rep->icompare(s) : -1; }

int SubString::icompare(String const& s) const {
    return rep ? boundedCompare(s.text(), rep->chars(), rep->length, true) : -1;
}

int SubString::icompare(SubString const& o) const {
    if (!rep) return -1;
    return boundedCompareCounted(o.chars() ? o.chars() : "", o.chars() ? o.length() : 0, rep->chars(),
                                 rep->length, true);
}

// ---------------------------------------------------------------------------
// StringChar
// ---------------------------------------------------------------------------

String& StringChar::operator=(char c) {
    String& s = *str;
    if (!s.makeOwn(true)) return s;
    StringRep* r = s.rep;
    if (pos > r->length && !r->expandTo(pos)) return s;
    if (pos < r->length) r->data[pos] = c;  // kept: at the end it only pads, c is not appended
    return s;
}

}  // namespace Utils
