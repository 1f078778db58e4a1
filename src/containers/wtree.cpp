// The weight-balanced tree core. Out of line: every node type shares one copy. The
// steps on one search path (rotations, adjust, insert, remove, removesup) live in
// containers/wtree_core.h as templates over the comparison, so that the arena's
// trees inline their comparisons; WTreeBase passes the caller's callback.
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
// Weights and the products of the criterion are unsigned 32-bit and wrap (see
// wtree_core.h); the verifier tests the same 32-bit criterion the tree keeps.
#include "utils/wtree.h"

#include <cstdint>

#include "containers/wtree_core.h"

namespace Utils {

namespace {

using namespace wtcore;

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
    if (s.balanced && (leftHeavy(static_cast<std::uint32_t>(L), static_cast<std::uint32_t>(R)) ||
                       rightHeavy(static_cast<std::uint32_t>(L), static_cast<std::uint32_t>(R)))) {
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

void WTreeBase::lrot(WTreeNodeBase** link) { wtcore::lrot(link); }

void WTreeBase::rrot(WTreeNodeBase** link) { wtcore::rrot(link); }

void WTreeBase::adjust(WTreeNodeBase** link) { wtcore::adjust(link); }

void WTreeBase::checkrots(WTreeNodeBase** link) {
    WTreeNodeBase* n = *link;
    if (!n) return;
    std::uint32_t L = w(n->left), R = w(n->right);
    n->weight = L + R;
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
    return wtcore::insert(node, link, CallbackCompare{compare});
}

WTreeNodeBase* WTreeBase::remove(void const* key, WTreeNodeBase** link, WTreeCompare compare) {
    return removeAt<false>(key, link, CallbackCompare{compare});
}

WTreeNodeBase* WTreeBase::remove(WTreeNodeBase* node, WTreeCompare compare) {
    return removeAt<false>(node->payload(), &root, CallbackCompare{compare});
}

WTreeNodeBase* WTreeBase::removesup(void const* key, WTreeNodeBase** link, WTreeCompare compare) {
    return removeAt<true>(key, link, CallbackCompare{compare});
}

WTreeNodeBase* WTreeBase::removesup(WTreeNodeBase* node, WTreeCompare compare) {
    return removeAt<true>(node->payload(), &root, CallbackCompare{compare});
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
