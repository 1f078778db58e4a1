// Uses only Utils:: names: nothing of the system layer is called directly, so a
// linker that drops unused libraries (--as-needed) records only libzoutils, which
// must then find libzosys on its own.
#include <cstdio>

#include <utils/avltree.h>
#include <utils/log.h>
#include <utils/string.h>

int main() {
    Utils::String greeting("hello");
    greeting += ", world";

    Utils::Log* log = Utils::Log::theLog();
    log->setLogger(new Utils::StdLogger(Utils::StdLogger::StdOut));
    ZO_LOG_WARNING("app", "%s", greeting.text());
    unsigned int errors, warnings, infos, debugs;
    log->logStats(errors, warnings, infos, debugs);
    log->setLogger(Utils::Log::theDefaultLogger().get());

    Utils::AVLTree<unsigned int, char const*> names;
    names.insert(2, "two");
    names.insert(1, "one");
    std::printf("string \"%s\" (%lu), warnings logged %u, map:", greeting.text(), greeting.length(), warnings);
    for (auto it = names.first(); it.current; it.bump(true)) std::printf(" %u=%s", it.key(), it.value());
    std::printf("\n");
    return 0;
}
