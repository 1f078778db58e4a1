// WTreeBase against the boost::intrusive AVL, red-black and scapegoat trees:
// insert, remove by key and removesup (remove the first item not before a key, which
// for boost is lower_bound + erase), at 1e3, 1e5 and 1e6 nodes. Every tree is
// intrusive: the nodes live in one array allocated before timing starts.
#include <benchmark/benchmark.h>

#include <boost/intrusive/avltree.hpp>
#include <boost/intrusive/rbtree.hpp>
#include <boost/intrusive/sgtree.hpp>

#include <algorithm>
#include <random>
#include <vector>

#include "utils/wtree.h"

namespace bi = boost::intrusive;

namespace {

std::vector<long> shuffledKeys(long n, unsigned seed) {
    std::vector<long> keys(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) keys[static_cast<size_t>(i)] = 2 * i + 2;  // even keys; probes use odd ones
    std::mt19937_64 rng(seed);
    std::shuffle(keys.begin(), keys.end(), rng);
    return keys;
}

struct WNode : Utils::WTreeNodeBase {
    long key;
};

int compareW(void const* a, void const* b) {
    long x = *static_cast<long const*>(a), y = *static_cast<long const*>(b);
    return y > x ? 1 : (y < x ? -1 : 0);
}

struct AvlNode : bi::avl_set_base_hook<bi::link_mode<bi::normal_link>> {
    long key;
    friend bool operator<(AvlNode const& a, AvlNode const& b) { return a.key < b.key; }
};
struct RbNode : bi::set_base_hook<bi::link_mode<bi::normal_link>> {
    long key;
    friend bool operator<(RbNode const& a, RbNode const& b) { return a.key < b.key; }
};
struct SgNode : bi::bs_set_base_hook<bi::link_mode<bi::normal_link>> {
    long key;
    friend bool operator<(SgNode const& a, SgNode const& b) { return a.key < b.key; }
};

struct KeyLess {
    template <class N>
    bool operator()(long k, N const& n) const { return k < n.key; }
    template <class N>
    bool operator()(N const& n, long k) const { return n.key < k; }
};

enum class Op { Insert, Remove, Removesup };

// --- WTreeBase ------------------------------------------------------------
template <Op op>
void BM_WTree(benchmark::State& state) {
    long n = state.range(0);
    std::vector<long> keys = shuffledKeys(n, 1);
    std::vector<long> probes = shuffledKeys(n, 2);
    for (long& p : probes) p -= 1;
    std::vector<WNode> nodes(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) nodes[static_cast<size_t>(i)].key = keys[static_cast<size_t>(i)];
    for (auto _ : state) {
        Utils::WTreeBase tree;
        if (op != Op::Insert) {
            state.PauseTiming();
            for (auto& node : nodes) tree.insert(&node, compareW);
            state.ResumeTiming();
        }
        if (op == Op::Insert) {
            for (auto& node : nodes) tree.insert(&node, compareW);
        } else if (op == Op::Remove) {
            for (long k : keys) benchmark::DoNotOptimize(Utils::WTreeBase::remove(&k, &tree.root, compareW));
        } else {
            for (long k : probes) benchmark::DoNotOptimize(Utils::WTreeBase::removesup(&k, &tree.root, compareW));
        }
        benchmark::DoNotOptimize(tree.root);
    }
    state.SetItemsProcessed(state.iterations() * n);
}

// --- boost::intrusive -----------------------------------------------------
template <class Tree, class Node, Op op>
void BM_Boost(benchmark::State& state) {
    long n = state.range(0);
    std::vector<long> keys = shuffledKeys(n, 1);
    std::vector<long> probes = shuffledKeys(n, 2);
    for (long& p : probes) p -= 1;
    std::vector<Node> nodes(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i) nodes[static_cast<size_t>(i)].key = keys[static_cast<size_t>(i)];
    for (auto _ : state) {
        Tree tree;
        if (op != Op::Insert) {
            state.PauseTiming();
            for (auto& node : nodes) tree.insert_unique(node);
            state.ResumeTiming();
        }
        if (op == Op::Insert) {
            for (auto& node : nodes) tree.insert_unique(node);
        } else if (op == Op::Remove) {
            for (long k : keys) benchmark::DoNotOptimize(tree.erase(k, KeyLess()));
        } else {
            for (long k : probes) {
                auto it = tree.lower_bound(k, KeyLess());
                if (it != tree.end()) tree.erase(it);
            }
        }
        benchmark::DoNotOptimize(tree.size());
        state.PauseTiming();
        tree.clear();  // normal_link: only resets the header
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

using AvlTree = bi::avltree<AvlNode>;
using RbTree = bi::rbtree<RbNode>;
using SgTree = bi::sgtree<SgNode>;

#define TREE_SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMicrosecond)

BENCHMARK_TEMPLATE(BM_WTree, Op::Insert) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, AvlTree, AvlNode, Op::Insert) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, RbTree, RbNode, Op::Insert) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, SgTree, SgNode, Op::Insert) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_WTree, Op::Remove) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, AvlTree, AvlNode, Op::Remove) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, RbTree, RbNode, Op::Remove) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, SgTree, SgNode, Op::Remove) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_WTree, Op::Removesup) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, AvlTree, AvlNode, Op::Removesup) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, RbTree, RbNode, Op::Removesup) TREE_SIZES;
BENCHMARK_TEMPLATE(BM_Boost, SgTree, SgNode, Op::Removesup) TREE_SIZES;

}  // namespace

BENCHMARK_MAIN();
