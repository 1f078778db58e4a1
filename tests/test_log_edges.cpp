// The log hub's verifier against damaged tables, and the hub's answers when memory
// runs out while a sink, the default sink or a category list is being made.
//
// The damage tests reach the hub's private tables through pointers to members
// taken in explicit instantiations (where access is not checked), break one
// invariant, read the verifier's message, and put the table back: the verifier
// is quiet again and the hub is destroyed as usual.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

#include "child.h"
#include "knobs.h"
#include "quiet_log.h"
#include "log/hub_internal.h"
#include "utils/log.h"
#include "utils/result.h"
#include "zosys_faults.h"

using namespace Utils;

namespace {

// --- reaching private members ------------------------------------------------

// Tag::member receives the pointer to member when Reach<Tag, M> is instantiated
// explicitly (an explicit instantiation may name a private member).
template <class Tag, typename Tag::type M>
struct Reach {
    static bool const done;
};
template <class Tag, typename Tag::type M>
bool const Reach<Tag, M>::done = (Tag::member = M, true);

struct HubIndex {
    using type = detail::LogIndex Log::*;
    static inline type member;
};
struct HubCategories {
    using type = Vector<LogCat*> Log::*;
    static inline type member;
};
struct HubClasses {
    using type = Vector<LogClass> Log::*;
    static inline type member;
};
struct IndexSegments {
    using type = std::atomic<LogCat**> (detail::LogIndex::*)[detail::LogIndex::kSegments];
    static inline type member;
};
struct IndexCount {
    using type = std::atomic<unsigned int> detail::LogIndex::*;
    static inline type member;
};
struct IndexSinks {
    using type = std::atomic<Logger*> (detail::LogIndex::*)[4];
    static inline type member;
};
struct IndexNames {
    using type = std::atomic<void*> detail::LogIndex::*;
    static inline type member;
};

// Explicit instantiations stand in the template's own (unnamed) namespace.
template struct Reach<HubIndex, &Log::index>;
template struct Reach<HubCategories, &Log::categories>;
template struct Reach<HubClasses, &Log::classes>;
template struct Reach<IndexSegments, &detail::LogIndex::segments_>;
template struct Reach<IndexCount, &detail::LogIndex::count_>;
template struct Reach<IndexSinks, &detail::LogIndex::sinks_>;
template struct Reach<IndexNames, &detail::LogIndex::names_>;

detail::LogIndex& indexOf(Log& log) { return log.*HubIndex::member; }
Vector<LogCat*>& categoriesOf(Log& log) { return log.*HubCategories::member; }
Vector<LogClass>& classesOf(Log& log) { return log.*HubClasses::member; }
std::atomic<LogCat**>* segmentsOf(Log& log) { return indexOf(log).*IndexSegments::member; }
std::atomic<unsigned int>& countOf(Log& log) { return indexOf(log).*IndexCount::member; }
std::atomic<Logger*>* mirrorOf(Log& log) { return indexOf(log).*IndexSinks::member; }
std::atomic<void*>& namesOf(Log& log) { return indexOf(log).*IndexNames::member; }

// The name table's layout (registry.cpp): a header, then mask + 1 slots, each
// (hash << 32) | (number + 1), 0 when empty.
struct NameTableHeader {
    unsigned int mask;
    void* retired;
};

// A private copy of a hub's name table, put in the hub's place for the life of
// the object and taken out again, so that the copy can be damaged freely.
class NameTableCopy {
public:
    explicit NameTableCopy(Log& log) : slot_(namesOf(log)), original_(slot_.load()) {
        auto const* header = static_cast<NameTableHeader const*>(original_);
        size_ = header->mask + 1ul;
        unsigned long bytes = sizeof(NameTableHeader) + size_ * sizeof(unsigned long);
        copy_ = std::malloc(bytes);
        std::memcpy(copy_, original_, bytes);
        slot_.store(copy_);
    }
    ~NameTableCopy() {
        slot_.store(original_);
        std::free(copy_);
    }
    NameTableCopy(NameTableCopy const&) = delete;
    NameTableCopy& operator=(NameTableCopy const&) = delete;

