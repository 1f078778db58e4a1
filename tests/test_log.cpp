// The log hub: categories, filter, header, sinks, configuration, threads.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "files.h"

#include "knobs.h"
#include "quiet_log.h"
#include "log/hub_internal.h"
#include "utils/log.h"
#include "utils/result.h"
#include "zosys.h"

using namespace Utils;

namespace {

using zotest::readFile;
using zotest::writeFile;

// A sink that keeps every expanded line with its class.
struct Capture : Logger {
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0) {
        char line[2048];
        vsnprintf(line, sizeof line, format, args);
        std::lock_guard<std::mutex> g(mutex);
        classes.push_back(c);
        lines.push_back(line);
        return 7;
    }
    std::vector<std::string> snapshot() {
        std::lock_guard<std::mutex> g(mutex);
        return lines;
    }
    std::mutex mutex;
    std::vector<MessageClass> classes;
    std::vector<std::string> lines;
};

// Matches `s` against `pattern`, where '\1' stands for one or more digits, '\2' for
// exactly one digit and every other character for itself.
bool glob(char const* s, char const* pattern) {
    if (!*pattern) return !*s;
    if (*pattern == '\2') return *s >= '0' && *s <= '9' && glob(s + 1, pattern + 1);
    if (*pattern == '\1') {
        if (!(*s >= '0' && *s <= '9')) return false;
        for (++s; ; ++s) {
            if (glob(s, pattern + 1)) return true;
            if (!(*s >= '0' && *s <= '9')) return false;
        }
    }
    return *s == *pattern && glob(s + 1, pattern + 1);
}
bool glob(std::string const& s, std::string const& pattern) { return glob(s.c_str(), pattern.c_str()); }

// "%lf" of a non-negative time: digits, a point, six decimals.
std::string const kTime = "\1.\2\2\2\2\2\2";

// A sink that counts lines and checks that each arrived whole.
struct Counter : Logger {
    int print(MessageClass, char const* format, va_list args) override ZO_PRINTF(3, 0) {
        char line[600];
        vsnprintf(line, sizeof line, format, args);
        if (!glob(line, "error|own\1|error \1") && !glob(line, "debug[2]|shared\1|debug \1") &&
            !glob(line, "info|shared\1|info #\1"))
            bad.fetch_add(1);
        count.fetch_add(1);
        return 0;
    }
    std::atomic<unsigned int> count{0};
    std::atomic<unsigned int> bad{0};
};

// A sink that records its own destruction. A replaced sink is deleted by whichever
// thread finishes the last line in flight, so the count is atomic.
struct Tracked : Logger {
    explicit Tracked(std::atomic<int>* d) : destroyed(d) {}
    ~Tracked() override { destroyed->fetch_add(1); }
    int print(MessageClass, char const*, va_list) override { return 0; }
    std::atomic<int>* destroyed;
};

int callPrint(Logger& l, MessageClass c, char const* fmt, ...) ZO_PRINTF(3, 4);
int callPrint(Logger& l, MessageClass c, char const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int r = l.print(c, fmt, args);
    va_end(args);
    return r;
}

std::string tempPath(char const* name) {
    char const* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/zoutils_test_log_" + std::to_string(getpid()) + "_" + name;
}

// A fresh hub whose four classes go to one capturing sink.
class HubTest : public ::testing::Test {
protected:
    void SetUp() override {
        capture = new Capture;
        log.setLogger(capture.get());
    }
    Log log;
    CountedRef<Capture> capture;
};

}  // namespace

TEST(LogTestHelpers, TimePatternMatchesOnlySixDecimals) {
    EXPECT_TRUE(glob("x|12.500000|y", "x|" + kTime + "|y"));
    EXPECT_FALSE(glob("x|12.5|y", "x|" + kTime + "|y"));
    EXPECT_FALSE(glob("x|.500000|y", "x|" + kTime + "|y"));
    EXPECT_FALSE(glob("x|12.500000|z", "x|" + kTime + "|y"));
}

// ---------------------------------------------------------------------------
// Categories
// ---------------------------------------------------------------------------

TEST(LogCategories, FirstUseGivesNextNumberSecondUseSameNumber) {
    Log log;
    unsigned int a = log.getCategory("a");
    EXPECT_EQ(a, 0u);
    EXPECT_EQ(log.getCategory("b"), 1u);
    log.setLevel(a, 4);
    EXPECT_EQ(log.getCategory("a"), 0u);
    EXPECT_EQ(log.level(a), 4);
    EXPECT_STREQ(log.getCategory(a), "a");
    EXPECT_EQ(log.getCategory("A"), 2u);  // names are case-sensitive
}

TEST(LogCategories, GetCategoryWithFieldsOverwritesExistingCategory) {
    Log log;
    unsigned int x = log.getCategory("x");
    EXPECT_EQ(log.getCategory("x", 5, true, 2), x);
    EXPECT_EQ(log.level(x), 5);
    EXPECT_TRUE(log.enabled(x));
    EXPECT_EQ(log.verbosity(x), 2u);
    log.setVerbosity(3u);
    EXPECT_EQ(log.getCategory("x", 1, false), x);  // the hub's verbosity
    EXPECT_EQ(log.level(x), 1);
    EXPECT_FALSE(log.enabled(x));
    EXPECT_EQ(log.verbosity(x), 3u);
}

TEST(LogCategories, GlobalSettersChangeExistingAndLaterCategories) {
    Log log;
    unsigned int a = log.getCategory("a");
    log.setLevel(7);
    log.setEnabled(true);
    log.setVerbosity(2u);
    unsigned int b = log.getCategory("b");
    for (unsigned int n : {a, b}) {
        EXPECT_EQ(log.level(n), 7);
        EXPECT_TRUE(log.enabled(n));
        EXPECT_EQ(log.verbosity(n), 2u);
    }
}

TEST(LogCategories, NameOfNumberEqualToCountIsNull) {
    Log log;
    log.getCategory("a");
    log.getCategory("b");
    EXPECT_STREQ(log.getCategory(1u), "b");
    EXPECT_EQ(log.getCategory(2u), nullptr);
    EXPECT_EQ(log.getCategory(1000u), nullptr);
}

TEST(LogCategories, NewHubWithoutConfigurationHasDefaults) {
    Log log;
    unsigned int n = log.getCategory("fresh");
    EXPECT_FALSE(log.enabled(n));
    EXPECT_EQ(log.level(n), 0);
    EXPECT_EQ(log.verbosity(n), 0u);
    CountedRef<Logger> def = Log::theDefaultLogger();
    ASSERT_NE(def.get(), nullptr);
    EXPECT_NE(dynamic_cast<StdLogger*>(def.get()), nullptr);
    for (int c = 0; c < 4; ++c) EXPECT_EQ(log.logger(static_cast<MessageClass>(c)), def.get());
}

TEST(LogCategories, ManyCategoriesKeepTheirNumbersAcrossIndexSegments) {
    Log log;
    unsigned int const count = 600;  // spans several segments of the category index
    for (unsigned int i = 0; i < count; ++i) {
        std::string name = "c" + std::to_string(i);
        ASSERT_EQ(log.getCategory(name.c_str()), i);
        log.setLevel(i, static_cast<int>(i));
    }
    for (unsigned int i = 0; i < count; ++i) {
        std::string name = "c" + std::to_string(i);
        ASSERT_EQ(log.getCategory(name.c_str()), i);
        ASSERT_STREQ(log.getCategory(i), name.c_str());
        ASSERT_EQ(log.level(i), static_cast<int>(i));
    }
    EXPECT_EQ(log.getCategory(count), nullptr);
}

TEST(LogCategories, LogCatComparesByName) {
    LogCat a("net"), b("net"), c("db");
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_NE(a.name, b.name);  // each keeps a private copy
    EXPECT_EQ(a.enabled.load(), 0);
    EXPECT_EQ(a.level.load(), 0);
    EXPECT_EQ(a.verbosity.load(), 0u);
}

TEST(LogCategories, AllocLoggerNamesTheAllocatorCategoryOfTheProcessHub) {
    EXPECT_STREQ(Log::theLog()->getCategory(allocLogger), "allocator");
    EXPECT_EQ(Log::theLog()->getCategory("allocator"), allocLogger);
    EXPECT_EQ(Log::theLog(), Log::theLog_);
}

// ---------------------------------------------------------------------------
// LogClass and its element table
// ---------------------------------------------------------------------------

TEST(LogClassTable, NewClassTakesTheDefaultSinkAndNeverComparesEqual) {
    CountedRef<Logger> def = Log::theDefaultLogger();
    unsigned int before = def->refCount();
    {
        LogClass k("error");
        EXPECT_EQ(k.logger.get(), def.get());
        EXPECT_STREQ(k.name, "error");
        EXPECT_EQ(k.count, 0u);
        EXPECT_EQ(def->refCount(), before + 1);
        LogClass same = k;
        EXPECT_FALSE(same == k);
        EXPECT_FALSE(k == k);
    }
    EXPECT_EQ(def->refCount(), before);
}

