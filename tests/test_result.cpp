// Results: per-task last errors, suppression, texts, listeners, and the error line.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"

#include "foundation/result_tables.h"
#include "knobs.h"
#include "library/reentry.h"
#include "log/hub_internal.h"
#include "utils/log.h"
#include "utils/result.h"
#include "zosys.h"

using namespace Utils;

namespace {

// Keeps every line the process hub prints while it is installed.
struct Capture : Logger {
    int print(MessageClass c, char const* format, va_list args) override ZO_PRINTF(3, 0) {
        char line[1024];
        vsnprintf(line, sizeof line, format, args);
        std::lock_guard<std::mutex> g(mutex);
        classes.push_back(c);
        lines.push_back(line);
        return 0;
    }
    std::mutex mutex;
    std::vector<MessageClass> classes;
    std::vector<std::string> lines;
};

// Installs a capturing sink on the process hub for one test.
class CapturedHub {
public:
    CapturedHub() : capture(new Capture) { Log::theLog()->setLogger(capture.get()); }
    ~CapturedHub() { Log::theLog()->setLogger(Log::theDefaultLogger().get()); }
    CountedRef<Capture> capture;
};

struct Counting : ResultListener {
    void resultRaised(unsigned int code) const override {
        std::lock_guard<std::mutex> g(mutex);
        codes.push_back(code);
        calls.fetch_add(1);
    }
    mutable std::mutex mutex;
    mutable std::vector<unsigned int> codes;
    mutable std::atomic<unsigned int> calls{0};
};

}  // namespace

// Runs first in this program: the listener list does not exist yet.
TEST(Results, RemoveListenerBeforeAnyAddDoesNothing) {
    Counting l;
    removeResultListener(&l);
    removeResultListener(nullptr);
    CapturedHub hub;
    EXPECT_EQ(raiseError(0x80000010u), 0x80000010u);
    EXPECT_EQ(l.calls.load(), 0u);
}

TEST(Results, LastErrorFollowsRaiseAndClearInThisTaskOnly) {
    CapturedHub hub;
    clearError();
    EXPECT_EQ(lastError(), 0u);
    EXPECT_EQ(raiseError(0x80000002u), 0x80000002u);
    EXPECT_EQ(lastError(), 0x80000002u);
    std::thread other([] {
        EXPECT_EQ(lastError(), 0u);  // a task that never raised
        raiseError(0x80000003u);
        EXPECT_EQ(lastError(), 0x80000003u);
        clearError();
        EXPECT_EQ(lastError(), 0u);
    });
    other.join();
    EXPECT_EQ(lastError(), 0x80000002u);
    clearError();
    EXPECT_EQ(lastError(), 0u);
    raiseError(5u);  // a success code is recorded like any other
    EXPECT_EQ(lastError(), 5u);
    clearError();
}

TEST(Results, RaisedErrorIsLoggedOnceInCategoryUtils) {
    CapturedHub hub;
    raiseError(0x80000002u);
    raiseError(7u);
    ASSERT_EQ(hub.capture->lines.size(), 2u);
    EXPECT_EQ(hub.capture->lines[0], "error|utils|Raising error: Failure #0x80000002");
    EXPECT_EQ(hub.capture->lines[1], "error|utils|Raising error: Success #0x00000007");
    EXPECT_EQ(hub.capture->classes[0], MessageError);
    Log::theLog()->setVerbosity(1u);
    raiseError(0x80000001u);
    Log::theLog()->setVerbosity(0u);
    EXPECT_EQ(hub.capture->lines[2], "error|utils|result:65|Raising error: Failure #0x80000001");
    clearError();
}

TEST(Results, SuppressedCodeIsRecordedButNeitherLoggedNorNotified) {
    CapturedHub hub;
    Counting l;
    addResultListener(&l);
    setErrorSuppressed(0x80000020u);
    EXPECT_EQ(raiseError(0x80000020u), 0x80000020u);
    EXPECT_EQ(lastError(), 0x80000020u);
    EXPECT_TRUE(hub.capture->lines.empty());
    EXPECT_EQ(l.calls.load(), 0u);
    clearErrorSuppressed(0x80000020u);
    raiseError(0x80000020u);
    EXPECT_EQ(hub.capture->lines.size(), 1u);
    EXPECT_EQ(l.calls.load(), 1u);
    removeResultListener(&l);
    clearError();
}

