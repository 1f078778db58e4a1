// Tour: the type-erased vector and the AVL map with its cursor.
#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "tour.h"
#include "utils/avltree.h"
#include "utils/string.h"
#include "utils/vector.h"

void tourContainers() {
    std::printf("\n-- Containers --\n"
                "[examples/tour_containers.cpp: Utils::Vector (utils/vector.h), Utils::AVLTree (utils/avltree.h)]\n");
    Utils::Vector<unsigned int> v;
    for (unsigned int i = 1; i <= 17; ++i) v.add(i * i);
    std::printf("17 adds: count %lu, capacity %lu (doubling from 4 up to 16, then about 10%% headroom)\n",
                v.count, v.capacity);
    unsigned long at = 0;
    bool found = v.locate(49u, at);
    std::printf("locate(49): %s at %lu; ", found ? "found" : "missing", at);
    found = v.locate(50u, at);
    std::printf("locate(50): %s, index %lu (count); ", found ? "found" : "missing", at);
    found = v.locateLast(50u, at);
    std::printf("locateLast(50): index %lu\n", at);
    v.insert(0u, 0);
    v.removeAt(5, 10);
    std::printf("after insert at 0 and removeAt(5, 10): count %lu, first %u, last %u, %s\n", v.count, v[0],
                v[v.count - 1], v.verify() ? v.verify() : "verified");

    Utils::AVLTree<unsigned int, char const*> names;
    names.insert(3, "three");
    names.insert(1, "one");
    names.insert(2, "two");  // rotates: 2 becomes the root
    names.insert(5, "five");
    std::printf("AVL map in order:");
    for (auto it = names.first(); it.current; it.bump(true)) std::printf(" %u=%s", it.key(), it.value());
    std::printf("\n");
    names.intern(4) = "four";
    names.remove(1);
    std::printf("after intern(4) and remove(1), backwards:");
    for (auto it = names.last(); it.current; it.bump(false)) std::printf(" %u", it.key());
    char const* missing = names.find(9);
    std::printf("; find(9) gives %s; %s\n", missing ? missing : "null", names.verify() ? names.verify() : "verified");

    // The conveniences for C++ code: iterators for range-for and <algorithm>, size(),
    // lookup of String keys by a range of characters, move-add.
    std::sort(v.begin(), v.end(), [](unsigned a, unsigned b) { return a > b; });
    std::printf("vector sorted descending with std::sort:");
    for (unsigned int x : v) std::printf(" %u", x);
    std::printf("\n");
    Utils::Vector<std::string> words;
    std::string word = "moved";
    words.add(std::move(word));  // move-add: the text goes into the vector
    std::printf("move-add: vector holds \"%s\", the source is now \"%s\"\n", words[0].c_str(), word.c_str());

    Utils::AVLTree<Utils::String, unsigned int> hits;
    char const* lines[] = {"GET /index 200", "GET /about 200", "GET /index 304"};
    for (char const* line : lines) {
        std::size_t path = 4, len = std::string_view(line + path).find(' ');
        if (auto* node = hits.lookup(line + path, len))  // no String built to look up
            ++node->value;
        else
            hits.insert(Utils::String(std::string_view(line + path, len)), 1);
    }
    std::printf("%lu paths counted:", hits.size());
    for (auto const& node : hits) std::printf(" %s=%u", node.key.text(), node.value);
    std::printf("\n");
}
