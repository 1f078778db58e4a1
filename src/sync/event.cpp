// Events over the system layer. Each operation is one system-layer call whose
// status is handed back unchanged; the timed waits reduce it to a bool (any
// nonzero result means signalled).
#include "utils/event.h"

#include "zosys.h"

namespace Utils {

WaitableEvent::WaitableEvent(bool manualReset, bool initiallySignalled)
    : handle(ZoIF_CreateEvent(manualReset, initiallySignalled)) {}
WaitableEvent::~WaitableEvent() { ZoIF_DestroyEvent(handle); }
int WaitableEvent::set() { return ZoIF_SetEvent(handle); }
int WaitableEvent::reset() { return ZoIF_ResetEvent(handle); }
int WaitableEvent::wait() { return ZoIF_WaitEvent(handle); }
bool WaitableEvent::wait(double timeout) { return ZoIF_WaitEventTimed(handle, timeout) != 0; }

CoopWaitableEvent::CoopWaitableEvent(bool manualReset, bool initiallySignalled)
    : handle(ZoIF_CreateEventCoop(manualReset, initiallySignalled)) {}
CoopWaitableEvent::~CoopWaitableEvent() { ZoIF_DestroyEventCoop(handle); }
int CoopWaitableEvent::set() { return ZoIF_SetEventCoop(handle); }
int CoopWaitableEvent::reset() { return ZoIF_ResetEventCoop(handle); }
int CoopWaitableEvent::wait() { return ZoIF_WaitEventCoop(handle); }
bool CoopWaitableEvent::wait(double timeout) { return ZoIF_WaitEventTimedCoop(handle, timeout) != 0; }

}  // namespace Utils
