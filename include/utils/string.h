// Strings: a copy-on-write value string with substring views.
//
// A `String` is one pointer to a shared, counted buffer (`StringRep`). Copies are
// O(1) and share the buffer; the first write through any copy gives that copy a
// private buffer first, so a copy never sees writes made through another one.
// `SubString` is a read-only view of a range of a `String` that keeps the viewed
// text alive; `StringChar` is the proxy that the non-const `operator[]` returns.
//
// Texts are plain 8-bit bytes. Buffers come from the process allocator
// (`Allocator::theAllocator()`), which reports each block's real size (adopted as
// capacity) and its memory colour (kept when a buffer grows).
//
// Conventions shared by every operation below:
//  - Positions and lengths are `unsigned long`. A search that finds nothing returns
//    `String::npos` (0xFFFFFFFF). Positions are always compared at their full width:
//    a position of 2^32 + 1 is past the end of every text, never position 1.
//  - Lengths are stored in 32 bits. A text holds at most `String::maxLength`
//    (0xFFFFFFFE) characters; an operation that would make a longer text does
//    nothing and leaves the string as it was.
//  - Nothing throws or reports an error. Reads out of range give NUL, searches give
//    npos, writes past the end pad with blanks (0x20), ranges are clipped. When the
//    allocator has no block to give, the operation leaves the string as it was (a
//    constructor then gives an empty string).
//  - A null `char const*` argument counts as "" wherever a text is expected, except
//    where an operation says otherwise.
//  - There are two kinds of empty string: the null string (no buffer at all; the
//    default constructor and `String::null_`) and a non-null string of length 0
//    (every constructor from `char const*`). A few comparisons tell them apart; each
//    says so where it does.
//  - Strings are values: one writer at a time. Buffer share counts are plain
//    counters, so two `String`s that share a buffer (copies, views) must not be used
//    from different threads at the same time, not even for reading when either may
//    be copied or destroyed meanwhile. Threads that share strings hold their own lock.
#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string_view>

#include "utils/export.h"

// Private helpers of the exported classes stay out of the ABI (and are called
// directly inside the library, not through the symbol table).
#if defined(__GNUC__)
#define ZO_STRING_PRIVATE __attribute__((visibility("hidden")))
#else
#define ZO_STRING_PRIVATE
#endif

namespace Utils {

class String;
class SubString;
class StringChar;

// ---------------------------------------------------------------------------
// StringRep: the counted buffer behind a String.
//
// Invariants:
//  - capacity == 0: the representation owns nothing and data points at the shared,
//    read-only empty text (`emptyText()`), which is never written or freed; length is 0.
//  - capacity != 0: data is a block of the process allocator, capacity is its usable
//    size as the allocator reports it (at most 2^32 - 1), capacity > length,
//    data[length] == NUL. A buffer only grows, to the capacity rule of sizeFor(), and
//    keeps the memory colour of the block it replaces.
//  - length <= String::maxLength.
//  - refs counts the Strings that point here; a fresh representation has refs 0.
// The fields are public so that String and its views can work on them directly and
// tests can inspect them; change them only through the operations.
// ---------------------------------------------------------------------------
class ZO_API StringRep {
public:
    unsigned int length;    // characters in use, without the terminating NUL
    unsigned int capacity;  // usable bytes of the owned block; 0 = owns nothing
    unsigned int refs;      // Strings sharing this representation
    char* data;             // the characters, NUL-terminated

    // An empty representation (owns nothing, refs 0).
    StringRep();
    // Exactly n bytes of s (embedded NULs included, no strlen); null s gives an
    // empty representation. Empty also when n exceeds String::maxLength or the
    // allocator has no block.
    StringRep(char const* s, unsigned long n);
    // Frees the buffer; does not look at refs.
    ~StringRep();
    // Representations are shared by pointer (String), never copied.
    StringRep(StringRep const&) = delete;
    StringRep& operator=(StringRep const&) = delete;

    // The shared empty text every buffer-less representation points at.
    static char const* emptyText();

    // Length 0, capacity 0, refs 0, data = the shared empty text (frees nothing).
    void init();
    // s null or "": releases the buffer. Otherwise becomes a copy of s.
    StringRep& operator=(char const* s);
    // Becomes the one character c, also for c = NUL (length 1).
    StringRep& operator=(char c);

