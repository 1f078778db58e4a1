// WTreeNodeBase / WTreeBase: the edge cases of each operation and a differential
// run against std::set with the verifier after every mutation.
#include "utils/wtree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <random>
#include <set>
#include <vector>

#include "knobs.h"

using Utils::WTreeBase;
using Utils::WTreeNodeBase;

namespace {

struct IntNode : WTreeNodeBase {
    long key;
};

// compare(a, b) is the sign of b - a: larger items go right.
int compareLong(void const* a, void const* b) {
    long x = *static_cast<long const*>(a), y = *static_cast<long const*>(b);
    return y > x ? 1 : (y < x ? -1 : 0);
}

long keyOf(WTreeNodeBase const* n) { return static_cast<IntNode const*>(n)->key; }

std::vector<long> inOrder(WTreeNodeBase const* n) {
    std::vector<long> out;
    std::vector<WTreeNodeBase const*> stack;
    while (n || !stack.empty()) {
        while (n) {
            stack.push_back(n);
            n = n->left;
        }
        n = stack.back();
        stack.pop_back();
        out.push_back(keyOf(n));
        n = n->right;
    }
    return out;
}

std::vector<long> chainKeys(WTreeNodeBase const* n) {
    std::vector<long> out;
    for (; n; n = n->left) out.push_back(keyOf(n));
    return out;
}

struct Pool {
    std::vector<IntNode> nodes;
    explicit Pool(long n) : nodes(static_cast<size_t>(n)) {
        for (long i = 0; i < n; ++i) nodes[static_cast<size_t>(i)].key = i;
    }
    IntNode* operator[](long k) { return &nodes[static_cast<size_t>(k)]; }
};

#define EXPECT_VALID(tree, balanced) EXPECT_EQ(nullptr, WTreeBase::verify((tree).root, compareLong, balanced))

TEST(WTree, InsertIntoEmptyTreeGivesRootOfWeightTwo) {
    Pool pool(3);
    WTreeBase tree;
    EXPECT_EQ(1, tree.insert(pool[1], compareLong));
    EXPECT_EQ(pool[1], tree.root);
    EXPECT_EQ(2u, tree.root->weight);
    EXPECT_EQ(nullptr, tree.root->left);
    EXPECT_EQ(nullptr, tree.root->right);
}

TEST(WTree, InsertingAnEqualItemReturnsZeroAndKeepsWeights) {
    Pool pool(8);
    WTreeBase tree;
    for (long k = 1; k <= 5; ++k) ASSERT_EQ(1, tree.insert(pool[k], compareLong));
    std::vector<unsigned> before;
    for (long k = 1; k <= 5; ++k) before.push_back(pool[k]->weight);
    IntNode twin;
    twin.key = 3;
    twin.weight = 77;
    twin.left = twin.right = nullptr;
    EXPECT_EQ(0, tree.insert(&twin, compareLong));
    for (long k = 1; k <= 5; ++k) EXPECT_EQ(before[static_cast<size_t>(k - 1)], pool[k]->weight);
    EXPECT_EQ(77u, twin.weight);
    EXPECT_EQ(5u, tree.size());
    EXPECT_VALID(tree, true);
}

TEST(WTree, IncreasingInsertsOneToSevenKeepWeightsExact) {
    Pool pool(8);
    WTreeBase tree;
    for (long k = 1; k <= 7; ++k) ASSERT_EQ(1, tree.insert(pool[k], compareLong));
    for (long k = 1; k <= 7; ++k) EXPECT_EQ(WTreeBase::sizeAux(pool[k]) + 1, pool[k]->weight) << k;
    EXPECT_EQ(8u, tree.root->weight);
    EXPECT_EQ((std::vector<long>{1, 2, 3, 4, 5, 6, 7}), inOrder(tree.root));
    EXPECT_VALID(tree, true);
}

TEST(WTree, RemoveOfAnAbsentKeyReturnsNullAndChangesNothing) {
    Pool pool(8);
    WTreeBase tree;
    for (long k = 1; k <= 7; k += 2) tree.insert(pool[k], compareLong);
    WTreeNodeBase* rootBefore = tree.root;
    long absent = 4;
    EXPECT_EQ(nullptr, WTreeBase::remove(&absent, &tree.root, compareLong));
    EXPECT_EQ(rootBefore, tree.root);
    EXPECT_EQ((std::vector<long>{1, 3, 5, 7}), inOrder(tree.root));
    EXPECT_VALID(tree, true);
}

TEST(WTree, RemovingTheRootOfTwoNodesLeavesTheOtherWithWeightTwo) {
    Pool pool(3);
    WTreeBase tree;
    tree.insert(pool[1], compareLong);
    tree.insert(pool[2], compareLong);
    WTreeNodeBase* root = tree.root;
    WTreeNodeBase* other = root == pool[1] ? pool[2] : pool[1];
    EXPECT_EQ(root, tree.remove(root, compareLong));
    EXPECT_EQ(other, tree.root);
    EXPECT_EQ(2u, tree.root->weight);
    EXPECT_EQ(nullptr, root->left);
    EXPECT_EQ(nullptr, root->right);
}

TEST(WTree, RemoveOfANodeWithTwoChildrenKeepsNodeAddresses) {
    Pool pool(8);
    WTreeBase tree;
    for (long k = 1; k <= 7; ++k) tree.insert(pool[k], compareLong);
    WTreeNodeBase* root = tree.root;
    long rootKey = keyOf(root);
    ASSERT_NE(nullptr, root->left);
    ASSERT_NE(nullptr, root->right);
    EXPECT_EQ(root, WTreeBase::remove(&rootKey, &tree.root, compareLong));
    EXPECT_EQ(rootKey, keyOf(root));  // payloads never move between nodes
    EXPECT_EQ(nullptr, root->left);
    EXPECT_EQ(nullptr, root->right);
    std::vector<long> expected;
    for (long k = 1; k <= 7; ++k)
        if (k != rootKey) expected.push_back(k);
    EXPECT_EQ(expected, inOrder(tree.root));
    EXPECT_VALID(tree, true);
}

TEST(WTree, RemovesupBetweenTwoItemsRemovesTheLaterOne) {
    Pool pool(12);
    WTreeBase tree;
    for (long k = 2; k <= 10; k += 2) tree.insert(pool[k], compareLong);
    long key = 5;
    EXPECT_EQ(pool[6], WTreeBase::removesup(&key, &tree.root, compareLong));
    EXPECT_EQ((std::vector<long>{2, 4, 8, 10}), inOrder(tree.root));
    key = 4;
    EXPECT_EQ(pool[4], WTreeBase::removesup(&key, &tree.root, compareLong));
    key = 11;
    EXPECT_EQ(nullptr, WTreeBase::removesup(&key, &tree.root, compareLong));
    EXPECT_EQ((std::vector<long>{2, 8, 10}), inOrder(tree.root));
    EXPECT_VALID(tree, true);
}

TEST(WTree, NextNodeOfLastIsNullAndOfAnAbsentItemIsTheNearestFollowing) {
    Pool pool(12);
    WTreeBase tree;
    for (long k = 1; k <= 9; k += 2) tree.insert(pool[k], compareLong);
    EXPECT_EQ(nullptr, WTreeBase::nextNode(pool[9], tree.root, compareLong));
    EXPECT_EQ(pool[5], WTreeBase::nextNode(pool[4], tree.root, compareLong));
    EXPECT_EQ(pool[5], WTreeBase::nextNode(pool[3], tree.root, compareLong));
    EXPECT_EQ(pool[1], WTreeBase::nextNode(pool[0], tree.root, compareLong));
    EXPECT_EQ(nullptr, WTreeBase::nextNode(pool[10], tree.root, compareLong));
    EXPECT_EQ(nullptr, WTreeBase::nextNode(pool[1], nullptr, compareLong));
}

TEST(WTree, EmptyAndSingleNodeQueries) {
    WTreeBase tree;
    EXPECT_EQ(nullptr, tree.minNode());
    EXPECT_EQ(0u, WTreeBase::sizeAux(nullptr));
    EXPECT_EQ(0u, tree.depth());
    Pool pool(1);
    tree.insert(pool[0], compareLong);
    EXPECT_EQ(1u, pool[0]->depth());
    EXPECT_EQ(pool[0], tree.minNode());
}

TEST(WTree, PruneOfAPerfectTreeChainsRootRightLeftAndEmptiesTheLink) {
    Pool pool(8);
    WTreeBase tree;
    for (long k : {4, 2, 6, 1, 3, 5, 7}) ASSERT_EQ(1, tree.insert(pool[k], compareLong));
    ASSERT_EQ(pool[4], tree.root);
    ASSERT_EQ(3u, tree.root->depth());
    WTreeNodeBase* chain = WTreeBase::prune(&tree.root);
    EXPECT_EQ(nullptr, tree.root);
    EXPECT_EQ((std::vector<long>{4, 6, 2}), chainKeys(chain));
    for (WTreeNodeBase* n = chain; n; n = n->left) EXPECT_EQ(nullptr, n->right);
    EXPECT_EQ(nullptr, WTreeBase::prune(&tree.root));
}

TEST(WTree, HalfOpenRangeRemovalKeepsTheUpperBound) {
    Pool pool(10);
    WTreeBase tree;
    for (long k = 1; k <= 9; ++k) tree.insert(pool[k], compareLong);
    long from = 3, to = 6, low = 1, high = 9;
    WTreeNodeBase* chain = WTreeBase::remove(&from, &to, &low, &high, &tree.root, compareLong);
    EXPECT_EQ((std::vector<long>{1, 2, 6, 7, 8, 9}), inOrder(tree.root));
    EXPECT_VALID(tree, false);
    std::vector<long> got = chainKeys(chain);
    EXPECT_FALSE(got.empty());
    for (long k : got) EXPECT_TRUE(k >= 3 && k < 6) << k;
}

TEST(WTree, ClosedRangeRemovalAlsoRemovesTheUpperBound) {
    Pool pool(10);
    WTreeBase tree;
    for (long k = 1; k <= 9; ++k) tree.insert(pool[k], compareLong);
    long from = 3, to = 6, low = 1, high = 9;
    WTreeNodeBase* chain = WTreeBase::removeC(&from, &to, &low, &high, &tree.root, compareLong);
    EXPECT_EQ((std::vector<long>{1, 2, 7, 8, 9}), inOrder(tree.root));
    EXPECT_VALID(tree, false);
    for (long k : chainKeys(chain)) EXPECT_TRUE(k >= 3 && k <= 6) << k;
}

TEST(WTree, RangeRemovalOfAWholeInnerSubtreeReturnsAPartialChain) {
    // 1..15 inserted in order; removing everything returns far fewer than 15 nodes,
    // yet every node leaves the tree.
    Pool pool(16);
    WTreeBase tree;
    for (long k = 1; k <= 15; ++k) tree.insert(pool[k], compareLong);
    long from = 1, to = 15, low = 1, high = 15;
    WTreeNodeBase* chain = WTreeBase::removeC(&from, &to, &low, &high, &tree.root, compareLong);
    EXPECT_EQ(nullptr, tree.root);
    std::vector<long> got = chainKeys(chain);
    EXPECT_FALSE(got.empty());
    EXPECT_LT(got.size(), 15u);
}

TEST(WTree, RotationsKeepWeights) {
    Pool pool(4);
    WTreeBase tree;
    for (long k = 1; k <= 3; ++k) tree.insert(pool[k], compareLong);
    ASSERT_EQ(pool[2], tree.root);
    WTreeBase::lrot(&tree.root);
    EXPECT_EQ(pool[3], tree.root);
    EXPECT_EQ(4u, pool[3]->weight);
    EXPECT_EQ(3u, pool[2]->weight);
    EXPECT_VALID(tree, false);
    WTreeBase::rrot(&tree.root);
    EXPECT_EQ(pool[2], tree.root);
    EXPECT_EQ(4u, pool[2]->weight);
    EXPECT_VALID(tree, true);
}

TEST(WTree, CheckrotsRebalancesADegenerateChain) {
    // A hand-built right spine 1 -> 2 -> ... -> 31 with exact weights.
    Pool pool(32);
    for (long k = 31; k >= 1; --k) {
        IntNode* n = pool[k];
        n->left = nullptr;
        n->right = k < 31 ? pool[k + 1] : nullptr;
        n->weight = static_cast<unsigned>(32 - k + 1);
    }
    WTreeBase tree;
    tree.root = pool[1];
    ASSERT_EQ(nullptr, WTreeBase::verify(tree.root, compareLong, false));
    WTreeBase::adjust(&tree.root);  // one rotation only: still unbalanced
    EXPECT_NE(nullptr, WTreeBase::verify(tree.root, compareLong, true));
    WTreeBase::checkrots(&tree.root);
    // checkrots promises the criterion at the link it is given (and exact weights
    // everywhere), not in every subtree below it.
    EXPECT_VALID(tree, false);
    std::uint64_t L = tree.root->left ? tree.root->left->weight : 1;
    std::uint64_t R = tree.root->right ? tree.root->right->weight : 1;
    EXPECT_LE(29 * L, 70 * R);
    EXPECT_GE(239 * L, 99 * R);
    EXPECT_EQ(31u, tree.size());
    EXPECT_EQ(32u, tree.root->weight);
}

// The criterion's products are unsigned 32-bit and wrap. The children below carry
// pretend weights (they have no children of their own); only adjust looks at them.
TEST(WTree, EqualChildrenOfTwentyMillionRotateLeftBecause239LWraps) {
    // 239 * 20,000,000 wraps to 485,032,704, below 99 * 20,000,000 = 1,980,000,000.
    IntNode a, b, c;
    a.key = 1;
    b.key = 2;
    c.key = 3;
    a.left = a.right = c.left = c.right = nullptr;
    a.weight = 20000000u;
    c.weight = 20000000u;
    b.left = &a;
    b.right = &c;
    WTreeNodeBase* root = &b;
    WTreeBase::adjust(&root);
    EXPECT_EQ(&c, root);  // single left rotation: c's inner grandchild (empty) is light
    EXPECT_EQ(&b, c.left);
    EXPECT_EQ(&a, b.left);
    EXPECT_EQ(nullptr, b.right);
    EXPECT_EQ(20000001u, b.weight);
    EXPECT_EQ(20000002u, c.weight);
}

TEST(WTree, EmptyLeftAndRightChildOf43383509StaysBecause99RWraps) {
    // 99 * 43,383,509 wraps to 95, not above 239 * 1; 29 * 1 is not above 70 * R.
    IntNode b, c;
    b.key = 2;
    c.key = 3;
    c.left = c.right = nullptr;
    c.weight = 43383509u;
    b.left = nullptr;
    b.right = &c;
    WTreeNodeBase* root = &b;
    WTreeBase::adjust(&root);
    EXPECT_EQ(&b, root);
    EXPECT_EQ(&c, b.right);
    EXPECT_EQ(nullptr, b.left);
    EXPECT_EQ(43383510u, b.weight);
}

// The differential run: keys 0..kKeys-1, one node per key.
TEST(WTree, RandomOperationsMatchStdSet) {
    const long kKeys = 2000;
    const unsigned long kOps = zotest::scaled(120000);
    Pool pool(kKeys);
    WTreeBase tree;
    std::set<long> model;
    std::mt19937_64 rng(0x5eed1234u);
    long low = -1, high = kKeys;
    unsigned long unbalancedAfterRange = 0;
    size_t maxSize = 0;
    for (unsigned long op = 0; op < kOps; ++op) {
        unsigned r = static_cast<unsigned>(rng() % 100);
        long k = static_cast<long>(rng() % static_cast<unsigned long>(kKeys));
        bool balanced = true;
        if (r < 47) {
            bool fresh = model.insert(k).second;
            if (fresh) {
                ASSERT_EQ(1, tree.insert(pool[k], compareLong));
            } else {
                IntNode twin;
                twin.key = k;
                ASSERT_EQ(0, tree.insert(&twin, compareLong));
            }
        } else if (r < 67) {
            WTreeNodeBase* got = WTreeBase::remove(&k, &tree.root, compareLong);
            if (model.erase(k)) {
                ASSERT_EQ(pool[k], got);
                ASSERT_EQ(nullptr, got->left);
                ASSERT_EQ(nullptr, got->right);
            } else {
                ASSERT_EQ(nullptr, got);
            }
        } else if (r < 78) {
            WTreeNodeBase* got = WTreeBase::removesup(&k, &tree.root, compareLong);
            auto it = model.lower_bound(k);
            if (it == model.end()) {
                ASSERT_EQ(nullptr, got);
            } else {
                ASSERT_EQ(pool[*it], got);
                model.erase(it);
            }
        } else if (r < 97) {
            WTreeNodeBase* got = WTreeBase::nextNode(pool[k], tree.root, compareLong);
            auto it = model.upper_bound(k);
            ASSERT_EQ(it == model.end() ? nullptr : pool[*it], got);
            continue;  // not a mutation
        } else {
            long span = static_cast<long>(rng() % 40);
            long to = std::min(kKeys, k + span);
            bool closed = (rng() & 1) != 0;
            WTreeNodeBase* chain = closed ? WTreeBase::removeC(&k, &to, &low, &high, &tree.root, compareLong)
                                          : WTreeBase::remove(&k, &to, &low, &high, &tree.root, compareLong);
            auto first = model.lower_bound(k);
            auto last = closed ? model.upper_bound(to) : model.lower_bound(to);
            std::set<long> removed(first, last);
            model.erase(first, last);
            std::set<long> chained;
            for (WTreeNodeBase* n = chain; n; n = n->left) {
                ASSERT_EQ(1u, removed.count(keyOf(n))) << "chain holds a node outside the range";
                ASSERT_TRUE(chained.insert(keyOf(n)).second) << "chain repeats a node";
                ASSERT_EQ(nullptr, n->right);
            }
            ASSERT_EQ(removed.empty(), chain == nullptr);
            balanced = false;  // the range removals promise exact weights and order only
            if (WTreeBase::verify(tree.root, compareLong, true)) ++unbalancedAfterRange;
        }
        maxSize = std::max(maxSize, model.size());
        char const* error = WTreeBase::verify(tree.root, compareLong, balanced);
        ASSERT_EQ(nullptr, error) << "after operation " << op << " (kind " << r << ")";
        ASSERT_EQ(model.size(), tree.size());
        if (op % 64 == 0) {
            ASSERT_EQ(std::vector<long>(model.begin(), model.end()), inOrder(tree.root));
        }
    }
    // Walk with nextNode from minNode: the full order.
    std::vector<long> walked;
    for (WTreeNodeBase* n = tree.minNode(); n; n = WTreeBase::nextNode(n, tree.root, compareLong))
        walked.push_back(keyOf(n));
    EXPECT_EQ(std::vector<long>(model.begin(), model.end()), walked);
    EXPECT_GT(maxSize, 500u);  // the run reaches trees of a useful size
    RecordProperty("unbalanced_after_range", static_cast<int>(unbalancedAfterRange));
    RecordProperty("max_size", static_cast<int>(maxSize));
}

}  // namespace
