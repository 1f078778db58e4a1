// Ordered map kept height-balanced by the AVL rule, walked and changed through a
// cursor.
//
// AVLTree<K,V> owns nodes AVLTreeNode<K,V> (one heap allocation per key, from the
// global operator new). Every search, insertion, removal and walk goes through a
// cursor, AVLTreeIter<K,V>. The balancing logic exists once, in the non-template
// AVLTreeIterBase, which reaches the tree's root and the nodes' links through the
// offsets of two TemplOps records (utils/vector.h); the templates add only the key
// comparison, node creation and node destruction.
//
// Invariants between operations: keys are unique and in order (left subtree smaller,
// right subtree greater, by K's own operator< and operator==); every node's balance
// is height(right) - height(left) and lies in -1..+1; every child's parent link
// points at its parent and the root's is null. AVLTree::verify() checks all three.
//
// The cursor keeps no path stack: it climbs by parent links, so there is no depth
// limit, and search, insertion and rebalancing neither recurse nor allocate beyond
// the one node an insertion adds. A cursor is valid only while its tree is not
// changed through another cursor.
//
// A tree has no lock: one writer at a time, guarded by its owner.
#pragma once

#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>
#include <type_traits>

#include "utils/export.h"
#include "utils/string.h"
#include "utils/vector.h"

namespace Utils {

// The links every node carries. balance is height(right) - height(left).
class ZO_API AVLTreeNodeBase {
public:
    constexpr AVLTreeNodeBase() : balance(0), parent(nullptr), left(nullptr), right(nullptr) {}
    constexpr explicit AVLTreeNodeBase(AVLTreeNodeBase* parentNode)
        : balance(0), parent(parentNode), left(nullptr), right(nullptr) {}

    int balance;
    AVLTreeNodeBase* parent;  // null at the root
    AVLTreeNodeBase* left;    // smaller keys
    AVLTreeNodeBase* right;   // greater keys
};

// The cursor and the whole balancing logic, shared by every tree type.
//
// current is the node at the cursor (null: empty tree, key not found, or walked off
// an end). link is the address of the link that points, or would point, at the
// cursor's position: the tree's root member, or the left or right member of a node.
class ZO_API AVLTreeIterBase {
public:
    // treeRecord: offsets[0] is the root member's position in the tree object;
    // nodeRecord: offsets[0..2] are the positions of parent, left and right in a node.
    constexpr AVLTreeIterBase(TemplOps const* treeRecord, TemplOps const* nodeRecord, void* treeObject)
        : treeOps(treeRecord), nodeOps(nodeRecord), tree(treeObject), current(nullptr), link(nullptr) {}

    // link := the tree's root member; current := the root.
    void top();
    // Positions link on current. Returns 0 without change when current is null; at
    // the root sets link to the root member and returns 0; when current is its
    // parent's left child sets link to the parent's left member, stores the address of
    // the parent's right member through sibling (when not null) and returns -1; as a
    // right child the mirror, returning +1.
    int here(AVLTreeNodeBase*** sibling);
    // Moves current to its in-order successor (forward) or predecessor; null after
    // the last (first) node. Does nothing when current is null. link is not moved:
    // here() repositions it.
    void bump(bool forward);
    // Positions current on the smallest (first) or greatest (last) node, link on the
    // link that points at it; current null when the tree is empty.
    void toFirst();
    void toLast();

    // Accounts one level of height growth on the link side of current (link is
    // current's left or right member), repairing a balance that reaches -2 or +2.
    // Returns true exactly when current's old balance was 0 (its subtree grew); false
    // when current is null.
    bool adjustBalance();
    // Repair current after an insertion made its balance +2 (link on its right member)
    // or -2 (link on its left member). Afterwards link points at the subtree's new
    // root and current is that root's parent.
    void rightBalance();
    void leftBalance();
    // Rotate the subtree whose root is at link; current must be the parent of that
    // position (null at the root). Balances are not touched.
    void rotateLeft();
    void rotateRight();
    // The insertion rebalancing loop, run after a new node was stored at link with
    // current = its parent: raises the tree's node count (the word at the tree record's
    // offsets[1], when that is not 0), then adjustBalance() level by level up the tree
    // until a level did not grow. O(log n), no recursion.
    void rebalanceAfterInsert();