    // Capacity asked for n characters: the smallest power of two greater than n,
    // at least 16 (0..15 -> 16, 16..31 -> 32, 32 -> 64, 1000 -> 1024).
    static unsigned long sizeFor(unsigned long n);
    // Makes room for n characters plus the NUL; never shrinks. n == 0 releases the
    // buffer (length 0). A grown buffer keeps the memory colour of the one it replaces
    // and keeps min(length, n) characters. Returns false (and changes nothing) when n
    // exceeds String::maxLength or the allocator has no block.
    bool resizeFor(unsigned long n);

    // Appends n bytes of s (s may point into this very buffer). Room is made first
    // with resizeFor(length + n), also when n is 0: a buffer below the capacity rule
    // for its length (one adopted by consume()) grows to the rule, and an empty one
    // is released. A null s counts as "" when n is 0 and appends nothing otherwise.
    void append(char const* s, unsigned long n);
    // Appends the NUL-terminated s; nothing for null s.
    void append(char const* s);
    // Appends one character.
    void append(char c);

    // Copy-on-write step: when shared (refs >= 2) returns a private copy with refs 1
    // and drops one reference from this one; otherwise returns this. Returns null
    // (and changes nothing) when no memory is available for the copy.
    StringRep* unshare();

    // Pads with blanks up to length n. True unless the padding could not be made
    // (n beyond String::maxLength or no memory); a text already n long is left alone.
    bool expandTo(unsigned long n);
    // Overwrites n characters at pos with s[from .. from+n), growing at the end and
    // filling a gap before a far position with blanks: 'ab'.replace("xyz",3,0,5)
    // gives "ab   xyz". At or past the end (pos >= length) the bytes are appended as
    // by append(), so even n == 0 there runs resizeFor(length).
    void replace(char const* s, unsigned long n, unsigned long from, unsigned long pos);
    // Inserts s[from .. from+n) before pos; a pos past the end is reached with blanks.
    // Room is made with resizeFor(length + n) as in append(), also when n is 0.
    void insert(char const* s, unsigned long n, unsigned long from, unsigned long pos);
    // Deletes the characters [min(pos, length), min(pos + n, length)); never wraps.
    void remove(unsigned long pos, unsigned long n);
    // Maps every byte through the C library's toupper / tolower (current locale).
    void toUpper();
    void toLower();

    // First c at or after pos; npos when pos >= length. Follows the C library's
    // strchr: searching for NUL finds the terminator, i.e. returns length.
    unsigned long index(char c, unsigned long pos) const;
    // First character at or after pos that occurs in the NUL-terminated set.
    unsigned long indexChar(char const* set, unsigned long pos) const;
    // Last character at or before pos that occurs in set. A pos at or past the end
    // (npos in particular) starts from the last character; an empty text gives npos.
    unsigned long rindexChar(char const* set, unsigned long pos) const;
    // First occurrence of pat at or after pos (strstr); an empty pat is found at pos.
    unsigned long index(char const* pat, unsigned long pos) const;

    // Replaces every occurrence of from by to, left to right; text just written is
    // never searched again ('aba' with 'a' -> 'aa' gives 'aabaa'). An empty or null
    // from does nothing; a null to counts as "".
    void substitute(char const* from, char const* to);
    // Rotates the characters left by n (mod length): 'abcde' by 2 gives 'cdeab'.
    void rotateLeft(unsigned long n);
    // Strips white space (isspace, current locale) at both ends; an all-blank text
    // releases its buffer.
    void trim();

    // Hands the buffer to the caller and becomes empty. The caller owns the block and
    // gives it back to Allocator::theAllocator() (or to consume()). A representation
    // without a buffer returns the shared empty text, which must not be freed.
    char* donate();
    // Frees the current buffer and adopts s (length strlen(s), capacity length + 1).
    // s must be a block of Allocator::theAllocator(), typically from donate(). A null
    // or empty s is not adopted and stays the caller's; so is a text longer than
    // String::maxLength.
    void consume(char* s);

