// Failure injection at every allocation: each operation below runs with its N-th
// allocation failing, for N = 1, 2, 3, ... until a run completes without reaching
// the N-th allocation. After every run: no crash, the result an operation gives
// for exhaustion (null, false, an unchanged string, the code 0x80000002), the
// object still sound (its verifier), and no memory lost (the process allocator's
// count back where it was once the objects are gone). Each operation is swept
// twice: with one failure, and with every allocation from the N-th on failing.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "child.h"
#include "foundation/result_tables.h"
#include "knobs.h"
#include "log/hub_internal.h"
#include "memory/pagealloc_internal.h"
#include "utils/allocator.h"
#include "utils/avltree.h"
#include "utils/log.h"
#include "utils/result.h"
#include "utils/string.h"
#include "utils/uid.h"
#include "utils/vector.h"
#include "utils/version.h"
#include "zosys_faults.h"

using namespace Utils;

namespace {

// The allocator's count; the per-thread error entry and text buffer are made
// before any sweep (see Environment below), so they do not count as lost.
unsigned long inUse() { return Allocator::theAllocator()->allocatedMemory(); }

struct FaultRun {
    unsigned long n;
    bool persist;
    void arm() const { ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, n, persist ? 1 : 0); }
    // Disarms; true when a failure was injected.
    bool disarm() const {
        ZoIF_TestFaultDisarm();
        return ZoIF_TestFaultHits() > 0;
    }
};

// Runs `body` for N = 1, 2, ... in both modes; `body` makes its objects, arms,
// runs the operation, disarms, checks, and destroys its objects. Returns the
// number of runs that hit a failure.
unsigned long sweep(char const* what, std::function<bool(FaultRun const&)> const& body) {
    unsigned long failing = 0;
    for (bool persist : {false, true}) {
        for (unsigned long n = 1; n < 100000; ++n) {
            SCOPED_TRACE(std::string(what) + (persist ? ", persistent" : ", once") + ", N = " + std::to_string(n));
            clearError();
            unsigned long before = inUse();
            bool hit = body(FaultRun{n, persist});
            ZoIF_TestFaultDisarm();
            EXPECT_EQ(inUse(), before) << "memory lost";
            if (::testing::Test::HasFailure()) return failing;
            if (!hit) break;
            ++failing;
        }
    }
    return failing;
}

// Under a sanitizer's operator new only the library's direct calls of the process
// allocator fail; operations that allocate through operator new alone see none.
bool newIsOurs() { return !zotest::sanitizerOwnsOperatorNew(); }

class Environment : public ::testing::Environment {
public:
    void SetUp() override {
        setErrorSuppressed(kResultOutOfMemory);  // recorded, not logged for every run
        // Tables made on first use and kept for the process: made now, so that the
        // sweeps' counts do not see them appear.
        lastError();
        resultToString(0x80001234u);
        { ResultString text(0x80001235u, "warm-up"); }
        Log::theLog()->getCategory("utils");  // where raised errors are logged
        // The arena's first small blocks of each size cut a carrier, counted as
        // allocated for good (under a sanitizer's operator new nothing else has).
        Allocator* a = Allocator::theAllocator();
        void* small = a->alloc(16);
        void* larger = a->alloc(40);
        a->free(small);
        a->free(larger);
        struct Listener : ResultListener {
            void resultRaised(unsigned int) const override {}
        } listener;
        addResultListener(&listener);
        removeResultListener(&listener);
    }
};
::testing::Environment* const gEnvironment = ::testing::AddGlobalTestEnvironment(new Environment);

// --- strings ---------------------------------------------------------------

