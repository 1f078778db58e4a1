// The containers at their edges: the weight-balanced tree's and the AVL tree's
// verifiers naming each fault of a damaged tree, an AVL tree record without a node
// count, the rebalancing loop of a cursor that stored nothing, the weight-balanced
// tree's removesup by node, and vectors whose table refuses an array or whose
// request leaves no room to grow.
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "utils/avltree.h"
#include "utils/vector.h"
#include "utils/wtree.h"

using Utils::AVLTreeIterBase;
using Utils::AVLTreeNodeBase;
using Utils::TemplOps;
using Utils::Vector;
using Utils::VectorBase;
using Utils::WTreeBase;
using Utils::WTreeNodeBase;

namespace {

// ---------------------------------------------------------------------------
// The weight-balanced tree
// ---------------------------------------------------------------------------

struct WNode : WTreeNodeBase {
    long key;
};

// Larger items go right.
int compareLong(void const* a, void const* b) {
    long x = *static_cast<long const*>(a), y = *static_cast<long const*>(b);
    return y > x ? 1 : (y < x ? -1 : 0);
}

long keyOf(WTreeNodeBase const* n) { return static_cast<WNode const*>(n)->key; }

struct WPool {
    std::vector<WNode> nodes;
    explicit WPool(long n) : nodes(static_cast<std::size_t>(n)) {
        for (long i = 0; i < n; ++i) nodes[static_cast<std::size_t>(i)].key = i;
    }
    WNode* operator[](long k) { return &nodes[static_cast<std::size_t>(k)]; }
};

// Links n with the given children and a weight computed from them.
WTreeNodeBase* link(WNode* n, WTreeNodeBase* left, WTreeNodeBase* right) {
    n->left = left;
    n->right = right;
    n->weight = (left ? left->weight : 1u) + (right ? right->weight : 1u);
    return n;
}

TEST(WTreeEdges, VerifierNamesEachFaultOfADamagedTree) {
    WPool pool(8);
    WTreeBase tree;
    for (long k = 1; k <= 7; ++k) ASSERT_EQ(1, tree.insert(pool[k], compareLong));
    // 1..7 inserted in order: 4 at the root, 2 and 6 below it, the others leaves.
    ASSERT_EQ(keyOf(tree.root), 4);
    ASSERT_EQ(tree.root->left->left, pool[1]);
    ASSERT_EQ(tree.root->right->right, pool[7]);
    ASSERT_EQ(WTreeBase::verify(tree.root, compareLong, true), nullptr);

    std::string const weight = "a weight differs from its node count + 1";
    std::string const order = "in-order walk is not strictly increasing";
    struct Damage {
        char const* what;
        unsigned int* weightField;
        unsigned int wrongWeight;
        long* keyField;
        long wrongKey;
        std::string fault;
    };
    std::vector<Damage> rows = {
        {"a leaf in the left subtree", &pool[1]->weight, 3, nullptr, 0, weight},
        {"a leaf in the right subtree", &pool[7]->weight, 1, nullptr, 0, weight},
        {"the root", &pool[4]->weight, 7, nullptr, 0, weight},
        {"a left leaf after its parent", nullptr, 0, &pool[1]->key, 100, order},
        {"a right leaf equal to its parent", nullptr, 0, &pool[7]->key, 6, order},
        {"a leaf equal to the item before it", nullptr, 0, &pool[3]->key, 2, order},
    };
    for (Damage const& d : rows) {
        SCOPED_TRACE(d.what);
        unsigned int savedWeight = d.weightField ? *d.weightField : 0;
        long savedKey = d.keyField ? *d.keyField : 0;
        if (d.weightField) *d.weightField = d.wrongWeight;
        if (d.keyField) *d.keyField = d.wrongKey;
        char const* found = WTreeBase::verify(tree.root, compareLong, false);
        if (d.weightField) *d.weightField = savedWeight;
        if (d.keyField) *d.keyField = savedKey;
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found, d.fault);
        EXPECT_EQ(WTreeBase::verify(tree.root, compareLong, true), nullptr);
    }
}

