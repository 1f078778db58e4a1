// Results and error reporting.
//
// A result code is a 32-bit unsigned int: bit 31 set means failure, 0 is plain
// success. Each task (thread) has one last error; raising a code records it, logs it
// (category "utils", class error, level -3) unless the code is suppressed, and hands
// it to every registered ResultListener. Codes can be given readable texts.
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

// Records `code` as the calling task's last error (even when suppressed), then,
// unless it is suppressed, logs "Raising error: <text>" and calls every listener.
// Returns `code` unchanged.
ZO_API unsigned int raiseError(unsigned int code);
// The calling task's last raised code; 0 when it never raised one.
ZO_API unsigned int lastError();
// Sets the calling task's last code to 0.
ZO_API void clearError();
// Suppression is a counted stack per code: suppressing twice needs two clears.
ZO_API void setErrorSuppressed(unsigned int code);
ZO_API void clearErrorSuppressed(unsigned int code);
// The registered text of `code`, else "Failure #0x%08x" / "Success #0x%08x".
ZO_API char const* resultToString(unsigned int code);

// Registers a text for a code for its lifetime; meant to be declared static next
// to the definition of the code. The text is not copied.
class ZO_API ResultString {
public:
    ResultString(unsigned int code, char const* text);
    ~ResultString();
    ResultString(ResultString const&) = delete;
    ResultString& operator=(ResultString const&) = delete;

private:
    unsigned int code;
};

// An observer of raised, unsuppressed codes.
class ZO_API ResultListener {
public:
    virtual ~ResultListener();
    virtual void resultRaised(unsigned int code) const = 0;
};

ZO_API void addResultListener(ResultListener const* listener);
ZO_API void removeResultListener(ResultListener const* listener);

}  // namespace Utils
