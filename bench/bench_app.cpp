// The application benchmark: a small log-analysis service written twice from one
// source, once with the library's types and once with the standard library's.
//
// Input: LINES synthetic request lines "METHOD PATH STATUS LATENCY BYTES CLIENT",
// made by one seeded generator (the same bytes for both programs, not timed).
// Work, per program:
//   ingest  every line becomes a string object, is split into its six fields, its
//           numbers are read, and the per-path statistics (count, bytes, one latency
//           per request in a growable array) are updated in an ordered map keyed by
//           the path; one info line per 100 requests and one error line (with a fresh
//           request identifier) per 5xx response go through the log.
//   merge   with 2 threads each thread ingests its half into a map of its own; the
//           second map is merged into the first.
//   report  for every path in key order: count, bytes, mean and ten latency
//           percentiles (from a sorted copy), appended as decimal text to one report
//           string; its FNV-1a checksum is printed.
// Library build (bench_app, linked with libzoutils): Utils::String, Utils::AVLTree,
// Utils::Vector, the log hub with a file sink, Utils::UID. Standard build
// (bench_app_std, the same file without the library, on glibc malloc): std::string,
// std::map with heterogeneous lookup, std::vector, stdio, a counter-based identifier.
// Both print the same checksum and the same log line counts; bench/run_app.sh checks
// that and times them alternately.
//
//   bench_app [--lines N] [--threads 1|2] [--rounds R] [--log FILE]
//
// Each phase is a function of its own (never inlined), so callgrind attributes the
// instructions of each (bench/callgrind_app.sh). Compiled with ZOUTILS_APP_BASIC_API,
// the library's program uses only the cursor API (no lookup by characters, no
// iterators, no size()), so it also builds against older versions of the library.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#ifdef ZOUTILS_LINKED
#include "utils/avltree.h"
#include "utils/log.h"
#include "utils/string.h"
#include "utils/uid.h"
#include "utils/vector.h"
#endif

#define PHASE __attribute__((noinline))

namespace {

// ---------------------------------------------------------------------------
// Input, shared by both programs
// ---------------------------------------------------------------------------
struct Input {
    std::vector<char> bytes;        // every line, each ended by '\n'
    std::vector<std::size_t> starts;  // where each line starts; one more entry at the end
};

struct Rng {
    unsigned long long s;
    unsigned long long next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return s;
    }
};

PHASE Input makeInput(unsigned long lines) {
    static char const* const methods[] = {"GET", "GET", "GET", "POST", "PUT", "DELETE"};
    static char const* const areas[] = {"items", "users", "orders", "search", "static"};
    Input in;
    in.bytes.reserve(lines * 56);
    Rng rng{0x9E3779B97F4A7C15ULL};
    char line[160];
    for (unsigned long i = 0; i < lines; ++i) {
        unsigned long long r = rng.next();
        unsigned int status = 200;
        unsigned int pick = static_cast<unsigned int>(r % 1000);
        if (pick < 12)
            status = pick < 6 ? 500 : 503;
        else if (pick < 80)
            status = 404;
        else if (pick < 200)
            status = 304;
        unsigned long latency = 200 + (rng.next() % 1000) * (1 + rng.next() % 50);  // skewed microseconds
        unsigned long bytes = status == 304 ? 0 : 100 + rng.next() % 60000;
        int n = std::snprintf(line, sizeof line, "%s /api/v%u/%s/%u %u %lu %lu 10.%u.%u.%u\n",
                              methods[r % 6], static_cast<unsigned>(1 + (r >> 8) % 3), areas[(r >> 12) % 5],
                              static_cast<unsigned>((r >> 20) % 400), status, latency, bytes,
                              static_cast<unsigned>((r >> 32) % 4), static_cast<unsigned>((r >> 40) % 256),
                              static_cast<unsigned>((r >> 48) % 256));
        in.starts.push_back(in.bytes.size());
        in.bytes.insert(in.bytes.end(), line, line + n);
    }
    in.starts.push_back(in.bytes.size());
    return in;
}

unsigned long long fnv1a(char const* p, std::size_t n) {
    unsigned long long h = 1469598103934665603ULL;
    for (std::size_t i = 0; i < n; ++i) {
        h ^= static_cast<unsigned char>(p[i]);
        h *= 1099511628211ULL;
    }
    return h;
}