// A mutator applied to a copy of `start`: on failure the string must be unchanged.
void stringMutator(char const* what, char const* start, std::function<void(String&)> const& op,
                   std::function<std::string(std::string)> const& model) {
    unsigned long failing = sweep(what, [&](FaultRun const& r) {
        String s(start);
        String shared = s;  // the first write must also unshare
        r.arm();
        op(s);
        bool hit = r.disarm();
        std::string want = model(start);
        if (hit) {
            EXPECT_TRUE(std::string(s.text()) == want || std::string(s.text()) == start)
                << "neither the result nor the text before: \"" << s.text() << "\"";
            EXPECT_EQ(lastError(), kResultOutOfMemory);
        } else {
            EXPECT_EQ(std::string(s.text()), want);
        }
        EXPECT_STREQ(shared.text(), start) << "a copy saw the write";
        if (s.representation()) {
            EXPECT_EQ(s.representation()->verify(), nullptr);
        }
        return hit;
    });
    EXPECT_GT(failing, 0u) << what << ": no allocation was made to fail";
}

TEST(Faults, EveryStringMutatorLeavesTheStringAsItWas) {
    char const* base = "hello, world";
    stringMutator("+= text", base, [](String& s) { s += " and a longer tail to force growth"; },
                  [](std::string t) { return t + " and a longer tail to force growth"; });
    stringMutator("+= char", "0123456789abcde", [](String& s) { s += 'x'; }, [](std::string t) { return t + 'x'; });
    stringMutator("+= long", base, [](String& s) { s += -1234567890123L; },
                  [](std::string t) { return t + "-1234567890123"; });
    stringMutator("+= double", base, [](String& s) { s += 1.5; }, [](std::string t) { return t + "1.500000"; });
    stringMutator("append", base, [](String& s) { s.append("abcdefghijklmnopqrstuvwxyz", 26); },
                  [](std::string t) { return t + "abcdefghijklmnopqrstuvwxyz"; });
    stringMutator("replace", base, [](String& s) { s.replace("XYZ", 3, 0, 40); },
                  [](std::string t) { return t + std::string(40 - t.size(), ' ') + "XYZ"; });
    stringMutator("insert", base, [](String& s) { s.insert("abcdefghijklmnopqrstuvwxyz", 20, 2, 3); },
                  [](std::string t) { return t.insert(3, "cdefghijklmnopqrstuv"); });
    stringMutator("remove", base, [](String& s) { s.remove(2, 3); }, [](std::string t) { return t.erase(2, 3); });
    stringMutator("toUpper", base, [](String& s) { s.toUpper(); }, [](std::string) { return std::string("HELLO, WORLD"); });
    stringMutator("rotateLeft", base, [](String& s) { s.rotateLeft(2); },
                  [](std::string t) { return t.substr(2) + t.substr(0, 2); });
    stringMutator("trim", "  padded  ", [](String& s) { s.trim(); }, [](std::string) { return std::string("padded"); });
    stringMutator("expandTo", base, [](String& s) { s.expandTo(70); },
                  [](std::string t) { return t + std::string(70 - t.size(), ' '); });
    stringMutator("resizeFor", base, [](String& s) { s.resizeFor(300); }, [](std::string t) { return t; });
    stringMutator("StringChar", base, [](String& s) { s[1] = 'E'; }, [](std::string t) { return t.replace(1, 1, "E"); });
    stringMutator("self append", base, [](String& s) { s += s; }, [](std::string t) { return t + t; });
}

