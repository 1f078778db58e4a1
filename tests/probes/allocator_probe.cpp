// A fresh process for test_allocator: allocates from static constructors, from
// static destructors and from exit handlers, and prints one line per check.
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "utils/allocator.h"

namespace {

bool roundTrip(char const* where) {
    Utils::Allocator* a = Utils::Allocator::theAllocator();
    unsigned long before = a->allocatedMemory();
    char* p = static_cast<char*>(::operator new(300));
    bool ok = p && a->valid(p) && a->allocatedMemory() > before;
    if (p) p[299] = 1;
    ::operator delete(p);
    void* q = a->alloc(20, 3);  // a small block in an explicit colour, via the interface
    ok = ok && q && a->color(q) == 3;
    a->free(q);
    ok = ok && a->allocatedMemory() == before;
    std::printf("%s %s\n", where, ok ? "ok" : "FAILED");
    std::fflush(stdout);
    return ok;
}

// Constructed before main; its destructor runs at exit, after main's handlers.
struct StaticUser {
    std::string* kept;
    StaticUser() : kept(new std::string(100, 'x')) { roundTrip("static constructor"); }
    ~StaticUser() {
        delete kept;
        roundTrip("static destructor");
    }
} user;

void atExit() { roundTrip("exit handler"); }

}  // namespace

int main() {
    std::atexit(atExit);
    return roundTrip("main") ? 0 : 1;
}
