// StringRep: the counted, NUL-terminated buffer behind every String.
//
// Layout (the invariants are stated once, with the class in utils/string.h):
//
//   data --> [c0 c1 ... c(length-1) NUL  slack ...........]
//             <------------- capacity (as reported) ------>
//
// How this file keeps them:
//  - Every release path (resizeFor(0), donate, trim of an all-blank text, the
//    destructor) ends at capacity 0 with data on the shared empty text.
//  - "The process allocator" of the invariants is reached through
//    StringInternal::bufferAllocator(), which tests may route to another allocator
//    (string_testing.h); nothing else here names an allocator.
//  - Every growth goes through takeBlock() and adopt(): the capacity rule, the
//    colour of the replaced block, the reported size clamped to 32 bits.
//  - length <= String::maxLength, so that npos (0xFFFFFFFF) is never a position and
//    no 32-bit field wraps. Every position and count argument is compared at its full
//    64-bit width before it is narrowed into a field.
//  - Growing is all-or-nothing: when the allocator gives no block or the result would
//    be longer than String::maxLength, the operation leaves the text as it was.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <new>

#include "strings/string_internal.h"
#include "strings/string_testing.h"
#include "utils/string.h"

namespace Utils {

namespace {

// The one read-only empty text every buffer-less representation points at.
char const gEmptyText[1] = {0};

// The total-string-memory counter: kept, deliberately never changed.
unsigned int gTotalStringMemory = 0;

std::atomic<Allocator*> gBufferAllocator{nullptr};

inline char* emptyData() { return const_cast<char*>(gEmptyText); }

// A temporary private copy of bytes that lie inside the buffer being edited, so that
// moving or growing the buffer cannot pull the source away.
class DetachedBytes {
public:
    DetachedBytes(char const* s, unsigned long n) : bytes(new (std::nothrow) char[n ? n : 1]) {
        if (bytes) std::memcpy(bytes, s, n);
    }
    ~DetachedBytes() { delete[] bytes; }
    DetachedBytes(DetachedBytes const&) = delete;
    char const* get() const { return bytes; }

private:
    char* bytes;
};

}  // namespace

namespace StringTesting {
Allocator* setBufferAllocator(Allocator* a) { return gBufferAllocator.exchange(a, std::memory_order_acq_rel); }
}  // namespace StringTesting

Allocator* StringInternal::bufferAllocator() {
    Allocator* a = gBufferAllocator.load(std::memory_order_acquire);
    return a ? a : Allocator::theAllocator();
}

unsigned long ZofTotalStringMemory() { return gTotalStringMemory; }

char const* StringRep::emptyText() { return gEmptyText; }

StringRep::StringRep() { init(); }

StringRep::StringRep(char const* s, unsigned long n) {
    init();
    if (!s || n == 0) return;
    if (n > String::maxLength || !grow(n)) return;
    std::memcpy(data, s, n);
    data[n] = 0;
    length = static_cast<unsigned int>(n);
}

StringRep::~StringRep() { resizeFor(0); }

void StringRep::init() {
    length = 0;
    capacity = 0;
    refs = 0;
    data = emptyData();
}

StringRep& StringRep::operator=(char const* s) {
    if (!s || !*s) {
        resizeFor(0);
        return *this;
    }
    unsigned long n = std::strlen(s);
    if (n > String::maxLength) return *this;
    if (inBuffer(s)) {
        // Assigning a piece of this very text: the bytes move down within the buffer.
        std::memmove(data, s, n + 1);
        length = static_cast<unsigned int>(n);
        return *this;
    }
    if (!grow(n)) return *this;
    std::memcpy(data, s, n + 1);
    length = static_cast<unsigned int>(n);
    return *this;
}

StringRep& StringRep::operator=(char c) {
    if (!grow(1)) return *this;
    data[0] = c;  // no test of c: assigning NUL gives length 1
    data[1] = 0;
    length = 1;
    return *this;
}

unsigned long StringRep::sizeFor(unsigned long n) { return StringInternal::capacityRule(n); }

// The one reallocation step of every growth (grow, and append from its own text): a
// block of the capacity rule for n characters, in the colour of the current block when
// there is one. Null, with nothing changed, when the allocator has no block or reports
// one too small for n characters and the NUL; otherwise *usable is its reported size,
// clamped to the 32 bits of capacity (the rest stays unused). The caller copies what
// it keeps, then hands the old block to adopt().
char* StringRep::takeBlock(unsigned long n, unsigned int* usable) const {
    Allocator* a = StringInternal::bufferAllocator();
    unsigned long r = StringInternal::capacityRule(n);
    void* block = capacity ? a->alloc(r, a->color(data)) : a->alloc(r);
    if (!block) return nullptr;
    unsigned long got = a->size(block);
    if (got <= n) {  // an allocator that reports less than it was asked for
        a->free(block);
        return nullptr;
    }
    *usable = got > 0xFFFFFFFFUL ? 0xFFFFFFFFU : static_cast<unsigned int>(got);
    return static_cast<char*>(block);
}

// Frees the current block (when one is owned) and makes fresh, of usable bytes, the
// buffer; length is left to the caller.
void StringRep::adopt(char* fresh, unsigned int usable) {
    if (capacity) StringInternal::bufferAllocator()->free(data);
    data = fresh;
    capacity = usable;
}

bool StringRep::grow(unsigned long n) {
    // Precondition: 0 < n <= String::maxLength.
    if (StringInternal::capacityRule(n) <= capacity) return true;
    unsigned int usable = 0;
    char* fresh = takeBlock(n, &usable);
    if (!fresh) return false;
    unsigned long keep = std::min<unsigned long>(length, n);
    if (capacity) std::memcpy(fresh, data, keep);
    fresh[keep] = 0;  // terminated even before the caller writes, so text() is always a C string
    adopt(fresh, usable);
    length = static_cast<unsigned int>(keep);
    return true;
}

bool StringRep::resizeFor(unsigned long n) {
    if (n == 0) {
        if (capacity) StringInternal::bufferAllocator()->free(data);
        length = 0;
        capacity = 0;
        data = emptyData();
        return true;
    }
    if (n > String::maxLength) return false;
    return grow(n);
}

// resizeFor(length + n), called directly (resizeFor is exported, so calls to it
// inside the library would go through the symbol table). False when the text would
// outgrow String::maxLength or no block was given.
bool StringRep::roomFor(unsigned long n) {
    if (n > String::maxLength - length) return false;
    if (length + n == 0) return resizeFor(0);
    return grow(length + n);
}

bool StringRep::inBuffer(char const* s) const {
    if (!capacity || !s) return false;
    auto p = reinterpret_cast<std::uintptr_t>(s);
    auto b = reinterpret_cast<std::uintptr_t>(data);
    return p >= b && p - b < capacity;
}

void StringRep::appendRaw(char const* s, unsigned long n) {
    // s does not lie in this buffer. The room is made by resizeFor(length + n) also
    // when n is 0: a buffer below the capacity rule for its length (one adopted by
    // consume()) grows to the rule, and an emptied one (length 0) is released.
    if (!roomFor(n) || n == 0) return;
    std::memcpy(data + length, s, n);
    length += static_cast<unsigned int>(n);
    data[length] = 0;
}

void StringRep::append(char const* s, unsigned long n) {
    if (!s) {
        if (n) return;  // no bytes to read; a null s of length 0 is "" and still resizes
        s = gEmptyText;
    }
    if (n == 0 || !inBuffer(s)) {
        appendRaw(s, n);
        return;
    }
    // The source is (part of) this text, as in s += s: remember where it sits so it
    // can be read from the old block after the buffer moved.
    if (n > String::maxLength - length) return;
    unsigned long offset = static_cast<unsigned long>(s - data);
    if (StringInternal::capacityRule(length + n) <= capacity) {
        std::memmove(data + length, data + offset, n);
    } else {
        unsigned int usable = 0;
        char* fresh = takeBlock(length + n, &usable);
        if (!fresh) return;
        std::memcpy(fresh, data, length);
        std::memcpy(fresh + length, data + offset, n);  // read from the old block, still owned
        adopt(fresh, usable);
    }
    length += static_cast<unsigned int>(n);
    data[length] = 0;
}

void StringRep::append(char const* s) {
    if (!s) return;
    append(s, std::strlen(s));
}

void StringRep::append(char c) {
    if (length >= String::maxLength || !grow(static_cast<unsigned long>(length) + 1)) return;
    data[length] = c;
    ++length;
    data[length] = 0;
}

StringRep* StringRep::unshare() {
    if (refs < 2) return this;
    StringRep* copy = new (std::nothrow) StringRep(data, length);
    if (!copy) return nullptr;
    if (copy->length != length) {  // the allocator had no block for the copy
        delete copy;
        return nullptr;
    }
    copy->refs = 1;
    --refs;
    return copy;
}

bool StringRep::expandTo(unsigned long n) {
    if (length >= n) return true;
    if (n > String::maxLength || !grow(n)) return false;
    std::memset(data + length, ' ', n - length);
    length = static_cast<unsigned int>(n);
    data[length] = 0;
    return true;
}

void StringRep::replaceRaw(char const* s, unsigned long n, unsigned long pos) {
    // s does not lie in this buffer.
    if (pos < length) {
        if (n <= length - pos) {  // entirely inside: overwrite in place
            std::memcpy(data + pos, s, n);
            return;
        }
        // runs past the end: overwrite the tail and grow
        if (n > String::maxLength - pos || !grow(pos + n)) return;
        std::memcpy(data + pos, s, n);
        length = static_cast<unsigned int>(pos + n);
        data[length] = 0;
        return;
    }
    if (pos == length) {
        appendRaw(s, n);
        return;
    }
    // a gap before pos: blanks, then the bytes
    if (pos > String::maxLength || n > String::maxLength - pos || !grow(pos + n)) return;
    std::memset(data + length, ' ', pos - length);
    std::memcpy(data + pos, s, n);
    length = static_cast<unsigned int>(pos + n);
    data[length] = 0;
}

// The source s + from of replace and insert: a null s stands for "" (and only n = 0
// makes sense then), and bytes that lie in this buffer are copied aside first,
// because the edit may move or overwrite them.
void StringRep::editFrom(RawEdit edit, char const* s, unsigned long n, unsigned long from, unsigned long pos) {
    if (!s) {
        if (n) return;
        s = gEmptyText;
        from = 0;
    }
    char const* src = s + from;
    if (n && (inBuffer(src) || inBuffer(src + n - 1))) {
        DetachedBytes copy(src, n);
        if (copy.get()) (this->*edit)(copy.get(), n, pos);
        return;
    }
    (this->*edit)(src, n, pos);
}

void StringRep::replace(char const* s, unsigned long n, unsigned long from, unsigned long pos) {
    editFrom(&StringRep::replaceRaw, s, n, from, pos);
}

void StringRep::insertRaw(char const* s, unsigned long n, unsigned long pos) {
    // s does not lie in this buffer.
    if (pos > length) {  // old text, blanks up to pos, then the bytes
        replaceRaw(s, n, pos);
        return;
    }
    // resizeFor(length + n) also when n is 0, as appendRaw.
    if (!roomFor(n) || n == 0) return;
    std::memmove(data + pos + n, data + pos, length - pos);
    std::memcpy(data + pos, s, n);
    length += static_cast<unsigned int>(n);
    data[length] = 0;
}

void StringRep::insert(char const* s, unsigned long n, unsigned long from, unsigned long pos) {
    editFrom(&StringRep::insertRaw, s, n, from, pos);
}

void StringRep::remove(unsigned long pos, unsigned long n) {
    unsigned long start = std::min<unsigned long>(pos, length);
    unsigned long end = start + std::min<unsigned long>(n, length - start);  // cannot wrap
    if (start == end) return;
    std::memmove(data + start, data + end, length - end + 1);  // the NUL comes along
    length -= static_cast<unsigned int>(end - start);
}

void StringRep::toUpper() {
    for (unsigned long i = 0; i < length; ++i)
        data[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(data[i])));
}