TEST(Faults, StringsMadeUnderExhaustionAreEmptyOrWhole) {
    unsigned long failing = sweep("constructors and results", [](FaultRun const& r) {
        String source("a text long enough for its own buffer");
        r.arm();
        String made("another text long enough for a buffer");
        String joined = source + " plus more";
        String swapped = source.substitute("text", "TEXT");
        String backwards = source.reverse();
        String piece(source(2, 4));
        bool hit = r.disarm();
        auto emptyOr = [](String const& s, char const* want) {
            return s.length() == 0 || std::strcmp(s.text(), want) == 0;
        };
        EXPECT_TRUE(emptyOr(made, "another text long enough for a buffer")) << made.text();
        // A concatenation is a copy of the left side with the right one appended:
        // when the append finds no memory, the copy stays as it was.
        EXPECT_TRUE(emptyOr(joined, "a text long enough for its own buffer plus more") ||
                    std::strcmp(joined.text(), "a text long enough for its own buffer") == 0)
            << joined.text();
        // The substitution edits a copy; an edit that finds no memory leaves it as it was.
        EXPECT_TRUE(emptyOr(swapped, "a TEXT long enough for its own buffer") ||
                    std::strcmp(swapped.text(), source.text()) == 0)
            << swapped.text();
        EXPECT_TRUE(emptyOr(backwards, "reffub nwo sti rof hguone gnol txet a")) << backwards.text();
        EXPECT_TRUE(emptyOr(piece, "text")) << piece.text();
        EXPECT_STREQ(source.text(), "a text long enough for its own buffer");
        if (!hit) {
            EXPECT_STREQ(made.text(), "another text long enough for a buffer");
        }
        return hit;
    });
    EXPECT_GT(failing, 0u);
}

// --- containers ------------------------------------------------------------

TEST(Faults, VectorGrowthFailsWithoutChange) {
    if (!newIsOurs()) GTEST_SKIP() << "the element tables allocate with operator new";
    unsigned long failing = sweep("Vector add/insert/resize", [](FaultRun const& r) {
        Vector<unsigned int> v;
        for (unsigned int i = 0; i < 4; ++i) v.add(i);
        unsigned long before = v.size();
        r.arm();
        unsigned long at = v.add(100);
        unsigned int more[20] = {};
        v.insert(more, 20, 1);
        v.resizeFor(500);
        bool hit = r.disarm();
        EXPECT_EQ(at, before);
        EXPECT_EQ(v.verify(), nullptr);
        // Each growth either happened whole or changed nothing.
        unsigned long grown = v.size() - before;
        EXPECT_TRUE(grown == 0 || grown == 1 || grown == 20 || grown == 21) << v.size();
        if (grown == 1 || grown == 21) {
            EXPECT_EQ(v[v.size() - 1], 100u);
        }
        EXPECT_EQ(v[0], 0u);
        if (!hit) {
            EXPECT_EQ(v.size(), before + 21);
            EXPECT_GE(v.capacity, 500u);
        }
        return hit;
    });
    EXPECT_GT(failing, 0u);
}

TEST(Faults, AVLTreeInsertFailsWithoutChange) {
    if (!newIsOurs()) GTEST_SKIP() << "tree nodes are made with operator new";
    unsigned long failing = sweep("AVLTree insert", [](FaultRun const& r) {
        AVLTree<int, int> t;
        for (int i = 0; i < 8; ++i) t.insert(i, i);
        r.arm();
        t.insert(100, 1);
        t.intern(50);
        bool hit = r.disarm();
        unsigned long nodes = 0;
        EXPECT_EQ(t.verify(&nodes), nullptr);
        EXPECT_GE(nodes, 8u);
        EXPECT_LE(nodes, 10u);
        if (!hit) {
            EXPECT_EQ(nodes, 10u);
        }
        return hit;
    });
    EXPECT_GT(failing, 0u);
}

// --- results, logging, versions, identifiers ------------------------------

TEST(Faults, RaisingAndRegisteringTextsSurviveExhaustion) {
    sweep("raiseError / ResultString", [](FaultRun const& r) {
        static char const kText[] = "fault-injection test code";
        r.arm();
        unsigned int code = raiseError(0x80001401u);
        ResultString* text = new (std::nothrow) ResultString(0x80001402u, kText);
        char const* shown = resultToString(0x80001402u);
        bool hit = r.disarm();
        EXPECT_EQ(code, 0x80001401u);
        EXPECT_TRUE(std::strcmp(shown, kText) == 0 || std::strcmp(shown, "Failure #0x80001402") == 0) << shown;
        if (!hit) {
            EXPECT_STREQ(shown, kText);
        }
        delete text;
        return hit;
    });
}

