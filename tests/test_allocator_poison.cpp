// Under AddressSanitizer the allocators poison what the program must not touch:
// the bytes past a request, released blocks, free space and bookkeeping. Each
// mistake below must stop the program with the sanitizer's report. In a build
// without AddressSanitizer the tests skip.
#include <gtest/gtest.h>

#include <cstring>

#include "utils/allocator.h"
#include "utils/string.h"

using Utils::Allocator;
using Utils::BSDAllocator;
using Utils::String;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAsan = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAsan = true;
#else
constexpr bool kAsan = false;
#endif
#else
constexpr bool kAsan = false;
#endif

#define SKIP_WITHOUT_ASAN() \
    if (!kAsan) GTEST_SKIP() << "the library is poisoned only in an AddressSanitizer build (asan preset)"

// Poisoned by the allocator: reported as a use after poison (ASan's own heap
// reports other words, so the pattern shows whose poisoning stopped the program).
constexpr char kReport[] = "AddressSanitizer: use-after-poison";

void* volatile gLaunder;
char* launder(void* p) {
    gLaunder = p;
    return static_cast<char*>(gLaunder);
}
volatile char gSink;

BSDAllocator& pages() {
    static BSDAllocator* a = [] {
        static BSDAllocator page(Allocator::theAllocator());
        page.init();
        return &page;
    }();
    return *a;
}

TEST(AllocatorPoisonDeathTest, OverrunPastAnArenaRequestIsReported) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char* p = launder(Allocator::theAllocator()->alloc(990));
            std::memset(p, 1, 990);
            p[990 + 7] = 2;
        },
        kReport);
}

TEST(AllocatorPoisonDeathTest, ReadOfAReleasedArenaBlockIsReported) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char* p = launder(Allocator::theAllocator()->alloc(200));
            Allocator::theAllocator()->free(p);
            gSink = p[10];
        },
        kReport);
}

TEST(AllocatorPoisonDeathTest, ArenaHeadersArePoisoned) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char* p = launder(Allocator::theAllocator()->alloc(64));
            gSink = p[-4];  // the block's size word
        },
        kReport);
}

TEST(AllocatorPoisonDeathTest, OverrunPastAStringBufferIsReported) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            String s("a string whose buffer comes from the process allocator");
            Utils::StringRep const* rep = s.representation();
            char* end = launder(rep->data + rep->capacity);
            end[0] = 2;
        },
        kReport);
}

TEST(AllocatorPoisonDeathTest, ReadOfAReleasedStringBufferIsReported) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            String* s = new String("a string that is gone before it is read");
            char const* text = launder(const_cast<char*>(s->text()));
            delete s;
            gSink = text[3];
        },
        kReport);
}

TEST(AllocatorPoisonDeathTest, OverrunPastAPageAllocatorChunkIsReported) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char* p = launder(pages().alloc(100));
            p[100] = 2;  // inside the 128-byte chunk, past the request
        },
        kReport);
}

TEST(AllocatorPoisonDeathTest, ReadOfAReleasedPageRunIsReported) {
    SKIP_WITHOUT_ASAN();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            char* p = launder(pages().alloc(9000));
            pages().free(p);
            gSink = p[5000];
        },
        kReport);
}

// What the program may touch stays usable: the whole usable size once asked for,
// and blocks handed out again after release.
TEST(AllocatorPoison, HandedOutMemoryIsUsableToItsEnd) {
    Allocator* a = Allocator::theAllocator();
    for (unsigned long n : {1ul, 24ul, 100ul, 990ul, 5000ul, 70000ul}) {
        char* p = launder(a->alloc(n));
        ASSERT_NE(p, nullptr);
        std::memset(p, 1, n);
        unsigned long usable = a->size(p);
        std::memset(p, 2, usable);
        a->free(p);
        char* q = launder(a->alloc(n));
        std::memset(q, 3, n);
        a->free(q);
    }
    for (unsigned long n : {8ul, 100ul, 2048ul, 4096ul, 9000ul}) {
        char* p = launder(pages().alloc(n));
        ASSERT_NE(p, nullptr);
        std::memset(p, 1, pages().size(p));
        pages().free(p);
    }
}

}  // namespace