    // Checks the invariants above (refs aside); null when they hold, else what is wrong.
    char const* verify() const;

private:
    friend class String;
    ZO_STRING_PRIVATE bool grow(unsigned long n);
    ZO_STRING_PRIVATE char* takeBlock(unsigned long n, unsigned int* usable) const;
    ZO_STRING_PRIVATE void adopt(char* fresh, unsigned int usable);
    ZO_STRING_PRIVATE bool roomFor(unsigned long n);
    ZO_STRING_PRIVATE void appendRaw(char const* s, unsigned long n);
    ZO_STRING_PRIVATE void replaceRaw(char const* s, unsigned long n, unsigned long pos);
    ZO_STRING_PRIVATE void insertRaw(char const* s, unsigned long n, unsigned long pos);
    ZO_STRING_PRIVATE bool inBuffer(char const* s) const;
    using RawEdit = void (StringRep::*)(char const*, unsigned long, unsigned long);
    ZO_STRING_PRIVATE void editFrom(RawEdit edit, char const* s, unsigned long n, unsigned long from,
                                    unsigned long pos);
};

// ---------------------------------------------------------------------------
// String: the value string.
// ---------------------------------------------------------------------------
class ZO_API String {
public:
    // The not-found position of every search.
    static constexpr unsigned long npos = 0xFFFFFFFFUL;
    // The longest text a String can hold (lengths are stored in 32 bits and
    // 0xFFFFFFFF is npos).
    static constexpr unsigned long maxLength = 0xFFFFFFFEUL;

    // The canonical null string. Nothing in the library reads it. It is constant-
    // initialised (usable from any static initialiser) and purged at unload.
    static String null_;

    // The null string: no buffer.
    constexpr String() : rep(nullptr) {}
    // Shares o's buffer (O(1)).
    String(String const& o) : rep(nullptr) { *this = o; }
    // Takes o's buffer; o becomes null.
    String(String&& o) noexcept : rep(o.rep) { o.rep = nullptr; }
    ~String() { purge(); }

    // A copy of the NUL-terminated s. Never null: null s and "" give a non-null
    // empty string.
    String(char const* s);
    // The one character c (also NUL: length 1).
    explicit String(char c);
    // A copy of the view's characters; null when the viewed string is null.
    String(SubString const& v);
    // The first n characters of s (all of s when shorter); null when s is null.
    String(String const& s, unsigned long n);
    // Exactly n bytes of s, embedded NULs included; null s gives an empty string.
    String(char const* s, unsigned long n);
    // The characters of v, embedded NULs included, as String(v.data(), v.size()):
    // never null (an empty view gives a non-null empty string).
    explicit String(std::string_view v) : String(v.data(), v.size()) {}
    // n copies of c.
    String(char c, unsigned long n);

    // Drops this string's reference (freeing the buffer with the last one); the
    // string becomes null.
    void purge();
    // Shares o's buffer. Self-assignment is safe.
    String& operator=(String const& o);
    String& operator=(String&& o) noexcept {
        if (this != &o) {
            purge();
            rep = o.rep;
            o.rep = nullptr;
        }
        return *this;
    }

    // The characters (NUL-terminated); the shared empty text for a null string.
    char const* text() const { return rep ? rep->data : StringRep::emptyText(); }
    // Number of characters; 0 for a null string.
    unsigned long length() const { return rep ? rep->length : 0; }
    // True for the null string (not for a non-null empty one).
    bool isNull() const { return rep == nullptr; }
    // The representation, for inspection (sharing, capacity); null for a null string.
    StringRep const* representation() const { return rep; }
    // The characters as a std::string_view of length() bytes (embedded NULs
    // included); an empty view for a null string. Valid until the string is next
    // changed or destroyed. The conversion is implicit, so a String can be passed
    // wherever a std::string_view is expected.
    std::string_view view() const { return std::string_view(text(), length()); }
    operator std::string_view() const { return view(); }

    // Comparisons. Between two non-null strings: strcmp / strcasecmp of the texts.
    // With exactly one side null, the deliberate rules are:
    //   compare:  non-null lhs: 1 if it is non-empty, else 0; null lhs: -1 if rhs is
    //             non-empty, else 0.
    //   ==, <=:   true iff the non-null side is empty. So String() <= String("a") is
    //             false although String() < ... and compare say "before".
    //   <:        false, whatever the other side holds.
    // The same representation compares equal (0, true for == and <=).
    int compare(String const& o) const;
    int icompare(String const& o) const;
    // strcasecmp(text, s); a null string gives -1 whatever s is (also for "").
    int icompare(char const* s) const;
    bool operator==(String const& o) const;
    // A null string equals only "".
    bool operator==(char const* s) const;
    bool operator!=(String const& o) const { return !(*this == o); }
    bool operator!=(char const* s) const { return !(*this == s); }
    bool operator<=(String const& o) const;
    bool operator<(String const& o) const;

