// A program over the installed library (not its internal build): its locks and
// events, and what the library reports at load about its settings. test_sync_edges
// runs it with a prepared environment and reads standard output and error.
#include <cerrno>
#include <cstdio>

#include "utils/event.h"
#include "utils/lock.h"

using namespace Utils;

int main() {
    {
        CriticalSection section;
        int first = section.enter();
        int again = section.enter();
        int exit1 = section.exit();
        int exit2 = section.exit();
        int extra = section.exit();
        {
            Locker held(&section, nullptr, 0);
            std::printf("section: enter=%d again=%d exit=%d exit=%d extra-exit=%s locker-entered=%s\n", first, again,
                        exit1, exit2, extra == EPERM ? "EPERM" : "other", section.exit() == 0 ? "yes" : "no");
            section.enter();  // for the locker's exit
        }
        std::printf("section after locker: exit=%s\n", section.exit() == EPERM ? "EPERM" : "other");
    }
    {
        CoopWaitableEvent event(false, true);
        bool first = event.wait(0.0);
        bool second = event.wait(0.0);
        int set = event.set();
        int wait = event.wait();
        bool after = event.wait(-1.0);
        std::printf("coop event: first=%d second=%d set=%d wait=%d after=%d\n", first, second, set, wait, after);
    }
    return 0;
}