TEST(Faults, LogCategoriesAndSinksSurviveExhaustion) {
    unsigned long count = 0;
    sweep("Log::getCategory / setLogger", [&count](FaultRun const& r) {
        Log* hub = new Log();
        if (!hub) return false;
        std::string name = "fault-category-" + std::to_string(count++);
        NullLogger* sink = new NullLogger;
        r.arm();
        unsigned int n = hub->getCategory(name.c_str());
        unsigned int all = hub->getCategory("a:b:c#2");
        hub->enableCategories("x:y#3:z", true);
        hub->setLogger(sink);
        bool hit = r.disarm();
        char const* got = hub->getCategory(n);
        EXPECT_TRUE(got == nullptr || name == got);
        if (!hit) {
            EXPECT_STREQ(got, name.c_str());
            EXPECT_STREQ(hub->getCategory(all), "a:b:c#2");
        }
        // Made again without failure: a category that could not be made is made now.
        EXPECT_STREQ(hub->getCategory(hub->getCategory(name.c_str())), name.c_str());
        delete hub;
        return hit;
    });
}

namespace {

// A sink that counts its own destruction.
struct Counted : Logger {
    explicit Counted(int* d) : destroyed(d) {}
    ~Counted() override { ++*destroyed; }
    int print(MessageClass, char const*, va_list) override { return 5; }
    int* destroyed;
};

}  // namespace

TEST(Faults, HubWithoutItsClassTablePrintsNothingAndKeepsNoSink) {
    unsigned long classless = 0;
    sweep("Log construction", [&classless](FaultRun const& r) {
        r.arm();
        Log* hub = new Log();
        bool hit = r.disarm();
        if (!hub) return hit;
        EXPECT_EQ(detail::verifyHub(*hub), nullptr);
        if (!hub->logger(MessageError)) {
            ++classless;
            for (MessageClass c : {MessageError, MessageWarning, MessageInfo, MessageDebug})
                EXPECT_EQ(hub->logger(c), nullptr) << "class " << c;
            int destroyed = 0;
            // A sink held by nobody else is deleted at once, for all classes or one.
            hub->setLogger(new Counted(&destroyed));
            EXPECT_EQ(destroyed, 1);
            hub->setLogger(MessageInfo, new Counted(&destroyed));
            EXPECT_EQ(destroyed, 2);
            // One that somebody holds stays alive and keeps its count.
            CountedRef<Logger> held = new Counted(&destroyed);
            hub->setLogger(held.get());
            hub->setLogger(MessageWarning, held.get());
            EXPECT_EQ(destroyed, 2);
            EXPECT_EQ(held->refCount(), 1u);
            hub->setLogger(nullptr);
            hub->setLogger(MessageDebug, nullptr);
            EXPECT_EQ(hub->print(MessageError, "classless", -3, "f", 1, "nothing"), 0);
            unsigned int e = 9, w = 9, i = 9, d = 9;
            hub->resetLogStats();
            hub->logStats(e, w, i, d);
            EXPECT_EQ(e + w + i + d, 0u);
            EXPECT_EQ(detail::verifyHub(*hub), nullptr);
        } else {
            EXPECT_NE(hub->logger(MessageDebug), nullptr);
        }
        delete hub;
        return hit;
    });
    if (newIsOurs()) {
        EXPECT_GT(classless, 0u) << "no run left a hub without its class table";
    }
}