// The ten percentiles reported per path: 10, 20, ..., 90, 99.
unsigned long percentileIndex(unsigned long n, unsigned int k) {
    unsigned int pct = k < 9 ? (k + 1) * 10 : 99;
    return (n - 1) * pct / 100;
}

struct RunResult {
    unsigned long long checksum = 0;
    unsigned long reportBytes = 0;
    unsigned long paths = 0;
    unsigned long infoLines = 0;
    unsigned long errorLines = 0;
};

// The report's bytes, for its checksum.
[[maybe_unused]] inline std::string_view textBytes(std::string const& s) { return s; }
#ifdef ZOUTILS_LINKED
inline std::string_view textBytes(Utils::String const& s) { return std::string_view(s.text(), s.length()); }
#endif

// The part both programs share: the lines ingested by one thread, or by two threads
// into maps of their own merged at the end; then the report of the first map, its
// checksum, and the counts. Each program passes its own phases.
template <class Worker, class Ingest, class Merge, class Report, class Size>
RunResult drive(Input const& in, unsigned int threads, Ingest ingest, Merge merge, Report report, Size size) {
    unsigned long lines = in.starts.size() - 1;
    Worker workers[2];
    if (threads == 1) {
        ingest(workers[0], in, 0, lines);
    } else {
        std::thread second([&] { ingest(workers[1], in, lines / 2, lines); });
        ingest(workers[0], in, 0, lines / 2);
        second.join();
        merge(workers[0].map, workers[1].map);
    }
    auto text = report(workers[0].map);
    std::string_view bytes = textBytes(text);
    RunResult r;
    r.checksum = fnv1a(bytes.data(), bytes.size());
    r.reportBytes = bytes.size();
    r.paths = size(workers[0].map);
    r.infoLines = workers[0].info + workers[1].info;
    r.errorLines = workers[0].errors + workers[1].errors;
    return r;
}

#ifdef ZOUTILS_LINKED
// ---------------------------------------------------------------------------
// The library's program
// ---------------------------------------------------------------------------
namespace zo {

using Utils::String;

struct Stats {
    unsigned long count = 0;
    unsigned long bytes = 0;
    Utils::Vector<unsigned int> latencies;
};
using Map = Utils::AVLTree<String, Stats>;

struct Worker {
    Map map;
    unsigned long info = 0;
    unsigned long errors = 0;
};

unsigned int gCategory = 0;

// The six fields of a line as [start, end) ranges; false for a malformed line.
PHASE bool splitFields(String const& line, unsigned long (&start)[6], unsigned long (&end)[6]) {
    unsigned long pos = 0;
    for (int f = 0; f < 6; ++f) {
        if (!line.tokSpan(" \n", pos, start[f], end[f])) return false;
        pos = end[f];
    }
    return true;
}

PHASE void record(Map& map, char const* path, unsigned long pathLength, unsigned int latency, unsigned long bytes) {
#ifdef ZOUTILS_APP_BASIC_API
    // Only what the library offered before its conveniences: every lookup builds a key.
    Map::Node* node = static_cast<Map::Node*>(map.find(String(path, pathLength)).current);
#else
    Map::Node* node = map.lookup(path, pathLength);
#endif
    if (!node) {
        Map::Iter it = map.intern(String(path, pathLength));
        node = static_cast<Map::Node*>(it.current);
    }
    node->value.count += 1;
    node->value.bytes += bytes;
    node->value.latencies.add(latency);
}

PHASE void logRequest(Worker& w, String const& line, unsigned long n, unsigned int status, char const* path,
                      unsigned long pathLength) {
    if (n % 100 == 0) {
        ZO_LOG_INFO(gCategory, "processed %lu requests, last path %.*s", n, static_cast<int>(pathLength), path);
        ++w.info;
    }
    if (status >= 500) {
        Utils::UID id;
        id.generate();
        ZO_LOG_ERROR(gCategory, "request %s failed with %u: %s", id.asText().text(), status, line.text());
        ++w.errors;
    }
}

PHASE void ingest(Worker& w, Input const& in, unsigned long first, unsigned long last) {
    unsigned long start[6], end[6];
    for (unsigned long i = first; i < last; ++i) {
        String line(in.bytes.data() + in.starts[i], in.starts[i + 1] - in.starts[i]);
        if (!splitFields(line, start, end)) continue;
        char const* t = line.text();
        unsigned int status = static_cast<unsigned int>(std::strtoul(t + start[2], nullptr, 10));
        unsigned int latency = static_cast<unsigned int>(std::strtoul(t + start[3], nullptr, 10));
        unsigned long bytes = std::strtoul(t + start[4], nullptr, 10);
        record(w.map, t + start[1], end[1] - start[1], latency, bytes);
        logRequest(w, line, i + 1, status, t + start[1], end[1] - start[1]);
    }
}

#ifdef ZOUTILS_APP_BASIC_API
// The walk of the cursor API, for the build without iterators.
template <class F>
void forEach(Map const& map, F f) {
    for (Map::Iter it = map.first(); it.valid(); it.bump(true)) f(*static_cast<Map::Node const*>(it.current));
}
unsigned long sizeOf(Map const& map) {
    unsigned long n = 0;
    forEach(map, [&](Map::Node const&) { ++n; });
    return n;
}
#else
template <class F>
void forEach(Map const& map, F f) {
    for (auto const& node : map) f(node);
}
unsigned long sizeOf(Map const& map) { return map.size(); }
#endif

PHASE void merge(Map& into, Map const& from) {
    forEach(from, [&](Map::Node const& node) {
        Map::Iter it = into.intern(node.key);
        Stats& s = it.value();
        s.count += node.value.count;
        s.bytes += node.value.bytes;
        s.latencies.add(node.value.latencies.data, node.value.latencies.count);
    });
}

PHASE String report(Map const& map) {
    String out;
    Utils::Vector<unsigned int> sorted;
    forEach(map, [&](Map::Node const& node) {
        Stats const& s = node.value;
        sorted = s.latencies;
        std::sort(sorted.begin(), sorted.end());
        unsigned long sum = 0;
        for (unsigned int x : sorted) sum += x;
        out += node.key;
        out += ' ';
        out += s.count;
        out += ' ';
        out += s.bytes;
        out += ' ';
        out += sum / s.count;
        for (unsigned int k = 0; k < 10; ++k) {
            out += ' ';
            out += sorted[percentileIndex(sorted.count, k)];
        }
        out += '\n';
    });
    return out;
}

PHASE RunResult run(Input const& in, unsigned int threads, char const* logPath) {
    Utils::Log* log = Utils::Log::theLog();
    log->setLogger(new Utils::FileLogger(logPath, Utils::FileLogger::Replace));
    gCategory = log->getCategory("app", 0, false);
    RunResult r = drive<Worker>(in, threads, ingest, merge, report, sizeOf);
    log->setLogger(Utils::Log::theDefaultLogger().get());
    return r;
}

}  // namespace zo
#endif

