// The system layer's configuration reader: file contents, buffer sizes 1..4096 and
// environment values against a model of the sources and the line syntax. The
// user and system files point into an empty private directory, so only the
// environment and the named file take part.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "zosys.h"

namespace {

std::string gDir, gFile;

struct Key {
    char const* name;
    char const* variable;
};
Key const kKeys[] = {{"Fuzz.Key", "FUZZ_KEY"}, {"fuzz.other.key", "FUZZ_OTHER_KEY"}, {"k", "K"}};

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

std::string trim(std::string const& s) {
    size_t a = 0, b = s.size();
    while (a < b && blank(s[a])) ++a;
    while (b > a && blank(s[b - 1])) --b;
    return s.substr(a, b - a);
}

bool sameKey(std::string const& a, char const* b) {
    if (a.size() != std::strlen(b)) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
        if (lower(static_cast<unsigned char>(a[i])) != lower(static_cast<unsigned char>(b[i]))) return false;
    }
    return true;
}

// The values the file holds for `key`, last line first.
std::vector<std::string> fileValues(std::string const& contents, char const* key) {
    std::vector<std::string> found;
    size_t at = 0;
    while (at < contents.size()) {
        size_t nl = contents.find('\n', at);
        size_t end = nl == std::string::npos ? contents.size() : nl + 1;
        std::string line(contents.c_str() + at, end - at);
        line = std::string(line.c_str());  // string functions stop at a NUL
        at = end;
        for (size_t i = 0; i < line.size(); ++i)
            if (line[i] == '#' && (i == 0 || blank(line[i - 1]))) {
                line.resize(i);
                break;
            }
        size_t first = 0;
        while (first < line.size() && blank(line[first])) ++first;
        size_t eq = line.find('=', first);
        if (first == line.size() || eq == std::string::npos || eq == first) continue;
        if (sameKey(trim(line.substr(first, eq - first)), key)) found.insert(found.begin(), trim(line.substr(eq + 1)));
    }
    return found;
}

bool modelNumber(std::string const& value, int* out) {
    std::string s = trim(value);
    bool negative = false;
    size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    unsigned base = 10;
    if (s.compare(i, 2, "0x") == 0 || s.compare(i, 2, "0X") == 0) {
        base = 16;
        i += 2;
    }
    if (i == s.size()) return false;
    unsigned long long v = 0;
    for (; i < s.size(); ++i) {
        char c = s[i];
        int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : 99;
        if (d >= static_cast<int>(base)) return false;
        v = v * base + static_cast<unsigned>(d);
        if (v > 0xFFFFFFFFull) return false;
    }
    if (negative && v > 0x80000000ull) return false;
    *out = negative ? static_cast<int>(-static_cast<long long>(v)) : static_cast<int>(static_cast<unsigned int>(v));
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char tmpl[] = "/tmp/zo-fuzz-config-XXXXXX";
    char* dir = mkdtemp(tmpl);
    if (!dir) std::abort();
    gDir = dir;
    gFile = gDir + "/named.conf";
    setenv("XDG_CONFIG_HOME", gDir.c_str(), 1);
    setenv("XDG_CONFIG_DIRS", gDir.c_str(), 1);
    setenv("ZOSYS_CONFIG", gFile.c_str(), 1);
    unsetenv("ZOSYS_CONFIG_DEBUG");
    for (Key const& k : kKeys) unsetenv(k.variable);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    Key const& key = kKeys[in.ConsumeIntegralInRange<int>(0, 2)];
    unsigned int bufferSize = in.ConsumeIntegralInRange<unsigned int>(1, 4096);
    bool useEnv = in.ConsumeBool();
    std::string envValue = in.ConsumeRandomLengthString(64);
    envValue = envValue.c_str();
    std::string contents = in.ConsumeRemainingBytesAsString();

    if (useEnv)
        setenv(key.variable, envValue.c_str(), 1);
    else
        unsetenv(key.variable);
    FILE* f = std::fopen(gFile.c_str(), "we");
    FUZZ_CHECK(f, "cannot write %s", gFile.c_str());
    std::fwrite(contents.data(), 1, contents.size(), f);
    std::fclose(f);

    std::vector<std::string> candidates = fileValues(contents, key.name);
    if (useEnv) candidates.insert(candidates.begin(), envValue);

    // The string reader: the first candidate that fits.
    std::vector<char> buffer(bufferSize + 1, '\xA5');
    int rc = ZoIF_GetConfigString(key.name, buffer.data(), bufferSize);
    std::string const* want = nullptr;
    for (std::string const& c : candidates)
        if (c.size() < bufferSize) {
            want = &c;
            break;
        }
    if (want) {
        FUZZ_CHECK(rc == 0 && std::strcmp(buffer.data(), want->c_str()) == 0, "string: rc %d, \"%s\", model \"%s\"", rc,
                   rc == 0 ? buffer.data() : "", want->c_str());
    } else {
        FUZZ_CHECK(rc == ENOENT, "string: rc %d, model ENOENT", rc);
        for (char c : buffer) FUZZ_CHECK(c == '\xA5', "output touched on failure");
    }
    FUZZ_CHECK(buffer[bufferSize] == '\xA5', "wrote past the buffer");

    // The number reader: the first candidate that is a number.
    int value = 0x5A5A5A5A, model = 0;
    bool modelFound = false;
    for (std::string const& c : candidates)
        if (modelNumber(c, &model)) {
            modelFound = true;
            break;
        }
    rc = ZoIF_GetConfigNumber(key.name, &value);
    if (modelFound)
        FUZZ_CHECK(rc == 0 && value == model, "number: rc %d, %d, model %d", rc, value, model);
    else
        FUZZ_CHECK(rc == ENOENT && value == 0x5A5A5A5A, "number: rc %d, model ENOENT", rc);

    FUZZ_CHECK(ZoIF_GetConfigString(key.name, buffer.data(), 0) == EINVAL, "size 0");
    FUZZ_CHECK(ZoIF_GetConfigNumber("", &value) == EINVAL, "empty key");
    return 0;
}