TEST(LogClassTable, LocateOnAVectorOfClassesNeverFinds) {
    Vector<LogClass> v;
    v.sizeTo(2);
    v[0] = LogClass("error");
    unsigned long index = 99;
    EXPECT_FALSE(v.locate(v[0], index));
    EXPECT_EQ(index, 2u);
    EXPECT_EQ(Vector<LogClass>::ops().equals(&v[0], &v[0]), 0);
    v.purge();
}

TEST(LogClassTable, AssignTakesNewReferenceBeforeDroppingOldAndResetReleases) {
    std::atomic<int> destroyed{0};
    LogClass a, b;
    a.logger = new Tracked(&destroyed);
    a.name = "a";
    a.count = 3;
    b = a;
    EXPECT_EQ(a.logger->refCount(), 2u);
    EXPECT_STREQ(b.name, "a");
    EXPECT_EQ(b.count, 3u);
    LogClass& alias = b;
    b = alias;  // self-assignment keeps the sink alive
    EXPECT_EQ(a.logger->refCount(), 2u);
    TemplOps const& ops = Vector<LogClass>::ops();
    EXPECT_EQ(ops.elemSize, sizeof(LogClass));
    ops.reset(&b);
    EXPECT_EQ(b.logger.get(), nullptr);
    EXPECT_EQ(b.name, nullptr);
    ops.reset(&a);
    EXPECT_EQ(destroyed, 1);
}

TEST(LogClassTable, FreeArrayReleasesEverySinkReference) {
    std::atomic<int> destroyed{0};
    CountedRef<Logger> sink(new Tracked(&destroyed));
    TemplOps const& ops = Vector<LogClass>::ops();
    void* array = ops.allocArray(3);
    LogClass* classes = static_cast<LogClass*>(array);
    EXPECT_EQ(classes[2].logger.get(), nullptr);
    for (int i = 0; i < 3; ++i) ops.assign(&classes[i], &classes[i]);
    LogClass holder;
    holder.logger = sink.get();
    for (int i = 0; i < 3; ++i) ops.assign(&classes[i], &holder);
    EXPECT_EQ(sink->refCount(), 5u);
    ops.freeArray(array);
    ops.freeArray(nullptr);
    EXPECT_EQ(sink->refCount(), 2u);
    EXPECT_EQ(destroyed, 0);
}

// ---------------------------------------------------------------------------
// Filter and dispatch
// ---------------------------------------------------------------------------

TEST_F(HubTest, DisabledCategoryDropsDebugButPrintsError) {
    unsigned int net = log.getCategory("net");
    EXPECT_EQ(log.print(MessageDebug, net, 0, "f", 1, "dropped"), 0);
    EXPECT_EQ(log.print(MessageError, net, -3, "f", 1, "kept %d", 5), 7);
    unsigned int e, w, i, d;
    log.logStats(e, w, i, d);
    EXPECT_EQ(e, 1u);
    EXPECT_EQ(d, 0u);
    ASSERT_EQ(capture->lines.size(), 1u);
    EXPECT_EQ(capture->lines[0], "error|net|kept 5");
    EXPECT_EQ(capture->classes[0], MessageError);
}

TEST_F(HubTest, WarningsAndInfosIgnoreEnabledFlagAndLevel) {
    unsigned int net = log.getCategory("net");
    EXPECT_TRUE(log.willPrint(MessageWarning, net, 100));
    EXPECT_TRUE(log.willPrint(MessageInfo, net, 100));
    EXPECT_FALSE(log.willPrint(MessageDebug, net, 0));
    EXPECT_FALSE(log.willPrint(MessageError, net + 1, -3));  // unknown category
}

TEST_F(HubTest, DebugAtCategoryLevelPrintedOneHigherNot) {
    unsigned int net = log.getCategory("net", 2, true);
    EXPECT_TRUE(log.willPrint(MessageDebug, net, 2));
    EXPECT_FALSE(log.willPrint(MessageDebug, net, 3));
    EXPECT_EQ(log.print(MessageDebug, net, 2, "f", 1, "at level"), 7);
    EXPECT_EQ(log.print(MessageDebug, net, 3, "f", 1, "above level"), 0);
    EXPECT_EQ(log.print(MessageDebug, net, -1, "f", 1, "below"), 7);
    ASSERT_EQ(capture->lines.size(), 2u);
    EXPECT_EQ(capture->lines[0], "debug[2]|net|at level");
    EXPECT_EQ(capture->lines[1], "debug|net|below");
    unsigned int e, w, i, d;
    log.logStats(e, w, i, d);
    EXPECT_EQ(d, 2u);
}

TEST_F(HubTest, ClassWithNullSinkPrintsNothingAndCountsNothing) {
    unsigned int net = log.getCategory("net", 5, true);
    log.setLogger(MessageError, nullptr);
    EXPECT_EQ(log.logger(MessageError), nullptr);
    EXPECT_FALSE(log.willPrint(MessageError, net, -3));
    EXPECT_EQ(log.print(MessageError, net, -3, "f", 1, "silent"), 0);
    EXPECT_EQ(log.print(MessageWarning, net, -2, "f", 1, "heard"), 7);
    unsigned int e, w, i, d;
    log.logStats(e, w, i, d);
    EXPECT_EQ(e, 0u);
    EXPECT_EQ(w, 1u);
    ASSERT_EQ(capture->lines.size(), 1u);
    EXPECT_EQ(capture->lines[0], "warning|net|heard");
}

TEST_F(HubTest, HeaderPlusMessageCutAt480Characters) {
    unsigned int c = log.getCategory("c");
    std::string message(600, 'b');
    log.print(MessageError, c, -3, "f", 1, "%s", "unused");  // keeps the format checker honest
    capture->lines.clear();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    log.print(MessageError, c, -3, "f", 1, message.c_str(), 0);
#pragma GCC diagnostic pop
    ASSERT_EQ(capture->lines.size(), 1u);
    EXPECT_EQ(capture->lines[0].size(), 480u);
    EXPECT_EQ(capture->lines[0], "error|c|" + std::string(472, 'b'));
    // The cut is on the format: arguments expand after it.
    log.print(MessageError, c, -3, "f", 1, "%s", message.c_str());
    EXPECT_EQ(capture->lines[1], "error|c|" + message);
}

TEST_F(HubTest, LogStatsAfterResetAreZero) {
    unsigned int c = log.getCategory("c", 9, true);
    log.print(MessageError, c, -3, "f", 1, "e");
    log.print(MessageWarning, c, -2, "f", 1, "w");
    log.print(MessageInfo, c, -1, "f", 1, "i");
    log.print(MessageDebug, c, 1, "f", 1, "d");
    unsigned int e, w, i, d;
    log.logStats(e, w, i, d);
    EXPECT_EQ(e + w + i + d, 4u);
    log.resetLogStats();
    log.logStats(e, w, i, d);
    EXPECT_EQ(e, 0u);
    EXPECT_EQ(w, 0u);
    EXPECT_EQ(i, 0u);
    EXPECT_EQ(d, 0u);
}

TEST_F(HubTest, ByNameFormsCreateTheCategory) {
    EXPECT_FALSE(log.willPrint(MessageDebug, "later", 0));
    EXPECT_EQ(log.getCategory("later"), 0u);
    EXPECT_EQ(log.print(MessageInfo, "other", -1, "f", 1, "n=%d", 3), 7);
    EXPECT_EQ(log.getCategory(1u), std::string("other"));
    EXPECT_EQ(capture->lines.back(), "info|other|n=3");
}

TEST_F(HubTest, NullFormatPrintsTheHeaderAlone) {
    log.print(MessageError, "c", -3, "f", 1, nullptr);
    EXPECT_EQ(capture->lines.back(), "error|c|");
}

TEST_F(HubTest, PercentInCategoryOrFileNameIsReadAsConversion) {
    log.setVerbosity(1u);
    log.print(MessageError, "100%%", -3, "a%%b.cpp", 3, "x");
    EXPECT_EQ(capture->lines.back(), "error|100%|a%b.cpp:3|x");
}

TEST_F(HubTest, HeaderUsesGlobalVerbosityNotTheCategorys) {
    unsigned int c = log.getCategory("c", 0, true, 2);
    EXPECT_EQ(log.verbosity(c), 2u);
    log.print(MessageError, c, -3, "f.cpp", 9, "m");
    EXPECT_EQ(capture->lines.back(), "error|c|m");
}

