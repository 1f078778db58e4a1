// WTreeBase (intrusive weight-balanced tree) against std::set: insert, remove,
// removesup, nextNode, minNode, with verify() (weights, order and the balance
// criterion, which holds exactly at these sizes) after every step. Nodes are owned
// here and counted, so a node the tree drops or links twice shows up.
#include <set>
#include <vector>

#include "fuzz_check.h"
#include "utils/wtree.h"

namespace {

struct Node : Utils::WTreeNodeBase {
    long key;
};
static_assert(sizeof(Utils::WTreeNodeBase) % 8 == 0, "the payload follows the links");

int compareKeys(void const* nodePayload, void const* sought) {
    long a = *static_cast<long const*>(nodePayload), b = *static_cast<long const*>(sought);
    // Negative: the sought item lies left of the node.
    return b < a ? -1 : b > a ? 1 : 0;
}

long keyOf(Utils::WTreeNodeBase const* n) { return *static_cast<long const*>(n->payload()); }

void compare(Utils::WTreeBase const& t, std::set<long> const& m) {
    char const* fault = Utils::WTreeBase::verify(t.root, compareKeys, true);
    FUZZ_CHECK(!fault, "verify: %s", fault);
    FUZZ_CHECK(t.size() == m.size(), "size %u, model %zu", t.size(), m.size());
    FUZZ_CHECK(!t.root || t.root->weight == m.size() + 1, "root weight");
    Utils::WTreeNodeBase* n = t.minNode();
    for (long k : m) {
        FUZZ_CHECK(n && keyOf(n) == k, "walk at %ld", k);
        n = Utils::WTreeBase::nextNode(n, t.root, compareKeys);
    }
    FUZZ_CHECK(!n, "walk too long");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    Utils::WTreeBase t;
    std::set<long> m;
    std::vector<Node*> owned;  // every node made; freed at the end
    long range = in.ConsumeBool() ? 50 : 1000000;
    auto make = [&](long key) {
        Node* n = new Node();
        n->key = key;
        owned.push_back(n);
        return n;
    };
    for (int step = 0; step < 1500 && in.remaining_bytes() > 0; ++step) {
        long key = in.ConsumeIntegralInRange<long>(-range, range);
        switch (in.ConsumeIntegralInRange<int>(0, 4)) {
            case 0:
            case 1: {
                int added = t.insert(make(key), compareKeys);
                FUZZ_CHECK(added == (m.insert(key).second ? 1 : 0), "insert(%ld)", key);
                break;
            }
            case 2: {
                Utils::WTreeNodeBase* out = Utils::WTreeBase::remove(&key, &t.root, compareKeys);
                bool had = m.erase(key) == 1;
                FUZZ_CHECK((out != nullptr) == had && (!out || keyOf(out) == key), "remove(%ld)", key);
                if (out) FUZZ_CHECK(!out->left && !out->right, "a removed node keeps no children");
                break;
            }
            case 3: {
                Utils::WTreeNodeBase* out = Utils::WTreeBase::removesup(&key, &t.root, compareKeys);
                auto e = m.lower_bound(key);
                FUZZ_CHECK((out != nullptr) == (e != m.end()) && (!out || keyOf(out) == *e), "removesup(%ld)", key);
                if (e != m.end()) m.erase(e);
                break;
            }
            default: {
                Node probe;
                probe.key = key;
                Utils::WTreeNodeBase* next = Utils::WTreeBase::nextNode(&probe, t.root, compareKeys);
                auto e = m.upper_bound(key);
                FUZZ_CHECK((next != nullptr) == (e != m.end()) && (!next || keyOf(next) == *e), "nextNode(%ld)", key);
                break;
            }
        }
        if (step % 4 == 0 || in.remaining_bytes() == 0) compare(t, m);
    }
    compare(t, m);
    for (Node* n : owned) delete n;
    return 0;
}