TEST(Results, SuppressionIsACountedStack) {
    CapturedHub hub;
    setErrorSuppressed(0x80000021u);
    setErrorSuppressed(0x80000021u);
    clearErrorSuppressed(0x80000021u);
    raiseError(0x80000021u);
    EXPECT_TRUE(hub.capture->lines.empty());
    clearErrorSuppressed(0x80000021u);
    clearErrorSuppressed(0x80000021u);  // absent: nothing
    raiseError(0x80000021u);
    EXPECT_EQ(hub.capture->lines.size(), 1u);
    clearError();
}

TEST(Results, GeneratedTextsWithoutRegistration) {
    EXPECT_STREQ(resultToString(0x80000002u), "Failure #0x80000002");
    EXPECT_STREQ(resultToString(5u), "Success #0x00000005");
    EXPECT_STREQ(resultToString(0u), "Success #0x00000000");
    EXPECT_STREQ(resultToString(0xFFFFFFFFu), "Failure #0xffffffff");
    EXPECT_STREQ(resultToString(0x7FFFFFFFu), "Success #0x7fffffff");
}

TEST(Results, GeneratedTextBufferIsPerThreadAndReusedByTheNextCall) {
    char const* mine = resultToString(1u);
    char const* again = resultToString(2u);
    EXPECT_EQ(mine, again);
    EXPECT_STREQ(mine, "Success #0x00000002");
    char const* theirs = nullptr;
    std::thread other([&theirs] { theirs = resultToString(0x80000009u); });
    other.join();
    EXPECT_NE(theirs, mine);
    EXPECT_STREQ(mine, "Success #0x00000002");  // the other thread did not overwrite it
}

TEST(Results, GeneratedTextStaysReadableAfterItsThreadHasEnded) {
    char const* first = nullptr;
    std::thread([&first] { first = resultToString(0x80000005u); }).join();
    // A thread started after the first one ended (its storage may be reused).
    char const* second = nullptr;
    std::thread([&second] { second = resultToString(7u); }).join();
    EXPECT_STREQ(first, "Failure #0x80000005");
    EXPECT_STREQ(second, "Success #0x00000007");
    EXPECT_NE(first, second);
}

TEST(Results, FirstRegistrationWinsAnyDestructionRemoves) {
    auto* first = new ResultString(0x80000030u, "first text");
    EXPECT_STREQ(resultToString(0x80000030u), "first text");
    {
        ResultString second(0x80000030u, "second text");
        EXPECT_STREQ(resultToString(0x80000030u), "first text");
    }
    EXPECT_STREQ(resultToString(0x80000030u), "Failure #0x80000030");
    delete first;  // its entry is already gone: nothing
    EXPECT_STREQ(resultToString(0x80000030u), "Failure #0x80000030");
    {
        ResultString a(0x80000031u, "a");
        auto* b = new ResultString(0x80000031u, "b");
        delete b;  // destroying the later one removes the earlier one's text
        EXPECT_STREQ(resultToString(0x80000031u), "Failure #0x80000031");
    }
}

TEST(Results, RegisteredTextAppearsInTheErrorLine) {
    static ResultString text(0x80000040u, "disk on fire");
    CapturedHub hub;
    raiseError(0x80000040u);
    ASSERT_EQ(hub.capture->lines.size(), 1u);
    EXPECT_EQ(hub.capture->lines[0], "error|utils|Raising error: disk on fire");
    clearError();
}

namespace {

std::vector<std::string> gWalk;

struct Named : ResultListener {
    explicit Named(char const* n) : name(n) {}
    void resultRaised(unsigned int) const override { gWalk.push_back(name); }
    char const* name;
};

struct AddsOne : ResultListener {
    explicit AddsOne(ResultListener const* l) : added(l) {}
    void resultRaised(unsigned int) const override {
        gWalk.push_back("adder");
        if (!done) {
            done = true;
            addResultListener(added);
        }
    }
    ResultListener const* added;
    mutable bool done = false;
};

struct RemovesSelf : ResultListener {
    void resultRaised(unsigned int) const override {
        gWalk.push_back("remover");
        removeResultListener(this);
    }
};

}  // namespace