TEST(Faults, CategoryMadeWhileTheNameTableCannotGrowIsFoundByTheWalk) {
    unsigned long failing = sweep("getCategory past the name table's first size", [](FaultRun const& r) {
        Log* hub = new Log();
        if (!hub) return false;
        // Sixteen categories fill the first name table to half: the next one grows it.
        for (int k = 0; k < 16; ++k) hub->getCategory(("early" + std::to_string(k)).c_str());
        unsigned int before = 16;
        r.arm();
        unsigned int n = hub->getCategory("late");
        bool hit = r.disarm();
        EXPECT_EQ(detail::verifyHub(*hub), nullptr);
        if (n == before) {
            // Made (perhaps without its name table entry): every later lookup finds it.
            EXPECT_STREQ(hub->getCategory(n), "late");
            EXPECT_EQ(hub->getCategory("late"), n);
        } else {
            // Could not be made: a number that names nothing; made now.
            EXPECT_EQ(hub->getCategory(n), nullptr);
            EXPECT_EQ(hub->getCategory("late"), before);
        }
        EXPECT_EQ(hub->getCategory("early3"), 3u);
        EXPECT_EQ(hub->getCategory("later"), before + 1);
        EXPECT_EQ(detail::verifyHub(*hub), nullptr);
        delete hub;
        return hit;
    });
    if (newIsOurs()) {
        EXPECT_GT(failing, 0u);
    }
}

TEST(Faults, AThreadWhoseErrorEntryCannotBeMadeReadsZeroAndClearsNothing) {
    unsigned int cleared = 1, read = 1;
    bool hit = false;
    std::thread t([&] {
        ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 1);
        clearError();
        cleared = lastError();
        hit = ZoIF_TestFaultHits() > 0;
        ZoIF_TestFaultDisarm();
        read = lastError();
    });
    t.join();
    EXPECT_EQ(cleared, 0u);
    EXPECT_EQ(read, 0u);
    EXPECT_EQ(detail::verifyResultTables(), nullptr);
    if (newIsOurs()) {
        EXPECT_TRUE(hit) << "the entry was made without an allocation";
    }
}

TEST(Faults, TheProcessHubBuiltWithoutMemoryIsNeverNullAndSaysSoOnce) {
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        dup2(pipefd[1], 2);
        // As if this were the process's first theLog(), with no memory at all.
        Log* old = Log::theLog_;
        Log::theLog_ = nullptr;
        ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 1);
        Log* hub = Log::theLog();
        Log* again = Log::theLog();
        bool sinks = hub && hub->logger(MessageError) != nullptr;
        int printed = hub ? hub->print(MessageError, "faults", -3, "f", 1, "dropped") : -1;
        ZoIF_TestFaultDisarm();
        std::string report = std::string("hub=") + (hub ? "set" : "null") + " same=" + (hub == again ? "1" : "0") +
                             " fresh=" + (hub != old ? "1" : "0") + " sinks=" + (sinks ? "1" : "0") +
                             " printed=" + std::to_string(printed) +
                             " sound=" + (hub && !detail::verifyHub(*hub) ? "1" : "0") + "\n";
        if (write(pipefd[1], report.data(), report.size()) < 0) zotest::exitChild(3);
        zotest::exitChild(0);
    }
    close(pipefd[1]);
    int status;
    std::string report = zotest::collectChildReport(pipefd[0], pid, &status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << report;
    EXPECT_NE(report.find("hub=set same=1 fresh=1 "), std::string::npos) << report;
    EXPECT_NE(report.find(" sound=1"), std::string::npos) << report;
    if (newIsOurs()) {
        EXPECT_EQ(report,
                  "zoutils: no memory for the log hub's sinks: nothing will be logged\n"
                  "hub=set same=1 fresh=1 sinks=0 printed=0 sound=1\n");
    }
}

TEST(Faults, VersionsAndIdentifierTextsAreEmptyOnExhaustion) {
    sweep("Version::create / UID::asText", [](FaultRun const& r) {
        UID id(0xC0D1F1EDu, 0x0ABC1234u, 7);
        r.arm();
        CountedRef<Version> v = Version::create(2, 0, 13, 400);
        String text = id.asText();
        bool hit = r.disarm();
        if (v) {
            EXPECT_STREQ(v->asString().text(), "2.0.13.400");
        }
        EXPECT_TRUE(text.length() == 0 || std::strcmp(text.text(), "C0D1F1ED0ABC12347") == 0) << text.text();
        if (!hit) {
            EXPECT_TRUE(v);
        }
        return hit;
    });
}