    // Unlinks current from the tree, lowers the tree's node count (the word at the
    // tree record's offsets[1], when that is not 0), rebalances, and returns the unlinked node with
    // its links cleared, for the caller to destroy; null when current is null. A node
    // with two children first exchanges places with its in-order predecessor (links
    // and balances move; keys and values stay in their nodes, so no other node
    // changes address). Afterwards current is wherever rebalancing stopped, no
    // defined position: reposition with top() and a search.
    AVLTreeNodeBase* remove();

    // Checks the shape of a tree: every balance equals the real height difference and
    // lies in -1..+1, parent links agree with child links, the root has no parent, and
    // the depth is within the AVL bound. Stores the number of nodes in *nodes (when not
    // null). Returns null when sound, else a short description of the first fault.
    // O(n), recursion to the tree's depth (bounded: deeper trees are reported).
    static char const* verifyShape(void const* treeObject, TemplOps const& treeRecord, TemplOps const& nodeRecord,
                                   unsigned long* nodes);

    TemplOps const* treeOps;
    TemplOps const* nodeOps;
    void* tree;
    AVLTreeNodeBase* current;
    AVLTreeNodeBase** link;
};

template <class K, class V>
class AVLTree;

// The order a search descends by: compare(a, b) is 0 when a == b, negative when
// a < b, positive otherwise, so that one call per level takes the same branch as the
// == test followed by the < test. The general form asks both operators; integer keys
// and String keys answer with one comparison. A key type may specialise it the same
// way, as long as it agrees with its operator== and operator<.
template <class K, class Enable = void>
struct AVLKeyOrder {
    static int compare(K const& a, K const& b) {
        if (a == b) return 0;
        return a < b ? -1 : 1;
    }
};

template <class K>
struct AVLKeyOrder<K, typename std::enable_if<std::is_integral<K>::value || std::is_pointer<K>::value>::type> {
    static int compare(K const& a, K const& b) { return a < b ? -1 : (b < a ? 1 : 0); }
};

// String keys: strcmp between two non-null strings, as their == and <. With a null
// side, == holds when the other side is empty and < never holds, so the answer is 0 or
// "greater" (descend right), exactly as the two operators decide.
template <>
struct AVLKeyOrder<String> {
    static int compare(String const& a, String const& b) {
        StringRep const* x = a.representation();
        StringRep const* y = b.representation();
        if (x && y) return x == y ? 0 : std::strcmp(x->data, y->data);
        return a.length() == 0 && b.length() == 0 ? 0 : 1;
    }
    // The same order for a key given as a character range: as compare(String(v), b)
    // without building the String. String(v) is non-null and its text ends at v's
    // first NUL, which is where strcmp stops.
    static int compare(std::string_view v, String const& b) {
        StringRep const* y = b.representation();
        if (!y) return v.empty() ? 0 : 1;
        // strncmp walks the first n characters as strcmp would walk String(v)'s text;
        // when they agree, either both texts ended at a NUL inside v (equal), or the
        // key's text ends at n and equals the node's exactly when that ends there too.
        std::size_t n = v.size();
        int c = n ? std::strncmp(v.data(), y->data, n) : 0;
        if (c != 0) return c;
        if (n && std::memchr(v.data(), 0, n)) return 0;
        return y->data[n] == 0 ? 0 : -1;
    }
};

// A node: the links, then key and value.
template <class K, class V>
class AVLTreeNode : public AVLTreeNodeBase {
public:
    AVLTreeNode(K const& k, V const& v, AVLTreeNodeBase* parentNode) : AVLTreeNodeBase(parentNode), key(k), value(v) {}
    // Destroys and frees the left subtree, then the right subtree: destroying the root
    // node frees the whole tree. Recursive, to the tree's depth (at most about
    // 1.44 log2 n for an AVL tree).
    ~AVLTreeNode() {
        delete static_cast<AVLTreeNode*>(left);
        delete static_cast<AVLTreeNode*>(right);
    }
    AVLTreeNode(AVLTreeNode const&) = delete;
    AVLTreeNode& operator=(AVLTreeNode const&) = delete;