    unsigned long size() const { return size_; }
    unsigned long& at(unsigned long i) {
        return reinterpret_cast<unsigned long*>(static_cast<char*>(copy_) + sizeof(NameTableHeader))[i];
    }
    // The slot that holds category n.
    unsigned long find(unsigned int n) {
        for (unsigned long i = 0; i < size_; ++i)
            if (at(i) && static_cast<unsigned int>(at(i)) == n + 1) return i;
        return size_;
    }
    unsigned long firstEmpty() {
        for (unsigned long i = 0; i < size_; ++i)
            if (!at(i)) return i;
        return size_;
    }

private:
    std::atomic<void*>& slot_;
    void* original_;
    void* copy_;
    unsigned long size_;
};

// A hub with three categories on a sink of its own.
struct Discard : Logger {
    int print(MessageClass, char const*, va_list) override { return 0; }
};

class DamagedHub : public ::testing::Test {
protected:
    void SetUp() override {
        sink = new Discard;
        log.setLogger(sink.get());
        for (char const* name : {"aa", "bb", "cc"}) log.getCategory(name);
        ASSERT_EQ(detail::verifyHub(log), nullptr);
    }
    void TearDown() override { EXPECT_EQ(detail::verifyHub(log), nullptr) << "the damage was not undone"; }
    Log log;
    CountedRef<Logger> sink;
};

// --- the owning list against the index ------------------------------------------

TEST_F(DamagedHub, ListShorterThanTheIndexCountIsReported) {
    Vector<LogCat*>& list = categoriesOf(log);
    list.count -= 1;
    EXPECT_STREQ(detail::verifyHub(log), "log hub: the index count is not the number of categories");
    list.count += 1;
}

TEST_F(DamagedHub, ListEntriesInAnotherOrderThanTheIndexAreReported) {
    Vector<LogCat*>& list = categoriesOf(log);
    std::swap(list[0], list[1]);
    EXPECT_STREQ(detail::verifyHub(log), "log hub: an index entry is not its category");
    std::swap(list[0], list[1]);
}

// --- the index's segments ----------------------------------------------------------

TEST_F(DamagedHub, SegmentBeyondTheCountIsReported) {
    // Three categories live in segment 0: segment 2 must not exist (segment 1 may,
    // made for a category that then found no memory).
    LogCat* stray[64] = {};
    segmentsOf(log)[2].store(stray);
    EXPECT_STREQ(detail::verifyHub(log), "log index: a segment beyond the count exists");
    segmentsOf(log)[2].store(nullptr);
}

TEST_F(DamagedHub, NamelessCategoryBelowTheCountIsReported) {
    unsigned int second = 1;
    LogCat* category = segmentsOf(log)[0].load()[second];
    ASSERT_STREQ(category->name, log.getCategory(second));
    char* name = category->name;
    category->name = nullptr;
    EXPECT_STREQ(detail::verifyHub(log), "log index: an entry below the count is empty");
    category->name = name;
}

// --- the name table ------------------------------------------------------------------

TEST_F(DamagedHub, SlotOfANumberAtOrPastTheCountIsReported) {
    // Index and list both one shorter: the last category's slot names a number
    // past the count.
    std::atomic<unsigned int>& count = countOf(log);
    Vector<LogCat*>& list = categoriesOf(log);
    count.store(2);
    list.count = 2;
    EXPECT_STREQ(detail::verifyHub(log), "log name table: a slot names no category");
    count.store(3);
    list.count = 3;
}

TEST_F(DamagedHub, SlotWhoseHashIsNotItsNamesIsReported) {
    unsigned int second = 1;
    char* name = const_cast<char*>(log.getCategory(second));  // "bb", the category's own copy
    ASSERT_STREQ(name, "bb");
    name[1] = 'x';
    EXPECT_STREQ(detail::verifyHub(log), "log name table: a slot's hash is not its name's");
    name[1] = 'b';
}

TEST_F(DamagedHub, TableMoreThanHalfFullIsReported) {
    NameTableCopy table(log);
    ASSERT_EQ(detail::verifyHub(log), nullptr) << "the copy alone is sound";
    // Sound slots (each a copy of category 0's) until more than half are taken.
    unsigned long slot = table.at(table.find(0));
    for (unsigned long filled = 3; 2 * filled <= table.size(); ++filled) table.at(table.firstEmpty()) = slot;
    EXPECT_STREQ(detail::verifyHub(log), "log name table: more than half full");
}

TEST_F(DamagedHub, CategoryEnteredTwiceIsReported) {
    NameTableCopy table(log);
    // A second slot for category 1 after its own: lookups still find the first.
    table.at(table.firstEmpty()) = table.at(table.find(1));
    EXPECT_STREQ(detail::verifyHub(log), "log name table: a category is entered twice");
}

TEST_F(DamagedHub, CategoryMissingFromTheTableBelowTheHighestIsReported) {
    NameTableCopy table(log);
    table.at(table.find(0)) = 0;
    EXPECT_STREQ(detail::verifyHub(log), "log name table: a category is missing or misfiled");
}

TEST_F(DamagedHub, LaterCategoriesMissingFromTheTableAreSoundButNotADuplicateName) {
    NameTableCopy table(log);
    // As when the table could not grow: the last category is not in it.
    table.at(table.find(2)) = 0;
    EXPECT_EQ(detail::verifyHub(log), nullptr);
    EXPECT_EQ(log.getCategory("cc"), 2u) << "found by the walk";
    // That category renamed to the first one's name: the table is still sound, the
    // hub is not.
    unsigned int third = 2;
    char* name = const_cast<char*>(log.getCategory(third));
    name[0] = name[1] = 'a';
    EXPECT_STREQ(detail::verifyHub(log), "log hub: two categories share a name");
    name[0] = name[1] = 'c';
}

TEST(LogNameTable, NamesWithTheSameHashAreTwoCategoriesEachFoundUnderItsOwnNumber) {
    // "costarring" and "liquid" share their 32-bit FNV-1a hash, so the second one's
    // lookups pass over the first one's slot.
    Log log;
    unsigned int first = log.getCategory("costarring");
    unsigned int second = log.getCategory("liquid");
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(log.getCategory("liquid"), second);
    EXPECT_EQ(log.getCategory("costarring"), first);
    EXPECT_STREQ(log.getCategory(second), "liquid");
    log.setLevel(second, 4);
    EXPECT_EQ(log.level(second), 4);
    EXPECT_EQ(log.level(first), 0);
    EXPECT_EQ(detail::verifyHub(log), nullptr);
}

// --- the class table and the readers' mirror ---------------------------------------

TEST_F(DamagedHub, ClassTableOfAnotherSizeIsReported) {
    Vector<LogClass>& classes = classesOf(log);
    classes.count = 3;
    EXPECT_STREQ(detail::verifyHub(log), "log hub: the class table has neither 0 nor 4 classes");
    classes.count = 4;
}

TEST_F(DamagedHub, HubWithoutClassesThatStillHasASinkIsReported) {
    Vector<LogClass>& classes = classesOf(log);
    classes.count = 0;
    EXPECT_STREQ(detail::verifyHub(log), "log hub: a hub without classes has a sink");
    classes.count = 4;
}

TEST_F(DamagedHub, MirrorThatDiffersFromItsClassIsReported) {
    Discard other;
    std::atomic<Logger*>& info = mirrorOf(log)[MessageInfo];
    info.store(&other);
    EXPECT_STREQ(detail::verifyHub(log), "log hub: a class's sink is not the readers' mirror of it");
    info.store(sink.get());
}

TEST_F(DamagedHub, ClassNamedForAnotherIndexOrUnnamedIsReported) {
    LogClass& warning = classesOf(log)[MessageWarning];
    char const* name = warning.name;
    warning.name = "error";
    EXPECT_STREQ(detail::verifyHub(log), "log hub: a class is not at its index");
    warning.name = nullptr;
    EXPECT_STREQ(detail::verifyHub(log), "log hub: a class is not at its index");
    warning.name = name;
}

TEST_F(DamagedHub, ClassSinkWithoutAReferenceIsReported) {
    // The four classes and this holder.
    unsigned int refs = sink->refCount();
    ASSERT_EQ(refs, 5u);
    for (unsigned int i = 0; i < refs; ++i) sink->decRef();
    EXPECT_STREQ(detail::verifyHub(log), "log hub: a class holds a sink without counting it");
    for (unsigned int i = 0; i < refs; ++i) sink->incRef();
}

// --- memory exhaustion ------------------------------------------------------------

// Raised out-of-memory errors are recorded, not logged, while a test runs.
class Exhaustion : public ::testing::Test {
protected:
    void SetUp() override {
        if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
        setErrorSuppressed(kResultOutOfMemory);
    }
    void TearDown() override {
        ZoIF_TestFaultDisarm();
        clearErrorSuppressed(kResultOutOfMemory);
    }
};

TEST_F(Exhaustion, DefaultSinkThatFindsNoMemoryIsAnEmptyHolderAndIsMadeOnTheNextCall) {
    Log* hub = Log::theLog();
    CountedRef<Logger> before = Log::theDefaultLogger();
    detail::dropDefaultLogger();
    ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 0);
    CountedRef<Logger> none = Log::theDefaultLogger();
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_FALSE(none);
    EXPECT_EQ(Log::theDefaultLogger_.get(), nullptr);
    CountedRef<Logger> made = Log::theDefaultLogger();
    ASSERT_TRUE(made);
    EXPECT_NE(dynamic_cast<StdLogger*>(made.get()), nullptr);
    EXPECT_EQ(Log::theDefaultLogger_.get(), made.get());
    EXPECT_EQ(made->refCount(), 2u);  // the slot and this holder
    EXPECT_EQ(detail::verifyHub(*hub), nullptr);
}