TEST(WTreeEdges, VerifierChecksTheBalanceOnlyWhenAsked) {
    std::string const fault = "a node breaks the balance criterion";
    WPool pool(8);
    // Three nodes in a chain to the left: the top node weighs 3 on the left, 1 on the right.
    WTreeNodeBase* leftChain = link(pool[3], link(pool[2], link(pool[1], nullptr, nullptr), nullptr), nullptr);
    EXPECT_EQ(WTreeBase::verify(leftChain, compareLong, false), nullptr);
    EXPECT_EQ(WTreeBase::verify(leftChain, compareLong, true), fault);
    WTreeBase left;
    left.root = leftChain;
    EXPECT_EQ(left.depth(), 3u);
    EXPECT_EQ(left.size(), 3u);
    // And to the right.
    WTreeNodeBase* rightChain = link(pool[4], nullptr, link(pool[5], nullptr, link(pool[6], nullptr, nullptr)));
    EXPECT_EQ(WTreeBase::verify(rightChain, compareLong, false), nullptr);
    EXPECT_EQ(WTreeBase::verify(rightChain, compareLong, true), fault);
    // Two nodes either way meet the criterion (2 : 1 on either side).
    WTreeNodeBase* pair = link(pool[7], link(pool[6], nullptr, nullptr), nullptr);
    EXPECT_EQ(WTreeBase::verify(pair, compareLong, true), nullptr);
    // A chain below a sound node is found below it.
    WTreeNodeBase* deep = link(pool[0], nullptr, link(pool[3], link(pool[1], nullptr, link(pool[2], nullptr, nullptr)), nullptr));
    EXPECT_EQ(WTreeBase::verify(deep, compareLong, false), nullptr);
    EXPECT_EQ(WTreeBase::verify(deep, compareLong, true), fault);
}

TEST(WTreeEdges, DepthCountsTheDeeperSideWhicheverItIs) {
    WPool pool(8);
    WTreeBase tree;
    tree.root = link(pool[5], link(pool[3], link(pool[2], link(pool[1], nullptr, nullptr), nullptr), nullptr),
                     link(pool[6], nullptr, nullptr));
    EXPECT_EQ(tree.depth(), 4u);
    EXPECT_EQ(pool[3]->depth(), 3u);
    EXPECT_EQ(pool[6]->depth(), 1u);
}

TEST(WTreeEdges, CheckrotsOfAnEmptyLinkLeavesItEmpty) {
    WTreeBase tree;
    WTreeBase::checkrots(&tree.root);
    EXPECT_EQ(tree.root, nullptr);
    WPool pool(2);
    link(pool[1], nullptr, nullptr);
    pool[1]->weight = 9;
    WTreeNodeBase* only = pool[1];
    WTreeBase::checkrots(&only);
    EXPECT_EQ(only, pool[1]);
    EXPECT_EQ(pool[1]->weight, 2u);
}

TEST(WTreeEdges, RemovesupByNodeTakesTheFirstItemThatDoesNotPrecedeIt) {
    WPool pool(24);
    WTreeBase tree;
    for (long k = 0; k <= 18; k += 2) ASSERT_EQ(1, tree.insert(pool[k], compareLong));
    // 5 is not in the tree: 6 is the first item not before it.
    EXPECT_EQ(tree.removesup(pool[5], compareLong), pool[6]);
    EXPECT_EQ(pool[6]->left, nullptr);
    EXPECT_EQ(pool[6]->right, nullptr);
    EXPECT_EQ(WTreeBase::verify(tree.root, compareLong, true), nullptr);
    // 8 is: itself.
    EXPECT_EQ(tree.removesup(pool[8], compareLong), pool[8]);
    EXPECT_EQ(WTreeBase::verify(tree.root, compareLong, true), nullptr);
    // Every item precedes 19: nothing is removed.
    EXPECT_EQ(tree.removesup(pool[19], compareLong), nullptr);
    EXPECT_EQ(tree.size(), 8u);
    // Below every item: the smallest.
    WNode below;
    below.key = -1;
    EXPECT_EQ(tree.removesup(&below, compareLong), pool[0]);
    EXPECT_EQ(tree.size(), 7u);
    EXPECT_EQ(WTreeBase::verify(tree.root, compareLong, true), nullptr);
    EXPECT_EQ(keyOf(tree.minNode()), 2);
}

// ---------------------------------------------------------------------------
// The AVL tree's core
// ---------------------------------------------------------------------------