TEST(Results, ListenerAddedDuringTheWalkIsCalledInTheSameWalk) {
    CapturedHub hub;
    Named late("late"), tail("tail");
    AddsOne adder(&late);
    addResultListener(&adder);
    addResultListener(&tail);
    gWalk.clear();
    raiseError(0x80000050u);
    std::vector<std::string> expected = {"adder", "tail", "late"};
    EXPECT_EQ(gWalk, expected);
    gWalk.clear();
    raiseError(0x80000050u);
    expected = {"adder", "tail", "late"};
    EXPECT_EQ(gWalk, expected);
    removeResultListener(&adder);
    removeResultListener(&tail);
    removeResultListener(&late);
    clearError();
}

TEST(Results, ListenerThatRemovesItselfMakesItsSuccessorSkipped) {
    CapturedHub hub;
    Named before("before"), after("after");
    RemovesSelf remover;
    addResultListener(&before);
    addResultListener(&remover);
    addResultListener(&after);
    gWalk.clear();
    raiseError(0x80000051u);
    std::vector<std::string> expected = {"before", "remover"};  // "after" moved into the visited slot
    EXPECT_EQ(gWalk, expected);
    gWalk.clear();
    raiseError(0x80000051u);
    expected = {"before", "after"};
    EXPECT_EQ(gWalk, expected);
    removeResultListener(&before);
    removeResultListener(&after);
    clearError();
}

TEST(Results, ListenerAddedTwiceIsCalledTwiceRemovedOnce) {
    CapturedHub hub;
    Counting l;
    addResultListener(&l);
    addResultListener(&l);
    raiseError(0x80000052u);
    EXPECT_EQ(l.calls.load(), 2u);
    removeResultListener(&l);
    raiseError(0x80000052u);
    EXPECT_EQ(l.calls.load(), 3u);
    removeResultListener(&l);
    raiseError(0x80000052u);
    EXPECT_EQ(l.calls.load(), 3u);
    clearError();
}

namespace {
struct Throws : ResultListener {
    void resultRaised(unsigned int) const override { throw std::runtime_error("listener"); }
};
}  // namespace

TEST(Results, ListenerExceptionPassesThroughAndLeavesNothingLocked) {
    CapturedHub hub;
    Throws t;
    addResultListener(&t);
    EXPECT_THROW(raiseError(0x80000053u), std::runtime_error);
    removeResultListener(&t);
    EXPECT_EQ(lastError(), 0x80000053u);
    EXPECT_EQ(raiseError(0x80000054u), 0x80000054u);
    EXPECT_EQ(hub.capture->lines.size(), 2u);
    clearError();
}

namespace {
// A sink that itself fails while printing, raising an error of its own: the
// nested error is recorded and notified, but not logged again.
struct FailingSink : Logger {
    int print(MessageClass, char const*, va_list) override {
        ++prints;
        raiseError(0x80000061u);
        return 0;
    }
    int prints = 0;
};
}  // namespace

TEST(Results, ErrorRaisedWhileLoggingAnErrorIsRecordedButNotLoggedAgain) {
    CountedRef<FailingSink> sink(new FailingSink);
    Log::theLog()->setLogger(sink.get());
    Counting l;
    addResultListener(&l);
    EXPECT_EQ(raiseError(0x80000060u), 0x80000060u);
    Log::theLog()->setLogger(Log::theDefaultLogger().get());
    removeResultListener(&l);
    EXPECT_EQ(sink->prints, 1);
    EXPECT_EQ(lastError(), 0x80000061u);
    std::vector<unsigned int> expected = {0x80000061u, 0x80000060u};
    EXPECT_EQ(l.codes, expected);
    clearError();
}