    K key;
    V value;
};

// The typed cursor: adds key comparison, node creation and node destruction.
template <class K, class V>
class AVLTreeIter : public AVLTreeIterBase {
public:
    using Node = AVLTreeNode<K, V>;

    explicit AVLTreeIter(AVLTree<K, V>& t)
        : AVLTreeIterBase(&AVLTree<K, V>::treeOps_, &AVLTree<K, V>::nodeOps_, &t) {}

    // Descends from current (normally the root after top()). Equal key: stops there,
    // true. Smaller: link := the node's left member, goes left; otherwise right. When
    // the next node is null returns false, leaving current on the last node visited
    // and link on the empty member where the key belongs (ready for insert).
    // Each level asks AVLKeyOrder<K> once (see there); the path is the one the ==
    // and < tests take.
    bool find(K const& key) { return descend(key); }
    // For String keys: find(String(key)) without building the String (same descent,
    // same result, same cursor).
    template <class Q = K, typename std::enable_if<std::is_same<Q, String>::value, int>::type = 0>
    bool findChars(std::string_view key) {
        return descend(key);
    }
    // When link is null does nothing; otherwise stores a new node (balance 0, parent
    // current, no children) at link. Returns true in both cases. Does not rebalance:
    // AVLTree::insert and intern run rebalanceAfterInsert() after it.
    bool insert(K const& key, V const& value) {
        if (link) *link = new Node(key, value, current);
        return true;
    }
    // AVLTreeIterBase::remove(), then destroys and frees the node that came back.
    // Returns whether a node was removed.
    bool remove() {
        AVLTreeNodeBase* removed = AVLTreeIterBase::remove();
        delete static_cast<Node*>(removed);
        return removed != nullptr;
    }
    // The key and value at the cursor; current must not be null.
    K const& key() const { return static_cast<Node*>(current)->key; }
    V& value() const { return static_cast<Node*>(current)->value; }
    // Stores v as current's value when current is not null; returns v.
    V const& operator=(V const& v) {
        if (current) static_cast<Node*>(current)->value = v;
        return v;
    }
    // current's value, or a zero (value-initialised) V when current is null.
    operator V() const { return current ? static_cast<Node*>(current)->value : V(); }
    // True when the cursor is on a node.
    bool valid() const { return current != nullptr; }

private:
    template <class Key>
    bool descend(Key const& key) {
        AVLTreeNodeBase* n = current;
        while (n) {
            Node* node = static_cast<Node*>(n);
            int order = AVLKeyOrder<K>::compare(key, node->key);
            if (order == 0) return true;
            AVLTreeNodeBase** next = order < 0 ? &node->left : &node->right;
            link = next;
            if (!*next) return false;
            n = *next;
            current = n;
        }
        return false;
    }
};

// A bidirectional iterator over a tree's nodes in key order, for range-for and the
// standard algorithms: *it is the node, with its key and value members. The key must
// not be changed through it (the order would break); the value may be. end() is past
// the greatest key; --end() is the greatest. Valid while the tree is not changed.
template <class K, class V, bool Const>
class AVLTreeRange {
public:
    using Node = AVLTreeNode<K, V>;
    using Tree = typename std::conditional<Const, AVLTree<K, V> const, AVLTree<K, V>>::type;
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = Node;
    using difference_type = std::ptrdiff_t;
    using reference = typename std::conditional<Const, Node const&, Node&>::type;
    using pointer = typename std::conditional<Const, Node const*, Node*>::type;

    AVLTreeRange() : tree(nullptr), node(nullptr) {}
    AVLTreeRange(Tree* t, AVLTreeNodeBase* n) : tree(t), node(n) {}
    // A const iterator from a mutable one.
    template <bool C = Const, typename std::enable_if<C, int>::type = 0>
    AVLTreeRange(AVLTreeRange<K, V, false> const& o) : tree(o.tree), node(o.node) {}