struct ANode : AVLTreeNodeBase {
    int key = 0;
};

// A tree object with only a root, and the word after it that a node count would be.
struct Bare {
    AVLTreeNodeBase* root = nullptr;
    unsigned long after = 0x5EED;
};

// The tree record: root at 0, no node count (offsets[1] = 0).
constexpr TemplOps kBareTree = {0, nullptr, nullptr, nullptr, nullptr, nullptr, {0, 0, 0, 0}};
constexpr TemplOps kBareNode = {0,
                                nullptr,
                                nullptr,
                                nullptr,
                                nullptr,
                                nullptr,
                                {static_cast<unsigned int>(offsetof(AVLTreeNodeBase, parent)),
                                 static_cast<unsigned int>(offsetof(AVLTreeNodeBase, left)),
                                 static_cast<unsigned int>(offsetof(AVLTreeNodeBase, right)), 0}};

// Stores n where its key belongs and rebalances, as a typed tree's insert does.
void insertNode(Bare& t, ANode* n) {
    AVLTreeIterBase it(&kBareTree, &kBareNode, &t);
    it.top();
    AVLTreeNodeBase* parent = nullptr;
    while (it.current) {
        parent = it.current;
        it.link = n->key < static_cast<ANode*>(it.current)->key ? &it.current->left : &it.current->right;
        it.current = *it.link;
    }
    n->parent = parent;
    *it.link = n;
    it.current = parent;
    it.rebalanceAfterInsert();
}

std::vector<int> keysInOrder(AVLTreeNodeBase const* n) {
    std::vector<int> out;
    if (!n) return out;
    out = keysInOrder(n->left);
    out.push_back(static_cast<ANode const*>(n)->key);
    std::vector<int> right = keysInOrder(n->right);
    out.insert(out.end(), right.begin(), right.end());
    return out;
}

TEST(AVLTreeEdges, ATreeRecordWithoutACountLeavesTheWordAfterTheRootAlone) {
    Bare t;
    std::vector<ANode> nodes(31);
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        nodes[i].key = static_cast<int>(i);
        insertNode(t, &nodes[i]);
    }
    EXPECT_EQ(t.after, 0x5EEDu);
    unsigned long count = 0;
    EXPECT_EQ(AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, &count), nullptr);
    EXPECT_EQ(count, 31u);
    // Sequential keys fill a perfect tree of depth 5: 15 at the root.
    EXPECT_EQ(t.root, &nodes[15]);
    for (int k : {15, 0, 30, 7}) {
        AVLTreeIterBase it(&kBareTree, &kBareNode, &t);
        it.current = &nodes[static_cast<std::size_t>(k)];
        EXPECT_EQ(it.remove(), &nodes[static_cast<std::size_t>(k)]);
    }
    EXPECT_EQ(t.after, 0x5EEDu);
    EXPECT_EQ(AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, &count), nullptr);
    EXPECT_EQ(count, 27u);
    std::vector<int> keys = keysInOrder(t.root);
    EXPECT_EQ(keys.size(), 27u);
    EXPECT_EQ(keys.front(), 1);
    EXPECT_EQ(keys.back(), 29);
}

TEST(AVLTreeEdges, RebalancingWithNoNodeAtTheLinkChangesNothing) {
    using Tree = Utils::AVLTree<unsigned int, unsigned int>;
    using Iter = Utils::AVLTreeIter<unsigned int, unsigned int>;
    Tree empty;
    // A cursor that was never positioned: no link at all.
    Iter fresh(empty);
    ASSERT_EQ(fresh.link, nullptr);
    fresh.rebalanceAfterInsert();
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(empty.root, nullptr);
    // On the empty root member: nothing stored there.
    Iter atRoot(empty);
    atRoot.top();
    ASSERT_EQ(atRoot.link, &empty.root);
    atRoot.rebalanceAfterInsert();
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(empty.verify(), nullptr);
    // A tree with nodes, and a cursor not on any.
    Tree t;
    for (unsigned int k = 1; k <= 5; ++k) t.insert(k, k);
    Iter idle(t);
    idle.rebalanceAfterInsert();
    EXPECT_EQ(t.size(), 5u);
    unsigned long nodes = 0;
    EXPECT_EQ(t.verify(&nodes), nullptr);
    EXPECT_EQ(nodes, 5u);
}