TEST_F(HubTest, GoldenLinesAtVerbosityZeroOneTwo) {
    unsigned int net = log.getCategory("net", 2, true);
    log.print(MessageDebug, net, 2, "f", 120, "hello %s", "there");
    log.setVerbosity(1u);
    log.print(MessageDebug, net, 2, "f", 120, "hello %s", "there");
    log.setVerbosity(2u);
    log.print(MessageDebug, net, 2, "f", 120, "hello %s", "there");
    log.setVerbosity(7u);
    log.print(MessageWarning, net, -2, "g", 5, "w");
    ASSERT_EQ(capture->lines.size(), 4u);
    EXPECT_EQ(capture->lines[0], "debug[2]|net|hello there");
    EXPECT_EQ(capture->lines[1], "debug[2]|net|f:120|hello there");
    std::string ids = "|" + std::to_string(ZoIF_CurrentTaskId()) + "|" + std::to_string(ZoIF_CurrentTaskIdCoop()) + "|";
    EXPECT_TRUE(glob(capture->lines[2], "debug[2]|net|f:120|" + kTime + ids + "hello there")) << capture->lines[2];
    EXPECT_TRUE(glob(capture->lines[3], "warning|net|g:5|" + kTime + ids + "w")) << capture->lines[3];
}

TEST_F(HubTest, LineLogReturnsFilterResultLineLogLevelReturnsSinkResult) {
    unsigned int net = log.getCategory("net", 1, true);
    LineLog dbg(MessageDebug, "src.cpp", 10, &log);
    EXPECT_EQ(dbg.print(net, 1, "a %d", 1), 1);
    EXPECT_EQ(dbg.print(net, 2, "b %d", 2), 0);
    EXPECT_EQ(dbg.print("net", 0, "c"), 1);
    LineLogLevel err(MessageError, -3, "src.cpp", 11, &log);
    EXPECT_EQ(err.print(net, "d %s", "x"), 7);
    EXPECT_EQ(err.print("net", "e"), 7);
    LineLogLevel deep(MessageDebug, 5, "src.cpp", 12, &log);
    EXPECT_EQ(deep.print(net, "filtered"), 0);
    std::vector<std::string> expected = {"debug[1]|net|a 1", "debug[0]|net|c", "error|net|d x", "error|net|e"};
    EXPECT_EQ(capture->lines, expected);
}

TEST_F(HubTest, LineLogWithoutHubUsesTheProcessHub) {
    Log* hub = Log::theLog();
    CountedRef<Capture> mine(new Capture);
    hub->setLogger(MessageInfo, mine.get());
    LineLogLevel info(MessageInfo, -1, "p.cpp", 4);
    EXPECT_EQ(info.print("tests.linelog", "via %s", "theLog"), 7);
    hub->setLogger(MessageInfo, Log::theDefaultLogger().get());
    ASSERT_EQ(mine->lines.size(), 1u);
    EXPECT_EQ(mine->lines[0], "info|tests.linelog|via theLog");
}

TEST_F(HubTest, MacrosCaptureFileAndLine) {
    Log* hub = Log::theLog();
    CountedRef<Capture> mine(new Capture);
    hub->setLogger(mine.get());
    hub->setVerbosity(1u);
    unsigned int cat = hub->getCategory("tests.macros", 3, true);
    int line = __LINE__ + 1;
    ZO_LOG_ERROR(cat, "e%d", 1);
    ZO_LOG_WARNING("tests.macros", "w");
    ZO_LOG_INFO(cat, "i");
    ZO_LOG_DEBUG(cat, 3, "d%s", "!");
    ZO_LOG_DEBUG(cat, 4, "hidden");
    int evaluated = 0;
    ZO_LOG_DEBUG(cat, 4, "hidden %d", ++evaluated);
    EXPECT_EQ(evaluated, 0);  // a filtered debug line evaluates no argument
    hub->setVerbosity(0u);
    hub->setLogger(Log::theDefaultLogger().get());
    std::string at = std::string("|") + __FILE__ + ":";
    std::vector<std::string> expected = {
        "error|tests.macros" + at + std::to_string(line) + "|e1",
        "warning|tests.macros" + at + std::to_string(line + 1) + "|w",
        "info|tests.macros" + at + std::to_string(line + 2) + "|i",
        "debug[3]|tests.macros" + at + std::to_string(line + 3) + "|d!",
    };
    EXPECT_EQ(mine->lines, expected);
}

// ---------------------------------------------------------------------------
// Header
// ---------------------------------------------------------------------------

TEST(LogHeader, GoldenHeadersByVerbosity) {
    char buffer[481] = {};
    EXPECT_EQ(itemHeader("debug", "net", 2, "f", 120, buffer, 480, 0), 13);
    EXPECT_STREQ(buffer, "debug[2]|net|");
    memset(buffer, 0, sizeof buffer);
    EXPECT_EQ(itemHeader("debug", "net", 2, "f", 120, buffer, 480, 1), 19);
    EXPECT_STREQ(buffer, "debug[2]|net|f:120|");
    memset(buffer, 0, sizeof buffer);
    int n = itemHeader("debug", "net", 2, "f", 120, buffer, 480, 2);
    EXPECT_EQ(n, static_cast<int>(strlen(buffer)));
    std::string ids = "|" + std::to_string(ZoIF_CurrentTaskId()) + "|" + std::to_string(ZoIF_CurrentTaskIdCoop()) + "|";
    EXPECT_TRUE(glob(buffer, "debug[2]|net|f:120|" + kTime + ids)) << buffer;
    memset(buffer, 0, sizeof buffer);
    EXPECT_EQ(itemHeader("error", "utils", -3, "result", 65, buffer, 480, 0), 12);
    EXPECT_STREQ(buffer, "error|utils|");
    memset(buffer, 0, sizeof buffer);
    itemHeader("info", "x", 0, "f", 1, buffer, 480, 0);
    EXPECT_STREQ(buffer, "info[0]|x|");
}

TEST(LogHeader, StopsOnceTheLengthPassesTheSize) {
    char buffer[32];
    memset(buffer, 'z', sizeof buffer);
    // "debug" 5, "[2]" 8, then "|net" is cut to "|" and counted as 4: 12 > 10.
    EXPECT_EQ(itemHeader("debug", "net", 2, "f", 120, buffer, 10, 1), 12);
    EXPECT_STREQ(buffer, "debug[2]|");
    std::string longName(500, 'n');
    char line[481] = {};
    int n = itemHeader("error", longName.c_str(), -3, "f", 1, line, 480, 1);
    EXPECT_EQ(n, 6 + 500);
    EXPECT_EQ(strlen(line), 479u);
}

// ---------------------------------------------------------------------------
// Sinks
// ---------------------------------------------------------------------------

TEST(LogSinks, FileSinkReplaceStartsEmptyAppendKeepsOldLines) {
    std::string path = tempPath("replace");
    writeFile(path, "old line\n");
    {
        FileLogger f(path.c_str(), FileLogger::Replace);
        ASSERT_TRUE(f.valid());
        EXPECT_EQ(callPrint(f, MessageWarning, "first %d", 1), 0);
    }
    EXPECT_EQ(readFile(path), "first 1\n");
    {
        FileLogger f(path.c_str(), FileLogger::Append);
        ASSERT_TRUE(f.valid());
        EXPECT_EQ(callPrint(f, MessageError, "second %s", "two"), 0);
        EXPECT_EQ(callPrint(f, MessageDebug, "third"), 0);
    }
    EXPECT_EQ(readFile(path), "first 1\nsecond two\nthird\n");
    std::string fresh = tempPath("fresh");
    unlink(fresh.c_str());
    {
        FileLogger f(fresh.c_str(), FileLogger::Append);
        EXPECT_TRUE(f.valid());
        callPrint(f, MessageInfo, "made");
    }
    EXPECT_EQ(readFile(fresh), "made\n");
    unlink(path.c_str());
    unlink(fresh.c_str());
}

TEST(LogSinks, FileSinkCutsLongLinesBeforeTheNewline) {
    std::string path = tempPath("cut");
    {
        FileLogger f(path.c_str(), FileLogger::Replace);
        std::string exact(478, 'x');
        callPrint(f, MessageInfo, "%s", exact.c_str());
        std::string longer(700, 'y');
        callPrint(f, MessageInfo, "%s", longer.c_str());
        callPrint(f, MessageInfo, "%s", "");
    }
    EXPECT_EQ(readFile(path), std::string(478, 'x') + "\n" + std::string(478, 'y') + "\n\n");
    unlink(path.c_str());
}

TEST(LogSinks, HubLineThroughFileSinkIsCutTwice) {
    std::string path = tempPath("hubcut");
    {
        Log log;
        log.setLogger(new FileLogger(path.c_str(), FileLogger::Replace));
        std::string message(600, 'm');
        log.print(MessageError, "c", -3, "f", 1, "%s", message.c_str());
        log.print(MessageInfo, "c", -1, "f", 1, "short %d", 1);
    }
    EXPECT_EQ(readFile(path), "error|c|" + std::string(470, 'm') + "\ninfo|c|short 1\n");
    unlink(path.c_str());
}