// --- the page allocator over the process allocator --------------------------

TEST(Faults, PageAllocatorOverTheProcessAllocatorStaysSound) {
    // Its parent regions are never given back: what is checked is the structure
    // and the results, not the parent's count.
    static BSDAllocator* pages = [] {
        auto* b = new BSDAllocator(Allocator::theAllocator());
        b->init();
        return b;
    }();
    static bool drifted = false;
    for (unsigned int sites : {unsigned(ZOIF_FAULT_PROCESS), unsigned(ZOIF_FAULT_PARENT)}) {
        for (bool persist : {false, true}) {
            for (unsigned long n = 1; n < 1000; ++n) {
                ZoIF_TestFaultArm(sites, n, persist);
                void* small = pages->alloc(100, 5);
                void* large = pages->alloc(3 * 4096 + 1, 6);
                void* huge = pages->alloc(300 * 4096, 7);
                ZoIF_TestFaultDisarm();
                bool hit = ZoIF_TestFaultHits() > 0;
                // The counters count a page before it is mapped and keep it when the
                // parent has none (kept on purpose): after a failure only they may be off,
                // and the verifier checks them after the structure.
                std::string fault = BSDAllocatorInspector::verify(*pages);
                bool countersOnly = fault.rfind("allocatedByColor", 0) == 0 || fault.rfind("freeByColor", 0) == 0 ||
                                    fault.rfind("allocatedTotal", 0) == 0;
                EXPECT_TRUE(fault.empty() || ((hit || drifted) && countersOnly)) << fault << ", N = " << n;
                drifted = drifted || hit;
                for (void* p : {small, large, huge}) {
                    if (p) {
                        EXPECT_GE(pages->size(p), 100u);
                    }
                    pages->free(p);
                }
                fault = BSDAllocatorInspector::verify(*pages);
                EXPECT_TRUE(fault.empty() || (drifted && (fault.rfind("allocatedByColor", 0) == 0 ||
                                                          fault.rfind("freeByColor", 0) == 0 ||
                                                          fault.rfind("allocatedTotal", 0) == 0)))
                    << fault;
                if (!hit || ::testing::Test::HasFailure()) break;
            }
        }
    }
}

// --- files -----------------------------------------------------------------

TEST(Faults, FileSinkThatCannotOpenOrWriteStaysSilent) {
    std::string path = ::testing::TempDir() + "zo-faults-" + std::to_string(getpid()) + ".log";
    ZoIF_TestFaultArm(ZOIF_FAULT_OPEN, 1, 0);
    FileLogger* sink = new FileLogger(path.c_str(), FileLogger::Replace);
    ZoIF_TestFaultDisarm();
    ASSERT_EQ(ZoIF_TestFaultHits(), 1u);
    ASSERT_NE(sink, nullptr);
    Log hub;
    hub.setLogger(sink);
    hub.print(MessageError, "faults", -3, "test", 1, "never written");
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "the file was made although its open failed";

    int fd = ZoIF_Open(path.c_str(), 2, 1);
    ASSERT_GE(fd, 0);
    ZoIF_TestFaultArm(ZOIF_FAULT_WRITE, 1, 1);
    EXPECT_EQ(ZoIF_Write(fd, "abc", 3), ENOSPC);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_Write(fd, "abc", 3), 0);
    EXPECT_EQ(ZoIF_Close(fd), 0);
    unlink(path.c_str());
}

// --- the seam itself ---------------------------------------------------------

