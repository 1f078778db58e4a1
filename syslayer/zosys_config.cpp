// Configuration values of the system layer: ZoIF_GetConfigNumber and
// ZoIF_GetConfigString. What they promise (the sources of a key and their order,
// the file syntax, the number syntax, what is reported and what is returned) is
// stated once, in the Configuration section of zosys.h; this file only adds how.
//
// How: every call walks the sources in order and reads each file afresh (a call
// costs a few small file reads; the library reads a handful of keys once, when
// its log hub is built), keeping the last line for the key within a file. Nothing
// here calls operator new: lines come from getline (malloc), everything else
// lives on the stack, so the reader works at any point of the library's start-up.
#include "zosys.h"
#include "zosys_diag.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr char kFileName[] = "zoutils/zoutils.conf";
constexpr unsigned kPathMax = 4096;

char const* env(char const* name) { return secure_getenv(name); }

bool debugEnabled() {
    char const* v = env("ZOSYS_CONFIG_DEBUG");
    return v && *v && std::strcmp(v, "0") != 0;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

// Bounded text on the stack, for source names and the debug trace.
struct Text {
    char text[kPathMax + 64];
    unsigned long length = 0;
    Text() { text[0] = '\0'; }
    void append(char const* s) {
        while (*s && length + 1 < sizeof text) text[length++] = *s++;
        text[length] = '\0';
    }
    void appendNumber(unsigned long n) {
        char digits[24];
        std::snprintf(digits, sizeof digits, "%lu", n);
        append(digits);
    }
};

// What a reader does with one candidate value.
class Taker {
public:
    // Takes `value` (from `source`) if it is acceptable; reports it otherwise.
    virtual bool take(char const* key, char const* value, char const* source) = 0;
    // Describes the taken value for the debug trace.
    virtual void describe(Text& out) const = 0;

protected:
    ~Taker() = default;  // never deleted through a Taker*: no operator delete in this library
};

// Accepts decimal or 0x hex with an optional sign, surrounding blanks ignored.
// The value must fit 32 bits: -2147483648 up to 4294967295, the upper half kept as
// its bit pattern (0xFFFFFFFF reads -1), so that masks can be written in hex.
// Leading zeros do not mean octal: "010" is ten.
bool parseNumber(char const* text, int* out) {
    char const* p = text;
    while (isBlank(*p)) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    unsigned base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    unsigned long long v = 0;
    unsigned digits = 0;
    for (; *p && !isBlank(*p); ++p, ++digits) {
        unsigned d;
        if (*p >= '0' && *p <= '9')
            d = static_cast<unsigned>(*p - '0');
        else if (base == 16 && *p >= 'a' && *p <= 'f')
            d = static_cast<unsigned>(*p - 'a' + 10);
        else if (base == 16 && *p >= 'A' && *p <= 'F')
            d = static_cast<unsigned>(*p - 'A' + 10);
        else
            return false;
        if (d >= base) return false;
        v = v * base + d;
        if (v > 0xFFFFFFFFull) return false;
    }
    while (isBlank(*p)) ++p;
    if (digits == 0 || *p) return false;
    if (negative) {
        if (v > 0x80000000ull) return false;
        *out = static_cast<int>(-static_cast<long long>(v));
    } else {
        *out = static_cast<int>(static_cast<unsigned int>(v));
    }
    return true;
}

class NumberTaker final : public Taker {
public:
    explicit NumberTaker(int* out) : out(out) {}
    bool take(char const* key, char const* value, char const* source) override {
        int v;
        if (!parseNumber(value, &v)) {
            zosys::reportOnce("config: %s: value \"%s\" of %s is not a number (decimal or 0x hex, 32 bits); ignored",
                              source, value, key);
            return false;
        }
        *out = v;
        return true;
    }
    void describe(Text& t) const override {
        char digits[24];
        std::snprintf(digits, sizeof digits, "%d", *out);
        t.append(digits);
    }

private:
    int* out;
};

class StringTaker final : public Taker {
public:
    StringTaker(char* buffer, unsigned size) : buffer(buffer), size(size) {}
    bool take(char const* key, char const* value, char const* source) override {
        unsigned long length = std::strlen(value);
        if (length >= size) {
            zosys::reportOnce("config: %s: value of %s is %lu bytes, too long for a %u-byte buffer; ignored", source,
                              key, length, size);
            return false;
        }
        std::memcpy(buffer, value, length + 1);
        return true;
    }
    void describe(Text& t) const override {
        t.append("\"");
        t.append(buffer);
        t.append("\"");
    }

private:
    char* buffer;
    unsigned size;
};

// One key's walk over the sources, most important first.
class Lookup {
public:
    Lookup(char const* key, Taker& taker) : key(key), taker(taker) {}

    bool run() {
        if (fromEnvironment() || fromNamedFile() || fromUserFile() || fromSystemFiles()) {
            if (debug) {
                Text t;
                t.append(key);
                t.append(" = ");
                taker.describe(t);
                t.append(" (from ");
                t.append(takenFrom.text);
                t.append(")");
                zosys::report("config: %s", t.text);
            }
            return true;
        }
        if (debug) zosys::report("config: %s is not set (looked at %s)", key, lookedAt.text);
        return false;
    }

private:
    void note(char const* source) {
        if (lookedAt.length) lookedAt.append(", ");
        lookedAt.append(source);
    }

    bool offer(char const* value, char const* source) {
        if (!taker.take(key, value, source)) return false;
        takenFrom.append(source);
        return true;
    }

    bool fromEnvironment() {
        char name[256];
        unsigned long n = std::strlen(key);
        if (n >= sizeof name) return false;
        for (unsigned long i = 0; i <= n; ++i) {
            char c = key[i];
            name[i] = c == '.' ? '_' : (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        }
        Text source;
        source.append("environment variable ");
        source.append(name);
        note(source.text);
        char const* value = env(name);
        return value && offer(value, source.text);
    }

    bool fromNamedFile() {
        char const* path = env("ZOSYS_CONFIG");
        if (!path || !*path) return false;
        return fromFile(path, true);
    }

    bool fromUserFile() {
        char path[kPathMax];
        char const* home = env("XDG_CONFIG_HOME");
        int n;
        // Relative XDG directories are invalid and ignored.
        if (home && home[0] == '/') {
            n = std::snprintf(path, sizeof path, "%s/%s", home, kFileName);
        } else {
            home = env("HOME");
            if (!home || !*home) return false;
            n = std::snprintf(path, sizeof path, "%s/.config/%s", home, kFileName);
        }
        return n > 0 && static_cast<unsigned>(n) < sizeof path && fromFile(path, false);
    }

    bool fromSystemFiles() {
        char const* dirs = env("XDG_CONFIG_DIRS");
        if (!dirs || !*dirs) dirs = "/etc/xdg";
        while (*dirs) {
            char const* end = std::strchr(dirs, ':');
            unsigned long length = end ? static_cast<unsigned long>(end - dirs) : std::strlen(dirs);
            if (length > 0 && dirs[0] == '/' && length + sizeof kFileName + 1 < kPathMax) {
                char path[kPathMax];
                std::snprintf(path, sizeof path, "%.*s/%s", static_cast<int>(length), dirs, kFileName);
                if (fromFile(path, false)) return true;
            }
            dirs += length;
            if (*dirs == ':') ++dirs;
        }
        return false;
    }

    // Offers the file's values of the key, last line first.
    bool fromFile(char const* path, bool named) {
        note(path);
        FILE* f = std::fopen(path, "re");
        if (!f) {
            int err = errno;
            if (named || (err != ENOENT && err != ENOTDIR)) {
                char buf[128];
                zosys::reportOnce("config: cannot read %s%s: %s", named ? "the file named by ZOSYS_CONFIG, " : "",
                                  path, strerror_r(err, buf, sizeof buf));
            }
            return false;
        }
        // Matching lines: (line number, value) pairs kept in one malloc'd block.
        struct Match {
            unsigned long line;
            char* value;
        };
        Match* matches = nullptr;
        unsigned long count = 0, capacity = 0;
        char* line = nullptr;
        size_t lineCapacity = 0;
        unsigned long number = 0;
        while (getline(&line, &lineCapacity, f) >= 0) {
            ++number;
            char* value = nullptr;
            if (!parseLine(line, path, number, &value)) continue;
            if (strcasecmp(line, key) != 0) continue;
            if (count == capacity) {
                unsigned long grown = capacity ? capacity * 2 : 4;
                void* p = std::realloc(matches, grown * sizeof(Match));
                if (!p) break;
                matches = static_cast<Match*>(p);
                capacity = grown;
            }
            char* copy = strdup(value);
            if (!copy) break;
            matches[count++] = Match{number, copy};
        }
        std::free(line);
        std::fclose(f);

        bool taken = false;
        for (unsigned long i = count; i-- > 0;) {
            if (!taken) {
                Text source;
                source.append(path);
                source.append(":");
                source.appendNumber(matches[i].line);
                taken = offer(matches[i].value, source.text);
            }
            std::free(matches[i].value);
        }
        std::free(matches);
        return taken;
    }

    // Splits a line in place: on return `line` holds the key and *value the value.
    // False for blank lines, comments and malformed lines (the latter reported).
    static bool parseLine(char* line, char const* path, unsigned long number, char** value) {
        // Cut the comment: '#' at the start or after whitespace.
        for (char* p = line; *p; ++p) {
            if (*p == '#' && (p == line || isBlank(p[-1]))) {
                *p = '\0';
                break;
            }
        }
        char* start = line;
        while (isBlank(*start)) ++start;
        if (!*start) return false;
        char* eq = std::strchr(start, '=');
        if (!eq || eq == start) {
            trimEnd(start);
            zosys::reportOnce("config: %s:%lu: \"%s\" is not a \"Key = value\" line; skipped", path, number, start);
            return false;
        }
        *eq = '\0';
        trimEnd(start);
        char* v = eq + 1;
        while (isBlank(*v)) ++v;
        trimEnd(v);
        std::memmove(line, start, std::strlen(start) + 1);
        *value = v;
        return true;
    }

    static void trimEnd(char* s) {
        unsigned long n = std::strlen(s);
        while (n > 0 && isBlank(s[n - 1])) s[--n] = '\0';
    }

    char const* key;
    Taker& taker;
    bool debug = debugEnabled();
    Text lookedAt;
    Text takenFrom;
};

}  // namespace

extern "C" {

int ZoIF_GetConfigNumber(char const* key, int* value) {
    if (!key || !*key || !value) return EINVAL;
    NumberTaker taker(value);
    return Lookup(key, taker).run() ? 0 : ENOENT;
}

int ZoIF_GetConfigString(char const* key, char* buffer, unsigned int size) {
    if (!key || !*key || !buffer || size == 0) return EINVAL;
    StringTaker taker(buffer, size);
    return Lookup(key, taker).run() ? 0 : ENOENT;
}

}  // extern "C"