// ---------------------------------------------------------------------------
// The standard library's program
// ---------------------------------------------------------------------------
namespace stdv {

struct Stats {
    unsigned long count = 0;
    unsigned long bytes = 0;
    std::vector<unsigned int> latencies;
};
using Map = std::map<std::string, Stats, std::less<>>;

struct Worker {
    Map map;
    unsigned long info = 0;
    unsigned long errors = 0;
};

FILE* gLog = nullptr;
unsigned long gIdCounter = 0;

PHASE bool splitFields(std::string const& line, std::size_t (&start)[6], std::size_t (&end)[6]) {
    std::size_t pos = 0;
    for (int f = 0; f < 6; ++f) {
        std::size_t s = line.find_first_not_of(" \n", pos);
        if (s == std::string::npos) return false;
        std::size_t e = line.find_first_of(" \n", s + 1);
        start[f] = s;
        end[f] = e == std::string::npos ? line.size() : e;
        pos = end[f];
    }
    return true;
}

PHASE void record(Map& map, char const* path, std::size_t pathLength, unsigned int latency, unsigned long bytes) {
    std::string_view key(path, pathLength);
    auto it = map.find(key);
    if (it == map.end()) it = map.emplace(std::string(key), Stats()).first;
    it->second.count += 1;
    it->second.bytes += bytes;
    it->second.latencies.push_back(latency);
}

PHASE void logRequest(Worker& w, std::string const& line, unsigned long n, unsigned int status, char const* path,
                      std::size_t pathLength) {
    // The same header as the hub's at verbosity 0: "info|app|", "error|app|".
    if (n % 100 == 0) {
        std::fprintf(gLog, "info|app|processed %lu requests, last path %.*s\n", n, static_cast<int>(pathLength),
                     path);
        ++w.info;
    }
    if (status >= 500) {
        // machine, seconds, sequence: the identifier's text form
        char id[32];
        std::snprintf(id, sizeof id, "%08X%08X%lX", 0xC0D1F1EDu, static_cast<unsigned>(std::time(nullptr)),
                      __atomic_fetch_add(&gIdCounter, 1, __ATOMIC_RELAXED));
        std::fprintf(gLog, "error|app|request %s failed with %u: %s\n", id, status, line.c_str());
        std::fflush(gLog);
        ++w.errors;
    }
}

PHASE void ingest(Worker& w, Input const& in, unsigned long first, unsigned long last) {
    std::size_t start[6], end[6];
    for (unsigned long i = first; i < last; ++i) {
        std::string line(in.bytes.data() + in.starts[i], in.starts[i + 1] - in.starts[i]);
        if (!splitFields(line, start, end)) continue;
        char const* t = line.c_str();
        unsigned int status = static_cast<unsigned int>(std::strtoul(t + start[2], nullptr, 10));
        unsigned int latency = static_cast<unsigned int>(std::strtoul(t + start[3], nullptr, 10));
        unsigned long bytes = std::strtoul(t + start[4], nullptr, 10);
        record(w.map, t + start[1], end[1] - start[1], latency, bytes);
        logRequest(w, line, i + 1, status, t + start[1], end[1] - start[1]);
    }
}

PHASE void merge(Map& into, Map const& from) {
    for (auto const& kv : from) {
        Stats& s = into[kv.first];
        s.count += kv.second.count;
        s.bytes += kv.second.bytes;
        s.latencies.insert(s.latencies.end(), kv.second.latencies.begin(), kv.second.latencies.end());
    }
}

inline void appendNumber(std::string& out, unsigned long v) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, static_cast<std::size_t>(r.ptr - buf));
}