TEST(LogSinks, FileSinkThatCannotOpenIsInvalidAndSilent) {
    FileLogger f("/nonexistent-zoutils-dir/x.log", FileLogger::Append);
    EXPECT_FALSE(f.valid());
    EXPECT_EQ(callPrint(f, MessageError, "lost"), 0);
}

TEST(LogSinks, StdSinkWritesOneLinePerCallToItsStream) {
    StdLogger out(StdLogger::StdOut);
    StdLogger err(StdLogger::StdErr);
    StdLogger other(static_cast<StdLogger::Channel>(5));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(callPrint(out, MessageError, "to %s", "out"), 0);  // fflush's result
    callPrint(err, MessageWarning, "to %s", "err");
    callPrint(other, MessageInfo, "also err");
    fflush(stdout);
    fflush(stderr);
    std::string o = testing::internal::GetCapturedStdout();
    std::string e = testing::internal::GetCapturedStderr();
    EXPECT_EQ(o, "to out\n");
    EXPECT_EQ(e, "to err\nalso err\n");
}

TEST(LogSinks, NullAndDialogSinksDiscard) {
    NullLogger n;
    DialogLogger d;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(callPrint(n, MessageError, "x"), 0);
    EXPECT_EQ(callPrint(d, MessageError, "x"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LogSinks, OneSinkForAllThenAnotherForErrorsLeavesThreeReferences) {
    std::atomic<int> destroyed{0};
    Log log;
    Tracked* first = new Tracked(&destroyed);
    log.setLogger(first);
    EXPECT_EQ(first->refCount(), 4u);
    Tracked* second = new Tracked(&destroyed);
    log.setLogger(MessageError, second);
    EXPECT_EQ(first->refCount(), 3u);
    EXPECT_EQ(second->refCount(), 1u);
    EXPECT_EQ(log.logger(MessageError), second);
    EXPECT_EQ(log.logger(MessageWarning), first);
    log.setLogger(MessageError, nullptr);
    EXPECT_EQ(destroyed, 1);  // second had no other holder
    log.setLogger(second = new Tracked(&destroyed));
    EXPECT_EQ(destroyed, 2);  // first released by its last class
    EXPECT_EQ(second->refCount(), 4u);
}

namespace {
// A sink that hands its classes to another sink from inside its own print.
struct ReplacesItself : Logger {
    ReplacesItself(Log* h, std::atomic<int>* d) : hub(h), destroyed(d) {}
    ~ReplacesItself() override { destroyed->fetch_add(1); }
    int print(MessageClass, char const*, va_list) override {
        hub->setLogger(new Tracked(destroyed));
        aliveAfterReplacing = destroyed->load() == 0;
        return 5;
    }
    Log* hub;
    std::atomic<int>* destroyed;
    static bool aliveAfterReplacing;
};
bool ReplacesItself::aliveAfterReplacing = false;
}  // namespace

TEST(LogSinks, SinkReplacedFromItsOwnPrintIsDeletedAfterThePrintReturns) {
    std::atomic<int> destroyed{0};
    {
        Log log;
        log.setLogger(new ReplacesItself(&log, &destroyed));
        EXPECT_EQ(log.print(MessageError, "c", -3, "f", 1, "x"), 5);
        EXPECT_TRUE(ReplacesItself::aliveAfterReplacing);
        EXPECT_EQ(destroyed, 1);
        EXPECT_EQ(log.print(MessageError, "c", -3, "f", 1, "x"), 0);  // the Tracked sink's result
    }
    EXPECT_EQ(destroyed, 2);  // the hub's destructor released the second one
}

TEST(LogSinks, SetLoggerNullSilencesEveryClass) {
    Log log;
    unsigned int c = log.getCategory("c", 9, true);
    log.setLogger(nullptr);
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(log.logger(static_cast<MessageClass>(k)), nullptr);
        EXPECT_FALSE(log.willPrint(static_cast<MessageClass>(k), c, 0));
        EXPECT_EQ(log.print(static_cast<MessageClass>(k), c, 0, "f", 1, "x"), 0);
    }
    unsigned int e, w, i, d;
    log.logStats(e, w, i, d);
    EXPECT_EQ(e + w + i + d, 0u);
}

// White-box: the unload step's part for the default sink. The hub keeps its four
// references, so the sink lives on; a later theDefaultLogger() makes a new one.
TEST(LogLifetime, UnloadStepDropsTheDefaultSinkReference) {
    Log* hub = Log::theLog();
    Logger* before = Log::theDefaultLogger().get();
    hub->setLogger(before);  // every class of the process hub on it
    unsigned int refs = before->refCount();
    detail::dropDefaultLogger();
    EXPECT_EQ(Log::theDefaultLogger_.get(), nullptr);
    EXPECT_EQ(before->refCount(), refs - 1);
    EXPECT_EQ(hub->logger(MessageError), before);
    CountedRef<Logger> again = Log::theDefaultLogger();
    EXPECT_NE(again.get(), nullptr);
    EXPECT_EQ(again->refCount(), 2u);  // the slot and this holder
    hub->setLogger(again.get());  // the replaced sink had no other holder: deleted
    EXPECT_EQ(again->refCount(), 6u);
}

TEST(LogSinks, DefaultSinkIsOneSharedStdErrSink) {
    CountedRef<Logger> a = Log::theDefaultLogger();
    CountedRef<Logger> b = Log::theDefaultLogger();
    EXPECT_EQ(a.get(), b.get());
    EXPECT_EQ(Log::theDefaultLogger_.get(), a.get());
    testing::internal::CaptureStderr();
    callPrint(*a, MessageError, "on stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "on stderr\n");
}

// The system-log sink end to end: a child process gets a private mount namespace
// (as root, or inside a new user namespace), puts a tmpfs over /dev, binds a
// datagram socket at /dev/log, logs through SystemLogger and hands back what the
// socket received.
namespace {

bool writeAll(int fd, std::string const& s) { return write(fd, s.data(), s.size()) == static_cast<ssize_t>(s.size()); }

std::string privateDevLog() {
    if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) {
        uid_t uid = geteuid();
        gid_t gid = getegid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return std::string("SKIP no private mount namespace: unshare: ") + strerror(errno);
        int fd = open("/proc/self/setgroups", O_WRONLY);
        if (fd >= 0) {
            writeAll(fd, "deny");
            close(fd);
        }
        fd = open("/proc/self/uid_map", O_WRONLY);
        if (fd < 0 || !writeAll(fd, "0 " + std::to_string(uid) + " 1")) return "SKIP cannot write uid_map";
        close(fd);
        fd = open("/proc/self/gid_map", O_WRONLY);
        if (fd >= 0) {
            writeAll(fd, "0 " + std::to_string(gid) + " 1");
            close(fd);
        }
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("SKIP cannot make mounts private: ") + strerror(errno);
    if (mount("zoutils-test", "/dev", "tmpfs", 0, nullptr) != 0)
        return std::string("SKIP cannot mount a tmpfs on /dev: ") + strerror(errno);
    return "";
}

// One datagram from the socket, or a FAIL line once its time-out has passed.
std::string receive(int sock) {
    char datagram[1024];
    ssize_t n = recv(sock, datagram, sizeof datagram - 1, 0);
    return n > 0 ? std::string(datagram, static_cast<size_t>(n)) : std::string("FAIL nothing received");
}

// Runs `body` in a child that has a socket of its own bound at /dev/log (5 s
// receive time-out) and returns what `body` returned there: "SKIP <reason>" when
// the child cannot have such a socket, "FAIL <what>" when the child failed. The
// child's pid goes to *child.
std::string inChildWithSyslogSocket(std::function<std::string(int sock)> const& body, pid_t* child) {
    int pipefd[2];
    if (pipe(pipefd) != 0) return "FAIL pipe";
    pid_t pid = fork();
    if (pid < 0) return "FAIL fork";
    if (pid == 0) {
        close(pipefd[0]);
        std::string got = privateDevLog();
        if (got.empty()) {
            int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            strcpy(addr.sun_path, "/dev/log");
            if (sock < 0 || bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
                got = std::string("SKIP cannot bind /dev/log: ") + strerror(errno);
            } else {
                timeval tv{5, 0};
                setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
                got = body(sock);
            }
        }
        writeAll(pipefd[1], got);
        zotest::exitChild(0);
    }
    close(pipefd[1]);
    int status;
    std::string report = zotest::collectChildReport(pipefd[0], pid, &status);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "FAIL child ended with status " + std::to_string(status);
    *child = pid;
    return report;
}

}  // namespace

TEST(LogSinks, SystemSinkReachesARealSyslogSocket) {
    pid_t pid = 0;
    std::string report = inChildWithSyslogSocket(
        [](int sock) {
            Log log;
            log.setLogger(new SystemLogger(nullptr));
            log.print(MessageWarning, "net", -2, "f", 1, "hello %d", 42);
            std::string got = receive(sock);
            log.setLogger(new SystemLogger("zo_custom"));
            log.print(MessageDebug, "net", -1, "f", 1, "ignored");  // filtered: disabled category
            log.print(MessageError, "net", -3, "f", 1, "second");
            return got + "\n" + receive(sock);
        },
        &pid);
    if (report.rfind("SKIP ", 0) == 0) GTEST_SKIP() << report.substr(5);
    ASSERT_NE(report.rfind("FAIL ", 0), 0u) << report;
    std::string pid_s = std::to_string(pid);
    // <priority>timestamp ident[pid]: message; LOG_USER is 8, LOG_WARNING 4, LOG_ERR 3.
    size_t newline = report.find('\n');
    ASSERT_NE(newline, std::string::npos) << report;
    std::string first = report.substr(0, newline), second = report.substr(newline + 1);
    EXPECT_EQ(first.rfind("<12>", 0), 0u) << report;
    EXPECT_NE(first.find(" zo_logger[" + pid_s + "]: warning|net|hello 42"), std::string::npos) << report;
    // Kept: replacing the first system sink destroyed it, and its closelog() closed
    // the process's one connection, identity included: the second line goes out
    // under the program's name, not "zo_custom".
    EXPECT_EQ(second.rfind("<11>", 0), 0u) << report;
    EXPECT_NE(second.find(" test_log[" + pid_s + "]: error|net|second"), std::string::npos) << report;
}

// ---------------------------------------------------------------------------
// Configuration
// ---------------------------------------------------------------------------

TEST(LogConfig, EnableCategoriesParsesNamesAndLevels) {
    Log log;
    log.setLevel(4);
    log.enableCategories("net:db#3::x#:y#abc:z#-2", true);
    unsigned int net = log.getCategory("net"), db = log.getCategory("db");
    EXPECT_EQ(net, 0u);
    EXPECT_EQ(db, 1u);
    EXPECT_TRUE(log.enabled(net));
    EXPECT_EQ(log.level(net), 4);
    EXPECT_EQ(log.level(db), 3);
    EXPECT_STREQ(log.getCategory(2u), "x#");  // a bare '#' stays in the name
    EXPECT_STREQ(log.getCategory(3u), "y");
    EXPECT_EQ(log.level(3u), 0);  // atoi("abc")
    EXPECT_EQ(log.level(4u), -2);
    EXPECT_EQ(log.getCategory(5u), nullptr);  // empty items skipped
    log.enableCategories("db", false);
    EXPECT_FALSE(log.enabled(db));
    EXPECT_EQ(log.level(db), 4);  // the default level again
}

namespace {

struct Probe {
    int status = -1;
    std::string out, err;
    std::map<std::string, std::string> facts;  // "sink0" -> "std default", "cat net" -> "enabled=1 ...", ...
};

std::string drain(int fd) {
    std::string s;
    char chunk[4096];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0) s.append(chunk, static_cast<size_t>(n));
    close(fd);
    return s;
}

// Runs the probe with only `env` (plus sanitizer options) in its environment.
Probe runProbe(std::vector<std::string> env) {
    env.push_back("XDG_CONFIG_HOME=/nonexistent-zoutils-test");
    env.push_back("XDG_CONFIG_DIRS=/nonexistent-zoutils-test");
    for (char const* pass : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "LD_LIBRARY_PATH"})
        if (char const* v = std::getenv(pass)) env.push_back(std::string(pass) + "=" + v);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    char const* path = LOG_PROBE;
    char* argv[] = {const_cast<char*>(path), nullptr};
    int out[2], err[2];
    Probe p;
    if (pipe(out) != 0 || pipe(err) != 0) return p;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        close(out[0]);
        close(err[0]);
        execve(path, argv, envp.data());
        zotest::exitChild(127);
    }
    close(out[1]);
    close(err[1]);
    p.out = drain(out[0]);
    p.err = drain(err[0]);
    waitpid(pid, &p.status, 0);
    std::istringstream lines(p.out);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("cat ", 0) == 0) {
            size_t space = line.find(' ', 4);
            p.facts["cat " + line.substr(4, space - 4)] = line.substr(space + 1);
        } else {
            size_t space = line.find(' ');
            p.facts[line.substr(0, space)] = line.substr(space + 1);
        }
    }
    return p;
}