void StringRep::toLower() {
    for (unsigned long i = 0; i < length; ++i)
        data[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(data[i])));
}

unsigned long StringRep::index(char c, unsigned long pos) const {
    if (pos >= length) return String::npos;
    char const* p = std::strchr(data + pos, c);  // kept: finds the terminator for c == NUL
    return p ? static_cast<unsigned long>(p - data) : String::npos;
}

unsigned long StringRep::indexChar(char const* set, unsigned long pos) const {
    if (pos >= length) return String::npos;
    StringInternal::CharSet cs(set);
    for (unsigned long i = pos; i < length; ++i)
        if (cs.has(data[i])) return i;
    return String::npos;
}

unsigned long StringRep::rindexChar(char const* set, unsigned long pos) const {
    if (length == 0) return String::npos;
    // npos, or any position past the text, means "from the last character": reading
    // past the end is never right, and 0xFFFFFFFF must not alias a real position.
    unsigned long i = pos >= length ? length - 1UL : pos;
    StringInternal::CharSet cs(set);
    for (;; --i) {
        if (cs.has(data[i])) return i;
        if (i == 0) return String::npos;
    }
}

unsigned long StringRep::index(char const* pat, unsigned long pos) const {
    if (!pat || pos >= length) return String::npos;
    char const* p = std::strstr(data + pos, pat);
    return p ? static_cast<unsigned long>(p - data) : String::npos;
}

