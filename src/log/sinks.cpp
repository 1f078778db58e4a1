// The sinks: where finished log lines go.
//
// Every sink formats in storage of its own call (the file sink's 480-byte buffer is
// on the stack), so sinks need no lock of their own; each line reaches its
// destination in one piece (one ZoIF_Write, one vsyslog, or the text and its "\n"
// under the stdio stream lock).
#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "utils/log.h"
#include "zosys.h"

namespace Utils {

int NullLogger::print(MessageClass, char const*, va_list) { return 0; }

// ---------------------------------------------------------------------------

namespace {
constexpr int kOpenReplace = 2;  // ZoIF_Open: truncate or create
constexpr int kOpenAppend = 4;   // ZoIF_Open: append, keeping the old contents
constexpr unsigned int kFileLineBuffer = 480;
constexpr unsigned int kFileLineLimit = 479;  // vsnprintf size: at most 478 characters, then "\n"
}  // namespace

FileLogger::FileLogger(char const* path, OpenMode mode)
    : handle(ZoIF_Open(path, mode == Append ? kOpenAppend : kOpenReplace, 1)) {}

FileLogger::~FileLogger() {
    if (valid()) ZoIF_Close(handle);
}

bool FileLogger::valid() const { return handle != -1; }

int FileLogger::print(MessageClass c, char const* format, va_list args) {
    if (!valid()) return 0;
    char buffer[kFileLineBuffer];
    int n = vsnprintf(buffer, kFileLineLimit, format, args);
    // vsnprintf reports the untruncated length; what the buffer holds is what counts.
    unsigned int length = n < 0 ? 0 : static_cast<unsigned int>(strlen(buffer));
    if (n < 0) buffer[0] = '\0';
    buffer[length++] = '\n';  // length <= 478 here, so the newline and NUL fit
    buffer[length] = '\0';
    int written = ZoIF_Write(handle, buffer, length);
    if (c == MessageError) return ZoIF_Flush(handle);
    return written;
}

// ---------------------------------------------------------------------------

StdLogger::StdLogger(Channel ch) : channel(ch) {}

int StdLogger::print(MessageClass c, char const* format, va_list args) {
    FILE* stream = channel == StdOut ? stdout : stderr;
    // The text and its newline go out under the stream's lock, so lines of
    // concurrent threads never interleave.
    flockfile(stream);
    vfprintf(stream, format, args);
    int result = fprintf(stream, "\n");
    if (c == MessageError) result = fflush(stream);
    funlockfile(stream);
    return result;
}

// ---------------------------------------------------------------------------

SystemLogger::SystemLogger(char const* ident) { openlog(ident ? ident : "zo_logger", LOG_PID, LOG_USER); }

SystemLogger::~SystemLogger() { closelog(); }

int SystemLogger::print(MessageClass c, char const* format, va_list args) {
    int priority;
    switch (c) {
        case MessageError: priority = LOG_ERR; break;
        case MessageWarning: priority = LOG_WARNING; break;
        case MessageInfo: priority = LOG_INFO; break;
        default: priority = LOG_DEBUG; break;
    }
    vsyslog(priority, format, args);
    return 0;
}

// ---------------------------------------------------------------------------

DialogLogger::DialogLogger() = default;

int DialogLogger::print(MessageClass, char const*, va_list) { return 0; }

}  // namespace Utils