std::string configFile(char const* name, std::string const& text) {
    std::string path = tempPath(name);
    writeFile(path, text);
    return path;
}

void expectAllSinks(Probe const& p, char const* kind) {
    for (int c = 0; c < 4; ++c) EXPECT_EQ(p.facts.at("sink" + std::to_string(c)), kind) << "class " << c;
}

}  // namespace

TEST(LogConfig, NoConfigurationLeavesDefaults) {
    Probe p = runProbe({});
    ASSERT_EQ(p.status, 0) << p.err;
    expectAllSinks(p, "std default");
    EXPECT_EQ(p.facts["allocLogger"], "0");  // the load-time initialiser made the first category
    EXPECT_EQ(p.facts["cat allocator"], "enabled=0 level=0 verbosity=0");
    EXPECT_EQ(p.facts["defaults"], "enabled=0 level=0 verbosity=0");
    EXPECT_EQ(p.err, "error|probe|probe line 42\n");
}

TEST(LogLoad, ProgramRunsToItsEndUnderEveryMemoryLimit) {
    // Below the system layer's 1 MiB granule there is no memory at all: the library
    // still loads, and the system layer says so once.
    struct Case {
        char const* limit;
        bool none;  // below the granule
    };
    for (Case c : {Case{"0", false}, Case{"1", true}, Case{"4095", true}, Case{"65536", true}, Case{"1048575", true},
                   Case{"1048576", false}, Case{"4194304", false}}) {
        Probe p = runProbe({std::string("ZOSYS_MEM_LIMIT=") + c.limit});
        EXPECT_TRUE(WIFEXITED(p.status) && WEXITSTATUS(p.status) == 0)
            << "limit " << c.limit << ": status " << p.status << "\n" << p.err;
        std::string warning = std::string("zosys: ZOSYS_MEM_LIMIT=\"") + c.limit + "\" (" + c.limit +
                              " bytes) is below the 1 MiB granule: no memory can be handed out\n";
        std::size_t at = p.err.find(warning);
        if (c.none) {
            EXPECT_NE(at, std::string::npos) << "limit " << c.limit << ": " << p.err;
            if (at != std::string::npos) {
                EXPECT_EQ(p.err.find(warning, at + 1), std::string::npos) << p.err;
            }
        } else {
            EXPECT_EQ(p.err.find("zosys: ZOSYS_MEM_LIMIT"), std::string::npos) << "limit " << c.limit << ": " << p.err;
        }
        if (zotest::foreignOperatorNew()) continue;  // the sanitizer or valgrind gives the hub its memory
        if (c.none) {
            expectAllSinks(p, "none");
            EXPECT_EQ(p.facts["defaults"], "none");
            EXPECT_EQ(p.facts["string"], "");
            EXPECT_NE(p.err.find("zoutils: no memory for the log hub's sinks: nothing will be logged\n"),
                      std::string::npos)
                << p.err;
        } else {
            expectAllSinks(p, "std default");
            EXPECT_EQ(p.facts["string"], "probe12");
            EXPECT_EQ(p.err, "error|probe|probe line 42\n");
        }
    }
}

TEST(LogConfig, LevelFromTheEnvironment) {
    Probe p = runProbe({"ZOUTILS_LOG_LEVEL=5"});
    EXPECT_EQ(p.facts["cat allocator"], "enabled=0 level=5 verbosity=0");
    EXPECT_EQ(p.facts["defaults"], "enabled=0 level=5 verbosity=0");
}

TEST(LogConfig, LevelAndVerbosityFromAConfigFile) {
    std::string file = configFile("levelverb.conf", "# settings\nZoUtils.Log.Level = -2\nZoUtils.Log.Verbosity = 1\n");
    Probe p = runProbe({"ZOSYS_CONFIG=" + file});
    EXPECT_EQ(p.facts["cat allocator"], "enabled=0 level=-2 verbosity=1");
    EXPECT_EQ(p.facts["defaults"], "enabled=0 level=-2 verbosity=1");
    EXPECT_EQ(p.err, "error|probe|probe.cpp:7|probe line 42\n");
    unlink(file.c_str());
}

TEST(LogConfig, VerbosityTwoAddsTimeAndTasks) {
    Probe p = runProbe({"ZOUTILS_LOG_VERBOSITY=2"});
    EXPECT_TRUE(glob(p.err, "error|probe|probe.cpp:7|" + kTime + "|\1|1|probe line 42\n")) << p.err;
}

