// The weight-balanced tree core. Out of line: every node type shares one copy, and
// the arena allocator runs on it before any template is instantiated.
//
// Invariants (WTreeBase::verify checks them):
//  - weight(null) = 1, weight(n) = weight(n.left) + weight(n.right) = nodes + 1;
//  - in-order is strictly increasing under the caller's compare;
//  - after insert and by-key removals, the nodes on the search path were adjusted:
//      not left-heavy:  29*L <= 70*R        not right-heavy: 239*L >= 99*R
//    The two sides use different fractions, and the double-rotation test looks at the
//    outer grandchild on the left but the inner grandchild on the right. Kept: they
//    decide which rotations happen, and callers observe tree shapes through prune
//    and the range removals.
// Products are taken in 64 bits so that no weight can overflow them.
#include "utils/wtree.h"

#include <cstdint>

namespace Utils {

namespace {

inline std::uint64_t w(WTreeNodeBase const* n) { return n ? n->weight : 1u; }

inline bool leftHeavy(std::uint64_t L, std::uint64_t R) { return 29 * L > 70 * R; }
inline bool rightHeavy(std::uint64_t L, std::uint64_t R) { return 239 * L < 99 * R; }
// With L the weight of the heavy left child: its outer (left) grandchild is light.
inline bool outerLight(std::uint64_t LL, std::uint64_t L) { return 169 * LL < 70 * L; }
// With R the weight of the heavy right child: its inner (left) grandchild is heavy.
inline bool innerHeavy(std::uint64_t RL, std::uint64_t R) { return 169 * RL > 99 * R; }

WTreeNodeBase* leftmost(WTreeNodeBase* n) {
    if (!n) return nullptr;
    while (n->left) n = n->left;
    return n;
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
 * and the weights of n and p are exchanged. The recursion then removes n from
 * &p.left, where it is the rightmost node with no right child. */
template <class Recurse>
WTreeNodeBase* unlinkMatched(void const* key, WTreeNodeBase** link, WTreeCompare compare, Recurse recurse) {
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
    return recurse(key, &p->left, compare);
}

WTreeNodeBase* removeRec(void const* key, WTreeNodeBase** link, WTreeCompare compare) {
    WTreeNodeBase* n = *link;
    if (!n) return nullptr;
    WTreeNodeBase* result;
    int k = compare(n->payload(), key);
    if (k < 0)
        result = removeRec(key, &n->left, compare);
    else if (k > 0)
        result = removeRec(key, &n->right, compare);
    else
        result = unlinkMatched(key, link, compare, removeRec);
    if (*link) WTreeBase::adjust(link);
    return result;
}

WTreeNodeBase* removesupRec(void const* key, WTreeNodeBase** link, WTreeCompare compare) {
    WTreeNodeBase* n = *link;
    if (!n) return nullptr;
    WTreeNodeBase* result;
    int k = compare(n->payload(), key);
    if (k < 0) {
        result = removesupRec(key, &n->left, compare);
        // Every node on the left precedes key: n is the first that does not.
        if (!result) result = unlinkMatched(key, link, compare, removesupRec);
    } else if (k > 0) {
        result = removesupRec(key, &n->right, compare);
    } else {
        result = unlinkMatched(key, link, compare, removesupRec);
    }
    if (*link) WTreeBase::adjust(link);
    return result;
}

// The range removal shared by remove (half-open) and removeC (closed).
WTreeNodeBase* removeRange(void const* from, void const* to, void const* low, void const* high,
                           WTreeNodeBase** link, WTreeCompare compare, bool closed) {
    WTreeNodeBase* n = *link;
    if (!n) return nullptr;
    WTreeNodeBase* result = nullptr;
    WTreeNodeBase* x;
    void const* P = n->payload();
    bool beforeFrom = compare(from, P) < 0;
    bool insideTo = closed ? compare(P, to) >= 0 : compare(P, to) > 0;
    if (beforeFrom) {
        x = removeRange(from, to, P, high, &n->right, compare, closed);
    } else if (insideTo) {
        bool reachesOut = compare(from, low) < 0 || (closed ? compare(high, to) < 0 : compare(high, to) <= 0);
        if (reachesOut) {
            // Each step below overwrites the links of the node it chains, so only
            // the nodes linked last come back; the rest leave the tree unreturned.
            WTreeNodeBase* r1 = removeRange(from, to, low, P, &n->left, compare, closed);
            if (r1) {
                r1->left = nullptr;
                r1->right = nullptr;
                result = r1;
            }
            WTreeNodeBase* r2 = removeRange(from, to, P, high, &n->right, compare, closed);
            if (r2) {
                r2->left = result;
                r2->right = nullptr;
                result = r2;
            }
            WTreeBase::checkrots(link);
            x = WTreeBase::remove(P, link, compare);
        } else {
            x = WTreeBase::prune(link);
        }
    } else {
        x = removeRange(from, to, low, P, &n->left, compare, closed);
    }
    if (x) {
        x->left = result;
        x->right = nullptr;
        result = x;
    }
    if (*link) WTreeBase::checkrots(link);
    return result;
}

struct VerifyState {
    WTreeCompare compare;
    bool balanced;
    WTreeNodeBase const* previous;
    char const* error;
};

// Returns the subtree's weight (node count + 1), or 0 after recording an error.
std::uint64_t verifyRec(WTreeNodeBase const* n, VerifyState& s) {
    if (!n) return 1;
    std::uint64_t L = verifyRec(n->left, s);
    if (!L) return 0;
    if (s.previous && s.compare(s.previous->payload(), n->payload()) <= 0) {
        s.error = "in-order walk is not strictly increasing";
        return 0;
    }
    s.previous = n;
    std::uint64_t R = verifyRec(n->right, s);
    if (!R) return 0;
    if (n->weight != L + R) {
        s.error = "a weight differs from its node count + 1";
        return 0;
    }
    if (s.balanced && (leftHeavy(L, R) || rightHeavy(L, R))) {
        s.error = "a node breaks the balance criterion";
        return 0;
    }
    return L + R;
}

}  // namespace

unsigned int WTreeNodeBase::depth() const {
    unsigned int l = left ? left->depth() : 0;
    unsigned int r = right ? right->depth() : 0;
    return 1 + (l > r ? l : r);
}

void WTreeBase::lrot(WTreeNodeBase** link) {
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
    n->weight = static_cast<unsigned int>(w(n->left) + w(n->right));
    r->weight = static_cast<unsigned int>(n->weight + w(r->right));
}

void WTreeBase::rrot(WTreeNodeBase** link) {
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
    n->weight = static_cast<unsigned int>(w(n->left) + w(n->right));
    r->weight = static_cast<unsigned int>(n->weight + w(r->left));
}

void WTreeBase::adjust(WTreeNodeBase** link) {
    WTreeNodeBase* n = *link;
    std::uint64_t L = w(n->left), R = w(n->right);
    n->weight = static_cast<unsigned int>(L + R);
    if (leftHeavy(L, R)) {
        if (outerLight(w(n->left->left), L)) lrot(&n->left);
        rrot(link);
    } else if (rightHeavy(L, R)) {
        if (innerHeavy(w(n->right->left), R)) rrot(&n->right);
        lrot(link);
    }
}

void WTreeBase::checkrots(WTreeNodeBase** link) {
    WTreeNodeBase* n = *link;
    if (!n) return;
    std::uint64_t L = w(n->left), R = w(n->right);
    n->weight = static_cast<unsigned int>(L + R);
    while (leftHeavy(L, R)) {
        if (outerLight(w(n->left->left), L)) {
            lrot(&n->left);
            rrot(link);
            checkrots(&(*link)->left);
        } else {
            rrot(link);
        }
        checkrots(&(*link)->right);
        n = *link;
        L = w(n->left);
        R = w(n->right);
    }
    while (rightHeavy(L, R)) {
        if (innerHeavy(w(n->right->left), R)) {
            rrot(&n->right);
            lrot(link);
            checkrots(&(*link)->right);
        } else {
            lrot(link);
        }
        checkrots(&(*link)->left);
        n = *link;
        L = w(n->left);
        R = w(n->right);
    }
}

int WTreeBase::insert(WTreeNodeBase* node, WTreeNodeBase** link, WTreeCompare compare) {
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

WTreeNodeBase* WTreeBase::remove(void const* key, WTreeNodeBase** link, WTreeCompare compare) {
    return removeRec(key, link, compare);
}

WTreeNodeBase* WTreeBase::remove(WTreeNodeBase* node, WTreeCompare compare) {
    return removeRec(node->payload(), &root, compare);
}

WTreeNodeBase* WTreeBase::removesup(void const* key, WTreeNodeBase** link, WTreeCompare compare) {
    return removesupRec(key, link, compare);
}

WTreeNodeBase* WTreeBase::removesup(WTreeNodeBase* node, WTreeCompare compare) {
    return removesupRec(node->payload(), &root, compare);
}

WTreeNodeBase* WTreeBase::nextNode(WTreeNodeBase* node, WTreeNodeBase* subtree, WTreeCompare compare) {
    // The recursion "next in n.left, else n when n lies after node", unrolled: the
    // candidate is the last node we went left at.
    WTreeNodeBase* candidate = nullptr;
    WTreeNodeBase* n = subtree;
    while (n) {
        int k = compare(n->payload(), node->payload());
        if (k == 0) return n->right ? leftmost(n->right) : candidate;
        if (k > 0) {
            n = n->right;
        } else {
            candidate = n;
            n = n->left;
        }
    }
    return candidate;
}

WTreeNodeBase* WTreeBase::minNode() const { return leftmost(root); }

WTreeNodeBase* WTreeBase::prune(WTreeNodeBase** link) {
    WTreeNodeBase* n = *link;
    if (!n) return nullptr;
    WTreeNodeBase* a = prune(&n->left);
    if (a) {
        a->left = nullptr;
        a->right = nullptr;
    }
    WTreeNodeBase* b = prune(&n->right);
    if (b) {
        b->left = a;
        b->right = nullptr;
    }
    n->left = b ? b : a;
    n->right = nullptr;
    *link = nullptr;
    return n;
}

unsigned int WTreeBase::sizeAux(WTreeNodeBase const* node) {
    return node ? 1 + sizeAux(node->left) + sizeAux(node->right) : 0;
}

WTreeNodeBase* WTreeBase::remove(void const* from, void const* to, void const* low, void const* high,
                                 WTreeNodeBase** link, WTreeCompare compare) {
    return removeRange(from, to, low, high, link, compare, false);
}

WTreeNodeBase* WTreeBase::removeC(void const* from, void const* to, void const* low, void const* high,
                                  WTreeNodeBase** link, WTreeCompare compare) {
    return removeRange(from, to, low, high, link, compare, true);
}

char const* WTreeBase::verify(WTreeNodeBase const* node, WTreeCompare compare, bool balanced) {
    VerifyState s{compare, balanced, nullptr, nullptr};
    verifyRec(node, s);
    return s.error;
}

}  // namespace Utils