TEST_F(Exhaustion, CategoryListWithoutMemoryForItsCopyChangesNothing) {
    Log log;
    unsigned int first = log.getCategory("present");
    ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, 1, 0);
    log.enableCategories("present#5:absent", true);
    ZoIF_TestFaultDisarm();
    EXPECT_EQ(ZoIF_TestFaultHits(), 1u);
    EXPECT_EQ(log.getCategory(first + 1), nullptr) << "no category was made";
    EXPECT_FALSE(log.enabled(first));
    EXPECT_EQ(log.level(first), 0);
    log.enableCategories("present#5:absent", true);
    EXPECT_TRUE(log.enabled(first));
    EXPECT_EQ(log.level(first), 5);
    EXPECT_STREQ(log.getCategory(first + 1), "absent");
    EXPECT_EQ(detail::verifyHub(log), nullptr);
}

using zotest::ConfigurationFor;

// Builds hubs with the N-th allocation failing, N = 1, 2, ... until a build
// reaches no N-th allocation. Every hub is sound and its four classes share one
// sink: none (no class table), the configured kind, or the default sink (the
// configured one found no memory). Returns how many hubs kept the default sink.
template <class Configured>
unsigned long buildHubsUnderExhaustion(char const* word) {
    unsigned long keptDefault = 0;
    for (unsigned long n = 1; n < 1000; ++n) {
        SCOPED_TRACE(std::string(word) + ", N = " + std::to_string(n));
        ZoIF_TestFaultArm(ZOIF_FAULT_PROCESS, n, 0);
        Log* hub = new Log;
        ZoIF_TestFaultDisarm();
        bool hit = ZoIF_TestFaultHits() > 0;
        if (hub) {
            EXPECT_EQ(detail::verifyHub(*hub), nullptr);
            Logger* sink = hub->logger(MessageError);
            for (MessageClass c : {MessageWarning, MessageInfo, MessageDebug}) EXPECT_EQ(hub->logger(c), sink);
            if (sink && dynamic_cast<Configured*>(sink) == nullptr) {
                EXPECT_EQ(sink, Log::theDefaultLogger().get()) << "neither the configured nor the default sink";
                EXPECT_TRUE(hit);
                ++keptDefault;
            }
            if (!hit) {
                EXPECT_NE(dynamic_cast<Configured*>(sink), nullptr);
            }
            delete hub;
        }
        if (!hit || ::testing::Test::HasFailure()) break;
    }
    return keptDefault;
}

