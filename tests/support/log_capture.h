// Capturing what the process's log hub prints while a test runs.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "utils/log.h"
#include "utils/object.h"

namespace zotest {

// A sink that keeps every line it is handed, with its class.
class CaptureSink : public Utils::Logger {
public:
    int print(Utils::MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0) {
        char line[600];
        std::vsnprintf(line, sizeof line, format, args);
        lines.push_back({c, line});
        return 0;
    }
    std::vector<std::pair<Utils::MessageClass, std::string>> lines;
};

// While it lives, a CaptureSink serves all four classes of the process's hub, whose
// verbosity is 1 (the header names the source position); the previous sinks and
// verbosity come back when it ends.
class LogCapture {
public:
    LogCapture() {
        Utils::Log* log = Utils::Log::theLog();
        for (int c = 0; c < 4; ++c) previous[c] = log->logger(static_cast<Utils::MessageClass>(c));
        verbosity = log->verbosity(Utils::allocLogger);
        sink = new CaptureSink;
        log->setLogger(sink);
        log->setVerbosity(1);
    }
    ~LogCapture() {
        Utils::Log* log = Utils::Log::theLog();
        log->setVerbosity(verbosity);
        for (int c = 0; c < 4; ++c) log->setLogger(static_cast<Utils::MessageClass>(c), previous[c].get());
    }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;
    CaptureSink* sink;

private:
    Utils::CountedRef<Utils::Logger> previous[4];
    unsigned int verbosity;
};

}  // namespace zotest