TEST(Results, ConcurrentRaisingAndQueryingKeepsEveryTaskExact) {
    CapturedHub hub;
    Counting l;
    addResultListener(&l);
    unsigned int const threads = 4;
    unsigned int const perThread = static_cast<unsigned int>(zotest::scaled(1500));
    setErrorSuppressed(0x80000100u);
    Log* log = Log::theLog();
    unsigned int e0, w0, i0, d0;
    log->logStats(e0, w0, i0, d0);
    std::atomic<unsigned int> mismatches{0};
    std::vector<std::thread> pool;
    for (unsigned int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            if (lastError() != 0) mismatches.fetch_add(1);
            for (unsigned int i = 0; i < perThread; ++i) {
                unsigned int code = 0x80000000u | ((t + 1) << 16) | (i & 0xFFFF);
                if (raiseError(code) != code) mismatches.fetch_add(1);
                if (lastError() != code) mismatches.fetch_add(1);
                raiseError(0x80000100u);  // suppressed: recorded only
                if (lastError() != 0x80000100u) mismatches.fetch_add(1);
                if (i % 100 == 0) {
                    clearError();
                    if (lastError() != 0) mismatches.fetch_add(1);
                    std::string expect = "Failure #0x" + [&] {
                        char hex[9];
                        snprintf(hex, sizeof hex, "%08x", code);
                        return std::string(hex);
                    }();
                    if (expect != resultToString(code)) mismatches.fetch_add(1);
                }
                raiseError(code);
                log->print(MessageInfo, "stress", -1, "f", 1, "thread %u step %u", t, i);
            }
            if (lastError() != (0x80000000u | ((t + 1) << 16) | ((perThread - 1) & 0xFFFF))) mismatches.fetch_add(1);
        });
    }
    for (auto& th : pool) th.join();
    clearErrorSuppressed(0x80000100u);
    removeResultListener(&l);
    EXPECT_EQ(mismatches.load(), 0u);
    EXPECT_EQ(l.calls.load(), 2 * threads * perThread);
    EXPECT_EQ(hub.capture->lines.size(), 3 * threads * perThread);
    unsigned int e1, w1, i1, d1;
    log->logStats(e1, w1, i1, d1);
    EXPECT_EQ(e1 - e0, 2 * threads * perThread);
    EXPECT_EQ(i1 - i0, threads * perThread);
    EXPECT_EQ(w1 - w0, 0u);
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
    EXPECT_EQ(detail::verifyHub(*log), nullptr);
}

// A random walk over every table operation, checked against a model after each
// step: the calling task's last error, the suppression counts, the first
// registered text of each code and the listener calls.
TEST(Results, RandomTableWorkMatchesTheModelAndKeepsTheTablesSound) {
    CapturedHub hub;
    clearError();
    Counting l;
    std::map<unsigned int, int> suppressed;  // code -> times suppressed
    std::map<unsigned int, std::vector<std::unique_ptr<ResultString>>> texts;
    static char const* const kTexts[3] = {"first text", "second text", "third text"};
    std::map<unsigned int, char const*> firstText;
    unsigned int listeners = 0;
    unsigned int last = 0;
    zotest::Walk walk(0x9E3779B97F4A7C15ul);
    auto next = [&walk](unsigned long bound) { return walk.below(bound); };
    unsigned long const steps = zotest::scaled(2000);
    for (unsigned long step = 0; step < steps; ++step) {
        unsigned int code = 0x80000200u + static_cast<unsigned int>(next(16));
        switch (next(8)) {
            case 0:
            case 1: {
                unsigned int callsBefore = l.calls.load();
                size_t linesBefore = hub.capture->lines.size();
                EXPECT_EQ(raiseError(code), code);
                last = code;
                bool quiet = suppressed[code] > 0;
                EXPECT_EQ(l.calls.load() - callsBefore, quiet ? 0u : listeners);
                EXPECT_EQ(hub.capture->lines.size() - linesBefore, quiet ? 0u : 1u);
                break;
            }
            case 2:
                setErrorSuppressed(code);
                ++suppressed[code];
                break;
            case 3:
                clearErrorSuppressed(code);
                if (suppressed[code] > 0) --suppressed[code];
                break;
            case 4: {
                char const* text = kTexts[next(3)];
                texts[code].push_back(std::make_unique<ResultString>(code, text));
                if (!firstText.count(code)) firstText[code] = text;
                break;
            }
            case 5:
                // Any destruction removes the code's text, whoever registered it.
                if (!texts[code].empty()) {
                    texts[code].pop_back();
                    firstText.erase(code);
                }
                break;
            case 6:
                if (next(2) || listeners == 0) {
                    addResultListener(&l);
                    ++listeners;
                } else {
                    removeResultListener(&l);
                    --listeners;
                }
                break;
            default:
                clearError();
                last = 0;
        }
        ASSERT_EQ(lastError(), last) << "after step " << step;
        if (firstText.count(code)) {
            ASSERT_STREQ(resultToString(code), firstText[code]);
        }
        ASSERT_EQ(detail::verifyResultTables(), nullptr) << "after step " << step;
    }
    while (listeners--) removeResultListener(&l);
    for (auto& entry : suppressed)
        while (entry.second-- > 0) clearErrorSuppressed(entry.first);
    texts.clear();
    clearError();
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
}