void StringRep::substitute(char const* from, char const* to) {
    // Same result as replacing match by match (overwrite, then insert or remove the
    // difference, resuming the search just past the text written), done in one pass:
    // every match is at a position of the original text, so they are counted first,
    // the buffer grows once, and the text is rewritten front to back.
    if (!from || !*from || length == 0) return;
    if (!to) to = gEmptyText;
    if (inBuffer(from) || inBuffer(to)) {
        DetachedBytes f(from, std::strlen(from) + 1);
        DetachedBytes t(to, std::strlen(to) + 1);
        if (f.get() && t.get()) substitute(f.get(), t.get());
        return;
    }
    unsigned long f = std::strlen(from);
    unsigned long t = std::strlen(to);

    unsigned long matches = StringInternal::countMatches(data, from, f);
    if (matches == 0) return;

    unsigned long shift = 0;  // how far the original text moves right before rewriting
    unsigned long newLength = length;
    if (t > f) {
        unsigned long d = t - f;
        if (matches > (String::maxLength - length) / d) return;
        shift = matches * d;
        newLength = length + shift;
        if (!grow(newLength)) return;
        std::memmove(data + shift, data, static_cast<unsigned long>(length) + 1);
    } else {
        newLength = length - matches * (f - t);
    }
    // Rewrite from the shifted copy down to the start: the reader is ahead of the
    // writer by the growth still owed to the matches ahead, so it is never overtaken.
    // The characters after an embedded NUL come along unchanged.
    StringInternal::writeSubstituted(data, data + shift, length, matches, from, f, to, t);
    data[newLength] = 0;
    length = static_cast<unsigned int>(newLength);
}

