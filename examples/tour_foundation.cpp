// Tour: the system layer and the object model.
#include <cstdio>

#include "tour.h"
#include "utils/object.h"
#include "zosys.h"

void tourSystemLayer() {
    std::printf("\n-- System layer --\n[examples/tour_foundation.cpp: ZoIF_ functions (zosys.h)]\n");
    std::printf("task %d, cooperative task %d\n", ZoIF_CurrentTaskId(), ZoIF_CurrentTaskIdCoop());
    unsigned slot = ZoIF_AllocateTLSCoop();
    std::printf("fresh TLS slot %u reads %u; ", slot, ZoIF_GetTLSCoop(slot));
    ZoIF_SetTLSCoop(slot, 42);
    std::printf("after set: %u\n", ZoIF_GetTLSCoop(slot));
    ZoIF_Handle ev = ZoIF_CreateEvent(0, 1);
    int first = ZoIF_WaitEventTimed(ev, 0.0);
    int second = ZoIF_WaitEventTimed(ev, 0.01);
    std::printf("auto-reset event, initially signalled: first wait %d, second wait %d (timed out)\n", first, second);
    ZoIF_DestroyEvent(ev);
    int level = 0;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Level", &level) == 0)
        std::printf("configured ZoUtils.Log.Level: %d\n", level);
    else
        std::printf("ZoUtils.Log.Level is not configured (try ZOUTILS_LOG_LEVEL=2, or ZOSYS_CONFIG_DEBUG=1)\n");
    std::printf("%.3f s since the layer was loaded\n", ZoIF_ZeroBasedTime());
}

namespace {
struct Greeting : Utils::Object {
    ~Greeting() override { std::printf("Greeting destroyed by its last holder\n"); }
};
}  // namespace

void tourObjects() {
    std::printf("\n-- Object model --\n"
                "[examples/tour_foundation.cpp: Utils::Object, Utils::CountedRef (utils/object.h)]\n");
    Utils::CountedRef<Greeting> a(new Greeting);
    {
        Utils::CountedRef<Greeting> b = a;
        std::printf("two holders: count %u\n", a->refCount());
    }
    std::printf("one holder: count %u\n", a->refCount());
    a.reset();
    Utils::Problem p("problem %d: %s", 7, "formatted on the stack");
    std::printf("Problem text: \"%s\"\n", p.text);
}
