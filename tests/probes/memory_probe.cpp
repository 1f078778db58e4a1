// A program for the memory-visibility tests, one case per run.
//
// Run under valgrind's memcheck by test_memcheck, with known memory mistakes: each
// mistake sits in a function of its own, named mistake_<kind>_<path>, so that the
// test finds every report by its stack.
//
//   memory_probe clean                 allocates, uses and releases correctly on
//                                      every path
//   memory_probe mistake_<kind>_<path>  one mistake (a process each: an overrun
//                                      may well break the allocator it hits)
//   memory_probe colors                 names colours 5 ("cache") and 9 ("parser")
//                                      and leaves 40 blocks of 1000 bytes in colour
//                                      5 and 10 of 3000 in colour 9 allocated, for
//                                      the exit report (test_allocator_report)
//   memory_probe double-delete          deletes one array twice (only meant to be run
//                                      under ZoUtils.Memory.SystemAllocator, where
//                                      glibc catches it)
//   memory_probe operators              prints what the process allocator knows of
//                                      a block from operator new, and of one from
//                                      theAllocator()->alloc (test_allocator_report)
//     overrun    8 bytes written past the block
//     stale      a read after the block was released
//     undefined  a branch on bytes nobody wrote
//     leak       a block nobody points to any more
//   paths: alloc (Allocator::theAllocator()->alloc), string (a String's buffer),
//   page (a BSDAllocator over the process allocator).
#include <malloc.h>

#include <cstdio>
#include <cstring>

#include "utils/allocator.h"
#include "utils/string.h"

using Utils::Allocator;
using Utils::BSDAllocator;
using Utils::String;

namespace {

// Values the compiler cannot see through, so that no mistake is optimised away.
volatile unsigned long gSink;
void* volatile gLaunder;
char* launder(void* p) {
    gLaunder = p;
    return static_cast<char*>(gLaunder);
}

BSDAllocator* pages() {
    static BSDAllocator* a = [] {
        static BSDAllocator page(Allocator::theAllocator());
        page.init();
        return &page;
    }();
    return a;
}

#define MISTAKE extern "C" __attribute__((noinline, used))

// --- theAllocator()->alloc ---------------------------------------------------
MISTAKE void mistake_overrun_alloc() {
    // 990 bytes sit in a block of 1000 usable: the 8 bytes past the request land
    // in the block's own slack, and the arena survives to report more.
    char* p = launder(Allocator::theAllocator()->alloc(990));
    std::memset(p, 1, 990);
    std::memset(p + 990, 2, 8);
    Allocator::theAllocator()->free(p);
}
MISTAKE void mistake_stale_alloc() {
    char* p = launder(Allocator::theAllocator()->alloc(200));
    std::memset(p, 1, 200);
    Allocator::theAllocator()->free(p);
    gSink = static_cast<unsigned char>(p[10]);
}
MISTAKE void mistake_undefined_alloc() {
    char* p = launder(Allocator::theAllocator()->alloc(64));
    if (p[5] == 42) gSink = 1;
    Allocator::theAllocator()->free(p);
}
MISTAKE void mistake_leak_alloc() {
    char* p = launder(Allocator::theAllocator()->alloc(1000));
    std::memset(p, 3, 1000);
    gLaunder = nullptr;
}

// --- a String's buffer ---------------------------------------------------------
MISTAKE void mistake_overrun_string() {
    String s("a string whose buffer comes from the process allocator");
    Utils::StringRep const* rep = s.representation();
    char* end = launder(rep->data + rep->capacity);
    std::memset(end, 2, 8);
}
MISTAKE void mistake_stale_string() {
    String* s = new String("a string that is gone before it is read");
    char const* text = launder(const_cast<char*>(s->text()));
    delete s;
    gSink = static_cast<unsigned char>(text[3]);
}
MISTAKE void mistake_undefined_string() {
    String s("short");
    s += " and longer, so that the buffer has slack past the text";
    Utils::StringRep const* rep = s.representation();
    char const* slack = launder(rep->data + rep->length + 2);
    if (*slack == 42) gSink = 1;
}
MISTAKE void mistake_leak_string() {
    String* s = new String("a string nobody releases, buffer and all");
    *s += " (grown once)";
    gLaunder = s;
    gLaunder = nullptr;
}

// --- a BSDAllocator ---------------------------------------------------------------
MISTAKE void mistake_overrun_page() {
    char* p = launder(pages()->alloc(100));
    std::memset(p, 1, 100);
    std::memset(p + 128, 2, 8);  // past the 128-byte chunk
    pages()->free(p);
}
MISTAKE void mistake_stale_page() {
    char* p = launder(pages()->alloc(5000));
    std::memset(p, 1, 5000);
    pages()->free(p);
    gSink = static_cast<unsigned char>(p[4000]);
}
MISTAKE void mistake_undefined_page() {
    char* p = launder(pages()->alloc(300));
    if (p[7] == 42) gSink = 1;
    pages()->free(p);
}
MISTAKE void mistake_leak_page() {
    // A chunk page's record points at the page, and so at its first chunk, which
    // the leak checker therefore always finds reachable: the leak is the second.
    static char* first = static_cast<char*>(pages()->alloc(1000));
    gSink = reinterpret_cast<unsigned long>(first);
    char* p = launder(pages()->alloc(1000));
    std::memset(p, 3, 1000);
    gLaunder = nullptr;
}

// Everything done right, on every path.
void clean() {
    char* a = launder(Allocator::theAllocator()->alloc(1000));
    std::memset(a, 1, 1000);
    unsigned long usable = Allocator::theAllocator()->size(a);
    std::memset(a, 2, usable);  // the whole usable size is the caller's once told
    gSink = static_cast<unsigned char>(a[usable - 1]);
    Allocator::theAllocator()->free(a);

    String s("a string");
    for (int i = 0; i < 20; ++i) s += " that grows";
    String t = s;
    t += "!";
    gSink = t.length() + static_cast<unsigned char>(t.text()[t.length() - 1]);

    char* small = launder(pages()->alloc(100));
    char* run = launder(pages()->alloc(9000));
    std::memset(small, 1, 100);
    std::memset(run, 1, 9000);
    gSink = static_cast<unsigned char>(small[99] + run[8999]);
    pages()->free(run);
    pages()->free(small);

    // Many blocks in and out, so that blocks merge, split and are reused.
    void* held[64];
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 64; ++i) {
            held[i] = Allocator::theAllocator()->alloc(static_cast<unsigned long>(16 + 40 * i + round));
            std::memset(held[i], i, static_cast<unsigned long>(16 + 40 * i + round));
        }
        for (int i = 0; i < 64; i += 2) Allocator::theAllocator()->free(held[i]);
        for (int i = 1; i < 64; i += 2) Allocator::theAllocator()->free(held[i]);
    }
}

