// A small program for the memory-limit sweep of test_faults: a few operations of
// each family, each checked for the result the library gives when memory runs
// out. Exits 0 when everything it got is right, 1 when an answer was wrong.
#include <cstdio>
#include <cstring>

#include "utils/allocator.h"
#include "utils/avltree.h"
#include "utils/log.h"
#include "utils/result.h"
#include "utils/string.h"
#include "utils/uid.h"
#include "utils/vector.h"
#include "utils/version.h"

int main() {
    using namespace Utils;
    bool ok = true;
    String s("a text that needs a buffer of its own");
    s += " and grows";
    ok = ok && (s.length() == 0 || std::strcmp(s.text(), "a text that needs a buffer of its own and grows") == 0 ||
                std::strcmp(s.text(), "a text that needs a buffer of its own") == 0);
    Vector<unsigned int> v;
    for (unsigned int i = 0; i < 100; ++i) v.add(i);
    ok = ok && v.verify() == nullptr;
    AVLTree<int, int> t;
    for (int i = 0; i < 100; ++i) t.insert(i, i);
    ok = ok && t.verify() == nullptr;
    CountedRef<Version> version = Version::theVersion();
    ok = ok && (!version || std::strcmp(version->asString().text(), "1.1.1.1507") == 0 ||
                version->asString().length() == 0);
    String id = UID(1, 2, 3).asText();
    ok = ok && (id.length() == 0 || std::strcmp(id.text(), "00000001000000023") == 0);
    unsigned int cat = Log::theLog()->getCategory("probe");
    Log::theLog()->print(MessageInfo, cat, 0, "probe", 1, "the probe ran");
    raiseError(0x80004321u);
    std::printf("%s\n", ok ? "ok" : "WRONG");
    return ok ? 0 : 1;
}