    reference operator*() const { return *static_cast<pointer>(node); }
    pointer operator->() const { return static_cast<pointer>(node); }
    AVLTreeRange& operator++() {
        node = step(node, true);
        return *this;
    }
    AVLTreeRange operator++(int) {
        AVLTreeRange before = *this;
        ++*this;
        return before;
    }
    AVLTreeRange& operator--() {
        if (!node) {  // from end(): the greatest node
            node = tree->root;
            while (node && node->right) node = node->right;
        } else {
            node = step(node, false);
        }
        return *this;
    }
    AVLTreeRange operator--(int) {
        AVLTreeRange before = *this;
        --*this;
        return before;
    }
    bool operator==(AVLTreeRange const& o) const { return node == o.node; }
    bool operator!=(AVLTreeRange const& o) const { return node != o.node; }

    Tree* tree;
    AVLTreeNodeBase* node;  // null: end()

private:
    // The in-order successor (forward) or predecessor of n; null past the end. The
    // same walk as AVLTreeIterBase::bump, inline.
    static AVLTreeNodeBase* step(AVLTreeNodeBase* n, bool forward) {
        AVLTreeNodeBase* far = forward ? n->right : n->left;
        if (far) {
            while (AVLTreeNodeBase* deeper = forward ? far->left : far->right) far = deeper;
            return far;
        }
        AVLTreeNodeBase* previous;
        do {
            previous = n;
            n = n->parent;
        } while (n && (forward ? n->left : n->right) != previous);
        return n;
    }
};

// The map. Keys need operator< and operator==.
template <class K, class V>
class AVLTree {
public:
    using Node = AVLTreeNode<K, V>;
    using Iter = AVLTreeIter<K, V>;

    using iterator = AVLTreeRange<K, V, false>;
    using const_iterator = AVLTreeRange<K, V, true>;

    constexpr AVLTree() : root(nullptr), nodeCount(0) {}
    // Destroys the root node, which frees every node.
    ~AVLTree() {
        static_assert(offsetof(AVLTree, root) == 0, "the tree record places root at offset 0");
        static_assert(offsetof(AVLTree, nodeCount) == sizeof(AVLTreeNodeBase*), "and the count after it");
        delete static_cast<Node*>(root);
    }
    AVLTree(AVLTree const&) = delete;
    AVLTree& operator=(AVLTree const&) = delete;

    // Adds key with value and rebalances; returns true. When the key is present,
    // returns false and keeps the old value.
    bool insert(K const& key, V const& value) {
        Iter it(*this);
        it.top();
        if (it.find(key)) return false;
        it.insert(key, value);
        it.rebalanceAfterInsert();
        return true;
    }
    // Removes key's node; false when the key is absent.
    bool remove(K const& key) {
        Iter it(*this);
        it.top();
        return it.find(key) && it.remove();
    }
    // A cursor on key's node; current is null when the key is absent.
    Iter find(K const& key) const {
        Iter it(const_cast<AVLTree&>(*this));
        it.top();
        if (!it.find(key)) it.current = nullptr;
        return it;
    }
    // A cursor on key's node. An absent key is first inserted with a zero
    // (value-initialised) value; the cursor then sits on the new node after any
    // rotation.
    Iter intern(K const& key) {
        Iter it(*this);
        it.top();
        if (!it.find(key)) {
            it.insert(key, V());
            it.rebalanceAfterInsert();
            it.top();
            it.find(key);
        }
        return it;
    }
    // Cursors on the smallest and greatest keys (current null when empty); walk them
    // with bump(true) / bump(false).
    Iter first() const {
        Iter it(const_cast<AVLTree&>(*this));
        it.toFirst();
        return it;
    }
    Iter last() const {
        Iter it(const_cast<AVLTree&>(*this));
        it.toLast();
        return it;
    }
    bool empty() const { return root == nullptr; }
    // Destroys every node; the tree is empty (size 0) and usable afterwards.
    void clear() {
        delete static_cast<Node*>(root);
        root = nullptr;
        nodeCount = 0;
    }
    // The number of keys. O(1): counted by every insertion (rebalanceAfterInsert, which
    // every insertion runs) and every removal, through the tree or through a cursor.
    unsigned long size() const { return nodeCount; }

