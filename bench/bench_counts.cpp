// Fixed-count runs of the hot paths, library against std, for instruction counts
// under callgrind (bench/callgrind_micro.sh): deterministic where the times of a
// loaded machine are not. Each case runs its operation N times inside one function
// that is never inlined, measure_<case>(); callgrind's inclusive count of that
// function divided by N is the cost of one operation.
//
//   bench_counts CASE N      (bench_counts list: the cases)
//
// Compiled with ZOUTILS_APP_BASIC_API the cases that need the conveniences (lookup by
// characters) are left out, so the program also builds against older versions.
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "utils/avltree.h"
#include "utils/lock.h"
#include "utils/string.h"
#include "utils/vector.h"

#define MEASURE __attribute__((noinline))

namespace {

volatile unsigned long gSink;

// --- locks -------------------------------------------------------------------------
MEASURE void measure_locker_mutex(unsigned long n) {
    static Utils::Mutex m;
    for (unsigned long i = 0; i < n; ++i) {
        Utils::Locker hold(&m, __FILE__, __LINE__);
        gSink = i;
    }
}
MEASURE void measure_std_recursive_mutex(unsigned long n) {
    static std::recursive_mutex m;
    for (unsigned long i = 0; i < n; ++i) {
        std::lock_guard<std::recursive_mutex> hold(m);
        gSink = i;
    }
}
MEASURE void measure_std_mutex(unsigned long n) {
    static std::mutex m;
    for (unsigned long i = 0; i < n; ++i) {
        std::lock_guard<std::mutex> hold(m);
        gSink = i;
    }
}
MEASURE void measure_light_lock(unsigned long n) {
    static Utils::ZotLightBLock* lock = [] {
        auto* l = new Utils::ZotLightBLock;
        l->init();
        return l;
    }();
    for (unsigned long i = 0; i < n; ++i) {
        lock->lock();
        gSink = i;
        lock->unlock();
    }
}

// --- strings: per operation ----------------------------------------------------------
MEASURE void measure_append_char_string(unsigned long n) {
    for (unsigned long r = 0; r < n / 1000; ++r) {
        Utils::String s;
        for (int i = 0; i < 1000; ++i) s += static_cast<char>('a' + i % 26);
        gSink = s.length();
    }
}
MEASURE void measure_append_char_std(unsigned long n) {
    for (unsigned long r = 0; r < n / 1000; ++r) {
        std::string s;
        for (int i = 0; i < 1000; ++i) s += static_cast<char>('a' + i % 26);
        gSink = s.size();
    }
}
MEASURE void measure_append_ulong_string(unsigned long n) {
    for (unsigned long r = 0; r < n / 100; ++r) {
        Utils::String s;
        for (unsigned long i = 0; i < 100; ++i) s += i * 99991;
        gSink = s.length();
    }
}
MEASURE void measure_append_ulong_std(unsigned long n) {
    for (unsigned long r = 0; r < n / 100; ++r) {
        std::string s;
        for (unsigned long i = 0; i < 100; ++i) {
            char buf[24];
            auto res = std::to_chars(buf, buf + sizeof buf, i * 99991);
            s.append(buf, static_cast<std::size_t>(res.ptr - buf));
        }
        gSink = s.size();
    }
}
constexpr char kLine[] = "GET /api/v2/orders/317 200 48213 5123 10.2.117.43 \"Mozilla/5.0 (X11; Linux)\"\n";
// n lines tokenised (10 tokens each).
MEASURE void measure_tokens_string(unsigned long n) {
    Utils::String line(kLine);
    for (unsigned long r = 0; r < n; ++r) {
        unsigned long pos = 0, start = 0, end = 0, sum = 0;
        while (line.tokSpan(" \n", pos, start, end)) {
            sum += end - start;
            pos = end;
        }
        gSink = sum;
    }
}
MEASURE void measure_tokens_std(unsigned long n) {
    std::string line(kLine);
    for (unsigned long r = 0; r < n; ++r) {
        std::size_t pos = 0, sum = 0;
        while (true) {
            std::size_t s = line.find_first_not_of(" \n", pos);
            if (s == std::string::npos) break;
            std::size_t e = line.find_first_of(" \n", s + 1);
            if (e == std::string::npos) e = line.size();
            sum += e - s;
            pos = e;
        }
        gSink = sum;
    }
}

// --- containers ---------------------------------------------------------------------
// n adds into vectors of 1000.
MEASURE void measure_vector_add(unsigned long n) {
    for (unsigned long r = 0; r < n / 1000; ++r) {
        Utils::Vector<unsigned int> v;
        for (unsigned int i = 0; i < 1000; ++i) v.add(i);
        gSink = v.count;
    }
}
MEASURE void measure_vector_push_back(unsigned long n) {
    for (unsigned long r = 0; r < n / 1000; ++r) {
        std::vector<unsigned int> v;
        for (unsigned int i = 0; i < 1000; ++i) v.push_back(i);
        gSink = v.size();
    }
}

std::vector<std::string> pathKeys(unsigned long n) {
    std::vector<std::string> keys;
    for (unsigned long i = 0; i < n; ++i) keys.push_back("/api/v2/items/" + std::to_string((i * 7919) % n));
    return keys;
}
constexpr unsigned long kMapKeys = 10000;

// n successful lookups in a map of 10000 path-like keys (the build is outside).
Utils::AVLTree<Utils::String, unsigned int>* gZoMap;
std::map<std::string, unsigned int>* gStdMap;
std::vector<Utils::String>* gZoProbes;
std::vector<std::string>* gStdProbes;
void buildMaps() {
    gZoMap = new Utils::AVLTree<Utils::String, unsigned int>;
    gStdMap = new std::map<std::string, unsigned int>;
    gZoProbes = new std::vector<Utils::String>;
    gStdProbes = new std::vector<std::string>;
    for (auto const& k : pathKeys(kMapKeys)) {
        gZoMap->insert(Utils::String(k.c_str()), 1);
        gStdMap->emplace(k, 1);
    }
    for (unsigned long i = 0; i < kMapKeys; ++i) {
        std::string k = "/api/v2/items/" + std::to_string((i * 104729) % kMapKeys);
        gZoProbes->emplace_back(k.c_str());
        gStdProbes->push_back(k);
    }
}
MEASURE void measure_map_find_string(unsigned long n) {
    for (unsigned long i = 0; i < n; ++i) gSink = gZoMap->find((*gZoProbes)[i % kMapKeys]).value();
}
#ifndef ZOUTILS_APP_BASIC_API
MEASURE void measure_map_lookup_chars(unsigned long n) {
    for (unsigned long i = 0; i < n; ++i) gSink = gZoMap->lookup((*gStdProbes)[i % kMapKeys])->value;
}
#endif
MEASURE void measure_map_find_std(unsigned long n) {
    for (unsigned long i = 0; i < n; ++i) gSink = gStdMap->find((*gStdProbes)[i % kMapKeys])->second;
}

struct Case {
    char const* name;
    void (*run)(unsigned long);
    bool needsMaps;
};
Case const kCases[] = {
    {"locker_mutex", measure_locker_mutex, false},
    {"std_recursive_mutex", measure_std_recursive_mutex, false},
    {"std_mutex", measure_std_mutex, false},
    {"light_lock", measure_light_lock, false},
    {"append_char_string", measure_append_char_string, false},
    {"append_char_std", measure_append_char_std, false},
    {"append_ulong_string", measure_append_ulong_string, false},
    {"append_ulong_std", measure_append_ulong_std, false},
    {"tokens_string", measure_tokens_string, false},
    {"tokens_std", measure_tokens_std, false},
    {"vector_add", measure_vector_add, false},
    {"vector_push_back", measure_vector_push_back, false},
    {"map_find_string", measure_map_find_string, true},
#ifndef ZOUTILS_APP_BASIC_API
    {"map_lookup_chars", measure_map_lookup_chars, true},
#endif
    {"map_find_std", measure_map_find_std, true},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "list") == 0) {
        for (Case const& c : kCases) std::printf("%s\n", c.name);
        return 0;
    }
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s CASE N | list\n", argv[0]);
        return 2;
    }
    unsigned long n = std::strtoul(argv[2], nullptr, 10);
    for (Case const& c : kCases) {
        if (std::strcmp(c.name, argv[1]) != 0) continue;
        if (c.needsMaps) buildMaps();
        c.run(n);
        return 0;
    }
    std::fprintf(stderr, "no case %s\n", argv[1]);
    return 2;
}