// Blocks left for the exit report, in named colours.
void colors() {
    Utils::setMemoryColorName(5, "cache");
    Utils::setMemoryColorName(9, "parser");
    static void* kept[50];
    for (int i = 0; i < 40; ++i) kept[i] = Allocator::theAllocator()->alloc(1000, 5);
    for (int i = 40; i < 50; ++i) kept[i] = Allocator::theAllocator()->alloc(3000, 9);
    gLaunder = kept;
}

// Where operator new's blocks come from.
void operators() {
    Allocator* a = Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    char* p = launder(new char[3000]);
    std::memset(p, 1, 3000);
    unsigned long counted = a->allocatedMemory() - before;
    unsigned long newSize = a->size(p);
    // Only a block that is not the arena's may be asked of malloc.
    unsigned long usable = newSize == 0 ? malloc_usable_size(p) : 0;
    char* q = launder(a->alloc(3000));
    std::printf("new-size=%lu counted=%lu malloc-usable=%lu arena-size=%lu\n", newSize, counted, usable, a->size(q));
    a->free(q);
    delete[] p;
}

void doubleDelete() {
    char* p = launder(new char[100]);
    delete[] p;
    delete[] launder(p);
}

}  // namespace

int main(int argc, char** argv) {
    struct {
        char const* name;
        void (*run)();
    } const cases[] = {
        {"clean", clean},
        {"colors", colors},
        {"operators", operators},
        {"double-delete", doubleDelete},
#define CASE(f) {#f, f}
        CASE(mistake_overrun_alloc),   CASE(mistake_stale_alloc),  CASE(mistake_undefined_alloc),
        CASE(mistake_leak_alloc),      CASE(mistake_overrun_string), CASE(mistake_stale_string),
        CASE(mistake_undefined_string), CASE(mistake_leak_string),  CASE(mistake_overrun_page),
        CASE(mistake_stale_page),      CASE(mistake_undefined_page), CASE(mistake_leak_page),
#undef CASE
    };
    for (auto const& c : cases) {
        if (argc == 2 && std::strcmp(argv[1], c.name) == 0) {
            c.run();
            std::puts("done");
            return 0;
        }
    }
    std::fprintf(stderr, "usage: memory_probe clean|colors|operators|mistake_<overrun|stale|undefined|leak>_<alloc|string|page>\n");
    return 2;
}
