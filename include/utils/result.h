// Results and error reporting.
//
// A result code is a 32-bit unsigned int: bit 31 set means failure (the code read
// as a signed int is negative), 0 is plain success. Each task (thread) has one last
// error. raiseError records a code as the calling task's last error, then, unless
// the code is suppressed, logs the line
//     `error|utils|Raising error: <text>`
// (class error, category "utils", level -3, source "result" line 65) through the
// process's log hub and hands the code to every registered ResultListener. Codes
// can be given readable texts with ResultString.
//
// Threads: every function here may be called from several threads at once; the
// tables are guarded by one lock that is never held while logging or while a
// listener runs. raiseError may be called when memory is exhausted, also by the
// process allocator from inside the hub's or these tables' own work: an error
// raised while the same thread is inside that work is returned without being
// recorded, logged or notified, and one raised while the same thread is logging an
// error (a sink failing) is recorded and notified but not logged again, so raising
// never recurses without end.
#pragma once

#include "utils/export.h"

namespace Utils {

// Codes the library itself uses.
constexpr unsigned int kResultFailure = 0x80000000u;       // generic failure
constexpr unsigned int kResultNotSupported = 0x80000001u;  // operation not offered (allocators without colours)
constexpr unsigned int kResultOutOfMemory = 0x80000002u;   // the system layer has no memory left
constexpr unsigned int kResultBadArgument = 0x80000003u;   // bad argument (versions, setColor)

// True when `code`, read as a signed 32-bit value, is a failure.
inline bool failed(unsigned int code) { return static_cast<int>(code) < 0; }

// Records `code` as the calling task's last error (even when it is suppressed),
// then, unless it is suppressed, logs "Raising error: <resultToString(code)>" and
// calls resultRaised(code) on every listener in registration order. The listener
// list's length is read again after each call: a listener added during the walk is
// called in the same walk; a listener that removes itself during the walk makes the
// one after it skipped this time. A listener's exception passes through. Returns
// `code` unchanged.
ZO_API unsigned int raiseError(unsigned int code);
// The calling task's last raised code; 0 when it never raised one (asking makes the
// task's entry, at 0).
ZO_API unsigned int lastError();
// Sets the calling task's last code to 0.
ZO_API void clearError();
// Suppression is a counted stack per code: suppressing a code twice needs two
// clears before it is logged again. Clearing a code that is not suppressed does
// nothing. A suppressed code is still recorded as the last error.
ZO_API void setErrorSuppressed(unsigned int code);
ZO_API void clearErrorSuppressed(unsigned int code);
// The registered text of `code`, else "Failure #0x%08x" (negative codes) or
// "Success #0x%08x", eight lower-case hex digits. The generated text lives in a
// 40-byte buffer of the calling thread, overwritten by that thread's next call and
// by no other thread. The buffer is never freed, not even when its thread ends: a
// text that a worker hands to another thread stays readable until the process
// ends (one small block per thread that ever asks). When there is no memory for a
// thread's buffer, that call's text lies in one buffer shared by every such call.
ZO_API char const* resultToString(unsigned int code);

// Registers a text for a code for the object's lifetime; meant to be declared
// static next to the definition of the code. The text is not copied: it must
// outlive the registration.
//  - First registration wins: a second ResultString for a code already having a
//    text is ignored.
//  - Any destruction removes: destroying either of two ResultStrings for one code
//    leaves the code without text (kept on purpose).
// The text table lives until the process ends, so static ResultStrings may be
// destroyed in any order.
class ZO_API ResultString {
public:
    ResultString(unsigned int code, char const* text);
    ~ResultString();
    ResultString(ResultString const&) = delete;
    ResultString& operator=(ResultString const&) = delete;

private:
    unsigned int code;
};

// An observer of raised, unsuppressed codes. It is called on the raising thread,
// with no lock held, so it may raise, log and add or remove listeners itself.
class ZO_API ResultListener {
public:
    virtual ~ResultListener();
    virtual void resultRaised(unsigned int code) const = 0;
};

// Appends `listener` (no duplicate check: a listener added twice is called twice).
// It must stay alive until removed, and until walks already running in other
// threads have finished with it.
ZO_API void addResultListener(ResultListener const* listener);
// Removes one occurrence of `listener`; nothing when it is absent.
ZO_API void removeResultListener(ResultListener const* listener);

}  // namespace Utils