TEST_F(Exhaustion, ConfiguredSinkThatFindsNoMemoryLeavesTheDefaultSink) {
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "null"}};
        EXPECT_GT(buildHubsUnderExhaustion<NullLogger>("null"), 0u);
    }
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "system"}};
        EXPECT_GT(buildHubsUnderExhaustion<SystemLogger>("system"), 0u);
    }
    std::string path = ::testing::TempDir() + "zo-log-edges-" + std::to_string(getpid()) + ".log";
    {
        ConfigurationFor config{{"ZOUTILS_LOG_LOGGER", "file"}, {"ZOUTILS_LOG_FILENAME", path}};
        EXPECT_GT(buildHubsUnderExhaustion<FileLogger>("file"), 0u);
    }
    unlink(path.c_str());
}

// --- the first theLog() of a process, from two threads ------------------------------

// The scheduler state of thread `tid` of this process ('R', 'S', ...).
char threadState(long tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string::size_type end = stat.rfind(')');
    return end == std::string::npos || end + 2 >= stat.size() ? '?' : stat[end + 2];
}

// Waits until thread `tid` sleeps (without /proc, only until it has started: the
// results below hold either way, only the order of the two calls is then left open).
void awaitSleep(std::atomic<long> const& tid) {
    while (tid.load() == 0) std::this_thread::yield();
    for (char state; (state = threadState(tid.load())) != 'S' && state != '?';) std::this_thread::yield();
}