TEST(LogConfig, EnabledAbsentSwitchesListedCategoriesOn) {
    Probe p = runProbe({"ZOUTILS_LOG_CATEGORIES=net:db#3"});
    EXPECT_EQ(p.facts["cat allocator"], "enabled=0 level=0 verbosity=0");
    EXPECT_EQ(p.facts["cat net"], "enabled=1 level=0 verbosity=0");
    EXPECT_EQ(p.facts["cat db"], "enabled=1 level=3 verbosity=0");
    EXPECT_EQ(p.facts["defaults"], "enabled=0 level=0 verbosity=0");
}

TEST(LogConfig, EnabledZeroSwitchesListedCategoriesOff) {
    Probe p = runProbe({"ZOUTILS_LOG_ENABLED=0", "ZOUTILS_LOG_CATEGORIES=net"});
    EXPECT_EQ(p.facts["cat net"], "enabled=0 level=0 verbosity=0");
    EXPECT_EQ(p.facts["defaults"], "enabled=0 level=0 verbosity=0");
}

TEST(LogConfig, EnabledOneSwitchesOnlyListedCategoriesOn) {
    std::string file = configFile("enabled1.conf", "ZoUtils.Log.Enabled = 1\nZoUtils.Log.Categories = net\n");
    Probe p = runProbe({"ZOSYS_CONFIG=" + file});
    EXPECT_EQ(p.facts["cat allocator"], "enabled=0 level=0 verbosity=0");
    EXPECT_EQ(p.facts["cat net"], "enabled=1 level=0 verbosity=0");
    EXPECT_EQ(p.facts["defaults"], "enabled=0 level=0 verbosity=0");
    unlink(file.c_str());
}

TEST(LogConfig, EnabledTwoSwitchesEverythingOn) {
    Probe p = runProbe(
        {"ZOUTILS_LOG_ENABLED=2", "ZOUTILS_LOG_CATEGORIES=net:db#3", "ZOUTILS_LOG_LEVEL=1", "ZOUTILS_LOG_VERBOSITY=1"});
    EXPECT_EQ(p.facts["cat allocator"], "enabled=1 level=1 verbosity=1");
    EXPECT_EQ(p.facts["cat net"], "enabled=1 level=1 verbosity=1");
    EXPECT_EQ(p.facts["cat db"], "enabled=1 level=3 verbosity=1");
    EXPECT_EQ(p.facts["defaults"], "enabled=1 level=1 verbosity=1");
}

TEST(LogConfig, EnabledAboveTwoCountsAsZero) {
    for (char const* value : {"ZOUTILS_LOG_ENABLED=7", "ZOUTILS_LOG_ENABLED=-1"}) {
        Probe p = runProbe({value, "ZOUTILS_LOG_CATEGORIES=net"});
        EXPECT_EQ(p.facts["cat net"], "enabled=0 level=0 verbosity=0") << value;
        EXPECT_EQ(p.facts["defaults"], "enabled=0 level=0 verbosity=0") << value;
    }
}

TEST(LogConfig, TrailingHashStaysInTheCategoryName) {
    Probe p = runProbe({"ZOUTILS_LOG_CATEGORIES=x#"});
    EXPECT_EQ(p.facts["cat x#"], "enabled=1 level=0 verbosity=0");
}

TEST(LogConfig, LoggerNullSilencesEveryClass) {
    Probe p = runProbe({"ZOUTILS_LOG_LOGGER=null"});
    expectAllSinks(p, "null");
    EXPECT_EQ(p.err, "");
}

TEST(LogConfig, LoggerSystemInstallsTheSystemLogSink) {
    Probe p = runProbe({"ZOUTILS_LOG_LOGGER=system"});
    expectAllSinks(p, "system");
}

TEST(LogConfig, LoggerStdoutKeepsTheStandardErrorSink) {
    Probe p = runProbe({"ZOUTILS_LOG_LOGGER=stdout"});
    expectAllSinks(p, "std default");
    EXPECT_EQ(p.err, "error|probe|probe line 42\n");
    EXPECT_EQ(p.out.find("probe line"), std::string::npos);
}

TEST(LogConfig, UnknownOrLongerLoggerWordKeepsTheDefault) {
    for (char const* value : {"ZOUTILS_LOG_LOGGER=nullx", "ZOUTILS_LOG_LOGGER=nul", "ZOUTILS_LOG_LOGGER=File"}) {
        Probe p = runProbe({value, "ZOUTILS_LOG_FILENAME=/nonexistent-zoutils-dir/x"});
        expectAllSinks(p, "std default");
    }
}

TEST(LogConfig, LoggerFileReplacesWhenAsked) {
    std::string log = tempPath("cfg_replace.log");
    writeFile(log, "old\n");
    std::string file = configFile("file_replace.conf", "ZoUtils.Log.Logger = file\nZoUtils.Log.Filename = " + log +
                                                           "\nZoUtils.Log.FileOpenMode = replace\n");
    Probe p = runProbe({"ZOSYS_CONFIG=" + file});
    expectAllSinks(p, "file");
    EXPECT_EQ(readFile(log), "error|probe|probe line 42\n");
    EXPECT_EQ(p.err, "");
    unlink(log.c_str());
    unlink(file.c_str());
}

TEST(LogConfig, LoggerFileAppendsByDefaultAndForOtherModes) {
    std::string log = tempPath("cfg_append.log");
    writeFile(log, "old\n");
    Probe p = runProbe({"ZOUTILS_LOG_LOGGER=file", "ZOUTILS_LOG_FILENAME=" + log});
    expectAllSinks(p, "file");
    Probe q = runProbe({"ZOUTILS_LOG_LOGGER=file", "ZOUTILS_LOG_FILENAME=" + log, "ZOUTILS_LOG_FILEOPENMODE=Replace"});
    expectAllSinks(q, "file");
    EXPECT_EQ(readFile(log), "old\nerror|probe|probe line 42\nerror|probe|probe line 42\n");
    unlink(log.c_str());
}

TEST(LogConfig, LoggerFileWithoutFilenameKeepsTheDefault) {
    Probe p = runProbe({"ZOUTILS_LOG_LOGGER=file", "ZOUTILS_LOG_FILEOPENMODE=replace"});
    expectAllSinks(p, "std default");
    EXPECT_EQ(p.err, "error|probe|probe line 42\n");
}

TEST(LogConfig, LoggerFileThatCannotOpenIsInstalledAndSilent) {
    Probe p = runProbe({"ZOUTILS_LOG_LOGGER=file", "ZOUTILS_LOG_FILENAME=/nonexistent-zoutils-dir/x.log"});
    expectAllSinks(p, "file-invalid");
    EXPECT_EQ(p.err, "");
}

// ---------------------------------------------------------------------------
// Threads
// ---------------------------------------------------------------------------

TEST(LogThreads, ConcurrentLoggingCountsExactly) {
    Log log;
    CountedRef<Counter> counter(new Counter);
    log.setLogger(counter.get());
    unsigned int const threads = 4;
    unsigned int const perThread = static_cast<unsigned int>(zotest::scaled(2000));
    std::vector<std::thread> pool;
    for (unsigned int t = 0; t < threads; ++t) {
        pool.emplace_back([&log, t, perThread] {
            std::string own = "own" + std::to_string(t);
            for (unsigned int i = 0; i < perThread; ++i) {
                std::string shared = "shared" + std::to_string(i % 37);
                unsigned int s = log.getCategory(shared.c_str(), 2, true);
                log.print(MessageError, own.c_str(), -3, "f", 1, "error %u", i);
                log.print(MessageDebug, s, 2, "f", 1, "debug %u", i);
                log.print(MessageDebug, s, 3, "f", 1, "filtered %u", i);
                log.print(MessageInfo, s, -1, "f", 1, "info #%u", i);
                if (i % 500 == 0) log.setLogger(MessageWarning, nullptr);  // churn a slot meanwhile
            }
        });
    }
    for (auto& th : pool) th.join();
    unsigned int e, w, i, d;
    log.logStats(e, w, i, d);
    EXPECT_EQ(e, threads * perThread);
    EXPECT_EQ(w, 0u);
    EXPECT_EQ(i, threads * perThread);
    EXPECT_EQ(d, threads * perThread);
    EXPECT_EQ(counter->count.load(), 3 * threads * perThread);
    EXPECT_EQ(counter->bad.load(), 0u);
    // 37 shared categories and one of each thread's own, each made exactly once.
    EXPECT_EQ(log.getCategory(37u + threads), nullptr);
    EXPECT_NE(log.getCategory(37u + threads - 1), nullptr);
    EXPECT_EQ(counter->refCount(), 4u);  // three classes and this holder
    EXPECT_EQ(detail::verifyHub(log), nullptr);
}