TEST(AVLTreeEdges, ShapeVerifierNamesEachFault) {
    Bare t;
    std::vector<ANode> nodes(8);
    for (std::size_t i = 1; i <= 7; ++i) {
        nodes[i].key = static_cast<int>(i);
        insertNode(t, &nodes[i]);
    }
    ASSERT_EQ(t.root, &nodes[4]);
    ASSERT_EQ(AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, nullptr), nullptr);
    struct Damage {
        char const* what;
        AVLTreeNodeBase** linkField;
        AVLTreeNodeBase* wrongLink;
        int* balanceField;
        int wrongBalance;
        char const* fault;
    };
    std::vector<Damage> rows = {
        {"root with a parent", &nodes[4].parent, &nodes[2], nullptr, 0, "root has a parent"},
        {"left child naming another parent", &nodes[1].parent, &nodes[6], nullptr, 0,
         "parent link disagrees with child link"},
        {"right child naming another parent", &nodes[7].parent, &nodes[2], nullptr, 0,
         "parent link disagrees with child link"},
        {"right leaf leaning +2", nullptr, nullptr, &nodes[7].balance, 2, "balance out of -1..+1"},
        {"left leaf leaning -2", nullptr, nullptr, &nodes[1].balance, -2, "balance out of -1..+1"},
        {"root leaning +1", nullptr, nullptr, &nodes[4].balance, 1, "balance differs from the real height difference"},
    };
    for (Damage const& d : rows) {
        SCOPED_TRACE(d.what);
        AVLTreeNodeBase* savedLink = d.linkField ? *d.linkField : nullptr;
        int savedBalance = d.balanceField ? *d.balanceField : 0;
        if (d.linkField) *d.linkField = d.wrongLink;
        if (d.balanceField) *d.balanceField = d.wrongBalance;
        unsigned long count = 99;
        char const* found = AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, &count);
        char const* foundWithoutCount = AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, nullptr);
        if (d.linkField) *d.linkField = savedLink;
        if (d.balanceField) *d.balanceField = savedBalance;
        ASSERT_NE(found, nullptr);
        EXPECT_STREQ(found, d.fault);
        EXPECT_EQ(foundWithoutCount, found);
        EXPECT_EQ(AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, &count), nullptr);
        EXPECT_EQ(count, 7u);
    }
}

TEST(AVLTreeEdges, ShapeVerifierStopsAtAChainDeeperThanAnyAVLTree) {
    // 130 nodes, each the right child of the one before, every link consistent.
    std::vector<ANode> chain(130);
    Bare t;
    t.root = &chain[0];
    for (std::size_t i = 1; i < chain.size(); ++i) {
        chain[i].key = static_cast<int>(i);
        chain[i - 1].right = &chain[i];
        chain[i].parent = &chain[i - 1];
    }
    EXPECT_STREQ(AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, nullptr),
                 "tree deeper than any AVL tree can be");
    // 129 nodes reach depth 128 only: the balances are what is wrong then.
    chain[128].right = nullptr;
    EXPECT_STREQ(AVLTreeIterBase::verifyShape(&t, kBareTree, kBareNode, nullptr),
                 "balance differs from the real height difference");
}

// ---------------------------------------------------------------------------
// Vectors
// ---------------------------------------------------------------------------

TEST(VectorEdges, TheScalarTableRefusesAnArrayLargerThanAWordCanSize) {
    EXPECT_EQ(Utils::templOpsUInt.allocArray(ULONG_MAX / 2), nullptr);
    EXPECT_EQ(Utils::templOpsLogCat.allocArray(ULONG_MAX / 4), nullptr);
    auto* zeroed = static_cast<unsigned int*>(Utils::templOpsUInt.allocArray(5));
    ASSERT_NE(zeroed, nullptr);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(zeroed[i], 0u);
    Utils::templOpsUInt.freeArray(zeroed);
}