PHASE std::string report(Map const& map) {
    std::string out;
    std::vector<unsigned int> sorted;
    for (auto const& kv : map) {
        Stats const& s = kv.second;
        sorted = s.latencies;
        std::sort(sorted.begin(), sorted.end());
        unsigned long sum = 0;
        for (unsigned int x : sorted) sum += x;
        out += kv.first;
        out += ' ';
        appendNumber(out, s.count);
        out += ' ';
        appendNumber(out, s.bytes);
        out += ' ';
        appendNumber(out, sum / s.count);
        for (unsigned int k = 0; k < 10; ++k) {
            out += ' ';
            appendNumber(out, sorted[percentileIndex(sorted.size(), k)]);
        }
        out += '\n';
    }
    return out;
}

// Unused in the library's program, which runs zo::run.
[[maybe_unused]] PHASE RunResult run(Input const& in, unsigned int threads, char const* logPath) {
    gLog = std::fopen(logPath, "w");
    if (!gLog) {
        std::perror(logPath);
        std::exit(2);
    }
    RunResult r = drive<Worker>(in, threads, ingest, merge, report, [](Map const& m) { return m.size(); });
    std::fclose(gLog);
    return r;
}

}  // namespace stdv

}  // namespace

int main(int argc, char** argv) {
    unsigned long lines = 200000;
    unsigned int threads = 1;
    unsigned int rounds = 1;
    char const* logPath = "/dev/null";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--lines") == 0)
            lines = std::strtoul(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--threads") == 0)
            threads = std::strtoul(argv[i + 1], nullptr, 10) == 2 ? 2 : 1;
        else if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = static_cast<unsigned int>(std::strtoul(argv[i + 1], nullptr, 10));
        else if (std::strcmp(argv[i], "--log") == 0)
            logPath = argv[i + 1];
        else {
            std::fprintf(stderr, "usage: %s [--lines N] [--threads 1|2] [--rounds R] [--log FILE]\n", argv[0]);
            return 2;
        }
    }
    Input in = makeInput(lines);
#ifdef ZOUTILS_LINKED
    char const* impl = "zoutils";
#else
    char const* impl = "std";
#endif
    for (unsigned int round = 0; round < rounds; ++round) {
        auto t0 = std::chrono::steady_clock::now();
#ifdef ZOUTILS_LINKED
        RunResult r = zo::run(in, threads, logPath);
#else
        RunResult r = stdv::run(in, threads, logPath);
#endif
        double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
        std::printf("%s threads=%u lines=%lu ms=%.1f checksum=%016llx report=%lu paths=%lu info=%lu error=%lu\n", impl,
                    threads, lines, ms, r.checksum, r.reportBytes, r.paths, r.infoLines, r.errorLines);
    }
    return 0;
}
