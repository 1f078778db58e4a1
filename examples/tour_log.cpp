// Tour: the log hub and error reporting.
#include <cstdio>

#include "tour.h"
#include "utils/log.h"
#include "utils/result.h"

namespace {
struct Announcer : Utils::ResultListener {
    void resultRaised(unsigned int code) const override {
        std::printf("listener heard %s\n", Utils::resultToString(code));
    }
};
}  // namespace

void tourLog() {
    using namespace Utils;
    std::printf("\n-- Logging and errors --\n"
                "[examples/tour_log.cpp: Utils::Log, ZO_LOG_* (utils/log.h);\n"
                "  raiseError, ResultListener (utils/result.h)]\n");
    Log* log = Log::theLog();
    log->setLogger(new StdLogger(StdLogger::StdOut));  // the tour reads better on one stream

    unsigned int net = log->getCategory("tour.net", 1, true);  // debug lines up to level 1
    std::printf("category tour.net is number %u\n", net);
    ZO_LOG_DEBUG(net, 3, "too detailed: %d", 3);  // above the category's level: filtered
    ZO_LOG_DEBUG(net, 1, "connected to %s:%d", "example.org", 80);
    ZO_LOG_WARNING("tour.net", "retrying in %d s", 2);

    static ResultString diskFull(0x80001001u, "disk full");
    Announcer announcer;
    addResultListener(&announcer);
    raiseError(0x80001001u);
    removeResultListener(&announcer);
    std::printf("last error: %s\n", resultToString(lastError()));
    clearError();
    std::printf("after clearError: %u\n", lastError());

    unsigned int errors, warnings, infos, debugs;
    log->logStats(errors, warnings, infos, debugs);
    std::printf("lines so far: %u error, %u warning, %u debug\n", errors, warnings, debugs);
    log->setLogger(Log::theDefaultLogger().get());
}