    // Appending. Each gives this string a private buffer first, then appends the
    // bytes as StringRep::append does: the buffer moves when the capacity rule asks
    // for more than its capacity (sizeFor(length + n) > capacity), not when the text
    // stops fitting, so capacity and text() after an append are exactly those of
    // StringRep::resizeFor(length + n). A block's slack counts only through that
    // comparison: with the first block of String("x") reported as 24 bytes, the
    // text moves at lengths 16, 32, 64, 128, not when 24 bytes no longer hold it.
    // Appending nothing ("", a non-null empty String, append(s, 0)) still runs that
    // resize.
    // Nothing when o is null; a null string becomes a copy of o (sharing). Appending
    // a string to itself doubles it.
    String& operator+=(String const& o);
    // A null string becomes String(s) (non-null even for "" or null s).
    String& operator+=(char const* s);
    // One character. The common case (the only holder of a buffer that still has
    // room under the capacity rule) is written inline; every other case (a null or
    // shared string, a full buffer, one adopted below the rule) goes to the
    // out-of-line step, which grows, unshares or creates exactly as append(c) does.
    String& operator+=(char c) {
#if defined(__GNUC__)
        if (StringRep* r = rep; r && r->refs == 1) {
            unsigned long n = r->length + 1UL;  // the length after this character
            // StringRep::sizeFor(n): the smallest power of two above n, at least 16.
            unsigned long rule = n <= 15 ? 16UL : 1UL << (64 - __builtin_clzl(n));
            if (rule <= r->capacity) {
                char* d = r->data;
                d[n - 1] = c;
                d[n] = 0;
                r->length = static_cast<unsigned int>(n);
                return *this;
            }
        }
#endif
        return appendOneChar(c);
    }
    // Decimal text of n ("%ld", "%lu"). Every integer width appends its decimal text
    // (short, signed and unsigned char through int: a char is a character, above).
    String& operator+=(long n);
    String& operator+=(unsigned long n);
    String& operator+=(int n) { return *this += static_cast<long>(n); }
    String& operator+=(unsigned int n) { return *this += static_cast<unsigned long>(n); }
    String& operator+=(long long n) {
        static_assert(sizeof(long long) == sizeof(long), "long long is long's width on this platform");
        return *this += static_cast<long>(n);
    }
    String& operator+=(unsigned long long n) { return *this += static_cast<unsigned long>(n); }
    // "%f": six decimals (1.5 appends "1.500000"); any double fits, 1e308 included.
    String& operator+=(double d);
    // Appends exactly n bytes of s; a null string becomes String(s, n).
    String& append(char const* s, unsigned long n);

    // The character at i; NUL when i >= length or the string is null.
    char operator[](unsigned long i) const;
    // A proxy for the character at i: reading it reads as above, assigning to it
    // writes (see StringChar).
    StringChar operator[](unsigned long i);
    // A view of len characters from pos, clipped to the text; a pos at or past the
    // end gives an empty view at position 0.
    SubString operator()(unsigned long pos, unsigned long len) const;
    // A view from pos to the end.
    SubString operator()(unsigned long pos) const;

    // Searches: npos when not found, when pos >= length or when the string is null.
    // index(c): strchr from pos, so index('\0', pos < length) returns length.
    unsigned long index(char c, unsigned long pos = 0) const;
    // index(pat): strstr from pos; an empty pat is found at pos. A null pat: npos.
    unsigned long index(char const* pat, unsigned long pos = 0) const;
    // First character at or after pos that occurs in set.
    unsigned long indexChar(char const* set, unsigned long pos = 0) const;
    // Last character at or before pos that occurs in set; npos (or any pos at or
    // past the end) starts from the last character.
    unsigned long rindexChar(char const* set, unsigned long pos = npos) const;
    // Last c in the text (strrchr): rindex('\0') gives length.
    unsigned long rindex(char c) const;
    // Position of the n-th c counting from 1, walking the NUL-terminated text.
    // Deliberately, n == 0 returns 0 without looking; c == NUL is never found.
    unsigned long nthIndex(unsigned long n, char c) const;

