// Diagnostics of the system layer on standard error. Internal to libzosys.
//
// Each line is formatted on the stack and handed to the kernel in one write, so
// lines from different threads never interleave, and nothing here allocates: it
// may run while the library's allocator is being built (ZOSYS_MEM_LIMIT).
#pragma once

namespace zosys {

// Prints "zosys: <message>\n" unless the very same line was printed before by
// this process. Returns true when it printed.
bool reportOnce(char const* format, ...) __attribute__((format(printf, 1, 2)));

// Prints "zosys: <message>\n" every time.
void report(char const* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zosys
