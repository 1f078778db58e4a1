// Logging side by side with spdlog and plain fprintf:
//  - a debug call filtered out by level (ns per call) against spdlog's
//    runtime-disabled call;
//  - an error line with one int argument to a file (lines per second) against
//    spdlog's synchronous basic file sink with an equivalent pattern and against
//    fprintf;
//  - resolving a category by name among 10 and 100 categories, against spdlog's
//    registry lookup by name.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "utils/log.h"

using namespace Utils;

namespace {

std::string benchFile(char const* name) {
    return "/tmp/zoutils_bench_log_" + std::to_string(getpid()) + "_" + name + ".log";
}

// --- a filtered debug call --------------------------------------------------

void Zo_DebugFilteredByLevel(benchmark::State& state) {
    Log log;
    unsigned int cat = log.getCategory("bench", 1, true);
    int i = 0;
    for (auto _ : state) {
        int r = log.print(MessageDebug, cat, 5, __FILE__, __LINE__, "value %d", i++);
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(Zo_DebugFilteredByLevel);

void Zo_DebugFilteredByLevelMacro(benchmark::State& state) {
    Log* log = Log::theLog();
    unsigned int cat = log->getCategory("bench.macro", 1, true);
    int i = 0;
    for (auto _ : state) {
        int r = ZO_LOG_DEBUG(cat, 5, "value %d", i++);
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(Zo_DebugFilteredByLevelMacro);

void Spdlog_DebugRuntimeDisabled(benchmark::State& state) {
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(benchFile("spdlog_off"), true);
    spdlog::logger logger("bench", sink);
    logger.set_level(spdlog::level::info);
    int i = 0;
    for (auto _ : state) logger.debug("value {}", i++);
    benchmark::DoNotOptimize(i);
    unlink(benchFile("spdlog_off").c_str());
}
BENCHMARK(Spdlog_DebugRuntimeDisabled);

// --- an error line to a file ------------------------------------------------

void Zo_ErrorLineToFile(benchmark::State& state) {
    std::string path = benchFile("zo");
    {
        Log log;
        log.setLogger(new FileLogger(path.c_str(), FileLogger::Replace));
        unsigned int cat = log.getCategory("bench");
        int i = 0;
        for (auto _ : state) log.print(MessageError, cat, -3, "bench.cpp", 1, "value %d", i++);
        state.SetItemsProcessed(state.iterations());
    }
    unlink(path.c_str());
}
BENCHMARK(Zo_ErrorLineToFile);

// Same header text "error|bench|value N"; flushed after each error line, as the
// library's file sink hands every line to the kernel at once.
void Spdlog_ErrorLineToFileFlushed(benchmark::State& state) {
    std::string path = benchFile("spdlog_flush");
    {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        spdlog::logger logger("bench", sink);
        logger.set_pattern("%l|%n|%v");
        logger.flush_on(spdlog::level::err);
        int i = 0;
        for (auto _ : state) logger.error("value {}", i++);
        state.SetItemsProcessed(state.iterations());
    }
    unlink(path.c_str());
}
BENCHMARK(Spdlog_ErrorLineToFileFlushed);

// spdlog's default: lines stay in the stdio buffer.
void Spdlog_ErrorLineToFileBuffered(benchmark::State& state) {
    std::string path = benchFile("spdlog_buffered");
    {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        spdlog::logger logger("bench", sink);
        logger.set_pattern("%l|%n|%v");
        int i = 0;
        for (auto _ : state) logger.error("value {}", i++);
        state.SetItemsProcessed(state.iterations());
    }
    unlink(path.c_str());
}
BENCHMARK(Spdlog_ErrorLineToFileBuffered);

void Fprintf_ErrorLineToFileFlushed(benchmark::State& state) {
    std::string path = benchFile("fprintf_flush");
    FILE* f = fopen(path.c_str(), "w");
    int i = 0;
    for (auto _ : state) {
        fprintf(f, "error|bench|value %d\n", i++);
        fflush(f);
    }
    state.SetItemsProcessed(state.iterations());
    fclose(f);
    unlink(path.c_str());
}
BENCHMARK(Fprintf_ErrorLineToFileFlushed);

void Fprintf_ErrorLineToFileBuffered(benchmark::State& state) {
    std::string path = benchFile("fprintf_buffered");
    FILE* f = fopen(path.c_str(), "w");
    int i = 0;
    for (auto _ : state) fprintf(f, "error|bench|value %d\n", i++);
    state.SetItemsProcessed(state.iterations());
    fclose(f);
    unlink(path.c_str());
}
BENCHMARK(Fprintf_ErrorLineToFileBuffered);

// --- resolving a category by name ---------------------------------------------

std::vector<std::string> categoryNames(int n) {
    std::vector<std::string> names;
    for (int k = 0; k < n; ++k) names.push_back("subsystem.component" + std::to_string(k));
    return names;
}

// Every name in turn: the average over first, middle and last positions.
void Zo_CategoryByName(benchmark::State& state) {
    Log log;
    std::vector<std::string> names = categoryNames(static_cast<int>(state.range(0)));
    for (auto& n : names) log.getCategory(n.c_str());
    size_t k = 0;
    for (auto _ : state) {
        unsigned int cat = log.getCategory(names[k].c_str());
        benchmark::DoNotOptimize(cat);
        if (++k == names.size()) k = 0;
    }
}
BENCHMARK(Zo_CategoryByName)->Arg(10)->Arg(100);

void Spdlog_LoggerByName(benchmark::State& state) {
    std::vector<std::string> names = categoryNames(static_cast<int>(state.range(0)));
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(benchFile("registry"), true);
    for (auto& n : names) spdlog::register_logger(std::make_shared<spdlog::logger>(n, sink));
    size_t k = 0;
    for (auto _ : state) {
        auto logger = spdlog::get(names[k]);
        benchmark::DoNotOptimize(logger.get());
        if (++k == names.size()) k = 0;
    }
    spdlog::drop_all();
    unlink(benchFile("registry").c_str());
}
BENCHMARK(Spdlog_LoggerByName)->Arg(10)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