TEST(LogThreads, SinkSwapsWhileLoggingNeverLoseASink) {
    Log log;
    unsigned int c = log.getCategory("c");
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop.load()) log.print(MessageError, c, -3, "f", 1, "x");
    });
    std::atomic<int> destroyed{0};
    unsigned int const swaps = static_cast<unsigned int>(zotest::scaled(2000));
    for (unsigned int k = 0; k < swaps; ++k) log.setLogger(new Tracked(&destroyed));
    stop.store(true);
    writer.join();
    EXPECT_EQ(detail::verifyHub(log), nullptr);
    log.setLogger(nullptr);
    EXPECT_EQ(destroyed, static_cast<int>(swaps));
    EXPECT_EQ(detail::verifyHub(log), nullptr);
}

TEST(LogThreads, ConcurrentCreationAndSettersKeepTheTablesConsistent) {
    Log log;
    // Holders of a sink must not be made or dropped while setLogger runs elsewhere
    // (counts are plain): the threads use the sink this one holder keeps alive.
    CountedRef<Logger> shared = Log::theDefaultLogger();
    Logger* sink = shared.get();
    unsigned int const threads = 4;
    unsigned int const perThread = static_cast<unsigned int>(zotest::scaled(600));
    std::vector<std::thread> pool;
    for (unsigned int t = 0; t < threads; ++t) {
        pool.emplace_back([&log, sink, t, perThread] {
            for (unsigned int i = 0; i < perThread; ++i) {
                // Half the names are shared between threads, half are the thread's own.
                std::string name = (i % 2 ? "mine" + std::to_string(t) + "." : "all.") + std::to_string(i / 2);
                log.getCategory(name.c_str());
                if (i % 50 == 0) log.setLevel(static_cast<int>(i));
                if (i % 70 == 0) log.setLogger(static_cast<MessageClass>(i % 4), sink);
            }
        });
    }
    for (auto& th : pool) th.join();
    EXPECT_EQ(detail::verifyHub(log), nullptr);
    unsigned long expected = (perThread + 1) / 2 + threads * (perThread / 2);
    EXPECT_NE(log.getCategory(static_cast<unsigned int>(expected - 1)), nullptr);
    EXPECT_EQ(log.getCategory(static_cast<unsigned int>(expected)), nullptr);
}

// ---------------------------------------------------------------------------
// The hub's verifier
// ---------------------------------------------------------------------------

// A random walk over category and sink operations, checked against a model after
// every step: numbers in order of first use, the fields each setter writes, and the
// hub's own tables against each other.
TEST(LogVerifier, RandomCategoryAndSinkWorkKeepsTheTablesConsistent) {
    Log log;
    std::vector<std::string> names;
    struct Fields {
        int level;
        bool enabled;
        unsigned int verbosity;
    };
    std::vector<Fields> model;
    Fields defaults = {0, false, 0};
    CountedRef<Logger> sinks[3] = {CountedRef<Logger>(new NullLogger), CountedRef<Logger>(new NullLogger),
                                   CountedRef<Logger>(nullptr)};
    zotest::Walk walk(0x2545F4914F6CDD1Dul);
    auto next = [&walk](unsigned long bound) { return walk.below(bound); };
    unsigned long const steps = zotest::scaled(3000);
    for (unsigned long step = 0; step < steps; ++step) {
        switch (next(7)) {
            case 0:
            case 1: {  // find or create
                std::string name = "r" + std::to_string(next(400));
                unsigned int n = log.getCategory(name.c_str());
                if (n == names.size()) {
                    names.push_back(name);
                    model.push_back(defaults);
                }
                ASSERT_LT(n, names.size());
                ASSERT_EQ(names[n], name);
                break;
            }
            case 2: {  // find or create with fields
                std::string name = "r" + std::to_string(next(400));
                Fields f = {static_cast<int>(next(9)) - 4, next(2) == 1, static_cast<unsigned int>(next(3))};
                unsigned int n = log.getCategory(name.c_str(), f.level, f.enabled, f.verbosity);
                if (n == names.size()) {
                    names.push_back(name);
                    model.push_back(f);
                }
                model[n] = f;
                break;
            }
            case 3: {  // a global setter
                int v = static_cast<int>(next(9)) - 4;
                switch (next(3)) {
                    case 0:
                        log.setLevel(v);
                        defaults.level = v;
                        for (Fields& f : model) f.level = v;
                        break;
                    case 1:
                        log.setEnabled(v > 0);
                        defaults.enabled = v > 0;
                        for (Fields& f : model) f.enabled = v > 0;
                        break;
                    default:
                        log.setVerbosity(static_cast<unsigned int>(v + 4));
                        defaults.verbosity = static_cast<unsigned int>(v + 4);
                        for (Fields& f : model) f.verbosity = static_cast<unsigned int>(v + 4);
                }
                break;
            }
            case 4: {  // a per-category setter
                if (names.empty()) break;
                unsigned int n = static_cast<unsigned int>(next(names.size()));
                int v = static_cast<int>(next(9)) - 4;
                log.setLevel(n, v);
                model[n].level = v;
                break;
            }
            case 5: {  // a sink slot
                Logger* l = sinks[next(3)].get();
                if (next(2))
                    log.setLogger(l);
                else
                    log.setLogger(static_cast<MessageClass>(next(4)), l);
                break;
            }
            default: {  // a line through the filter
                if (names.empty()) break;
                unsigned int n = static_cast<unsigned int>(next(names.size()));
                int lvl = static_cast<int>(next(9)) - 4;
                bool expect = log.logger(MessageDebug) && model[n].enabled && lvl <= model[n].level;
                ASSERT_EQ(log.willPrint(MessageDebug, n, lvl), expect);
                log.print(MessageDebug, n, lvl, "f", 1, "x");
            }
        }
        ASSERT_EQ(detail::verifyHub(log), nullptr) << "after step " << step;
    }
    ASSERT_EQ(log.getCategory(static_cast<unsigned int>(names.size())), nullptr);
    for (unsigned int n = 0; n < names.size(); ++n) {
        EXPECT_STREQ(log.getCategory(n), names[n].c_str());
        EXPECT_EQ(log.level(n), model[n].level);
        EXPECT_EQ(log.enabled(n), model[n].enabled);
        EXPECT_EQ(log.verbosity(n), model[n].verbosity);
    }
    log.setLogger(nullptr);
}

TEST(LogVerifier, ReportsACategoryWhoseNameNoLongerMatchesItsIndexEntry) {
    Log log;
    for (int i = 0; i < 40; ++i) log.getCategory(("v" + std::to_string(i)).c_str());
    ASSERT_EQ(detail::verifyHub(log), nullptr);
    unsigned int n = log.getCategory("v7");
    char* name = const_cast<char*>(log.getCategory(n));  // the category's own copy
    name[0] = 'w';
    EXPECT_NE(detail::verifyHub(log), nullptr);
    name[0] = 'v';
    EXPECT_EQ(detail::verifyHub(log), nullptr);
}

TEST(LogVerifier, ProcessHubIsSound) { EXPECT_EQ(detail::verifyHub(*Log::theLog()), nullptr); }

// ---------------------------------------------------------------------------
// Further pinned behaviour: header cuts, per-category setters, sink edge cases,
// configuration read by a hub built in this process
// ---------------------------------------------------------------------------

namespace {

// The header as itemHeader builds it, piece by piece: a piece that takes the length
// past `size` is counted whole and ends the header.
int modelHeaderLength(std::vector<std::string> const& pieces, unsigned int size) {
    unsigned long length = 0;
    for (std::string const& p : pieces) {
        length += p.size();
        if (length > size) return static_cast<int>(length);
    }
    return static_cast<int>(length);
}

}  // namespace

TEST(LogHeader, EveryCutPointGivesTheModelLengthAndAPrefixOfTheWholeHeader) {
    struct Case {
        char const* className;
        int level;
        unsigned int verbosity;
        std::vector<std::string> pieces;
    };
    std::vector<Case> cases = {
        {"debug", 2, 0, {"debug", "[2]", "|net", "|"}},
        {"debug", 2, 1, {"debug", "[2]", "|net", "|src.cpp:77", "|"}},
        {"error", -3, 0, {"error", "|net", "|"}},
        {"error", -3, 1, {"error", "|net", "|src.cpp:77", "|"}},
    };
    for (Case const& k : cases) {
        std::string whole;
        for (std::string const& p : k.pieces) whole += p;
        for (unsigned int size = static_cast<unsigned int>(strlen(k.className)); size <= whole.size() + 2; ++size) {
            SCOPED_TRACE(whole + " cut at " + std::to_string(size));
            char buffer[128];
            memset(buffer, 'z', sizeof buffer);
            int n = itemHeader(k.className, "net", k.level, "src.cpp", 77, buffer, size, k.verbosity);
            EXPECT_EQ(n, modelHeaderLength(k.pieces, size));
            // Whatever was cut, the buffer holds the start of the whole header.
            size_t kept = std::min<size_t>(size == strlen(k.className) ? size : size - 1, whole.size());
            EXPECT_EQ(std::string(buffer, kept), whole.substr(0, kept));
            if (size > whole.size()) {
                EXPECT_STREQ(buffer, whole.c_str());
            }
        }
    }
}