    // Editing. Each gives this string a private buffer first (a null string gets a
    // new empty one for replace, insert, remove, expandTo, resizeFor).
    // Overwrites n characters at pos with s[from .. from+n); grows at the end, pads a
    // gap before a far pos with blanks.
    String& replace(char const* s, unsigned long n, unsigned long from, unsigned long pos);
    // Inserts s[from .. from+n) before pos, padding with blanks up to a far pos.
    String& insert(char const* s, unsigned long n, unsigned long from, unsigned long pos);
    // Deletes [min(pos, length), min(pos + n, length)).
    String& remove(unsigned long pos, unsigned long n);
    // The following leave a null string null.
    String& toUpper();
    String& toLower();
    String& rotateLeft(unsigned long n);
    String& trim();
    // Pads with blanks to length n when shorter.
    void expandTo(unsigned long n);
    // Makes room for n characters; n == 0 releases the buffer but keeps the string
    // non-null (and empty).
    void resizeFor(unsigned long n);
    // Empties the string and keeps its buffer for the next appends: length 0,
    // capacity unchanged, text() "". A buffer shared with other strings is left to
    // them and this string becomes a non-null empty string without a buffer. A null
    // string stays null.
    void clear();

    // A new string with every from replaced by to, left to right, from the text up
    // to its first NUL; this string is unchanged. A null string gives a null result;
    // an empty from changes nothing.
    String substitute(char const* from, char const* to) const;
    // The characters from last to first; a null or empty string gives a null result.
    String reverse() const;

    // Finds the next token: skips the characters of delims from pos, and when a
    // token remains stores its range [start, end) and returns true; the next call
    // passes end as pos. False when the string is null, pos >= length (start and end
    // untouched) or only delimiters remain (start then written, end untouched).
    bool tokSpan(char const* delims, unsigned long pos, unsigned long& start, unsigned long& end) const;

    // Hands the buffer to the caller (see StringRep::donate) and becomes null. A null
    // string returns null; a non-null empty one the shared empty text.
    char* donate();
    // Drops the current text and adopts s (see StringRep::consume); the string is
    // non-null afterwards in every case.
    void consume(char* s);

    // Prefix tests. Deliberately: every string starts with a null p, but a null
    // string does not start with a non-null empty p.
    bool startsWith(String const& p) const;
    // An empty p ("" or null) is a prefix of every string, the null one included.
    bool startsWith(char const* p) const;

private:
    friend class StringChar;
    ZO_STRING_PRIVATE bool makeOwn(bool create);
    ZO_STRING_PRIVATE bool appendInPlace(char const* s, unsigned long n);
    // operator+=(char) beyond its inline case; exported because that case is inline.
    String& appendOneChar(char c);

    StringRep* rep;
};

// Concatenations: a copy of the left operand with the right one appended.
ZO_API String operator+(String const& a, String const& b);
ZO_API String operator+(String const& a, char const* s);
ZO_API String operator+(char const* s, String const& b);

// Writes the string's length() bytes to os (nothing for a null string), with the
// stream's formatting ignored.
ZO_API std::ostream& operator<<(std::ostream& os, String const& s);

// Always 0: the total-string-memory counter is kept for compatibility and is not
// maintained.
ZO_API unsigned long ZofTotalStringMemory();

// ---------------------------------------------------------------------------
// SubStringRep: the shared state of a view. Invariant after construction: either
// start < parent length and start + length <= parent length, or start == length == 0.
// The view keeps seeing the text it was made on: writes to the parent string go to a
// private copy, because the view's parent handle shares the buffer.
// ---------------------------------------------------------------------------
class ZO_API SubStringRep {
public:
    String parent;        // shares the viewed string's buffer
    unsigned int start;   // first viewed position
    unsigned int length;  // number of viewed characters
    unsigned int refs;    // SubString handles sharing this

    // From pos to the end of s.
    SubStringRep(String const& s, unsigned long pos);
    // len characters from pos, clipped.
    SubStringRep(String const& s, unsigned long pos, unsigned long len);
    // Shared by pointer (SubString), never copied.
    SubStringRep(SubStringRep const&) = delete;
    SubStringRep& operator=(SubStringRep const&) = delete;

    // Re-establishes the invariant against the parent's current length.
    void clip();
    // Collapses to the empty view at 0.
    void empty();
    // The first viewed character (not NUL-terminated at the view's end); null when
    // the parent is null.
    char const* chars() const { return parent.isNull() ? nullptr : parent.text() + start; }

