// Events: objects that one thread signals and others wait on, over the system
// layer's events. WaitableEvent is for ordinary threads, CoopWaitableEvent for
// cooperative tasks; over this library's system layer every thread is both, and
// the two behave the same.
//
// An event is manual-reset (it stays signalled until reset(), letting every waiter
// through) or auto-reset (each wait that finds it signalled consumes the signal, so
// exactly one waiter passes per set()). Both are counted objects (utils/object.h):
// they can be shared through CountedRef. set, reset and wait may be called from
// different threads at once; the object holds nothing but its system-layer handle.
//
// Timeouts are in seconds, passed to the system layer unconverted; a negative
// timeout polls without blocking.
#pragma once

#include "utils/export.h"
#include "utils/object.h"

namespace Utils {

class ZO_API WaitableEvent : public Object {
public:
    // Creates the event; a failed creation is not detected.
    WaitableEvent(bool manualReset, bool initiallySignalled);
    ~WaitableEvent() override;
    WaitableEvent(WaitableEvent const&) = delete;
    WaitableEvent& operator=(WaitableEvent const&) = delete;

    // Signal, unsignal, or block until signalled. Each returns the system layer's
    // status unchanged: 0 for success.
    int set();
    int reset();
    int wait();
    // Waits at most `timeout` seconds: true when the system layer reports any
    // nonzero result (the event was signalled), false for 0 (timed out).
    bool wait(double timeout);

private:
    unsigned int handle;
};

// The same over the system layer's cooperative events.
class ZO_API CoopWaitableEvent : public Object {
public:
    CoopWaitableEvent(bool manualReset, bool initiallySignalled);
    ~CoopWaitableEvent() override;
    CoopWaitableEvent(CoopWaitableEvent const&) = delete;
    CoopWaitableEvent& operator=(CoopWaitableEvent const&) = delete;

    int set();
    int reset();
    int wait();
    bool wait(double timeout);

private:
    unsigned int handle;
};

}  // namespace Utils