TEST(LogHeader, CutInsideTheTimeStopsThereAndCountsTheWholeTimePiece) {
    std::string start = "debug[2]|net|src.cpp:77";
    char buffer[128];
    memset(buffer, 'z', sizeof buffer);
    unsigned int size = static_cast<unsigned int>(start.size()) + 3;
    int n = itemHeader("debug", "net", 2, "src.cpp", 77, buffer, size, 2);
    // "|<time>|<task>|<coop>|" is longer than the three characters left.
    EXPECT_GT(n, static_cast<int>(size));
    EXPECT_EQ(strlen(buffer), size - 1);
    EXPECT_EQ(std::string(buffer, start.size() + 1), start + "|");
    EXPECT_TRUE(buffer[start.size() + 1] >= '0' && buffer[start.size() + 1] <= '9') << buffer;
}

TEST(LogCategories, PerCategoryEnabledSetterChangesOnlyThatCategory) {
    Log log;
    unsigned int a = log.getCategory("one");
    unsigned int b = log.getCategory("two");
    log.setEnabled(a, true);
    EXPECT_TRUE(log.enabled(a));
    EXPECT_FALSE(log.enabled(b));
    log.setLevel(a, 3);
    CountedRef<Capture> capture = new Capture;
    log.setLogger(capture.get());
    EXPECT_EQ(log.print(MessageDebug, a, 3, "f", 1, "on"), 7);
    EXPECT_EQ(log.print(MessageDebug, b, 0, "f", 1, "off"), 0);
    log.setEnabled(a, false);
    EXPECT_FALSE(log.enabled(a));
    EXPECT_EQ(log.print(MessageDebug, a, 3, "f", 1, "off again"), 0);
    EXPECT_EQ(capture->snapshot(), std::vector<std::string>{"debug[3]|one|on"});
    log.setLogger(nullptr);
}

TEST_F(HubTest, LineLogByNameReturnsZeroWhenFilteredOut) {
    LineLog site(MessageDebug, "site.cpp", 9, &log);
    EXPECT_EQ(site.print("quiet", 0, "dropped %d", 1), 0);  // a new category is disabled
    log.setEnabled(log.getCategory("quiet"), true);
    EXPECT_EQ(site.print("quiet", 1, "above the level"), 0);
    EXPECT_EQ(site.print("quiet", 0, "kept %d", 2), 1);
    EXPECT_EQ(capture->snapshot(), std::vector<std::string>{"debug[0]|quiet|kept 2"});
}

TEST(LogSinks, FileSinkLineThatCannotBeFormattedBecomesAnEmptyLine) {
    std::string path = tempPath("unformattable");
    {
        FileLogger f(path.c_str(), FileLogger::Replace);
        ASSERT_TRUE(f.valid());
        // A wide character outside Unicode cannot be converted: vsnprintf fails.
        wchar_t const bad[] = {static_cast<wchar_t>(0x110000), 0};
        callPrint(f, MessageWarning, "before %ls after", bad);
        callPrint(f, MessageWarning, "next %d", 2);
    }
    EXPECT_EQ(readFile(path), "\nnext 2\n");
    unlink(path.c_str());
}

TEST(LogSinks, SystemSinkGivesEachClassItsPriority) {
    pid_t pid = 0;
    std::string report = inChildWithSyslogSocket(
        [](int sock) {
            SystemLogger sink(nullptr);
            std::string got;
            for (MessageClass c : {MessageError, MessageWarning, MessageInfo, MessageDebug}) {
                callPrint(sink, c, "class %d", static_cast<int>(c));
                got += receive(sock) + "\n";
            }
            return got;
        },
        &pid);
    if (report.rfind("SKIP ", 0) == 0) GTEST_SKIP() << report.substr(5);
    ASSERT_NE(report.rfind("FAIL ", 0), 0u) << report;
    std::vector<std::string> lines;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 4u) << report;
    // LOG_USER is 8; LOG_ERR 3, LOG_WARNING 4, LOG_INFO 6, LOG_DEBUG 7.
    char const* priorities[] = {"<11>", "<12>", "<14>", "<15>"};
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(lines[c].rfind(priorities[c], 0), 0u) << report;
        EXPECT_NE(lines[c].find(": class " + std::to_string(c)), std::string::npos) << report;
    }
}

using zotest::ConfigurationFor;

TEST(LogConfig, HubBuiltHereReadsLevelVerbosityEnabledAndCategories) {
    ConfigurationFor config{{"ZOUTILS_LOG_LEVEL", "4"},
                             {"ZOUTILS_LOG_VERBOSITY", "1"},
                             {"ZOUTILS_LOG_ENABLED", "2"},
                             {"ZOUTILS_LOG_CATEGORIES", "net:db#6"}};
    Log log;
    unsigned int fresh = log.getCategory("fresh");
    EXPECT_EQ(log.level(fresh), 4);
    EXPECT_TRUE(log.enabled(fresh));
    EXPECT_EQ(log.verbosity(fresh), 1u);
    unsigned int net = log.getCategory("net"), db = log.getCategory("db");
    EXPECT_TRUE(log.enabled(net));
    EXPECT_EQ(log.level(net), 4);
    EXPECT_EQ(log.verbosity(net), 1u);
    EXPECT_TRUE(log.enabled(db));
    EXPECT_EQ(log.level(db), 6);
    EXPECT_EQ(log.logger(MessageError), Log::theDefaultLogger().get());
}

TEST(LogConfig, HubBuiltHereWithEnabledZeroSwitchesListedCategoriesOff) {
    ConfigurationFor config{{"ZOUTILS_LOG_ENABLED", "0"}, {"ZOUTILS_LOG_CATEGORIES", "net#2"}};
    Log log;
    unsigned int net = log.getCategory("net");
    EXPECT_FALSE(log.enabled(net));
    EXPECT_EQ(log.level(net), 2);
    EXPECT_FALSE(log.enabled(log.getCategory("other")));
}

TEST(LogConfig, HubBuiltHereInstallsAReplacingFileSink) {
    std::string path = tempPath("configured_file");
    writeFile(path, "old line\n");
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "file"},
                                 {"ZOUTILS_LOG_FILENAME", path},
                                 {"ZOUTILS_LOG_FILEOPENMODE", "replace"}};
        Log log;
        for (MessageClass c : {MessageError, MessageWarning, MessageInfo, MessageDebug}) {
            FileLogger* f = dynamic_cast<FileLogger*>(log.logger(c));
            ASSERT_NE(f, nullptr) << "class " << c;
            EXPECT_TRUE(f->valid());
            EXPECT_EQ(f, log.logger(MessageError));
        }
        log.print(MessageError, "cfg", -3, "f", 1, "value %d", 5);
    }
    EXPECT_EQ(readFile(path), "error|cfg|value 5\n");
    unlink(path.c_str());
}

TEST(LogConfig, HubBuiltHereAppendsToTheFileForAnyOtherMode) {
    std::string path = tempPath("configured_append");
    writeFile(path, "old line\n");
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "file"},
                                 {"ZOUTILS_LOG_FILENAME", path},
                                 {"ZOUTILS_LOG_FILEOPENMODE", "truncate"}};
        Log log;
        log.print(MessageWarning, "cfg", -2, "f", 1, "more");
    }
    EXPECT_EQ(readFile(path), "old line\nwarning|cfg|more\n");
    unlink(path.c_str());
}

TEST(LogConfig, HubBuiltHereWithoutAFilenameKeepsTheDefaultSink) {
    ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "file"}, {"ZOUTILS_LOG_FILEOPENMODE", "replace"}};
    Log log;
    for (MessageClass c : {MessageError, MessageWarning, MessageInfo, MessageDebug})
        EXPECT_EQ(log.logger(c), Log::theDefaultLogger().get()) << "class " << c;
}

TEST(LogConfig, HubBuiltHereInstallsTheNullOrSystemSinkAndKeepsTheDefaultForOtherWords) {
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "null"}};
        Log log;
        for (MessageClass c : {MessageError, MessageWarning, MessageInfo, MessageDebug})
            EXPECT_NE(dynamic_cast<NullLogger*>(log.logger(c)), nullptr) << "class " << c;
        EXPECT_EQ(log.print(MessageError, "cfg", -3, "f", 1, "discarded"), 0);
    }
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "system"}};
        Log log;
        for (MessageClass c : {MessageError, MessageWarning, MessageInfo, MessageDebug})
            EXPECT_NE(dynamic_cast<SystemLogger*>(log.logger(c)), nullptr) << "class " << c;
    }
    for (char const* word : {"stdout", "nullx", ""}) {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", word}};
        Log log;
        EXPECT_EQ(log.logger(MessageInfo), Log::theDefaultLogger().get()) << word;
    }
}