// White-box: what the process allocator meets when an allocation made under one of
// the hub's or the tables' locks fails and it raises 0x80000002 on the same thread.
TEST(Results, ErrorRaisedInsideTheLibrarysOwnLockedWorkOnlyReturnsTheCode) {
    CapturedHub hub;
    clearError();
    Counting l;
    addResultListener(&l);
    std::mutex unrelated;
    {
        detail::HeldLock g(unrelated);
        EXPECT_EQ(raiseError(0x80000002u), 0x80000002u);
    }
    EXPECT_EQ(lastError(), 0u);
    EXPECT_TRUE(hub.capture->lines.empty());
    EXPECT_EQ(l.calls.load(), 0u);
    raiseError(0x80000002u);  // outside: the usual path again
    EXPECT_EQ(lastError(), 0x80000002u);
    EXPECT_EQ(hub.capture->lines.size(), 1u);
    removeResultListener(&l);
    clearError();
}

TEST(Results, UnloadStepEmptiesLastErrorsAndSuppressionsAndLeavesThemUsable) {
    CapturedHub hub;
    raiseError(0x80000070u);
    setErrorSuppressed(0x80000071u);
    detail::releaseResultTables();
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
    EXPECT_EQ(lastError(), 0u);
    raiseError(0x80000071u);  // no longer suppressed
    EXPECT_EQ(hub.capture->lines.size(), 2u);
    EXPECT_EQ(lastError(), 0x80000071u);
    clearError();
}

// ---------------------------------------------------------------------------
// Memory exhaustion, with the process allocator drawing from a system layer that
// has nothing left. Run in a child process: the child uses the memory up.
// ---------------------------------------------------------------------------