// The first thread builds the hub with a file sink on a FIFO, so it waits in the
// open, inside the hub's construction, until a reader comes; the second thread
// asks for the hub meanwhile and waits for the first. Both get the one hub built.
TEST(LogProcessHub, SecondFirstCallWaitsForTheHubTheFirstOneBuilds) {
    std::string fifo = ::testing::TempDir() + "zo-log-edges-fifo-" + std::to_string(getpid());
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        setenv("ZOUTILS_LOG_LOGGER", "file", 1);
        setenv("ZOUTILS_LOG_FILENAME", fifo.c_str(), 1);
        Log* old = Log::theLog_;
        Log::theLog_ = nullptr;  // as before the process's first theLog()
        std::atomic<long> firstTid{0}, secondTid{0};
        Log* first = nullptr;
        Log* second = nullptr;
        std::thread a([&] {
            firstTid.store(static_cast<long>(syscall(SYS_gettid)));
            first = Log::theLog();
        });
        awaitSleep(firstTid);  // in the open of the FIFO
        std::thread b([&] {
            secondTid.store(static_cast<long>(syscall(SYS_gettid)));
            second = Log::theLog();
        });
        awaitSleep(secondTid);  // on the lock the first one holds
        int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);  // lets the first one's open finish
        a.join();
        b.join();
        FileLogger* sink = first ? dynamic_cast<FileLogger*>(first->logger(MessageError)) : nullptr;
        std::string report = std::string("reader=") + (reader >= 0 ? "1" : "0") + " same=" +
                             (first && first == second ? "1" : "0") + " published=" +
                             (Log::theLog_ == first ? "1" : "0") + " fresh=" + (first != old ? "1" : "0") +
                             " file=" + (sink && sink->valid() ? "1" : "0") +
                             " sound=" + (first && !detail::verifyHub(*first) ? "1" : "0") + "\n";
        if (write(pipefd[1], report.data(), report.size()) < 0) zotest::exitChild(3);
        zotest::exitChild(0);
    }
    close(pipefd[1]);
    int status;
    std::string report = zotest::collectChildReport(pipefd[0], pid, &status);
    unlink(fifo.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << report;
    EXPECT_EQ(report, "reader=1 same=1 published=1 fresh=1 file=1 sound=1\n");
}

}  // namespace
