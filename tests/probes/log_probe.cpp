// Prints the state of the process's log hub as it was built from the configuration
// at load, then logs one error line through it. Run by test_log with a prepared
// environment; one "key value" fact per line on standard output. It must run to its
// end under any ZOSYS_MEM_LIMIT, also one that leaves no memory at all.
#include <cstdio>
#include <cstring>
#include <typeinfo>

#include "utils/log.h"
#include "utils/string.h"

using namespace Utils;

namespace {

char const* kind(Logger* l) {
    if (!l) return "none";
    if (dynamic_cast<NullLogger*>(l)) return "null";
    if (auto* f = dynamic_cast<FileLogger*>(l)) return f->valid() ? "file" : "file-invalid";
    if (dynamic_cast<StdLogger*>(l)) return "std";
    if (dynamic_cast<SystemLogger*>(l)) return "system";
    if (dynamic_cast<DialogLogger*>(l)) return "dialog";
    return "other";
}

}  // namespace

int main() {
    Log* log = Log::theLog();
    Logger* defaultSink = Log::theDefaultLogger().get();
    for (unsigned int c = 0; c < 4; ++c) {
        Logger* l = log->logger(static_cast<MessageClass>(c));
        std::printf("sink%u %s%s\n", c, kind(l), l && l == defaultSink ? " default" : "");
    }
    std::printf("allocLogger %u\n", allocLogger);
    for (unsigned int n = 0; log->getCategory(n); ++n)
        std::printf("cat %s enabled=%d level=%d verbosity=%u\n", log->getCategory(n), log->enabled(n) ? 1 : 0,
                    log->level(n), log->verbosity(n));
    // A category made now shows the hub's defaults (without memory none is made).
    unsigned int fresh = log->getCategory("probe.fresh");
    if (log->getCategory(fresh))
        std::printf("defaults enabled=%d level=%d verbosity=%u\n", log->enabled(fresh) ? 1 : 0, log->level(fresh),
                    log->verbosity(fresh));
    else
        std::printf("defaults none\n");
    // A string buffer comes from the process allocator also where a sanitizer serves
    // operator new, so this starts the system layer's memory in every build.
    String text("probe");
    text += 12L;
    std::printf("string %s\n", text.text());
    std::fflush(stdout);
    log->print(MessageError, "probe", -3, "probe.cpp", 7, "probe line %d", 42);
    return 0;
}
