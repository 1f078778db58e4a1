// Uses the library and its system layer through the installed headers only.
#include <cstdio>

#include <utils/object.h>
#include <zosys.h>

namespace {
struct Note : Utils::Object {
    ~Note() override { std::printf("note released\n"); }
};
}  // namespace

int main() {
    Utils::CountedRef<Note> a(new Note);
    Utils::CountedRef<Note> b = a;
    std::printf("count %u\n", a->refCount());
    a.reset();
    b.reset();
    unsigned slot = ZoIF_AllocateTLSCoop();
    ZoIF_SetTLSCoop(slot, 5);
    std::printf("tls %u, coop task %s\n", ZoIF_GetTLSCoop(slot), ZoIF_CurrentTaskIdCoop() >= 1 ? "ok" : "bad");
    return 0;
}