TEST(VectorEdges, AGrowthWithNoHeadroomLeftAsksForExactlyTheRequestAndChangesNothingWhenRefused) {
    Vector<unsigned int> v;
    for (unsigned int k = 1; k <= 3; ++k) v.add(k);
    unsigned long capacity = v.capacity;
    unsigned int* data = v.data;
    for (unsigned long n : {ULONG_MAX, ULONG_MAX - ULONG_MAX / 11, ULONG_MAX / 2}) {
        SCOPED_TRACE(n);
        v.resizeFor(n);
        EXPECT_EQ(v.capacity, capacity);
        EXPECT_EQ(v.data, data);
        EXPECT_EQ(v.size(), 3u);
        v.sizeTo(n);
        EXPECT_EQ(v.size(), 3u);
    }
    EXPECT_EQ(v[2], 3u);
    EXPECT_EQ(v.verify(), nullptr);
}

// An element table whose array of 0 slots is null, as an allocator may answer.
struct Pair {
    int a = 0, b = 0;
};
int pairArrays = 0, pairZeroAsks = 0, pairFrees = 0;
void* pairAlloc(unsigned long n) {
    if (n == 0) {
        ++pairZeroAsks;
        return nullptr;
    }
    ++pairArrays;
    return new Pair[n]();
}
void pairFree(void* p) {
    if (p) ++pairFrees;
    delete[] static_cast<Pair*>(p);
}
void pairAssign(void* d, void const* s) { *static_cast<Pair*>(d) = *static_cast<Pair const*>(s); }
int pairEquals(void const* x, void const* y) {
    Pair const& p = *static_cast<Pair const*>(x);
    Pair const& q = *static_cast<Pair const*>(y);
    return p.a == q.a && p.b == q.b;
}
void pairReset(void* e) { *static_cast<Pair*>(e) = Pair(); }
constexpr TemplOps kPairs = Utils::vectorTable(static_cast<unsigned int>(sizeof(Pair)), &pairAlloc, &pairFree, &pairAssign, &pairEquals, &pairReset);

// A vector object of the shared layout, driven through VectorBase with that table.
struct PairVector : VectorBase {
    unsigned long capacity = 0;
    Pair* data = nullptr;
    ~PairVector() { VectorBase::purge(this, kPairs); }
};

TEST(VectorEdges, ANullArrayOfNoSlotsIsTakenAsItComes) {
    pairArrays = pairZeroAsks = pairFrees = 0;
    {
        PairVector v;
        Pair one{1, 2}, two{3, 4};
        v.add(&one, kPairs, &v);
        v.add(&two, kPairs, &v);
        ASSERT_EQ(v.count, 2u);
        ASSERT_EQ(v.capacity, 4u);
        ASSERT_EQ(pairArrays, 1);
        v.removeAt(0, 2, kPairs, &v);
        ASSERT_EQ(v.count, 0u);
        Pair const reset;
        // Shrinking to exactly no slots: the table answers null, and that is the new array.
        v.sizeToExact(0, kPairs, &v);
        EXPECT_EQ(pairZeroAsks, 1);
        EXPECT_EQ(pairFrees, 1);
        EXPECT_EQ(v.capacity, 0u);
        EXPECT_EQ(v.data, nullptr);
        EXPECT_EQ(v.count, 0u);
        EXPECT_EQ(v.verify(&reset, kPairs, &v), nullptr);
        // It grows again from there.
        EXPECT_EQ(v.add(&two, kPairs, &v), 0u);
        EXPECT_EQ(v.data[0].b, 4);
        EXPECT_EQ(v.verify(&reset, kPairs, &v), nullptr);
    }
    EXPECT_EQ(pairFrees, 2);
}

TEST(VectorEdges, VerifierNamesTableOffsetsAndAnArrayMissingBehindACapacity) {
    Vector<unsigned int> v;
    v.add(7u);
    unsigned int const zero = 0;
    ASSERT_EQ(v.VectorBase::verify(&zero, Utils::templOpsUInt, &v), nullptr);
    for (int k = 0; k < 4; ++k) {
        SCOPED_TRACE(k);
        TemplOps wrong = Utils::templOpsUInt;
        wrong.offsets[k] += 8;
        EXPECT_STREQ(v.VectorBase::verify(&zero, wrong, &v), "table offsets are not those of a vector");
    }
    Vector<unsigned int> empty;
    empty.capacity = 4;
    EXPECT_STREQ(empty.verify(), "capacity without an array");
    empty.capacity = 0;
    EXPECT_EQ(empty.verify(), nullptr);
}

}  // namespace
