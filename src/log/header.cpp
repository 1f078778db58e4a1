// The line header: "class[level]|category|" widened by verbosity.
#include <cstdio>
#include <cstring>

#include "utils/log.h"
#include "zosys.h"

namespace Utils {

int itemHeader(char const* className, char const* catName, int level, char const* file, unsigned int line,
               char* buffer, unsigned int size, unsigned int verbosity) {
    strncpy(buffer, className, size);
    unsigned long length = strnlen(buffer, size);
    // Each piece goes in with snprintf limited to what is left; snprintf counts what
    // it would have written, so a cut piece takes the length past `size` and the
    // header stops there.
#define ZO_HEADER_APPEND(...)                                                                    \
    do {                                                                                         \
        length += static_cast<unsigned long>(snprintf(buffer + length, size - length, __VA_ARGS__)); \
        if (length > size) return static_cast<int>(length);                                     \
    } while (0)
    if (length > size) return static_cast<int>(length);
    if (level >= 0) ZO_HEADER_APPEND("[%d]", level);
    ZO_HEADER_APPEND("|%s", catName);
    if (verbosity == 0) {
        ZO_HEADER_APPEND("|");
        return static_cast<int>(length);
    }
    ZO_HEADER_APPEND("|%s:%d", file, static_cast<int>(line));
    if (verbosity == 1) {
        ZO_HEADER_APPEND("|");
        return static_cast<int>(length);
    }
    double time = ZoIF_ZeroBasedTime();
    int task = ZoIF_CurrentTaskId();
    int coopTask = ZoIF_CurrentTaskIdCoop();
    ZO_HEADER_APPEND("|%lf|%d|%d|", time, task, coopTask);
#undef ZO_HEADER_APPEND
    return static_cast<int>(length);
}

}  // namespace Utils
