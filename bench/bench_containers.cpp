// Vector<unsigned int> against std::vector<unsigned int> (add, insert at the front,
// locate, removeAt), and AVLTree<unsigned int, unsigned int> against std::map and
// absl::btree_map (random insert, find, remove, in-order walk), at 1e3, 1e5 and 1e6
// elements. Insert-at-front is quadratic in the element count and stops at 1e4.
//
// Every container in this binary allocates through the library's global operator
// new once the process allocator replaces it, the std and absl peers included.
#include <benchmark/benchmark.h>

#include <absl/container/btree_map.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "utils/avltree.h"
#include "utils/string.h"
#include "utils/vector.h"

namespace {

std::vector<unsigned int> shuffledKeys(unsigned long n, unsigned seed) {
    std::vector<unsigned int> keys(n);
    for (unsigned long i = 0; i < n; ++i) keys[i] = static_cast<unsigned int>(2 * i + 2);
    std::mt19937_64 rng(seed);
    std::shuffle(keys.begin(), keys.end(), rng);
    return keys;
}

// --- Vector ---------------------------------------------------------------
struct ZoVec {
    Utils::Vector<unsigned int> v;
    void add(unsigned int x) { v.add(x); }
    void insertFront(unsigned int x) { v.insert(x, 0); }
    bool locate(unsigned int x) const {
        unsigned long i;
        return v.locate(x, i);
    }
    void removeAt(unsigned long i) { v.removeAt(i); }
    unsigned long size() const { return v.count; }
};
struct StdVec {
    std::vector<unsigned int> v;
    void add(unsigned int x) { v.push_back(x); }
    void insertFront(unsigned int x) { v.insert(v.begin(), x); }
    bool locate(unsigned int x) const { return std::find(v.begin(), v.end(), x) != v.end(); }
    void removeAt(unsigned long i) { v.erase(v.begin() + static_cast<long>(i)); }
    unsigned long size() const { return v.size(); }
};

template <class V>
void VectorAdd(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    for (auto _ : state) {
        V v;
        for (unsigned long i = 0; i < n; ++i) v.add(static_cast<unsigned int>(i));
        benchmark::DoNotOptimize(v.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long>(n));
}

template <class V>
void VectorInsertFront(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    for (auto _ : state) {
        V v;
        for (unsigned long i = 0; i < n; ++i) v.insertFront(static_cast<unsigned int>(i));
        benchmark::DoNotOptimize(v.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long>(n));
}

// One locate of a present value, uniformly placed: n/2 comparisons on average.
template <class V>
void VectorLocate(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    V v;
    for (unsigned long i = 0; i < n; ++i) v.add(static_cast<unsigned int>(i));
    std::mt19937 rng(7);
    for (auto _ : state) {
        benchmark::DoNotOptimize(v.locate(static_cast<unsigned int>(rng() % n)));
    }
    state.SetItemsProcessed(state.iterations());
}

// One ordered removal at a random index (n/2 moves on average), then an add to keep
// the size at n.
template <class V>
void VectorRemoveAt(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    V v;
    for (unsigned long i = 0; i < n; ++i) v.add(static_cast<unsigned int>(i));
    std::mt19937 rng(11);
    for (auto _ : state) {
        v.removeAt(rng() % n);
        v.add(1u);
    }
    state.SetItemsProcessed(state.iterations());
}

// --- Maps -----------------------------------------------------------------
using ZoTree = Utils::AVLTree<unsigned int, unsigned int>;

struct ZoMap {
    ZoTree t;
    void insert(unsigned int k) { t.insert(k, k); }
    bool find(unsigned int k) const { return t.find(k).current != nullptr; }
    void remove(unsigned int k) { t.remove(k); }
    unsigned long walk() const {
        unsigned long sum = 0;
        for (auto it = t.first(); it.current; it.bump(true)) sum += it.value();
        return sum;
    }
};
template <class M>
struct PeerMap {
    M m;
    void insert(unsigned int k) { m.emplace(k, k); }
    bool find(unsigned int k) const { return m.find(k) != m.end(); }
    void remove(unsigned int k) { m.erase(k); }
    unsigned long walk() const {
        unsigned long sum = 0;
        for (auto const& kv : m) sum += kv.second;
        return sum;
    }
};
using StdMap = PeerMap<std::map<unsigned int, unsigned int>>;
using AbslMap = PeerMap<absl::btree_map<unsigned int, unsigned int>>;

template <class M>
void MapInsert(benchmark::State& state) {
    auto keys = shuffledKeys(static_cast<unsigned long>(state.range(0)), 1);
    for (auto _ : state) {
        auto* m = new M;
        for (unsigned int k : keys) m->insert(k);
        benchmark::DoNotOptimize(m);
        state.PauseTiming();  // the teardown is not part of the measure
        delete m;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class M>
void MapFind(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    auto keys = shuffledKeys(n, 2);
    M m;
    for (unsigned int k : keys) m.insert(k);
    auto probes = shuffledKeys(n, 3);  // the same keys, another order: every probe hits
    unsigned long i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.find(probes[i]));
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}

template <class M>
void MapRemove(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    auto keys = shuffledKeys(n, 4);
    auto order = shuffledKeys(n, 5);
    for (auto _ : state) {
        state.PauseTiming();
        M m;
        for (unsigned int k : keys) m.insert(k);
        state.ResumeTiming();
        for (unsigned int k : order) m.remove(k);
        benchmark::DoNotOptimize(&m);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long>(n));
}

template <class M>
void MapWalk(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    auto keys = shuffledKeys(n, 6);
    M m;
    for (unsigned int k : keys) m.insert(k);
    for (auto _ : state) benchmark::DoNotOptimize(m.walk());
    state.SetItemsProcessed(state.iterations() * static_cast<long>(n));
}

}  // namespace

// --- String-keyed maps: one successful lookup of a path-like key --------------------
std::vector<std::string> pathKeys(unsigned long n, unsigned int seed) {
    auto ids = shuffledKeys(n, seed);
    std::vector<std::string> keys;
    keys.reserve(n);
    for (unsigned int id : ids) keys.push_back("/api/v2/items/" + std::to_string(id));
    return keys;
}
void MapFindString_ZoAVLTree(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    Utils::AVLTree<Utils::String, unsigned int> m;
    for (auto const& k : pathKeys(n, 2)) m.insert(Utils::String(k.c_str()), 1);
    std::vector<Utils::String> probes;
    for (auto const& k : pathKeys(n, 3)) probes.emplace_back(k.c_str());
    unsigned long i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.find(probes[i]).current);
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
void MapFindString_ZoAVLTreeByChars(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    Utils::AVLTree<Utils::String, unsigned int> m;
    for (auto const& k : pathKeys(n, 2)) m.insert(Utils::String(k.c_str()), 1);
    auto probes = pathKeys(n, 3);
    unsigned long i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.lookup(probes[i]));
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
void MapFindString_StdMap(benchmark::State& state) {
    unsigned long n = static_cast<unsigned long>(state.range(0));
    std::map<std::string, unsigned int> m;
    for (auto const& k : pathKeys(n, 2)) m.emplace(k, 1);
    auto probes = pathKeys(n, 3);
    unsigned long i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.find(probes[i]));
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(MapFindString_ZoAVLTree)->Arg(1000)->Arg(100000);
BENCHMARK(MapFindString_ZoAVLTreeByChars)->Arg(1000)->Arg(100000);
BENCHMARK(MapFindString_StdMap)->Arg(1000)->Arg(100000);

#define SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)
#define VECTOR_PAIR(name, sizes)            \
    BENCHMARK_TEMPLATE(name, ZoVec) sizes; \
    BENCHMARK_TEMPLATE(name, StdVec) sizes;
#define MAP_TRIO(name)                        \
    BENCHMARK_TEMPLATE(name, ZoMap) SIZES;    \
    BENCHMARK_TEMPLATE(name, StdMap) SIZES;   \
    BENCHMARK_TEMPLATE(name, AbslMap) SIZES;

VECTOR_PAIR(VectorAdd, SIZES)
VECTOR_PAIR(VectorInsertFront, ->Arg(1000)->Arg(10000))
VECTOR_PAIR(VectorLocate, SIZES)
VECTOR_PAIR(VectorRemoveAt, SIZES)
MAP_TRIO(MapInsert)
MAP_TRIO(MapFind)
MAP_TRIO(MapRemove)
MAP_TRIO(MapWalk)

BENCHMARK_MAIN();