namespace {

// Counts lines and keeps the last one, allocating nothing.
struct CountingSink : Logger {
    int print(MessageClass, char const* format, va_list args) override ZO_PRINTF(3, 0) {
        vsnprintf(last, sizeof last, format, args);
        lines.fetch_add(1);
        return 0;
    }
    std::atomic<int> lines{0};
    char last[256] = {};
};

struct Fresh {
    unsigned int raised = 0, last = 1, cat = 0;
    char const* catName = reinterpret_cast<char const*>(1);
    int printed = -1;
};

void* freshThread(void* arg) {
    Fresh* f = static_cast<Fresh*>(arg);
    f->raised = raiseError(0x80000002u);
    f->last = lastError();
    f->cat = Log::theLog()->getCategory("oom.fresh");
    f->catName = Log::theLog()->getCategory(f->cat);
    f->printed = Log::theLog()->print(MessageError, "oom.other", -3, "f", 1, "x");
    return nullptr;
}

// Returns "" when every check passed, "SKIP reason", or a description of the failure.
std::string exhaustedChild() {
    CountingSink* sink = new CountingSink;
    Log::theLog()->setLogger(sink);
    raiseError(0x80000001u);  // makes this thread's entry and the "utils" category
    clearError();
    ZoIF_TestSetMemLimit(ZoIF_TestMemCommitted());
    if (void* probe = ::operator new(256u << 20, std::nothrow)) {
        ::operator delete(probe);
        return "SKIP operator new is not served by the system layer's memory (another allocator owns it)";
    }
    // Use up what the arena still holds, chaining the blocks through themselves.
    void* chain = nullptr;
    unsigned long taken = 0;
    for (unsigned long size = 1ul << 20; size >= 16; size /= 2) {
        while (void* p = ::operator new(size, std::nothrow)) {
            *static_cast<void**>(p) = chain;
            chain = p;
            taken += size;
            if (taken > (1ul << 30)) return "the arena never ran out";
        }
    }
    int before = sink->lines.load();
    if (lastError() != 0x80000002u) return "the allocator raised no out-of-memory";
    clearError();
    // A thread with no last-error entry yet: its entry cannot be made.
    Fresh f;
    pthread_t t;
    if (pthread_create(&t, nullptr, freshThread, &f) != 0) return "SKIP no thread could be started";
    pthread_join(t, nullptr);
    // Nothing below may allocate until the limit is lifted: failures go to a fixed buffer.
    static char failures[1024];
    failures[0] = '\0';
    auto fail = [](char const* what) { strncat(failures, what, sizeof failures - strlen(failures) - 1); };
    if (f.raised != 0x80000002u) fail("raiseError did not return its code; ");
    if (f.last != 0) fail("a fresh thread reported a last error without an entry; ");
    if (f.catName != nullptr) fail("a category was made without memory; ");
    if (f.printed != 0) fail("a line was printed in a category that could not be made; ");
    // The raise in the thread logged its line ("utils" exists); the out-of-memory
    // errors raised inside the library's own locked work were not logged.
    int lines = sink->lines.load() - before;
    if (lines != 1) fail("not exactly one line logged; ");
    if (strcmp(sink->last, "error|utils|Raising error: Failure #0x80000002") != 0) fail("unexpected last line; ");
    // This thread has its entry: its raises are recorded as usual.
    if (raiseError(0x80000004u) != 0x80000004u || lastError() != 0x80000004u) fail("the main thread lost its entry; ");
    ZoIF_TestSetMemLimit(0);
    while (chain) {
        void* next = *static_cast<void**>(chain);
        ::operator delete(chain);
        chain = next;
    }
    Fresh g;
    pthread_create(&t, nullptr, freshThread, &g);
    pthread_join(t, nullptr);
    if (g.last != 0x80000002u || g.catName == nullptr) fail("nothing works again once memory is back; ");
    std::string report = failures;
    if (lines != 1) report += "lines: " + std::to_string(lines) + ", last: " + sink->last;
    return report;
}

}  // namespace

TEST(Results, RaisingWhenMemoryIsExhaustedReturnsTheCodeAndNeverRecurses) {
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        alarm(60);  // a deadlock ends the child instead of the run
        std::string report = exhaustedChild();
        if (write(pipefd[1], report.data(), report.size()) < 0) zotest::exitChild(3);
        zotest::exitChild(0);
    }
    close(pipefd[1]);
    int status;
    std::string report = zotest::collectChildReport(pipefd[0], pid, &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status << ": " << report;
    if (report.rfind("SKIP ", 0) == 0) GTEST_SKIP() << report.substr(5);
    EXPECT_EQ(report, "");
}

TEST(Results, VerifierReportsANullListenerUntilItIsRemoved) {
    ASSERT_EQ(detail::verifyResultTables(), nullptr);
    addResultListener(nullptr);
    char const* fault = detail::verifyResultTables();
    ASSERT_NE(fault, nullptr);
    EXPECT_STREQ(fault, "result tables: a listener is null");
    removeResultListener(nullptr);
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
}

TEST(Results, SuccessCodesGetTheSuccessTextAndClearingAnUnsuppressedCodeDoesNothing) {
    EXPECT_STREQ(resultToString(0x7fffffffu), "Success #0x7fffffff");
    EXPECT_STREQ(resultToString(0u), "Success #0x00000000");
    clearErrorSuppressed(0x80007771u);  // never suppressed: no effect
    CapturedHub hub;
    raiseError(0x80007771u);
    EXPECT_EQ(lastError(), 0x80007771u);
    EXPECT_EQ(hub.capture->lines, std::vector<std::string>{"error|utils|Raising error: Failure #0x80007771"});
    clearError();
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
}
