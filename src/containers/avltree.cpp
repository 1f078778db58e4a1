// AVLTreeIterBase: the balancing logic of every AVL tree, compiled once.
//
// Defined out of line so that every tree type shares this single copy; it knows a
// node only as an AVLTreeNodeBase whose parent, left and right links sit at the
// offsets of the node record, and the tree only through the root offset of the tree
// record. Keys never reach this file.
//
// Invariants between operations (checked by verifyShape):
//   - balance(n) = height(n.right) - height(n.left), in -1..+1;
//   - child.parent == n for each child of n; root.parent == null.
// Search, insertion and both rebalancing loops use no recursion and no path stack:
// they climb by parent links, carrying (current, link) = (a node, the link that
// points at the subtree being repaired, which is one of current's child members or
// the root member when current is null).
#include "utils/avltree.h"

namespace Utils {

namespace {

// The three links of a node, reached through the node record's offsets.
struct Links {
    explicit Links(TemplOps const* ops) : p(ops->offsets[0]), l(ops->offsets[1]), r(ops->offsets[2]) {}
    static AVLTreeNodeBase*& at(AVLTreeNodeBase* n, unsigned int offset) {
        return *reinterpret_cast<AVLTreeNodeBase**>(reinterpret_cast<char*>(n) + offset);
    }
    AVLTreeNodeBase*& parent(AVLTreeNodeBase* n) const { return at(n, p); }
    AVLTreeNodeBase*& left(AVLTreeNodeBase* n) const { return at(n, l); }
    AVLTreeNodeBase*& right(AVLTreeNodeBase* n) const { return at(n, r); }
    unsigned int p, l, r;
};

inline AVLTreeNodeBase*& rootOf(TemplOps const* treeOps, void* tree) {
    return *reinterpret_cast<AVLTreeNodeBase**>(static_cast<char*>(tree) + treeOps->offsets[0]);
}

}  // namespace

// The algorithms, on the cursor c. The exported members below only forward here:
// calls between exported functions of a shared library go through the PLT and
// cannot be inlined, calls between these internal ones can.
namespace core {
namespace {

int here(AVLTreeIterBase& c, AVLTreeNodeBase*** sibling);
void rightBalance(AVLTreeIterBase& c);
void leftBalance(AVLTreeIterBase& c);
void rotateLeft(AVLTreeIterBase& c);
void rotateRight(AVLTreeIterBase& c);

void top(AVLTreeIterBase& c) {
    c.link = &rootOf(c.treeOps, c.tree);
    c.current = *c.link;
}

int here(AVLTreeIterBase& c, AVLTreeNodeBase*** sibling) {
    if (!c.current) return 0;
    Links k(c.nodeOps);
    AVLTreeNodeBase* p = k.parent(c.current);
    if (!p) {
        c.link = &rootOf(c.treeOps, c.tree);
        return 0;
    }
    if (k.left(p) == c.current) {
        c.link = &k.left(p);
        if (sibling) *sibling = &k.right(p);
        return -1;
    }
    c.link = &k.right(p);
    if (sibling) *sibling = &k.left(p);
    return +1;
}

void bump(AVLTreeIterBase& c, bool forward) {
    if (!c.current) return;
    Links k(c.nodeOps);
    unsigned int farSide = forward ? k.r : k.l;
    unsigned int nearSide = forward ? k.l : k.r;
    if (AVLTreeNodeBase* next = Links::at(c.current, farSide)) {
        while (AVLTreeNodeBase* deeper = Links::at(next, nearSide)) next = deeper;
        c.current = next;
        return;
    }
    AVLTreeNodeBase* previous;
    do {
        previous = c.current;
        c.current = k.parent(c.current);
    } while (c.current && Links::at(c.current, nearSide) != previous);
}

void toFirst(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    c.link = &rootOf(c.treeOps, c.tree);
    c.current = *c.link;
    if (!c.current) return;
    while (k.left(c.current)) {
        c.link = &k.left(c.current);
        c.current = *c.link;
    }
}

void toLast(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    c.link = &rootOf(c.treeOps, c.tree);
    c.current = *c.link;
    if (!c.current) return;
    while (k.right(c.current)) {
        c.link = &k.right(c.current);
        c.current = *c.link;
    }
}

bool adjustBalance(AVLTreeIterBase& c) {
    if (!c.current) return false;
    Links k(c.nodeOps);
    int old = c.current->balance;
    if (c.link == &k.left(c.current)) {
        c.current->balance = old - 1;
        if (c.current->balance < -1) leftBalance(c);
    } else {
        c.current->balance = old + 1;
        if (c.current->balance > 1) rightBalance(c);
    }
    return old == 0;
}

/* current (a) has balance +2, link = &a.right, r = *link.

  double (r.balance <= 0):          single (r.balance = +1):
      a                 g               a                r
     / \              /   \            / \             /   \
    .   r     =>     a     r          .   r     =>    a     .
       / \          / \   / \            / \         / \
      g   .        .  gl gr  .          .   .       .   .
     / \
   gl   gr
*/
void rightBalance(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    AVLTreeNodeBase* r = *c.link;
    if (r->balance < 1) {
        AVLTreeNodeBase* g = k.left(r);
        int b = g->balance;
        c.current->balance = b == 1 ? -1 : 0;
        r->balance = b == -1 ? 1 : 0;
        g->balance = 0;
        rotateRight(c);  // g becomes the root of a's right subtree
    } else {
        c.current->balance = 0;
        r->balance = 0;
    }
    if (c.current) {
        here(c, nullptr);
        c.current = k.parent(c.current);
    }
    rotateLeft(c);
}

// Mirror of rightBalance: a has balance -2, link = &a.left, l = *link; a balance of l
// below 0 selects the single rotation, anything else (0 included) the double one.
void leftBalance(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    AVLTreeNodeBase* l = *c.link;
    if (l->balance < 0) {
        c.current->balance = 0;
        l->balance = 0;
    } else {
        AVLTreeNodeBase* g = k.right(l);
        int b = g->balance;
        c.current->balance = b == -1 ? 1 : 0;
        l->balance = b == 1 ? -1 : 0;
        g->balance = 0;
        rotateLeft(c);
    }
    if (c.current) {
        here(c, nullptr);
        c.current = k.parent(c.current);
    }
    rotateRight(c);
}

/*
     x                y
    / \              / \
   .   y     =>     x   .
      / \          / \
     m   .        .   m
 */
void rotateLeft(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    AVLTreeNodeBase* x = *c.link;
    AVLTreeNodeBase* y = k.right(x);
    AVLTreeNodeBase* m = k.left(y);
    k.right(x) = m;
    if (m) k.parent(m) = x;
    k.left(y) = x;
    k.parent(x) = y;
    *c.link = y;
    k.parent(y) = c.current;
}

void rotateRight(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    AVLTreeNodeBase* x = *c.link;
    AVLTreeNodeBase* y = k.left(x);
    AVLTreeNodeBase* m = k.right(y);
    k.left(x) = m;
    if (m) k.parent(m) = x;
    k.right(y) = x;
    k.parent(x) = y;
    *c.link = y;
    k.parent(y) = c.current;
}

// Loop invariant: the subtree at link, a child of current, grew one level taller.
// The tree's node count, when its record places one (root holds offset 0, so 0 means
// none): raised for the node just stored at link, lowered by remove. Counting here
// rather than where the node is made keeps the count right for callers that store
// their own node at link (as the result tables do) before they rebalance.
inline void countNodes(AVLTreeIterBase& c, long delta) {
    if (unsigned int countAt = c.treeOps->offsets[1])
        *reinterpret_cast<unsigned long*>(static_cast<char*>(c.tree) + countAt) += static_cast<unsigned long>(delta);
}

void rebalanceAfterInsert(AVLTreeIterBase& c) {
    Links k(c.nodeOps);
    if (c.link && *c.link) countNodes(c, +1);
    while (adjustBalance(c) && c.current) {
        here(c, nullptr);
        c.current = k.parent(c.current);
    }
}

AVLTreeNodeBase* remove(AVLTreeIterBase& c) {
    if (!c.current) return nullptr;
    Links k(c.nodeOps);
    AVLTreeNodeBase* a = c.current;
    countNodes(c, -1);

    if (k.left(a) && k.right(a)) {
        // Exchange places with the in-order predecessor p (the rightmost node of the
        // left subtree, which has no right child). Afterwards a has at most a left
        // child and removal proceeds as for such a node.
        AVLTreeNodeBase* p = k.left(a);
        while (k.right(p)) p = k.right(p);

        AVLTreeNodeBase* aParent = k.parent(a);
        AVLTreeNodeBase* aLeft = k.left(a);
        AVLTreeNodeBase* aRight = k.right(a);
        AVLTreeNodeBase* pLeft = k.left(p);
        AVLTreeNodeBase* pParent = k.parent(p);

        here(c, nullptr);  // link := the link that points at a
        *c.link = p;
        k.parent(p) = aParent;
        k.right(p) = aRight;
        k.parent(aRight) = p;
        if (p == aLeft) {
            k.left(p) = a;
            k.parent(a) = p;
        } else {
            k.left(p) = aLeft;
            k.parent(aLeft) = p;
            k.right(pParent) = a;
            k.parent(a) = pParent;
        }
        k.left(a) = pLeft;
        if (pLeft) k.parent(pLeft) = a;
        k.right(a) = nullptr;
        int balance = a->balance;
        a->balance = p->balance;
        p->balance = balance;
    }

    // a has at most one child: splice it out.
    AVLTreeNodeBase** sibling = nullptr;
    int d = here(c, &sibling);
    AVLTreeNodeBase* child = k.left(a) ? k.left(a) : k.right(a);
    *c.link = child;
    if (child) k.parent(child) = k.parent(a);
    k.left(a) = nullptr;
    k.right(a) = nullptr;
    int delta = -d;  // +1: a left subtree got shorter, the node leans right; -1 the mirror

    AVLTreeNodeBase* removed = a;
    c.current = k.parent(removed);
    k.parent(removed) = nullptr;

    // Loop invariant: the child subtree of current on the side opposite to delta
    // (sibling points at current's other child) became one level shorter.
    //
    // The four cases, drawn for delta = +1 (the left subtree x of a got shorter, so a
    // leans right; s is a's right child). delta = -1 is the mirror image.
    /*
      b == 0: a only leans now; its height is unchanged: stop.
          a(0)              a(+1)
         /    \     =>     /    \
        x      s          x'     s

      b == -delta (-1): a becomes balanced and one level shorter: climb.
          a(-1)             a(0)
         /    \     =>     /    \
        x      s          x'     s

      b == delta, s.balance == 0: one left rotation; the height is unchanged: stop.
          a(+1)                  s(-1)
         /    \                 /    \
        x'     s(0)    =>     a(+1)   sr
              /  \           /  \
             sl   sr         x'   sl

      b == delta, s.balance == delta: one left rotation; one level shorter: climb.
          a(+1)                  s(0)
         /    \                 /    \
        x'     s(+1)   =>     a(0)    sr
              /  \           /  \
             sl   sr         x'   sl

      b == delta, s.balance == -delta: right rotation of s, then left rotation of a
      (g = s.left becomes the root); one level shorter: climb.
          a(+1)                     g(0)
         /    \                  /     \
        x'     s(-1)     =>     a       s
              /  \             / \     / \
             g    sr          x' gl   gr  sr
            / \
           gl  gr
    */
    while (c.current) {
        int b = c.current->balance;
        if (b == 0) {
            c.current->balance = delta;  // height unchanged
            break;
        }
        if (b == -delta) {
            c.current->balance = 0;  // current's subtree became shorter: climb
            delta = -here(c, &sibling);
            c.current = k.parent(c.current);
            continue;
        }
        // b == delta: current would reach +-2; s is its taller child.
        AVLTreeNodeBase* s = *sibling;
        int sb = s->balance;
        if (sb == 0) {
            // One rotation; the height of current's subtree is unchanged: stop.
            s->balance = -delta;
            here(c, nullptr);
            c.current = k.parent(c.current);
            if (delta > 0)
                rotateLeft(c);
            else
                rotateRight(c);
            break;
        }
        if (sb == b) {
            // One rotation; the subtree became shorter: continue upward.
            c.current->balance = 0;
            s->balance = 0;
            int side = delta;
            delta = -here(c, &sibling);
            c.current = k.parent(c.current);
            if (side > 0)
                rotateLeft(c);
            else
                rotateRight(c);
            continue;
        }
        // sb == -b: double rotation; the subtree became shorter: continue upward.
        int side = delta;
        c.link = sibling;  // rotate s with current (its parent) as the cursor
        if (side > 0)
            rotateRight(c);
        else
            rotateLeft(c);
        AVLTreeNodeBase* g = *c.link;
        int gb = g->balance;
        g->balance = 0;
        if (side > 0)
            s->balance = gb == -1 ? 1 : 0;
        else
            s->balance = gb == 1 ? -1 : 0;
        AVLTreeNodeBase* unbalanced = c.current;
        delta = -here(c, &sibling);
        c.current = k.parent(c.current);
        if (side > 0) {
            unbalanced->balance = gb == 1 ? -1 : 0;
            rotateLeft(c);
        } else {
            unbalanced->balance = gb == -1 ? 1 : 0;
            rotateRight(c);
        }
    }
    return removed;
}

}  // namespace
}  // namespace core

void AVLTreeIterBase::top() { core::top(*this); }
int AVLTreeIterBase::here(AVLTreeNodeBase*** sibling) { return core::here(*this, sibling); }
void AVLTreeIterBase::bump(bool forward) { core::bump(*this, forward); }
void AVLTreeIterBase::toFirst() { core::toFirst(*this); }
void AVLTreeIterBase::toLast() { core::toLast(*this); }
bool AVLTreeIterBase::adjustBalance() { return core::adjustBalance(*this); }
void AVLTreeIterBase::rightBalance() { core::rightBalance(*this); }
void AVLTreeIterBase::leftBalance() { core::leftBalance(*this); }
void AVLTreeIterBase::rotateLeft() { core::rotateLeft(*this); }
void AVLTreeIterBase::rotateRight() { core::rotateRight(*this); }
void AVLTreeIterBase::rebalanceAfterInsert() { core::rebalanceAfterInsert(*this); }
AVLTreeNodeBase* AVLTreeIterBase::remove() { return core::remove(*this); }

namespace {

// Height of the subtree at n, or -1 after storing a fault. depth guards against a
// corrupt (cyclic or degenerate) structure.
long checkSubtree(AVLTreeNodeBase* n, AVLTreeNodeBase* expectedParent, Links const& k, int depth,
                  unsigned long& nodes, char const*& fault) {
    if (!n) return 0;
    if (depth > 128) {
        fault = "tree deeper than any AVL tree can be";
        return -1;
    }
    if (k.parent(n) != expectedParent) {
        fault = expectedParent ? "parent link disagrees with child link" : "root has a parent";
        return -1;
    }
    ++nodes;
    long hl = checkSubtree(k.left(n), n, k, depth + 1, nodes, fault);
    if (hl < 0) return -1;
    long hr = checkSubtree(k.right(n), n, k, depth + 1, nodes, fault);
    if (hr < 0) return -1;
    if (n->balance < -1 || n->balance > 1) {
        fault = "balance out of -1..+1";
        return -1;
    }
    if (n->balance != hr - hl) {
        fault = "balance differs from the real height difference";
        return -1;
    }
    return 1 + (hl > hr ? hl : hr);
}

}  // namespace

char const* AVLTreeIterBase::verifyShape(void const* treeObject, TemplOps const& treeRecord,
                                         TemplOps const& nodeRecord, unsigned long* nodes) {
    Links k(&nodeRecord);
    AVLTreeNodeBase* root = rootOf(&treeRecord, const_cast<void*>(treeObject));
    unsigned long count = 0;
    char const* fault = nullptr;
    checkSubtree(root, nullptr, k, 0, count, fault);
    if (nodes) *nodes = count;
    return fault;
}

}  // namespace Utils