void StringRep::rotateLeft(unsigned long n) {
    if (length <= 1) return;
    unsigned long k = n % length;
    if (k == 0) return;
    std::rotate(data, data + k, data + length);  // in place: no scratch block to fail
}

char* StringRep::donate() {
    char* kept = data;
    capacity = 0;  // so that resizeFor(0) frees nothing
    resizeFor(0);
    return kept;
}

void StringRep::consume(char* s) {
    resizeFor(0);
    if (!s || !*s) return;  // deliberately not adopted: an empty s stays the caller's
    unsigned long n = std::strlen(s);
    if (n > String::maxLength) return;
    data = s;
    length = static_cast<unsigned int>(n);
    capacity = static_cast<unsigned int>(n + 1);
}

void StringRep::trim() {
    char* start = data;
    while (std::isspace(static_cast<unsigned char>(*start))) ++start;  // stops at the NUL
    char* end = data + length;
    while (end > start && std::isspace(static_cast<unsigned char>(end[-1]))) --end;
    if (start == data && end == data + length) return;
    if (end - start < 1) {
        resizeFor(0);
        return;
    }
    length = static_cast<unsigned int>(end - start);
    std::memmove(data, start, length);
    data[length] = 0;
}

char const* StringRep::verify() const {
    if (capacity == 0) {
        if (data != gEmptyText) return "owns nothing but data is not the shared empty text";
        if (length != 0) return "owns nothing but has a length";
        return nullptr;
    }
    if (data == gEmptyText) return "claims a buffer but points at the shared empty text";
    if (length >= capacity) return "length not below capacity";
    if (length > String::maxLength) return "length beyond the longest text";
    if (data[length] != 0) return "no NUL at data[length]";
    return nullptr;
}

}  // namespace Utils
