// Tour: the copy-on-write string, its views and its character proxy.
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tour.h"
#include "utils/string.h"

void tourStrings() {
    using Utils::String;
    std::printf("\n-- Strings --\n[examples/tour_strings.cpp: Utils::String, Utils::SubString (utils/string.h)]\n");
    String s("hello, world");
    String copy = s;  // shares the buffer
    std::printf("copy shares the buffer: %s\n", copy.representation() == s.representation() ? "yes" : "no");
    copy[0] = 'H';  // the first write gives the copy its own buffer
    std::printf("after copy[0] = 'H': s = \"%s\", copy = \"%s\"\n", s.text(), copy.text());

    Utils::SubString word = s(7, 5);
    s.replace("W", 1, 0, 7);
    std::printf("view (7, 5) taken before s.replace: \"%s\" still reads \"%s\"\n", s.text(),
                String(word).text());

    String path("a.b.c");
    std::printf("\"%s\" with '.' -> '::' is \"%s\"\n", path.text(), path.substitute(".", "::").text());

    String n("pi ~ ");
    n += 3.14159;
    std::printf("number appended: \"%s\"\n", n.text());

    String t(" alpha,,beta gamma ");
    unsigned long pos = 0, start = 0, end = 0;
    std::printf("tokens of \"%s\":", t.text());
    while (t.tokSpan(" ,", pos, start, end)) {
        std::printf(" [%.*s]", static_cast<int>(end - start), t.text() + start);
        pos = end;
    }
    std::printf("\n");

    String pad("ab");
    pad[5] = 'x';  // past the end: pads with blanks and stores nothing
    std::printf("\"ab\" after [5] = 'x': \"%s\" (length %lu: a write past the end pads with blanks up to the\n"
                "  position and stores nothing, so the 'x' is not kept)\n",
                pad.text(), pad.length());
    std::printf("null vs empty: String() == \"\" is %s, String() < \"a\" is %s\n",
                String() == String("") ? "true" : "false", String() < String("a") ? "true" : "false");

    // The conveniences for C++ code.
    std::string_view sv = "from a string_view";
    String fromView(sv);  // and back: view(), or pass a String where a string_view is taken
    std::string_view back = fromView;
    std::cout << "operator<<: " << fromView << " (" << back.size() << " characters)\n";
    String count("answer: ");
    count += 42ULL;  // every integer width appends its decimal text
    count += ' ';
    count += -7LL;
    std::printf("integer appends: \"%s\"\n", count.text());
    unsigned int roomBefore = count.representation()->capacity;
    count.clear();  // empties the string, keeps its buffer for the next appends
    std::printf("after clear(): length %lu, capacity kept %s\n", count.length(),
                count.representation()->capacity == roomBefore ? "yes" : "no");
    std::unordered_map<String, int> seen;  // std::hash<Utils::String>
    seen[String("a")] += 1;
    seen[String("a")] += 1;
    std::printf("unordered_map<String, int>: \"a\" seen %d times\n", seen[String("a")]);
}
