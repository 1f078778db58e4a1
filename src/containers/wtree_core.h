// The weight-balanced tree's algorithms as inline templates over the comparison,
// shared by WTreeBase (which passes the caller's callback) and by the arena, whose
// comparisons inline. One definition of each step; WTreeBase documents them.
#pragma once

#include <cstdint>

#include "utils/wtree.h"

namespace Utils {
namespace wtcore {

// Wraps a WTreeCompare callback as a comparison object.
struct CallbackCompare {
    WTreeCompare f;
    int operator()(void const* a, void const* b) const { return f(a, b); }
};

inline std::uint32_t w(WTreeNodeBase const* n) { return n ? n->weight : 1u; }

// The criterion. Every product is unsigned 32-bit and wraps: the products decide
// which rotations happen, so they are kept exactly as the 32-bit tree computes them,
// and a tree whose weights pass 2^32 / 239 (about 18 million) is shaped differently
// from one computed in wider arithmetic. Kept on purpose; see wtree.h.
inline bool leftHeavy(std::uint32_t L, std::uint32_t R) { return 29u * L > 70u * R; }
inline bool rightHeavy(std::uint32_t L, std::uint32_t R) { return 239u * L < 99u * R; }
// With L the weight of the heavy left child: its outer (left) grandchild is light.
inline bool outerLight(std::uint32_t LL, std::uint32_t L) { return 169u * LL < 70u * L; }
// With R the weight of the heavy right child: its inner (left) grandchild is heavy.
inline bool innerHeavy(std::uint32_t RL, std::uint32_t R) { return 169u * RL > 99u * R; }

inline WTreeNodeBase* leftmost(WTreeNodeBase* n) {
    if (!n) return nullptr;
    while (n->left) n = n->left;
    return n;
}

inline void lrot(WTreeNodeBase** link) {
    /*    n                r
     *   / \              / \
     *  a   r     ==>    n   c
     *     / \          / \
     *    b   c        a   b
     */
    WTreeNodeBase* n = *link;
    WTreeNodeBase* r = n->right;
    *link = r;
    n->right = r->left;
    r->left = n;
    n->weight = w(n->left) + w(n->right);
    r->weight = n->weight + w(r->right);
}

inline void rrot(WTreeNodeBase** link) {
    /*      n            r
     *     / \          / \
     *    r   c  ==>   a   n
     *   / \              / \
     *  a   b            b   c
     */
    WTreeNodeBase* n = *link;
    WTreeNodeBase* r = n->left;
    *link = r;
    n->left = r->right;
    r->right = n;
    n->weight = w(n->left) + w(n->right);
    r->weight = n->weight + w(r->left);
}

inline void adjust(WTreeNodeBase** link) {
    WTreeNodeBase* n = *link;
    std::uint32_t L = w(n->left), R = w(n->right);
    n->weight = L + R;
    if (leftHeavy(L, R)) {
        if (outerLight(w(n->left->left), L)) lrot(&n->left);
        rrot(link);
    } else if (rightHeavy(L, R)) {
        if (innerHeavy(w(n->right->left), R)) rrot(&n->right);
        lrot(link);
    }
}

template <class Cmp>
int insert(WTreeNodeBase* node, WTreeNodeBase** link, Cmp const& compare) {
    WTreeNodeBase* n = *link;
    if (!n) {
        node->left = nullptr;
        node->right = nullptr;
        node->weight = 2;
        *link = node;
        return 1;
    }
    int k = compare(n->payload(), node->payload());
    if (k == 0) return 0;
    int inserted = insert(node, k < 0 ? &n->left : &n->right, compare);
    adjust(link);  // also when nothing was inserted: the path is re-adjusted as is
    return inserted;
}

/* Unlinks n, the node at *link that the removal matched. A node with at most one
 * child is replaced by that child. Otherwise n trades places with p, the rightmost
 * node of its left subtree:
 *
 *        n                  p
 *      /   \              /   \
 *     l     R    ==>     l     R        (p == l: p.left = n)
 *      \                  \
 *       p                  n
 *      /                  /
 *     pl                 pl
 *
 * and the weights of n and p are exchanged. The removal then goes on in &p.left,
 * where n is the rightmost node and has no right child. */
template <bool Sup, class Cmp>
WTreeNodeBase* removeAt(void const* key, WTreeNodeBase** link, Cmp const& compare);

template <bool Sup, class Cmp>
WTreeNodeBase* unlinkMatched(void const* key, WTreeNodeBase** link, Cmp const& compare) {
    WTreeNodeBase* n = *link;
    if (!n->left) {
        *link = n->right;
        n->right = nullptr;
        return n;
    }
    if (!n->right) {
        *link = n->left;
        n->left = nullptr;
        return n;
    }
    WTreeNodeBase* parentOfP = nullptr;
    WTreeNodeBase* p = n->left;
    while (p->right) {
        parentOfP = p;
        p = p->right;
    }
    WTreeNodeBase* pOldLeft = p->left;
    *link = p;
    if (parentOfP) {
        p->left = n->left;
        parentOfP->right = n;
    } else {
        p->left = n;
    }
    p->right = n->right;
    n->left = pOldLeft;
    n->right = nullptr;
    unsigned int t = p->weight;
    p->weight = n->weight;
    n->weight = t;
    return removeAt<Sup>(key, &p->left, compare);
}

// remove (Sup false) and removesup (Sup true), recursive along one path.
template <bool Sup, class Cmp>
WTreeNodeBase* removeAt(void const* key, WTreeNodeBase** link, Cmp const& compare) {
    WTreeNodeBase* n = *link;
    if (!n) return nullptr;
    WTreeNodeBase* result;
    int k = compare(n->payload(), key);
    if (k < 0) {
        result = removeAt<Sup>(key, &n->left, compare);
        // removesup: every node on the left precedes key, so n is the first that does not.
        if (Sup && !result) result = unlinkMatched<Sup>(key, link, compare);
    } else if (k > 0) {
        result = removeAt<Sup>(key, &n->right, compare);
    } else {
        result = unlinkMatched<Sup>(key, link, compare);
    }
    if (*link) adjust(link);
    return result;
}

}  // namespace wtcore
}  // namespace Utils