    // For String keys: the node of the key given as a character range or a
    // std::string_view, found as find(String(key)) would find it, without building a
    // String; null when absent. The node's value may be changed through it.
    template <class Q = K, typename std::enable_if<std::is_same<Q, String>::value, int>::type = 0>
    Node* lookup(std::string_view key) const {
        Iter it(const_cast<AVLTree&>(*this));
        it.top();
        return it.findChars(key) ? static_cast<Node*>(it.current) : nullptr;
    }
    template <class Q = K, typename std::enable_if<std::is_same<Q, String>::value, int>::type = 0>
    Node* lookup(char const* chars, unsigned long n) const {
        return lookup(std::string_view(chars, n));
    }
    // A cursor on the key given as a character range (String keys), as find(key);
    // current is null when the key is absent.
    template <class Q = K, typename std::enable_if<std::is_same<Q, String>::value, int>::type = 0>
    Iter findChars(std::string_view key) const {
        Iter it(const_cast<AVLTree&>(*this));
        it.top();
        if (!it.findChars(key)) it.current = nullptr;
        return it;
    }

    // Iterators over the nodes in key order (see AVLTreeRange): for (auto& n : tree)
    // visits n.key and n.value from the smallest key to the greatest.
    iterator begin() { return iterator(this, leftmost()); }
    iterator end() { return iterator(this, nullptr); }
    const_iterator begin() const { return const_iterator(this, leftmost()); }
    const_iterator end() const { return const_iterator(this, nullptr); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    // Null when the tree is sound: the shape checks of AVLTreeIterBase::verifyShape
    // and keys strictly increasing along the in-order walk. O(n).
    char const* verify(unsigned long* nodes = nullptr) const {
        unsigned long shapeCount = 0;
        if (char const* fault = AVLTreeIterBase::verifyShape(this, treeOps_, nodeOps_, &shapeCount)) return fault;
        unsigned long walked = 0;
        Iter it = first();
        Node const* previous = nullptr;
        for (; it.current; it.bump(true), ++walked) {
            Node const* node = static_cast<Node const*>(it.current);
            if (previous && !(previous->key < node->key)) return "keys out of order";
            previous = node;
        }
        if (walked != shapeCount) return "in-order walk does not visit every node";
        if (nodeCount != shapeCount) return "size does not match the number of nodes";
        if (nodes) *nodes = shapeCount;
        return nullptr;
    }

    // Layout records handed to the cursor: the tree's record has root at offset 0
    // (offsets[0]) and the node count right after it (offsets[1], which
    // AVLTreeIterBase::remove lowers), every other field 0; the node's record holds the positions of parent, left and
    // right (the node base is at offset 0 of every node).
    static constexpr TemplOps treeOps_ = {
        0, nullptr, nullptr, nullptr, nullptr, nullptr, {0, static_cast<unsigned int>(sizeof(AVLTreeNodeBase*)), 0, 0}};
    static constexpr TemplOps nodeOps_ = {0,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          {static_cast<unsigned int>(offsetof(AVLTreeNodeBase, parent)),
                                           static_cast<unsigned int>(offsetof(AVLTreeNodeBase, left)),
                                           static_cast<unsigned int>(offsetof(AVLTreeNodeBase, right)), 0}};

    // Public for the cursor's records and for inspection: change them only through
    // the operations above (a root replaced by hand leaves size() and verify() at odds).
    AVLTreeNodeBase* root;
    // The number of nodes: raised by AVLTreeIterBase::rebalanceAfterInsert, lowered by
    // AVLTreeIterBase::remove, both through the tree record's offsets[1].
    unsigned long nodeCount;

private:
    AVLTreeNodeBase* leftmost() const {
        AVLTreeNodeBase* n = root;
        while (n && n->left) n = n->left;
        return n;
    }
};

}  // namespace Utils