TEST(Faults, TheCountdownFailsTheNthEventOnceOrFromThenOn) {
    ZoIF_TestFaultArm(ZOIF_FAULT_OPEN, 3, 0);
    int results[5];
    for (int& r : results) {
        r = ZoIF_Open("/dev/null", 4, 0);
        if (r >= 0) ZoIF_Close(r);
    }
    ZoIF_TestFaultDisarm();
    EXPECT_GE(results[0], 0);
    EXPECT_GE(results[1], 0);
    EXPECT_EQ(results[2], -1);
    EXPECT_GE(results[3], 0);
    EXPECT_EQ(ZoIF_TestFaultCalls(), 5u);
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);

    ZoIF_TestFaultArm(ZOIF_FAULT_OPEN | ZOIF_FAULT_WRITE, 2, 1);
    EXPECT_GE(results[0] = ZoIF_Open("/dev/null", 4, 0), 0);
    EXPECT_EQ(ZoIF_Write(results[0], "x", 1), ENOSPC);
    EXPECT_EQ(ZoIF_Write(results[0], "x", 1), ENOSPC);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_Write(results[0], "x", 1), 0);
    EXPECT_EQ(ZoIF_TestFaultHits(), 2u);
    ZoIF_Close(results[0]);
}

TEST(Faults, APrivateArenaFailsWithoutRaising) {
    // A private arena's failure is its own: null, nothing raised, nothing lost.
    static char region[1 << 16] __attribute__((aligned(16)));
    struct OneRegion : Allocator {
        bool given = false;
        using Allocator::alloc;
        void* alloc(unsigned long) override {
            if (given) return nullptr;
            given = true;
            return region;
        }
        void free(void*) override {}
        unsigned long size(void*) const override { return sizeof region; }
        unsigned long allocatedMemory() const override { return 0; }
        unsigned long internalFree() const override { return 0; }
    } parent;
    MemoryAllocator arena(&parent);
    arena.init();
    void* first = arena.alloc(100);
    ASSERT_NE(first, nullptr);
    clearError();
    ZoIF_TestFaultArm(ZOIF_FAULT_ARENA, 1, 0);
    EXPECT_EQ(arena.alloc(100), nullptr);
    void* next = arena.alloc(100);
    ZoIF_TestFaultDisarm();
    EXPECT_NE(next, nullptr);
    EXPECT_EQ(lastError(), 0u);
    arena.free(first);
    arena.free(next);
    EXPECT_EQ(arena.verify(), nullptr);
    EXPECT_EQ(arena.allocatedMemory(), 0u);
}

// --- whole processes under a memory limit ------------------------------------

int runUnderLimit(char const* program, unsigned long limit) {
    pid_t pid = fork();
    if (pid == 0) {
        std::string value = std::to_string(limit);
        setenv("ZOSYS_MEM_LIMIT", value.c_str(), 1);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execl(program, program, static_cast<char*>(nullptr));
        zotest::exitChild(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

TEST(Faults, ProgramsStartAndEndNormallyUnderAnyMemoryLimit) {
#ifdef ZOUTILS_TOUR
    char const* const programs[] = {ZOUTILS_TOUR, FAULTS_PROBE};
#else
    char const* const programs[] = {FAULTS_PROBE};
#endif
    for (char const* program : programs) {
        for (unsigned long limit : {1ul, 1ul << 19, 1ul << 20, (1ul << 20) + 1, 2ul << 20, 3ul << 20, 8ul << 20, 64ul << 20}) {
            int status = runUnderLimit(program, limit);
            // Normally: an exit, not a signal (the tour exits 1 when it has no memory at all).
            EXPECT_TRUE(WIFEXITED(status)) << program << " under ZOSYS_MEM_LIMIT=" << limit << ": status " << status
                                           << (WIFSIGNALED(status) ? std::string(", signal ") + strsignal(WTERMSIG(status)) : "");
            if (std::strcmp(program, FAULTS_PROBE) == 0) {
                EXPECT_EQ(status, 0) << "the probe got a wrong answer under ZOSYS_MEM_LIMIT=" << limit;
            }
        }
    }
}

}  // namespace
