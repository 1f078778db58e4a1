// Containers: an intrusive weight-balanced binary search tree.
//
// The caller owns the nodes. It derives its node type from WTreeNodeBase, puts its
// key data (the payload) immediately after the base, allocates and frees the nodes
// itself, and passes the ordering as a callback on every call. WTreeBase holds only
// the root. Nothing here allocates, locks or reports errors.
//
// Weights: an empty link weighs 1 and a node weighs the sum of its two links, so a
// node's weight is the number of nodes in its subtree plus 1 (a leaf weighs 2).
// The tree keeps 29*L <= 70*R and 239*L >= 99*R at the nodes it adjusts (L and R
// being the weights of a node's two links), i.e. neither side is more than about
// 1 + sqrt(2) times the other.
//
// Weights and every product of the criterion are unsigned 32-bit, and the products
// wrap: they decide which rotations happen, so they are computed exactly that way.
// Deliberate consequence: once a weight passes about 18 million (239 * L wraps from
// L = 17,970,575; 99 * R from R = 43,383,509), the tree may rotate where wider
// arithmetic would not and keep shapes wider arithmetic would rotate, so the bounds
// above no longer describe its shape there. For instance, a node whose two children
// weigh 20,000,000 each is rotated left (239 * L wraps to 485,032,704, below
// 99 * R), and a node with an empty left link and a right child of weight 43,383,509
// is left as it is (99 * R wraps to 95, not above 239 * 1).
//
// Comparison protocol: compare(payload of a tree node, sought payload or key).
// 0 is a match; negative means the sought item lies in the node's left subtree,
// positive in its right subtree. The in-order walk is therefore the order the
// callback defines. The payload starts at (char*)node + sizeof(WTreeNodeBase), so a
// payload type must not need more than 8-byte alignment.
#pragma once

#include "utils/export.h"

namespace Utils {

typedef int (*WTreeCompare)(void const* nodePayload, void const* sought);

// The links of a node. The payload follows these members in the derived type.
class ZO_API WTreeNodeBase {
public:
    unsigned int weight;   // nodes in this subtree + 1
    WTreeNodeBase* left;   // items before this node
    WTreeNodeBase* right;  // items after this node

    // 1 + the greater depth of the two children (a missing child counts 0).
    // Recurses over the whole subtree.
    unsigned int depth() const;

    // The caller's data that follows the links.
    void* payload() { return reinterpret_cast<char*>(this) + sizeof(WTreeNodeBase); }
    void const* payload() const { return reinterpret_cast<char const*>(this) + sizeof(WTreeNodeBase); }
};

// The tree: one root link. The static operations work on any subtree link.
class ZO_API WTreeBase {
public:
    WTreeNodeBase* root;

    constexpr WTreeBase() : root(nullptr) {}

    // Links `node` into the subtree at `link`: 1 when inserted, 0 when an equal
    // item is already there (the tree is unchanged and `node` is not linked).
    // Recurses along the search path and adjusts every link on the way back.
    static int insert(WTreeNodeBase* node, WTreeNodeBase** link, WTreeCompare compare);
    int insert(WTreeNodeBase* node, WTreeCompare compare) { return insert(node, &root, compare); }

    // Unlinks and returns the node matching `key` (its children cleared), or null.
    // A node with two children trades places with its in-order predecessor before
    // it is unlinked: nodes move, payloads never do.
    static WTreeNodeBase* remove(void const* key, WTreeNodeBase** link, WTreeCompare compare);
    // The above with node's payload as the key, from the root.
    WTreeNodeBase* remove(WTreeNodeBase* node, WTreeCompare compare);

    // Unlinks and returns the first node in tree order that does not precede `key`:
    // the match when there is one, otherwise the nearest following node; null when
    // every node precedes `key`.
    static WTreeNodeBase* removesup(void const* key, WTreeNodeBase** link, WTreeCompare compare);
    WTreeNodeBase* removesup(WTreeNodeBase* node, WTreeCompare compare);

    // The node that follows node's payload in tree order within `subtree`, or null.
    // `node` itself need not be in the tree.
    static WTreeNodeBase* nextNode(WTreeNodeBase* node, WTreeNodeBase* subtree, WTreeCompare compare);

    // The leftmost node, or null when empty.
    WTreeNodeBase* minNode() const;

    // Empties the subtree at `link` and returns its root chained through `left` to
    // the roots of its right and then its left subtree (at most three nodes).
    // Deliberately partial: deeper nodes are detached but not returned, so a caller
    // that needs every node walks the tree before pruning.
    static WTreeNodeBase* prune(WTreeNodeBase** link);

    // Nodes in the subtree (0 for null); recursive over the whole subtree.
    static unsigned int sizeAux(WTreeNodeBase const* node);
    unsigned int size() const { return sizeAux(root); }
    // Depth of the tree, 0 when empty.
    unsigned int depth() const { return root ? root->depth() : 0; }

    // Recomputes the weight of the node at `link` from its children and performs at
    // most one single or double rotation there.
    static void adjust(WTreeNodeBase** link);
    // Like adjust, but rotates until the node at `link` meets the criterion,
    // re-checking the subtrees the rotations touched.
    static void checkrots(WTreeNodeBase** link);
    // Single rotations at `link`, keeping the weights exact.
    static void lrot(WTreeNodeBase** link);
    static void rrot(WTreeNodeBase** link);

    // Removes every node whose payload lies in the half-open range [from, to).
    // `low` and `high` must bound every payload of the subtree at `link`. Returns a
    // chain through `left` of the nodes the recursion links last, or null.
    // Deliberately partial: every node in the range leaves the tree, but only some
    // of them are in the returned chain (see the notes in the source).
    static WTreeNodeBase* remove(void const* from, void const* to, void const* low, void const* high,
                                 WTreeNodeBase** link, WTreeCompare compare);
    // The same for the closed range [from, to].
    static WTreeNodeBase* removeC(void const* from, void const* to, void const* low, void const* high,
                                  WTreeNodeBase** link, WTreeCompare compare);

    // Checks the subtree at `node`: every weight equals its node count + 1 and the
    // in-order walk is strictly increasing under `compare`; with `balanced`, also
    // that every node meets the balance criterion. Returns null when it holds,
    // otherwise a static description of the first violation. Recursive.
    static char const* verify(WTreeNodeBase const* node, WTreeCompare compare, bool balanced);
};

}  // namespace Utils