    // True iff the view's characters are all of s.
    bool operator==(char const* s) const;
    // True iff s has the view's length and the same characters.
    bool operator==(String const& s) const;
    // strncmp(s, view, length): kept reversed, the sign says how s orders against the
    // view. Bounded by the view's length: "abcz" compares 0 with the view "abc".
    int compare(char const* s) const;
    int icompare(char const* s) const;

    // Checks the invariant against the parent's current text and the parent's
    // representation; null when it holds, else what is wrong.
    char const* verify() const;

private:
    ZO_STRING_PRIVATE void set(unsigned long pos, unsigned long len);
};

// ---------------------------------------------------------------------------
// SubString: a read-only view of a range of a String (String::operator()).
// Comparisons take the argument as the first operand, deliberately: compare(s) > 0
// means s orders after the view (the reverse of String::compare), and they are
// bounded by the view's length, so a longer argument that begins with the view's
// characters compares 0. A SubString without a representation (default-made or
// purged) compares -1 with everything.
// ---------------------------------------------------------------------------
class ZO_API SubString {
public:
    constexpr SubString() : rep(nullptr) {}
    SubString(String const& s, unsigned long pos);
    SubString(String const& s, unsigned long pos, unsigned long len);
    // Shares o's view.
    SubString(SubString const& o);
    ~SubString();

    // Drops this handle's reference, releasing the view (and its hold on the parent
    // text) with the last one. The handle is left without a view, so purging twice
    // (or purging and then destroying) releases once.
    void purge();
    // Rebinds the view to the whole of s; the previously viewed text is not touched.
    SubString& operator=(String const& s);
    // Shares o's view; self-assignment is safe.
    SubString& operator=(SubString const& o);

    // The viewed position and length (0 and 0 without a view).
    unsigned long start() const { return rep ? rep->start : 0; }
    unsigned long length() const { return rep ? rep->length : 0; }
    // The first viewed character; null without a view or when the parent is null.
    char const* chars() const { return rep ? rep->chars() : nullptr; }
    // The shared state, for inspection; null without a view.
    SubStringRep const* representation() const { return rep; }

    // Same view, or same characters and length; two empty views are equal; a view of
    // a null string equals only another empty view.
    bool operator==(SubString const& o) const;
    // Without a view: true iff s is "".
    bool operator==(char const* s) const;
    // Without a view: true iff s is the null string (a non-null empty one is not).
    bool operator==(String const& s) const;
    bool operator!=(SubString const& o) const { return !(*this == o); }
    bool operator!=(char const* s) const { return !(*this == s); }
    bool operator!=(String const& s) const { return !(*this == s); }
    // strncmp(argument, view, view length); -1 without a view.
    int compare(char const* s) const;
    int compare(String const& s) const;
    int compare(SubString const& o) const;
    // As compare, with strncasecmp.
    int icompare(char const* s) const;
    int icompare(String const& s) const;
    int icompare(SubString const& o) const;

private:
    SubStringRep* rep;
};

// ---------------------------------------------------------------------------
// StringChar: the writable character proxy of String::operator[].
// ---------------------------------------------------------------------------
class ZO_API StringChar {
public:
    StringChar(String* s, unsigned long pos) : str(s), pos(pos) {}
    StringChar(StringChar const&) = default;

    // The character (NUL when out of range or the string is null).
    operator char() const { return static_cast<String const&>(*str)[pos]; }
    // Writes c at the position after giving the string a private buffer. A position
    // at or past the end only pads the string with blanks up to the position and,
    // deliberately, stores nothing: for s = "ab", s[5] = 'x' gives "ab   " (length 5).
    // Returns the string.
    String& operator=(char c);
    // Writes the character the other proxy reads (not a rebinding of this proxy).
    String& operator=(StringChar const& o) { return *this = static_cast<char>(o); }

private:
    String* str;
    unsigned long pos;  // full width: a far position never aliases a near one
};

}  // namespace Utils

// Hashing for std::unordered_map and friends. Equality of strings is strcmp's, which
// stops at the first NUL, so the hash covers the text up to there: equal strings hash
// alike, and the null string hashes as "" (the two compare equal).
namespace std {
template <>
struct hash<Utils::String> {
    size_t operator()(Utils::String const& s) const noexcept { return hash<string_view>()(string_view(s.text())); }
};
}  // namespace std
