// AVLTree<int, int> against std::map: insert, remove, find, intern, cursor
// assignment and walks both ways, with verify() (shape, balances, parent links,
// order) after every step.
#include <map>

#include "fuzz_check.h"
#include "utils/avltree.h"

namespace {

using Tree = Utils::AVLTree<int, int>;

void compare(Tree const& t, std::map<int, int> const& m) {
    unsigned long nodes = 0;
    char const* fault = t.verify(&nodes);
    FUZZ_CHECK(!fault, "verify: %s", fault);
    FUZZ_CHECK(nodes == m.size(), "%lu nodes, model %zu", nodes, m.size());
    auto it = t.first();
    for (auto const& e : m) {
        FUZZ_CHECK(it.valid() && it.key() == e.first && it.value() == e.second, "forward walk at key %d", e.first);
        it.bump(true);
    }
    FUZZ_CHECK(!it.valid(), "forward walk too long");
    auto back = t.last();
    for (auto e = m.rbegin(); e != m.rend(); ++e) {
        FUZZ_CHECK(back.valid() && back.key() == e->first, "backward walk at key %d", e->first);
        back.bump(false);
    }
    FUZZ_CHECK(!back.valid(), "backward walk too long");
    FUZZ_CHECK(t.empty() == m.empty(), "empty()");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    Tree t;
    std::map<int, int> m;
    int range = in.ConsumeBool() ? 64 : 100000;
    for (int step = 0; step < 2000 && in.remaining_bytes() > 0; ++step) {
        int key = in.ConsumeIntegralInRange<int>(-range, range);
        int value = in.ConsumeIntegral<int>();
        switch (in.ConsumeIntegralInRange<int>(0, 5)) {
            case 0:
            case 1: {
                bool added = t.insert(key, value);
                FUZZ_CHECK(added == !m.count(key), "insert(%d)", key);
                m.emplace(key, value);
                break;
            }
            case 2: {
                bool removed = t.remove(key);
                FUZZ_CHECK(removed == (m.erase(key) == 1), "remove(%d)", key);
                break;
            }
            case 3: {
                auto it = t.find(key);
                auto e = m.find(key);
                FUZZ_CHECK(it.valid() == (e != m.end()), "find(%d)", key);
                if (it.valid()) {
                    FUZZ_CHECK(it.value() == e->second, "value of %d", key);
                    it = value;
                    e->second = value;
                } else {
                    FUZZ_CHECK(static_cast<int>(it) == 0, "a cursor off the tree reads 0");
                }
                break;
            }
            case 4: {
                auto it = t.intern(key);
                FUZZ_CHECK(it.valid() && it.key() == key, "intern(%d)", key);
                int& slot = m[key];  // zero for a new key
                FUZZ_CHECK(it.value() == slot, "interned value");
                break;
            }
            default: {  // a cursor walk from a found key to its neighbour
                auto it = t.find(key);
                auto e = m.find(key);
                if (!it.valid()) break;
                bool forward = in.ConsumeBool();
                it.bump(forward);
                if (forward) {
                    ++e;
                    FUZZ_CHECK(it.valid() == (e != m.end()) && (!it.valid() || it.key() == e->first), "next of %d", key);
                } else {
                    bool none = e == m.begin();
                    FUZZ_CHECK(it.valid() == !none && (none || it.key() == std::prev(e)->first), "previous of %d", key);
                }
                break;
            }
        }
        if (step % 8 == 0 || in.remaining_bytes() == 0) compare(t, m);
    }
    compare(t, m);
    return 0;
}
